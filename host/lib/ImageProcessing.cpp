#include "ImageProcessing.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "Image.h"
#include "Interpolation.h"

namespace Merivane::ImageProcessing {

std::unique_ptr<MemImage> computeFlipped(const MemImage& image, int axis) {
  if (axis < 0 || axis > 2) return nullptr;
  auto out = MemImage::create(image.descriptor(), false);
  if (!out) return nullptr;
  const auto& d = image.descriptor();
  const int w = d.width(), h = d.height(), s = d.slices();
  const size_t pixelBytes = static_cast<size_t>(d.channels) * static_cast<size_t>(d.typeSize());
  const size_t rowBytes = pixelBytes * static_cast<size_t>(w);
  const auto* src = static_cast<const unsigned char*>(image.data());
  auto* dst = static_cast<unsigned char*>(out->data());
#pragma omp parallel for schedule(static) if (s >= 9)
  for (int z = 0; z < s; ++z) {
    for (int y = 0; y < h; ++y) {
      const int sy = axis == 1 ? h - 1 - y : y;
      const int sz = axis == 2 ? s - 1 - z : z;
      const unsigned char* srow = src + (static_cast<size_t>(sz) * h + sy) * rowBytes;
      unsigned char* drow = dst + (static_cast<size_t>(z) * h + y) * rowBytes;
      if (axis != 0) {
        std::memcpy(drow, srow, rowBytes);
      } else {
        for (int x = 0; x < w; ++x) std::memcpy(drow + x * pixelBytes, srow + (w - 1 - x) * pixelBytes, pixelBytes);
      }
    }
  }
  return out;
}

}  // namespace Merivane::ImageProcessing

