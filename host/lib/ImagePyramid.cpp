#include "ImagePyramid.h"

#include <Eigen/Core>
#include <algorithm>
#include <array>
#include <cmath>

#include "Interpolation.h"
#include "SharedImage.h"

namespace Merivane {

namespace {

constexpr int kMinExtent = 4;

Eigen::Vector3i halved(const Eigen::Vector3i& d) {
  Eigen::Vector3i h;
  for (int k = 0; k < 3; ++k) h[k] = d[k] > 1 ? (d[k] + 1) / 2 : 1;
  return h;
}

// The descriptor of the next level: dimensions halved, the same extent, pixels of `type`.
ImageDescriptor halvedDescriptor(const MemImage& in, PixelType type, int channels) {
  const Eigen::Vector3i d = in.dimensions(), h = halved(d);
  ImageDescriptor od = in.descriptor();
  od.pixelType = type;
  od.channels = channels;
  od.dimensions = h;
  for (int k = 0; k < 3; ++k) od.spacing[k] = in.spacing()[k] * d[k] / h[k];
  return od;
}

// Calls f with the linear index of every voxel of the 2 x 2 x 2 block under voxel (x, y, z) of
// the next level, clipped at the far border, in z, y, x order.
template <typename F>
inline void forBlock(const Eigen::Vector3i& d, int x, int y, int z, F&& f) {
  for (int dz = 0; dz < 2; ++dz)
    for (int dy = 0; dy < 2; ++dy)
      for (int dx = 0; dx < 2; ++dx) {
        const int sx = 2 * x + dx, sy = 2 * y + dy, sz = 2 * z + dz;
        if (sx < d[0] && sy < d[1] && sz < d[2]) f((static_cast<size_t>(sz) * d[1] + sy) * d[0] + sx);
      }
}

// Averages 2 x 2 x 2 blocks into a float image.
std::unique_ptr<MemImage> downsampleMean(const MemImage& in) {
  const Eigen::Vector3i d = in.dimensions(), h = halved(d);
  const int C = in.channels();
  auto out = std::make_unique<TypedImage<float>>(halvedDescriptor(in, F32, C), nullptr, MemImage::Ownership::Owned,
                                                 false);
  float* o = out->pointer();
  dispatchPixelType(in.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(in.data());
#pragma omp parallel for schedule(static) if (h[2] >= 9)
    for (int z = 0; z < h[2]; ++z)
      for (int y = 0; y < h[1]; ++y)
        for (int x = 0; x < h[0]; ++x)
          for (int c = 0; c < C; ++c) {
            double s = 0.0;
            int n = 0;
            forBlock(d, x, y, z, [&](size_t i) {
              s += static_cast<double>(p[i * C + c]);
              ++n;
            });
            o[((static_cast<size_t>(z) * h[1] + y) * h[0] + x) * C + c] = static_cast<float>(s / n);
          }
  });
  return out;
}

// The most frequent non-zero value of each block, the smaller on a tie; 0 for an empty block.
std::unique_ptr<MemImage> downsampleLabels(const MemImage& in) {
  const Eigen::Vector3i d = in.dimensions(), h = halved(d);
  auto out = std::make_unique<TypedImage<unsigned char>>(halvedDescriptor(in, U8, 1), nullptr,
                                                         MemImage::Ownership::Owned, false);
  unsigned char* o = out->pointer();
  const int C = in.channels();
  dispatchPixelType(in.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(in.data());
#pragma omp parallel for schedule(static) if (h[2] >= 9)
    for (int z = 0; z < h[2]; ++z)
      for (int y = 0; y < h[1]; ++y)
        for (int x = 0; x < h[0]; ++x) {
          std::array<unsigned char, 8> v{};
          int n = 0;
          forBlock(d, x, y, z, [&](size_t i) {
            const auto u = static_cast<unsigned char>(std::clamp(static_cast<double>(p[i * C]), 0.0, 255.0));
            if (u != 0) v[static_cast<size_t>(n++)] = u;
          });
          unsigned char best = 0;
          int bestCount = 0;
          for (int a = 0; a < n; ++a) {
            int count = 0;
            for (int b = 0; b < n; ++b) count += v[static_cast<size_t>(b)] == v[static_cast<size_t>(a)];
            if (count > bestCount || (count == bestCount && v[static_cast<size_t>(a)] < best)) {
              best = v[static_cast<size_t>(a)];
              bestCount = count;
            }
          }
          o[(static_cast<size_t>(z) * h[1] + y) * h[0] + x] = best;
        }
  });
  return out;
}

}  // namespace

ImagePyramid::ImagePyramid(SharedImage* image, bool isLabel, bool, bool) : base_(image), isLabel_(isLabel) {}
ImagePyramid::~ImagePyramid() = default;

