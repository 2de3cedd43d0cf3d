#include "SeedSteps.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "MorphologicalOperationsAlgorithm.h"
#include "SharedImage.h"

namespace Merivane::Seg::internal {

namespace {

std::unique_ptr<TypedImage<unsigned char>> sameShape(const TypedImage<unsigned char>& map) {
  auto out = TypedImage<unsigned char>::zeros(map.dimensions(), 1);
  out->setSpacing(map.spacing(), map.isMetric());
  return out;
}

// Min (erode) or max (dilate) of a binary slice stack over a square window, separably.
std::unique_ptr<TypedImage<unsigned char>> squareFilter(const TypedImage<unsigned char>& map, int radius, bool dilate) {
  auto out = sameShape(map);
  const Eigen::Vector3i d = map.dimensions();
  const int W = d[0], H = d[1];
  const unsigned char* in = map.pointer();
  unsigned char* o = out->pointer();
  const int r = std::max(radius, 0);
  // Each z reads and writes slice z only.
#pragma omp parallel for schedule(static)
  for (int z = 0; z < d[2]; ++z) {
    std::vector<unsigned char> rows(static_cast<size_t>(W) * H);
    const int64_t base = int64_t(z) * W * H;
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) {
        bool any = false, all = true;
        for (int k = std::max(x - r, 0); k <= std::min(x + r, W - 1); ++k) {
          const bool set = in[base + int64_t(y) * W + k] != 0;
          any |= set;
          all &= set;
        }
        rows[static_cast<size_t>(y) * W + x] = dilate ? any : all;
      }
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) {
        bool any = false, all = true;
        for (int k = std::max(y - r, 0); k <= std::min(y + r, H - 1); ++k) {
          const bool set = rows[static_cast<size_t>(k) * W + x] != 0;
          any |= set;
          all &= set;
        }
        o[base + int64_t(y) * W + x] = (dilate ? any : all) ? 1 : 0;
      }
  }
  return out;
}

}  // namespace

namespace {

// The map as 0 and 1, then eroded or dilated by the host's ball morphology (the image border
// neither grows nor erodes anything).
std::unique_ptr<TypedImage<unsigned char>> ballMorphology(const TypedImage<unsigned char>& map, int radius,
                                                          Morphology::Operation op) {
  auto out = sameShape(map);
  const unsigned char* m = map.pointer();
  unsigned char* o = out->pointer();
  const size_t n = map.descriptor().pixelCount();
  for (size_t i = 0; i < n; ++i) o[i] = m[i] != 0;
  if (radius > 0) Morphology::apply(*out, op, radius);
  return out;
}

}  // namespace

std::unique_ptr<TypedImage<unsigned char>> erodeBall(const TypedImage<unsigned char>& map, int radius) {
  return ballMorphology(map, radius, Morphology::Erosion);
}

std::unique_ptr<TypedImage<unsigned char>> dilateBall(const TypedImage<unsigned char>& map, int radius) {
  return ballMorphology(map, radius, Morphology::Dilation);
}

std::unique_ptr<TypedImage<unsigned char>> erodeSquare2D(const TypedImage<unsigned char>& map, int radius) {
  return squareFilter(map, radius, false);
}

std::unique_ptr<TypedImage<unsigned char>> dilateSquare2D(const TypedImage<unsigned char>& map, int radius) {
  return squareFilter(map, radius, true);
}

std::unique_ptr<TypedImage<unsigned char>> resampleBinary(const SharedImage& source, const SharedImage& target) {
  const auto* src = dynamic_cast<const TypedImage<unsigned char>*>(source.mem());
  const MemImage* tgt = target.mem();
  if (!src || !tgt) return nullptr;
  auto out = TypedImage<unsigned char>::zeros(tgt->dimensions(), 1);
  out->setSpacing(tgt->spacing(), tgt->isMetric());
  // Target pixel -> world -> source pixel, as one affine map.
  const Eigen::Vector3d o0 = source.worldToPixel(target.pixelToWorld(Eigen::Vector3d::Zero()));
  const Eigen::Vector3d ox = source.worldToPixel(target.pixelToWorld(Eigen::Vector3d::UnitX())) - o0;
  const Eigen::Vector3d oy = source.worldToPixel(target.pixelToWorld(Eigen::Vector3d::UnitY())) - o0;
  const Eigen::Vector3d oz = source.worldToPixel(target.pixelToWorld(Eigen::Vector3d::UnitZ())) - o0;
  const Eigen::Vector3i sd = src->dimensions(), td = tgt->dimensions();
  const unsigned char* s = src->pointer();
  unsigned char* o = out->pointer();
  auto at = [&](int x, int y, int z) -> double {
    if (x < 0 || y < 0 || z < 0 || x >= sd[0] || y >= sd[1] || z >= sd[2]) return 0.0;
    return s[x + int64_t(sd[0]) * (y + int64_t(sd[1]) * z)] != 0 ? 1.0 : 0.0;
  };
  // Each z writes only slice z of the output.
#pragma omp parallel for schedule(static)
  for (int z = 0; z < td[2]; ++z)
    for (int y = 0; y < td[1]; ++y)
      for (int x = 0; x < td[0]; ++x) {
        Eigen::Vector3d p = o0 + x * ox + y * oy + z * oz;
        // A single-slice axis is sampled in its plane; snap the rounding noise of the matrices.
        for (int k = 0; k < 3; ++k) {
          if (sd[k] == 1) p[k] = std::fabs(p[k]) < 0.5 ? 0.0 : p[k];
          if (std::fabs(p[k] - std::round(p[k])) < 1e-9) p[k] = std::round(p[k]);
        }
        const Eigen::Vector3d fl(std::floor(p[0]), std::floor(p[1]), std::floor(p[2]));
        const Eigen::Vector3d f = p - fl;
        const int x0 = static_cast<int>(fl[0]), y0 = static_cast<int>(fl[1]), z0 = static_cast<int>(fl[2]);
        double v = 0.0;
        for (int corner = 0; corner < 8; ++corner) {
          const double w = (corner & 1 ? f[0] : 1 - f[0]) * (corner & 2 ? f[1] : 1 - f[1]) *
                           (corner & 4 ? f[2] : 1 - f[2]);
          if (w != 0.0) v += w * at(x0 + (corner & 1), y0 + ((corner >> 1) & 1), z0 + ((corner >> 2) & 1));
        }
        o[x + int64_t(td[0]) * (y + int64_t(td[1]) * z)] = v >= 0.5 ? 1 : 0;
      }
  return out;
}

