#include "HessianAnalysis.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "ImageProcessing.h"
#include "SharedImage.h"

namespace Merivane {

namespace {

// Eigenvalues of the symmetric matrix [a d e; d b f; e f c] in closed form: the roots of the
// characteristic cubic through the shifted, scaled matrix B = (A - q I) / p, whose eigenvalues
// are 2 cos(phi + 2 pi k / 3) with cos(3 phi) = det(B) / 2. False for non-finite input.
inline bool symmetricEigenvalues(double a, double b, double c, double d, double e, double f, double ev[3]) {
  const double p1 = d * d + e * e + f * f;
  const double q = (a + b + c) / 3.0;
  if (!std::isfinite(p1 + q)) return false;
  if (p1 == 0.0) {
    ev[0] = a;
    ev[1] = b;
    ev[2] = c;
    return true;
  }
  const double aq = a - q, bq = b - q, cq = c - q;
  const double p = std::sqrt((aq * aq + bq * bq + cq * cq + 2.0 * p1) / 6.0);
  const double inv = 1.0 / p;
  const double ba = aq * inv, bb = bq * inv, bc = cq * inv, bd = d * inv, be = e * inv, bf = f * inv;
  const double det = ba * (bb * bc - bf * bf) - bd * (bd * bc - bf * be) + be * (bd * bf - bb * be);
  const double phi = std::acos(std::clamp(0.5 * det, -1.0, 1.0)) / 3.0;
  ev[0] = q + 2.0 * p * std::cos(phi);
  ev[2] = q + 2.0 * p * std::cos(phi + 2.0 * std::numbers::pi / 3.0);
  ev[1] = 3.0 * q - ev[0] - ev[2];
  return true;
}

inline void sortByMagnitude(double ev[3]) {
  if (std::abs(ev[0]) > std::abs(ev[1])) std::swap(ev[0], ev[1]);
  if (std::abs(ev[1]) > std::abs(ev[2])) std::swap(ev[1], ev[2]);
  if (std::abs(ev[0]) > std::abs(ev[1])) std::swap(ev[0], ev[1]);
}

std::vector<float> gaussianKernel(double sigma) {
  const int r = std::max(1, static_cast<int>(std::ceil(3.0 * sigma)));
  std::vector<float> w(static_cast<size_t>(2 * r + 1));
  double sum = 0.0;
  for (int k = -r; k <= r; ++k) {
    const double v = sigma > 0 ? std::exp(-0.5 * k * k / (sigma * sigma)) : (k == 0 ? 1.0 : 0.0);
    w[static_cast<size_t>(k + r)] = static_cast<float>(v);
    sum += v;
  }
  for (float& v : w) v = static_cast<float>(v / sum);
  return w;
}

// One separable pass of `w` along `axis` from `in` to `out` (same size), the edge voxel
// repeated. Along y and z whole rows are combined, which keeps the inner loop contiguous.
void smoothAxis(const float* in, float* out, const Eigen::Vector3i& dims, int axis, const std::vector<float>& w) {
  const int nx = dims[0], ny = dims[1], nz = dims[2];
  const int r = static_cast<int>(w.size() / 2);
  const size_t row = static_cast<size_t>(nx), slice = row * static_cast<size_t>(ny);
  if (axis == 0) {
#pragma omp parallel if (nz >= 9)
    {
      std::vector<float> line(static_cast<size_t>(nx + 2 * r));
#pragma omp for schedule(static)
      for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y) {
          const float* src = in + static_cast<size_t>(z) * slice + static_cast<size_t>(y) * row;
          float* dst = out + static_cast<size_t>(z) * slice + static_cast<size_t>(y) * row;
          for (int i = 0; i < nx + 2 * r; ++i) line[static_cast<size_t>(i)] = src[std::clamp(i - r, 0, nx - 1)];
          for (int x = 0; x < nx; ++x) {
            const float* l = line.data() + x;
            float acc = 0.0f;
            for (int k = 0; k <= 2 * r; ++k) acc += w[static_cast<size_t>(k)] * l[k];
            dst[x] = acc;
          }
        }
    }
    return;
  }
#pragma omp parallel for schedule(static) if (nz >= 9)
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y) {
      float* dst = out + static_cast<size_t>(z) * slice + static_cast<size_t>(y) * row;
      std::fill(dst, dst + nx, 0.0f);
      for (int k = -r; k <= r; ++k) {
        const int yy = axis == 1 ? std::clamp(y + k, 0, ny - 1) : y;
        const int zz = axis == 2 ? std::clamp(z + k, 0, nz - 1) : z;
        const float* src = in + static_cast<size_t>(zz) * slice + static_cast<size_t>(yy) * row;
        const float wk = w[static_cast<size_t>(k + r)];
        for (int x = 0; x < nx; ++x) dst[x] += wk * src[x];
      }
    }
}

}  // namespace

HessianAnalysis::~HessianAnalysis() = default;

