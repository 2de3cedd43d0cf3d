#pragma once
// CPU references of the label painter's passes, for the tests only. Coordinates are the
// painter's voxel frame: voxel (x, y, z) has its centre at (x + 0.5, y + 0.5, z + 0.5), and
// z is 0 throughout on a one-slice image.
#include <Eigen/Core>
#include <array>
#include <cstdint>
#include <vector>

namespace Merivane::Seg::Reference {

enum class Inside { No, Yes, Either };

inline Eigen::Vector3d centre(int x, int y, int z, bool oneSlice) {
  return {x + 0.5, y + 0.5, oneSlice ? 0.0 : z + 0.5};
}

// Whether the voxel centre p lies in the capsule of `radius` round a..b, distances scaled per
// axis by `factor`. Either when it is too close to the rim to call in single precision.
inline Inside inCapsule(const Eigen::Vector3d& p, const Eigen::Vector3d& a, const Eigen::Vector3d& b,
                        const Eigen::Vector3d& factor, double radius) {
  const Eigen::Vector3d ab = (b - a).cwiseProduct(factor);
  const double len2 = ab.squaredNorm();
  const double t = len2 > 0 ? std::clamp((p - a).cwiseProduct(factor).dot(ab) / len2, 0.0, 1.0) : 0.0;
  const double d2 = ((p - a).cwiseProduct(factor) - t * ab).squaredNorm();
  const double r2 = radius * radius;
  if (std::abs(d2 - r2) <= 1e-4 * std::max(1.0, r2)) return Inside::Either;
  return d2 <= r2 ? Inside::Yes : Inside::No;
}

struct Stroke {
  std::vector<std::pair<Eigen::Vector3d, Eigen::Vector3d>> segments;  // voxel frame
  Eigen::Vector3d factor = Eigen::Vector3d::Ones();
  double radius = 1.0;
};

// The union of the capsules of all segments, per voxel (x fastest).
inline std::vector<Inside> brush(const Eigen::Vector3i& dims, const Stroke& s) {
  const bool oneSlice = dims[2] == 1;
  std::vector<Inside> out(static_cast<size_t>(dims.prod()), Inside::No);
  size_t i = 0;
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x, ++i) {
        Eigen::Vector3d p = centre(x, y, z, oneSlice);
        for (const auto& [a, b] : s.segments) {
          const Inside in = inCapsule(p, a, b, s.factor, s.radius);
          if (in == Inside::Yes) out[i] = Inside::Yes;
          if (in == Inside::Either && out[i] == Inside::No) out[i] = Inside::Either;
        }
      }
  return out;
}

// Threshold of stored weights 0..255 at `threshold` (0..1), compared with >=.
inline uint8_t threshold(uint8_t weight, double threshold) { return weight / 255.0 >= threshold ? 1 : 0; }

// Merge of one voxel.
inline uint8_t merge(uint8_t current, bool stencil, bool maskAdmits, const std::array<uint32_t, 8>& locks,
                     uint8_t label, bool erase) {
  const bool locked = (locks[current >> 5] >> (current & 31)) & 1u;
  if (!stencil || !maskAdmits || locked) return current;
  return erase ? 0 : label;
}

// Voxels of the line a..b: those whose centre's closest point on the segment lies inside them.
inline bool onLine(const Eigen::Vector3d& p, const Eigen::Vector3d& a, const Eigen::Vector3d& b) {
  const Eigen::Vector3d ab = b - a;
  const double len2 = ab.squaredNorm();
  const double t = len2 > 0 ? std::clamp((p - a).dot(ab) / len2, 0.0, 1.0) : 0.0;
  return ((a + t * ab - p).array().abs() <= 0.5).all();
}

}  // namespace Merivane::Seg::Reference