bool nonZeroBox(const TypedImage<unsigned char>& map, Eigen::Vector3i& min, Eigen::Vector3i& max) {
  const Eigen::Vector3i d = map.dimensions();
  min = d;
  max = Eigen::Vector3i::Constant(-1);
  const unsigned char* m = map.pointer();
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x)
        if (m[x + int64_t(d[0]) * (y + int64_t(d[1]) * z)]) {
          min = min.cwiseMin(Eigen::Vector3i(x, y, z));
          max = max.cwiseMax(Eigen::Vector3i(x, y, z));
        }
  return max[0] >= 0;
}

void writeNarrowBand(const TypedImage<unsigned char>& eroded, const TypedImage<unsigned char>& dilated,
                     TypedImage<unsigned char>& labels, int object, int background) {
  Eigen::Vector3i lo, hi;
  if (!nonZeroBox(dilated, lo, hi)) return;
  const Eigen::Vector3i d = labels.dimensions();
  const unsigned char* e = eroded.pointer();
  const unsigned char* g = dilated.pointer();
  unsigned char* l = labels.pointer();
  // Each z writes only slice z of the labels.
#pragma omp parallel for schedule(static)
  for (int z = lo[2]; z <= hi[2]; ++z)
    for (int y = lo[1]; y <= hi[1]; ++y)
      for (int x = lo[0]; x <= hi[0]; ++x) {
        const int64_t i = x + int64_t(d[0]) * (y + int64_t(d[1]) * z);
        if (!g[i])
          l[i] = static_cast<unsigned char>(background);
        else if (e[i])
          l[i] = static_cast<unsigned char>(object);
      }
}

void writeContourBand(const TypedImage<unsigned char>& filled, TypedImage<unsigned char>& labels, int radius,
                      int object, int background) {
  auto eroded = erodeSquare2D(filled, radius);
  auto dilated = dilateSquare2D(filled, radius);
  const unsigned char* e = eroded->pointer();
  const unsigned char* g = dilated->pointer();
  unsigned char* l = labels.pointer();
  const size_t n = labels.descriptor().pixelCount();
  for (size_t i = 0; i < n; ++i) l[i] = static_cast<unsigned char>(e[i] ? object : (g[i] ? 0 : background));
}

void writeDiameterSeeds(TypedImage<unsigned char>& labels, const Eigen::Vector3i& centre, const Eigen::Vector3d& axis,
                        double radius, int object, int background) {
  const Eigen::Vector3i dims = labels.dimensions();
  const Eigen::Vector3d s = labels.spacing();
  unsigned char* l = labels.pointer();
  std::fill(l, l + labels.descriptor().pixelCount(), static_cast<unsigned char>(0));
  Eigen::Vector3i lo, hi;
  for (int k = 0; k < 3; ++k) {
    const int half = static_cast<int>(static_cast<int>(radius / s[k]) * 1.4 + 0.5);
    lo[k] = std::max(centre[k] - half, 0);
    hi[k] = std::min(centre[k] + half, dims[k] - 1);
  }
  const double r2 = radius * radius;
  // Each z writes only slice z.
#pragma omp parallel for schedule(static)
  for (int z = lo[2]; z <= hi[2]; ++z)
    for (int y = lo[1]; y <= hi[1]; ++y)
      for (int x = lo[0]; x <= hi[0]; ++x) {
        const Eigen::Vector3d d = (Eigen::Vector3i(x, y, z) - centre).cast<double>().cwiseProduct(s);
        const double t = d.dot(axis);
        const double q = (d - t * axis).norm();
        const int64_t i = x + int64_t(dims[0]) * (y + int64_t(dims[1]) * z);
        if (d.squaredNorm() >= 1.4 * r2) l[i] = static_cast<unsigned char>(background);
        if (t * t + 20.0 * q * q <= 0.8 * r2) l[i] = static_cast<unsigned char>(object);
      }
}

}  // namespace Merivane::Seg::internal