namespace Merivane {

namespace {

// Stores a double into an element type: integers round to nearest and saturate.
template <typename T>
T toElement(double v) {
  if constexpr (std::is_integral_v<T>) {
    if (!(v == v)) return T(0);
    const double lo = static_cast<double>(std::numeric_limits<T>::lowest());
    const double hi = static_cast<double>(std::numeric_limits<T>::max());
    return static_cast<T>(std::llround(std::clamp(v, lo, hi)));
  } else {
    return static_cast<T>(v);
  }
}

// Calls f(const T* in, T* out) with both images typed; both must share the element type.
template <typename F>
bool withTyped(const MemImage& in, MemImage& out, F f) {
  return dispatchPixelType(in.type(), [&](auto tag) {
    using T = decltype(tag);
    f(static_cast<const T*>(in.data()), static_cast<T*>(out.data()));
  });
}

}  // namespace

namespace ImageProcessing {

std::unique_ptr<MemImage> createFloat(const MemImage& image, Normalization normalization) {
  ImageDescriptor d = image.descriptor();
  d.pixelType = F32;
  d.shift = 0.0;
  d.scale = 1.0;
  auto out = std::make_unique<TypedImage<float>>(d, nullptr, MemImage::Ownership::Owned, false);
  float* o = out->pointer();
  const size_t n = d.elementCount();
  const double shift = image.shift(), scale = image.scale();
  dispatchPixelType(image.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(image.data());
    double a = 1.0, b = 0.0;  // o = p * a + b
    switch (normalization) {
      case None: break;
      case TypeRange:
        if constexpr (std::is_integral_v<T>) a = 1.0 / static_cast<double>(std::numeric_limits<T>::max());
        break;
      case Original:
        a = 1.0 / scale;
        b = -shift;
        break;
      case MinMax: {
        if (n == 0) break;
        auto [lo, hi] = std::minmax_element(p, p + n);
        const double range = static_cast<double>(*hi) - static_cast<double>(*lo);
        a = range > 0 ? 1.0 / range : 0.0;
        b = -static_cast<double>(*lo) * a;
        break;
      }
    }
#pragma omp parallel for schedule(static) if (n > 262144)
    for (ptrdiff_t i = 0; i < static_cast<ptrdiff_t>(n); ++i) o[i] = static_cast<float>(static_cast<double>(p[i]) * a + b);
  });
  return out;
}

std::unique_ptr<MemImage> createCropped(const MemImage& image, const Eigen::Vector3i& offset,
                                        const Eigen::Vector3i& size) {
  const Eigen::Vector3i dims = image.dimensions();
  if ((offset.array() < 0).any() || (size.array() < 1).any() || ((offset + size).array() > dims.array()).any())
    return nullptr;
  ImageDescriptor d = image.descriptor();
  d.dimensions = size;
  auto out = MemImage::create(d, false);
  const size_t px = static_cast<size_t>(d.channels) * static_cast<size_t>(d.typeSize());
  const auto* src = static_cast<const unsigned char*>(image.data());
  auto* dst = static_cast<unsigned char*>(out->data());
#pragma omp parallel for schedule(static) if (size[2] >= 9)
  for (int z = 0; z < size[2]; ++z)
    for (int y = 0; y < size[1]; ++y) {
      const size_t s = ((static_cast<size_t>(z + offset[2]) * dims[1] + (y + offset[1])) * dims[0] + offset[0]) * px;
      const size_t t = ((static_cast<size_t>(z) * size[1] + y) * size[0]) * px;
      std::memcpy(dst + t, src + s, static_cast<size_t>(size[0]) * px);
    }
  return out;
}

std::unique_ptr<MemImage> createPadded(const MemImage& image, PaddingMode mode, const Eigen::Vector3i& low,
                                       const Eigen::Vector3i& high) {
  if ((low.array() < 0).any() || (high.array() < 0).any()) return nullptr;
  const Eigen::Vector3i dims = image.dimensions();
  ImageDescriptor d = image.descriptor();
  d.dimensions = dims + low + high;
  auto out = MemImage::create(d, true);
  const size_t px = static_cast<size_t>(d.channels) * static_cast<size_t>(d.typeSize());
  const auto* src = static_cast<const unsigned char*>(image.data());
  auto* dst = static_cast<unsigned char*>(out->data());
  const Eigen::Vector3i od = d.dimensions;
#pragma omp parallel for schedule(static) if (od[2] >= 9)
  for (int z = 0; z < od[2]; ++z)
    for (int y = 0; y < od[1]; ++y)
      for (int x = 0; x < od[0]; ++x) {
        int sx = x - low[0], sy = y - low[1], sz = z - low[2];
        const bool inside = sx >= 0 && sy >= 0 && sz >= 0 && sx < dims[0] && sy < dims[1] && sz < dims[2];
        if (!inside) {
          if (mode == Zero) continue;
          sx = std::clamp(sx, 0, dims[0] - 1);
          sy = std::clamp(sy, 0, dims[1] - 1);
          sz = std::clamp(sz, 0, dims[2] - 1);
        }
        std::memcpy(dst + ((static_cast<size_t>(z) * od[1] + y) * od[0] + x) * px,
                    src + ((static_cast<size_t>(sz) * dims[1] + sy) * dims[0] + sx) * px, px);
      }
  return out;
}

std::unique_ptr<MemImage> createResampled(const MemImage& image, const Eigen::Vector3d& spacing, bool nearest) {
  if ((spacing.array() <= 0).any()) return nullptr;
  const Eigen::Vector3i dims = image.dimensions();
  const Eigen::Vector3d extent = image.extent();
  ImageDescriptor d = image.descriptor();
  for (int k = 0; k < 3; ++k) d.dimensions[k] = std::max(1, static_cast<int>(std::lround(extent[k] / spacing[k])));
  for (int k = 0; k < 3; ++k) d.spacing[k] = extent[k] / d.dimensions[k];
  auto out = MemImage::create(d, false);
  const Eigen::Vector3i od = d.dimensions;
  const int C = d.channels;
  // Centre-aligned: output voxel v sits at input position (v + 0.5) * ratio - 0.5.
  const Eigen::Vector3d ratio = dims.cast<double>().cwiseQuotient(od.cast<double>());
  withTyped(image, *out, [&](auto* in, auto* o) {
    using T = std::remove_const_t<std::remove_pointer_t<decltype(in)>>;
#pragma omp parallel for schedule(static) if (od[2] >= 9)
    for (int z = 0; z < od[2]; ++z)
      for (int y = 0; y < od[1]; ++y)
        for (int x = 0; x < od[0]; ++x) {
          const Eigen::Vector3d p((x + 0.5) * ratio[0] - 0.5, (y + 0.5) * ratio[1] - 0.5, (z + 0.5) * ratio[2] - 0.5);
          T* dst = o + ((static_cast<size_t>(z) * od[1] + y) * od[0] + x) * C;
          if (nearest) {
            const int ix = std::clamp(static_cast<int>(std::lround(p[0])), 0, dims[0] - 1);
            const int iy = std::clamp(static_cast<int>(std::lround(p[1])), 0, dims[1] - 1);
            const int iz = std::clamp(static_cast<int>(std::lround(p[2])), 0, dims[2] - 1);
            const T* s = in + ((static_cast<size_t>(iz) * dims[1] + iy) * dims[0] + ix) * C;
            for (int c = 0; c < C; ++c) dst[c] = s[c];
            continue;
          }
          const double q[3] = {p[0], p[1], p[2]};
          const Interpolation::Stencil st = Interpolation::stencil(q, dims);
          for (int c = 0; c < C; ++c) {
            const double acc = Interpolation::interpolate(st, [&](int cx, int cy, int cz) {
              return static_cast<double>(in[((static_cast<size_t>(cz) * dims[1] + cy) * dims[0] + cx) * C + c]);
            });
            dst[c] = toElement<T>(acc);
          }
        }
  });
  return out;
}

std::unique_ptr<MemImage> createThresholded(const MemImage& image, int mode, double threshold) {
  if (mode != Binary && mode != BinaryOriginal) return nullptr;
  // Comparing stored values against the threshold mapped to stored units keeps one test per
  // voxel; a negative scale flips the comparison.
  const double scale = image.scale(), shift = image.shift();
  if (mode == BinaryOriginal && scale == 0.0) return nullptr;
  const bool flipped = mode == BinaryOriginal && scale < 0.0;
  if (mode == BinaryOriginal) threshold = (threshold + shift) * scale;
  ImageDescriptor d = image.descriptor();
  d.pixelType = U8;
  d.channels = 1;
  d.shift = 0.0;
  d.scale = 1.0;
  auto out = std::make_unique<TypedImage<unsigned char>>(d, nullptr, MemImage::Ownership::Owned, false);
  unsigned char* o = out->pointer();
  const long n = static_cast<long>(d.pixelCount());
  const int c = image.channels();
  dispatchPixelType(image.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(image.data());
#pragma omp parallel for schedule(static) if (n > (1 << 16))
    for (long i = 0; i < n; ++i) {
      const double v = static_cast<double>(p[i * c]);
      o[i] = (flipped ? v <= threshold : v >= threshold) ? 1 : 0;
    }
  });
  return out;
}

