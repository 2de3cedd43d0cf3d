#include "ConvolutionalCRF.h"

#include <omp.h>

#include <algorithm>
#include <cmath>

namespace Merivane::Seg::internal {

namespace {
int window(int radius, int size) { return std::min(2 * radius + 1, size); }

// Linear interpolation position along one axis from reduced size n at factor f.
struct Tap {
  int lo, hi;
  float t;
};
std::vector<Tap> taps(int full, int n, int f) {
  std::vector<Tap> out(static_cast<size_t>(full));
  for (int i = 0; i < full; ++i) {
    const float r = (static_cast<float>(i) + 0.5f) / static_cast<float>(f) - 0.5f;
    const float fl = std::floor(r);
    const int lo = std::max(0, static_cast<int>(fl));
    out[static_cast<size_t>(i)] = {lo, std::min(lo + 1, n - 1), r - fl};
  }
  return out;
}
}  // namespace

CrfGrid ConvolutionalCRF::reducedGrid(const CrfGrid& g, int f) {
  f = std::max(f, 1);
  const auto r = [f](int size) { return (size + (f - size % f) % f) / f; };
  return {r(g.w), r(g.h), g.d < 2 ? g.d : r(g.d)};
}

double ConvolutionalCRF::kernelCount(const CrfGrid& g, const CrfSettings& s) {
  const CrfGrid r = reducedGrid(g, s.downsampling);
  return static_cast<double>(r.count()) * window(s.radius, g.w) * window(s.radius, g.h) * window(s.radius, g.d);
}

std::vector<float> ConvolutionalCRF::defaultCompatibility(int classes) {
  std::vector<float> m(static_cast<size_t>(classes) * static_cast<size_t>(classes), 1.0f);
  for (int c = 0; c < classes; ++c) m[static_cast<size_t>(c) * static_cast<size_t>(classes) + static_cast<size_t>(c)] = 0.0f;
  return m;
}

std::vector<float> ConvolutionalCRF::reduce(const std::vector<float>& in, const CrfGrid& g, int channels, int factor) {
  const int f = std::max(factor, 1);
  const CrfGrid r = reducedGrid(g, f);
  const int fz = g.d < 2 ? 1 : f;
  std::vector<float> out(r.count() * static_cast<size_t>(channels), 0.0f);
  const float norm = 1.0f / static_cast<float>(f * f * fz);
#pragma omp parallel for schedule(static) if (r.count() >= 4096)
  for (int row = 0; row < r.d * r.h; ++row) {
    const int z = row / r.h, y = row % r.h;
    std::vector<float> acc(static_cast<size_t>(channels));
    for (int x = 0; x < r.w; ++x) {
      std::fill(acc.begin(), acc.end(), 0.0f);
      for (int dz = 0; dz < fz; ++dz)
        for (int dy = 0; dy < f; ++dy)
          for (int dx = 0; dx < f; ++dx) {
            // Padded cells take the nearest real cell.
            const int sz = std::min(z * fz + dz, g.d - 1), sy = std::min(y * f + dy, g.h - 1),
                      sx = std::min(x * f + dx, g.w - 1);
            const float* p = &in[((static_cast<size_t>(sz) * g.h + sy) * g.w + sx) * channels];
            for (int c = 0; c < channels; ++c) acc[static_cast<size_t>(c)] += p[c];
          }
      float* o = &out[((static_cast<size_t>(z) * r.h + y) * r.w + x) * channels];
      for (int c = 0; c < channels; ++c) o[c] = acc[static_cast<size_t>(c)] * norm;
    }
  }
  return out;
}

void ConvolutionalCRF::softmax(float* out, const float* in, int classes) {
  float m = in[0];
  for (int c = 1; c < classes; ++c) m = std::max(m, in[c]);
  float sum = 0.0f;
  for (int c = 0; c < classes; ++c) sum += out[c] = std::exp(in[c] - m);
  sum = std::max(sum, 1e-6f);
  for (int c = 0; c < classes; ++c) out[c] /= sum;
}

ConvolutionalCRF::ConvolutionalCRF(const CrfGrid& grid, int featureChannels, int classes, const CrfSettings& settings)
    : grid_(grid),
      reduced_(reducedGrid(grid, settings.downsampling)),
      F_(featureChannels),
      C_(classes),
      s_(settings),
      kx_(window(settings.radius, grid.w)),
      ky_(window(settings.radius, grid.h)),
      kz_(window(settings.radius, grid.d)),
      compat_(defaultCompatibility(classes)) {
  s_.downsampling = std::max(s_.downsampling, 1);
  // Spatial weights: exponential decay of the distance (not squared) in reduced pixels.
  const float sigma = s_.smoothnessSigma * static_cast<float>(s_.radius);
  for (int dz = -(kz_ - 1) / 2; dz <= (kz_ - 1) / 2; ++dz)
    for (int dy = -(ky_ - 1) / 2; dy <= (ky_ - 1) / 2; ++dy)
      for (int dx = -(kx_ - 1) / 2; dx <= (kx_ - 1) / 2; ++dx)
        spatial_.push_back(std::exp(-0.5f * std::sqrt(static_cast<float>(dx * dx + dy * dy + dz * dz)) / sigma));
}

void ConvolutionalCRF::buildKernels(const std::vector<float>& features) {
  const std::vector<float> fr = reduce(features, grid_, F_, s_.downsampling);
  const CrfGrid& r = reduced_;
  const int hx = (kx_ - 1) / 2, hy = (ky_ - 1) / 2, hz = (kz_ - 1) / 2;
  const size_t offsets = spatial_.size();
  kernels_.assign(r.count() * offsets, 0.0f);
  // Each reduced pixel writes its own slice of the kernels.
#pragma omp parallel for schedule(static) if (r.count() >= 1024)
  for (int row = 0; row < r.d * r.h; ++row) {
    const int z = row / r.h, y = row % r.h;
    for (int x = 0; x < r.w; ++x) {
      const size_t p = (static_cast<size_t>(z) * r.h + y) * r.w + x;
      const float* fp = &fr[p * F_];
      float* k = &kernels_[p * offsets];
      size_t o = 0;
      for (int dz = -hz; dz <= hz; ++dz) {
        const int qz = std::clamp(z + dz, 0, r.d - 1);
        for (int dy = -hy; dy <= hy; ++dy) {
          const int qy = std::clamp(y + dy, 0, r.h - 1);
          for (int dx = -hx; dx <= hx; ++dx, ++o) {
            const int qx = std::clamp(x + dx, 0, r.w - 1);
            const float* fq = &fr[((static_cast<size_t>(qz) * r.h + qy) * r.w + qx) * F_];
            float dist = 0.0f;
            for (int c = 0; c < F_; ++c) dist += (fp[c] - fq[c]) * (fp[c] - fq[c]);
            k[o] = s_.smoothWeight * spatial_[o] + s_.adaptiveness * std::exp(-0.5f * std::sqrt(dist) / s_.appearanceSigma);
          }
        }
      }
    }
  }
}

ConvolutionalCRF::Stop ConvolutionalCRF::run(const std::vector<float>& unary, std::vector<float>& q,
                                            const std::function<bool()>& canceled, int* iterations) const {
  const size_t n = grid_.count();
  const int C = C_;
  q.resize(n * static_cast<size_t>(C));
  const bool big = n >= 4096;
#pragma omp parallel for schedule(static) if (big)
  for (ptrdiff_t i = 0; i < static_cast<ptrdiff_t>(n); ++i) softmax(&q[static_cast<size_t>(i) * C], &unary[static_cast<size_t>(i) * C], C);
  if (iterations) *iterations = 0;

  const CrfGrid& r = reduced_;
  const int hx = (kx_ - 1) / 2, hy = (ky_ - 1) / 2, hz = (kz_ - 1) / 2;
  const size_t offsets = spatial_.size();
  const int f = s_.downsampling;
  const std::vector<Tap> tx = taps(grid_.w, r.w, f), ty = taps(grid_.h, r.h, f),
                         tz = grid_.d < 2 ? std::vector<Tap>{{0, 0, 0.0f}} : taps(grid_.d, r.d, f);
  std::vector<float> message(r.count() * static_cast<size_t>(C));
  const float unaryWeight = 1.0f - s_.adaptiveness;
  for (int t = 0; t < s_.maxNumIter; ++t) {
    if (canceled && canceled()) return Stop::Canceled;
    const std::vector<float> qr = reduce(q, grid_, C, f);
    // Window sums on the reduced grid, then the compatibility transform.
#pragma omp parallel for schedule(static) if (r.count() >= 1024)
    for (int row = 0; row < r.d * r.h; ++row) {
      const int z = row / r.h, y = row % r.h;
      std::vector<float> m(static_cast<size_t>(C));
      for (int x = 0; x < r.w; ++x) {
        const size_t p = (static_cast<size_t>(z) * r.h + y) * r.w + x;
        const float* k = &kernels_[p * offsets];
        std::fill(m.begin(), m.end(), 0.0f);
        size_t o = 0;
        for (int dz = -hz; dz <= hz; ++dz) {
          const int qz = std::clamp(z + dz, 0, r.d - 1);
          for (int dy = -hy; dy <= hy; ++dy) {
            const float* line = &qr[(static_cast<size_t>(qz) * r.h + std::clamp(y + dy, 0, r.h - 1)) * r.w * C];
            for (int dx = -hx; dx <= hx; ++dx, ++o) {
              const float* qq = line + static_cast<size_t>(std::clamp(x + dx, 0, r.w - 1)) * C;
              for (int l = 0; l < C; ++l) m[static_cast<size_t>(l)] += k[o] * qq[l];
            }
          }
        }
        float* out = &message[p * C];
        for (int c = 0; c < C; ++c) {
          float s = 0.0f;
          for (int l = 0; l < C; ++l) s += compat_[static_cast<size_t>(c) * C + l] * m[static_cast<size_t>(l)];
          out[c] = -s;
        }
      }
    }
    // Upsample, add the weighted unary, softmax, and count the pixels that changed.
    long changed = 0;
#pragma omp parallel for schedule(static) reduction(+ : changed) if (big)
    for (int row = 0; row < grid_.d * grid_.h; ++row) {
      const int z = row / grid_.h, y = row % grid_.h;
      const Tap& az = tz[static_cast<size_t>(grid_.d < 2 ? 0 : z)];
      const Tap& ay = ty[static_cast<size_t>(y)];
      std::vector<float> logit(static_cast<size_t>(C)), qnew(static_cast<size_t>(C));
      const auto at = [&](int zz, int yy, int xx) { return &message[((static_cast<size_t>(zz) * r.h + yy) * r.w + xx) * C]; };
      for (int x = 0; x < grid_.w; ++x) {
        const Tap& ax = tx[static_cast<size_t>(x)];
        const size_t i = (static_cast<size_t>(z) * grid_.h + y) * grid_.w + x;
        for (int c = 0; c < C; ++c) {
          const auto plane = [&](int zz) {
            const float a = at(zz, ay.lo, ax.lo)[c] + ax.t * (at(zz, ay.lo, ax.hi)[c] - at(zz, ay.lo, ax.lo)[c]);
            const float b = at(zz, ay.hi, ax.lo)[c] + ax.t * (at(zz, ay.hi, ax.hi)[c] - at(zz, ay.hi, ax.lo)[c]);
            return a + ay.t * (b - a);
          };
          float v = plane(az.lo);
          if (grid_.d >= 2) v += az.t * (plane(az.hi) - v);
          logit[static_cast<size_t>(c)] = v + unaryWeight * unary[i * C + c];
        }
        softmax(qnew.data(), logit.data(), C);
        float* qi = &q[i * C];
        float b = 0.0f;
        for (int c = 0; c < C; ++c) {
          b += std::sqrt(qi[c] * qnew[static_cast<size_t>(c)]);
          qi[c] = qnew[static_cast<size_t>(c)];
        }
        if (b < 0.95f) ++changed;
      }
    }
    if (iterations) *iterations = t + 1;
    if (s_.convergenceThreshold > static_cast<float>(changed) * 100.0f / static_cast<float>(n)) return Stop::Converged;
  }
  return Stop::MaxIterations;
}

}  // namespace Merivane::Seg::internal