bool HessianAnalysis::computeMeasure(const TypedImage<float>& image, TypedImage<float>& out) const {
  if (image.dimensions() != out.dimensions() || out.channels() != 1) return false;
  const Eigen::Vector3i dims = image.dimensions();
  const int nx = dims[0], ny = dims[1], nz = dims[2];
  const size_t count = image.descriptor().pixelCount();
  out.fill(0.0f);
  if (nx < 3 || ny < 3 || nz < 3) return true;
  const Eigen::Vector3d s = image.spacing();

  // Channel 0 as a dense volume, the input of every scale.
  std::vector<float> base(count);
  const int c = image.channels();
  for (size_t i = 0; i < count; ++i) base[i] = image.pointer()[i * static_cast<size_t>(c)];

  std::vector<float> smoothed, scratch;
  const std::vector<double> passes = scales.empty() ? std::vector<double>{0.0} : scales;
  for (size_t pass = 0; pass < passes.size(); ++pass) {
    const double sigma = passes[pass];
    const float* f = base.data();
    // Weights of the pure and the mixed differences.
    double wxx, wyy, wzz, wxy, wxz, wyz;
    if (scales.empty()) {
      wxx = 1.0 / (4.0 * s[0] * s[0]);
      wyy = 1.0 / (4.0 * s[1] * s[1]);
      wzz = 1.0 / (4.0 * s[2] * s[2]);
    } else {
      smoothed.resize(count);
      scratch.resize(count);
      smoothAxis(base.data(), smoothed.data(), dims, 0, gaussianKernel(sigma / s[0]));
      smoothAxis(smoothed.data(), scratch.data(), dims, 1, gaussianKernel(sigma / s[1]));
      smoothAxis(scratch.data(), smoothed.data(), dims, 2, gaussianKernel(sigma / s[2]));
      f = smoothed.data();
      const double norm = sigma * sigma;
      wxx = norm / (s[0] * s[0]);
      wyy = norm / (s[1] * s[1]);
      wzz = norm / (s[2] * s[2]);
    }
    const double mixedNorm = scales.empty() ? 1.0 : sigma * sigma;
    wxy = mixedNorm / (4.0 * s[0] * s[1]);
    wxz = mixedNorm / (4.0 * s[0] * s[2]);
    wyz = mixedNorm / (4.0 * s[1] * s[2]);

    const bool first = pass == 0;
    const long sy = nx, sz = static_cast<long>(nx) * ny;
    float* o = out.pointer();
    // Each z writes only slice z of `out`; a voxel depends on nothing written in this pass.
#pragma omp parallel for schedule(static) if (nz >= 9)
    for (int z = 1; z < nz - 1; ++z)
      for (int y = 1; y < ny - 1; ++y) {
        const long rowStart = z * sz + y * sy;
        for (int x = 1; x < nx - 1; ++x) {
          const long i = rowStart + x;
          const double v = f[i];
          const double dxx = (f[i + 1] - 2.0 * v + f[i - 1]) * wxx;
          const double dyy = (f[i + sy] - 2.0 * v + f[i - sy]) * wyy;
          const double dzz = (f[i + sz] - 2.0 * v + f[i - sz]) * wzz;
          const double dxy = (f[i + 1 + sy] - f[i + 1 - sy] - f[i - 1 + sy] + f[i - 1 - sy]) * wxy;
          const double dxz = (f[i + 1 + sz] - f[i + 1 - sz] - f[i - 1 + sz] + f[i - 1 - sz]) * wxz;
          const double dyz = (f[i + sy + sz] - f[i + sy - sz] - f[i - sy + sz] + f[i - sy - sz]) * wyz;
          double ev[3];
          if (!symmetricEigenvalues(dxx, dyy, dzz, dxy, dxz, dyz, ev)) continue;
          sortByMagnitude(ev);
          const float r = zeroForPositiveLargest_ && ev[2] > 0.0
                              ? 0.0f
                              : static_cast<float>(combineEigenvalues(ev[0], ev[1], ev[2]));
          o[i] = first ? r : std::max(o[i], r);
        }
      }
  }
  return true;
}

std::unique_ptr<SharedImage> HessianAnalysis::compute(const SharedImage& image) const {
  const MemImage* mem = image.mem();
  if (!mem || mem->dimension() != 3) return nullptr;
  auto copy = ImageProcessing::createFloat(*mem, ImageProcessing::None);
  copy->setShiftScale(mem->shift(), mem->scale());
  if (maxIntensity > minIntensity) {
    const float lo = static_cast<float>(mem->descriptor().toStored(minIntensity));
    const float hi = static_cast<float>(mem->descriptor().toStored(maxIntensity));
    float* p = static_cast<float*>(copy->data());
    const size_t n = copy->descriptor().elementCount();
    for (size_t i = 0; i < n; ++i) p[i] = std::clamp(p[i], std::min(lo, hi), std::max(lo, hi));
  }
  auto normalised = ImageProcessing::createFloat(*copy, static_cast<ImageProcessing::Normalization>(2));
  ImageDescriptor d = normalised->descriptor();
  d.channels = 1;
  auto out = TypedImage<float>::zeros(d);
  if (!computeMeasure(static_cast<const TypedImage<float>&>(*normalised), *out)) return nullptr;
  auto result = std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(out)));
  result->setMatrix(image.matrix());
  return result;
}

HessianTubularityMeasure::HessianTubularityMeasure(double alpha, double beta, double gamma)
    : alpha(alpha), beta(beta), gamma(gamma) {
  zeroForPositiveLargest_ = true;
}

double HessianTubularityMeasure::combineEigenvalues(double l1, double l2, double l3) const {
  if (l3 > 0.0 || l3 == 0.0) return 0.0;
  const double ra = std::abs(l2) / std::abs(l3);
  const double s2 = l1 * l1 + l2 * l2 + l3 * l3;
  // Rb = |l1| / |l2|; a zero l2 makes it infinite, and exp(-beta^2 Rb^2) then 0 unless beta is 0.
  double blob;
  if (beta == 0.0) blob = 1.0;
  else if (l2 == 0.0) blob = 0.0;
  else {
    const double rb = std::abs(l1) / std::abs(l2);
    blob = std::exp(-beta * beta * rb * rb);
  }
  return blob * (1.0 - ra) * (1.0 - std::exp(-gamma * gamma * s2));
}

}  // namespace Merivane