void computeInverted(MemImage& image) {
  const long n = static_cast<long>(image.descriptor().elementCount());
  dispatchPixelType(image.type(), [&](auto tag) {
    using T = decltype(tag);
    T* p = static_cast<T*>(image.data());
#pragma omp parallel for schedule(static) if (n > (1 << 16))
    for (long i = 0; i < n; ++i) p[i] = p[i] == T(0) ? T(1) : T(0);
  });
}

std::vector<std::unique_ptr<MemImage>> computeGradient3D(const MemImage& image) {
  std::vector<std::unique_ptr<MemImage>> out;
  if (image.descriptor().pixelCount() == 0) return out;
  auto values = createFloat(image, None);
  if (!values) return out;
  const Eigen::Vector3i dims = image.dimensions();
  const int c = image.channels();
  const float* v = static_cast<const float*>(values->data());
  ImageDescriptor d = image.descriptor();
  d.pixelType = F32;
  d.channels = 1;
  d.shift = 0.0;
  d.scale = 1.0;
  for (int k = 0; k < 3; ++k) out.push_back(MemImage::create(d, false));
  float* g[3] = {static_cast<float*>(out[0]->data()), static_cast<float*>(out[1]->data()),
                 static_cast<float*>(out[2]->data())};
  const long sx = 1, sy = dims[0], sz = static_cast<long>(dims[0]) * dims[1];
  const long stride[3] = {sx, sy, sz};
#pragma omp parallel for schedule(static) if (dims[2] >= 9)
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) {
        const int pos[3] = {x, y, z};
        const long i = x + y * sy + z * sz;
        for (int k = 0; k < 3; ++k) {
          const int lo = pos[k] > 0 ? 1 : 0, hi = pos[k] + 1 < dims[k] ? 1 : 0;
          const float a = v[(i - lo * stride[k]) * c], b = v[(i + hi * stride[k]) * c];
          g[k][i] = lo + hi == 0 ? 0.0f : (b - a) / static_cast<float>(lo + hi);
        }
      }
  return out;
}

