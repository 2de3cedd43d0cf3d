#include "ConvolutionalCRF.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace Merivane::Seg::internal {

namespace {
int window(int radius, int size) { return std::min(2 * radius + 1, size); }

// exp(x) for x <= 0 to about 2e-7 relative, branch-free so that loops over it vectorise:
// x = n ln2 + r with |r| <= ln2 / 2, a degree-6 polynomial for e^r, and 2^n put into the
// exponent bits. Below -87 it gives 0.
inline float expNeg(float x) {
  x = std::max(x, -87.0f);
  // Adding 1.5 * 2^23 rounds to the nearest integer in the low mantissa bits.
  const float n = (x * 1.44269504f + 12582912.0f) - 12582912.0f;
  const float r = x - n * 0.693145751953125f - n * 1.428606765330187e-06f;
  float p = 1.3888889e-3f;
  p = p * r + 8.3333333e-3f;
  p = p * r + 4.1666667e-2f;
  p = p * r + 1.6666667e-1f;
  p = p * r + 0.5f;
  p = p * r + 1.0f;
  p = p * r + 1.0f;
  const int bits = (static_cast<int>(n) + 127) << 23;
  float scale;
  std::memcpy(&scale, &bits, sizeof scale);
  return p * scale;
}

// Planar copy of an interleaved grid, grown by (px, py, pz) cells on each side that repeat
// the nearest real cell: window reads then need no clamping.
struct Padded {
  int w, h, d, px, py, pz;
  std::vector<float> data;  // channel planes of w * h * d
  const float* plane(int c) const { return data.data() + static_cast<size_t>(c) * w * h * d; }
  const float* row(int c, int z, int y) const {
    return plane(c) + (static_cast<size_t>(z + pz) * h + (y + py)) * w + px;
  }
};
Padded pad(const std::vector<float>& in, const CrfGrid& g, int channels, int px, int py, int pz) {
  Padded p{g.w + 2 * px, g.h + 2 * py, g.d + 2 * pz, px, py, pz, {}};
  p.data.resize(static_cast<size_t>(channels) * p.w * p.h * p.d);
#pragma omp parallel for schedule(static) if (g.count() >= 4096)
  for (int row = 0; row < p.d * p.h; ++row) {
    const int z = row / p.h, y = row % p.h;
    const int sz = std::clamp(z - pz, 0, g.d - 1), sy = std::clamp(y - py, 0, g.h - 1);
    const float* src = &in[(static_cast<size_t>(sz) * g.h + sy) * g.w * channels];
    for (int c = 0; c < channels; ++c) {
      float* dst = p.data.data() + static_cast<size_t>(c) * p.w * p.h * p.d + static_cast<size_t>(row) * p.w;
      for (int x = 0; x < p.w; ++x) dst[x] = src[static_cast<size_t>(std::clamp(x - px, 0, g.w - 1)) * channels + c];
    }
  }
  return p;
}

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
  for (int c = 0; c < classes; ++c) sum += out[c] = expNeg(in[c] - m);
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
  const CrfGrid& r = reduced_;
  const int hx = (kx_ - 1) / 2, hy = (ky_ - 1) / 2, hz = (kz_ - 1) / 2;
  const Padded f = pad(reduce(features, grid_, F_, s_.downsampling), r, F_, hx, hy, hz);
  const size_t offsets = spatial_.size();
  // Laid out by reduced row, then offset, then x, so that window sums run along x.
  kernels_.assign(r.count() * offsets, 0.0f);
  const float gain = -0.5f / s_.appearanceSigma;
  // Each reduced row writes its own block of the kernels.
#pragma omp parallel for schedule(static) if (r.count() >= 1024)
  for (int row = 0; row < r.d * r.h; ++row) {
    const int z = row / r.h, y = row % r.h;
    std::vector<float> dist(static_cast<size_t>(r.w));
    float* k = &kernels_[static_cast<size_t>(row) * offsets * r.w];
    size_t o = 0;
    for (int dz = -hz; dz <= hz; ++dz)
      for (int dy = -hy; dy <= hy; ++dy)
        for (int dx = -hx; dx <= hx; ++dx, ++o) {
          std::fill(dist.begin(), dist.end(), 0.0f);
          for (int c = 0; c < F_; ++c) {
            const float* fp = f.row(c, z, y);
            const float* fq = f.row(c, z + dz, y + dy) + dx;
            for (int x = 0; x < r.w; ++x) dist[static_cast<size_t>(x)] += (fp[x] - fq[x]) * (fp[x] - fq[x]);
          }
          const float spatial = s_.smoothWeight * spatial_[o];
          float* ko = k + o * static_cast<size_t>(r.w);
          for (int x = 0; x < r.w; ++x)
            ko[x] = spatial + s_.adaptiveness * expNeg(gain * std::sqrt(dist[static_cast<size_t>(x)]));
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
    const Padded qr = pad(reduce(q, grid_, C, f), r, C, hx, hy, hz);
    // Window sums on the reduced grid along rows, then the compatibility transform.
#pragma omp parallel for schedule(static) if (r.count() >= 1024)
    for (int row = 0; row < r.d * r.h; ++row) {
      const int z = row / r.h, y = row % r.h;
      std::vector<float> m(static_cast<size_t>(C) * r.w, 0.0f);
      const float* k = &kernels_[static_cast<size_t>(row) * offsets * r.w];
      size_t o = 0;
      for (int dz = -hz; dz <= hz; ++dz)
        for (int dy = -hy; dy <= hy; ++dy)
          for (int dx = -hx; dx <= hx; ++dx, ++o) {
            const float* ko = k + o * static_cast<size_t>(r.w);
            for (int l = 0; l < C; ++l) {
              const float* qq = qr.row(l, z + dz, y + dy) + dx;
              float* ml = &m[static_cast<size_t>(l) * r.w];
              for (int x = 0; x < r.w; ++x) ml[x] += ko[x] * qq[x];
            }
          }
      for (int x = 0; x < r.w; ++x) {
        float* out = &message[((static_cast<size_t>(z) * r.h + y) * r.w + x) * C];
        for (int c = 0; c < C; ++c) {
          float s = 0.0f;
          for (int l = 0; l < C; ++l) s += compat_[static_cast<size_t>(c) * C + l] * m[static_cast<size_t>(l) * r.w + x];
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