int ImagePyramid::createLevels(int levels) {
  levels_.clear();
  if (!base_ || !base_->mem()) return 0;
  for (int l = 1; l < levels; ++l) {
    const MemImage& finer = *level(l - 1)->mem();
    const Eigen::Vector3i d = finer.dimensions(), h = halved(d);
    bool ok = h != d;
    for (int k = 0; k < 3; ++k) ok = ok && (d[k] == 1 || h[k] >= kMinExtent);
    if (!ok) break;
    auto coarse = std::make_unique<SharedImage>(
        std::shared_ptr<Image>(isLabel_ ? downsampleLabels(finer) : downsampleMean(finer)));
    coarse->setMatrix(base_->matrix());
    levels_.push_back(std::move(coarse));
  }
  return numLevels();
}

int ImagePyramid::numLevels() const { return base_ && base_->mem() ? 1 + static_cast<int>(levels_.size()) : 0; }

SharedImage* ImagePyramid::level(int index) const {
  if (index == 0) return base_;
  if (index < 0 || index > static_cast<int>(levels_.size())) return nullptr;
  return levels_[static_cast<size_t>(index) - 1].get();
}

void ImagePyramid::propagateUp(int index) {
  SharedImage* coarse = level(index);
  SharedImage* fine = level(index - 1);
  if (!coarse || !fine || index < 1) return;
  const MemImage& in = *coarse->mem();
  MemImage& out = *fine->mem();
  const Eigen::Vector3i cd = in.dimensions(), fd = out.dimensions();
  const int C = std::min(in.channels(), out.channels());
  const Eigen::Vector3d ratio = cd.cast<double>().cwiseQuotient(fd.cast<double>());
  const bool nearest = isLabel_;
  dispatchPixelType(in.type(), [&](auto tagIn) {
    using S = decltype(tagIn);
    const S* p = static_cast<const S*>(in.data());
    dispatchPixelType(out.type(), [&](auto tagOut) {
      using T = decltype(tagOut);
      T* o = static_cast<T*>(out.data());
      const int OC = out.channels(), IC = in.channels();
      // The grids are aligned, so the stencil is separable: each output row blends (at most) four
      // input rows, with weights worked out once per row, and each column's pair of corners and
      // weight is worked out once for the whole image. Corners of zero weight are not read.
      std::vector<Interpolation::Stencil> axes[3];
      for (int k = 0; k < 3; ++k) {
        axes[k].resize(static_cast<size_t>(fd[k]));
        for (int v = 0; v < fd[k]; ++v) {
          Interpolation::Stencil& a = axes[k][static_cast<size_t>(v)];
          Interpolation::axisStencil((v + 0.5) * ratio[k] - 0.5, cd[k], nearest, a.i0[k], a.i1[k], a.f[k]);
        }
      }
#pragma omp parallel for schedule(static) if (fd[2] >= 9)
      for (int z = 0; z < fd[2]; ++z)
        for (int y = 0; y < fd[1]; ++y) {
          const Interpolation::Stencil& ay = axes[1][static_cast<size_t>(y)];
          const Interpolation::Stencil& az = axes[2][static_cast<size_t>(z)];
          const S* rows[4];
          double weights[4];
          int used = 0;
          for (int r = 0; r < 4; ++r) {
            const double w = (r & 1 ? ay.f[1] : 1 - ay.f[1]) * (r & 2 ? az.f[2] : 1 - az.f[2]);
            if (w == 0.0) continue;
            const int cy = r & 1 ? ay.i1[1] : ay.i0[1], cz = r & 2 ? az.i1[2] : az.i0[2];
            rows[used] = p + (static_cast<size_t>(cz) * cd[1] + cy) * cd[0] * IC;
            weights[used++] = w;
          }
          T* out = o + (static_cast<size_t>(z) * fd[1] + y) * fd[0] * OC;
          for (int x = 0; x < fd[0]; ++x) {
            const Interpolation::Stencil& ax = axes[0][static_cast<size_t>(x)];
            const size_t x0 = static_cast<size_t>(ax.i0[0]) * IC, x1 = static_cast<size_t>(ax.i1[0]) * IC;
            const double fx = ax.f[0];
            for (int c = 0; c < C; ++c) {
              double acc = 0.0;
              for (int r = 0; r < used; ++r) {
                double v = (1 - fx) * static_cast<double>(rows[r][x0 + c]);
                if (fx != 0.0) v += fx * static_cast<double>(rows[r][x1 + c]);
                acc += weights[r] * v;
              }
              out[static_cast<size_t>(x) * OC + c] = static_cast<T>(acc);
            }
          }
        }
    });
  });
  fine->setDirtyMem();
}

}  // namespace Merivane