std::vector<SubpixelEdge> computeSubpixelEdgeLocationAndOrientation3D(const MemImage& magnitude, const MemImage& gx,
                                                                       const MemImage& gy, const MemImage& gz,
                                                                       double contrast) {
  std::vector<SubpixelEdge> edges;
  const MemImage* all[4] = {&magnitude, &gx, &gy, &gz};
  for (const MemImage* m : all)
    if (m->type() != F32 || m->channels() != 1 || m->dimensions() != magnitude.dimensions()) return edges;
  const Eigen::Vector3i dims = magnitude.dimensions();
  const float* mag = static_cast<const float*>(magnitude.data());
  const float* g[3] = {static_cast<const float*>(gx.data()), static_cast<const float*>(gy.data()),
                       static_cast<const float*>(gz.data())};
  const long stride[3] = {1, dims[0], static_cast<long>(dims[0]) * dims[1]};
  // Per slice into its own list, then joined in slice order: the same list for any thread count.
  std::vector<std::vector<SubpixelEdge>> perSlice(static_cast<size_t>(dims[2]));
#pragma omp parallel for schedule(dynamic) if (dims[2] >= 9)
  for (int z = 0; z < dims[2]; ++z) {
    auto& list = perSlice[static_cast<size_t>(z)];
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) {
        const long i = x + y * stride[1] + z * stride[2];
        const float m0 = mag[i];
        if (!(m0 >= contrast) || m0 <= 0.0f) continue;
        const Eigen::Vector3d grad(g[0][i], g[1][i], g[2][i]);
        int axis = 0;
        grad.cwiseAbs().maxCoeff(&axis);
        const int pos[3] = {x, y, z};
        // Walk along the gradient's sign so that "previous" is the lower side of the edge.
        const int dir = grad[axis] >= 0.0 ? 1 : -1;
        const int prev = pos[axis] - dir, next = pos[axis] + dir;
        const float mp = prev >= 0 && prev < dims[axis] ? mag[i - dir * stride[axis]] : 0.0f;
        const float mn = next >= 0 && next < dims[axis] ? mag[i + dir * stride[axis]] : 0.0f;
        if (!(m0 >= mp && m0 > mn)) continue;
        const double denom = static_cast<double>(mp) - 2.0 * m0 + mn;
        const double offset = denom < 0.0 ? std::clamp(0.5 * (mp - mn) / denom, -0.5, 0.5) : 0.0;
        SubpixelEdge e;
        e.position = Eigen::Vector3d(x, y, z);
        e.position[axis] += dir * offset;
        e.normal = grad.normalized();
        list.push_back(e);
      }
  }
  for (auto& list : perSlice) edges.insert(edges.end(), list.begin(), list.end());
  return edges;
}

}  // namespace ImageProcessing

namespace Filters {

bool convolve3x3x3(const MemImage& in, MemImage& out, const float kernel[27]) {
  if (in.type() != F32 || out.type() != F32 || in.channels() != 1 || out.channels() != 1 ||
      in.dimensions() != out.dimensions() || !kernel)
    return false;
  const int w = in.width(), h = in.height(), s = in.slices();
  const float* src = static_cast<const float*>(in.data());
  float* dst = static_cast<float*>(out.data());
  if (src == dst) return false;
  const size_t row = static_cast<size_t>(w), slice = row * static_cast<size_t>(h);
  // Each z writes only slice z of `out`.
#pragma omp parallel for schedule(static) if (s >= 9)
  for (int z = 0; z < s; ++z) {
    int zs[3] = {std::max(z - 1, 0), z, std::min(z + 1, s - 1)};
    for (int y = 0; y < h; ++y) {
      int ys[3] = {std::max(y - 1, 0), y, std::min(y + 1, h - 1)};
      for (int x = 0; x < w; ++x) {
        int xs[3] = {std::max(x - 1, 0), x, std::min(x + 1, w - 1)};
        float acc = 0.0f;
        for (int k = 0; k < 3; ++k)
          for (int j = 0; j < 3; ++j) {
            const float* line = src + static_cast<size_t>(zs[k]) * slice + static_cast<size_t>(ys[j]) * row;
            const float* kr = kernel + (k * 3 + j) * 3;
            acc += kr[0] * line[xs[0]] + kr[1] * line[xs[1]] + kr[2] * line[xs[2]];
          }
        dst[static_cast<size_t>(z) * slice + static_cast<size_t>(y) * row + x] = acc;
      }
    }
  }
  return true;
}

bool boxFilter3d(const MemImage* in, MemImage* out, int sx, int sy, int sz) {
  if (!in || !out || in->dimensions() != out->dimensions() || in->channels() != out->channels()) return false;
  if (sx < 1 || sy < 1 || sz < 1) return false;
  const Eigen::Vector3i dims = in->dimensions();
  const int C = in->channels();
  const size_t n = in->descriptor().elementCount();
  // Separable running sums in double along x, then y, then z.
  std::vector<double> a(n), b(n);
  dispatchPixelType(in->type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(in->data());
    for (size_t i = 0; i < n; ++i) a[i] = static_cast<double>(p[i]);
  });
  auto pass = [&](const std::vector<double>& src, std::vector<double>& dst, int axis, int size) {
    const int len = dims[axis];
    const size_t stride = (axis == 0 ? 1 : axis == 1 ? static_cast<size_t>(dims[0]) : static_cast<size_t>(dims[0]) * dims[1]) *
                          static_cast<size_t>(C);
    const int before = (size - 1) / 2, after = size / 2;
    // Lines along `axis`, indexed by the two other axes.
    const int A = axis == 0 ? dims[1] : dims[0], B = axis == 2 ? dims[1] : dims[2];
#pragma omp parallel for collapse(2) schedule(static)
    for (int j = 0; j < B; ++j)
      for (int i = 0; i < A; ++i) {
        size_t base;
        if (axis == 0) base = (static_cast<size_t>(j) * dims[1] + i) * dims[0];
        else if (axis == 1) base = static_cast<size_t>(j) * dims[1] * dims[0] + i;
        else base = static_cast<size_t>(j) * dims[0] + i;
        base *= static_cast<size_t>(C);
        for (int c = 0; c < C; ++c)
          for (int t = 0; t < len; ++t) {
            const int lo = std::max(0, t - before), hi = std::min(len - 1, t + after);
            double s = 0.0;
            for (int q = lo; q <= hi; ++q) s += src[base + static_cast<size_t>(q) * stride + c];
            dst[base + static_cast<size_t>(t) * stride + c] = s / (hi - lo + 1);
          }
      }
  };
  pass(a, b, 0, sx);
  pass(b, a, 1, sy);
  pass(a, b, 2, sz);
  dispatchPixelType(out->type(), [&](auto tag) {
    using T = decltype(tag);
    T* o = static_cast<T*>(out->data());
    for (size_t i = 0; i < n; ++i) o[i] = toElement<T>(b[i]);
  });
  return true;
}

}  // namespace Filters

}  // namespace Merivane
