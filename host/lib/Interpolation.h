#pragma once
// Linear interpolation on a voxel grid, shared by resampling, the pyramid and the mapping of
// results back to full images. Positions are clamped to the grid.
#include <Eigen/Core>
#include <algorithm>
#include <cmath>

namespace Merivane::Interpolation {

// The eight corners round a position and their weights along each axis; `nearest` puts all
// the weight on the closest voxel.
struct Stencil {
  int i0[3], i1[3];
  double f[3];
};

// One axis of a stencil: the corners round position p on an axis of `size` voxels, and the
// weight of the upper one.
inline void axisStencil(double p, int size, bool nearest, int& i0, int& i1, double& f) {
  const double c = std::clamp(p, 0.0, static_cast<double>(size - 1));
  i0 = nearest ? static_cast<int>(std::lround(c)) : static_cast<int>(std::floor(c));
  i1 = std::min(i0 + 1, size - 1);
  f = nearest ? 0.0 : c - i0;
}

inline Stencil stencil(const double p[3], const Eigen::Vector3i& dims, bool nearest = false) {
  Stencil s;
  for (int k = 0; k < 3; ++k) axisStencil(p[k], dims[k], nearest, s.i0[k], s.i1[k], s.f[k]);
  return s;
}

// Sum of read(x, y, z) over the corners with non-zero weight, weighted.
template <typename Read>
double interpolate(const Stencil& s, Read read) {
  double acc = 0.0;
  for (int corner = 0; corner < 8; ++corner) {
    const double w = (corner & 1 ? s.f[0] : 1 - s.f[0]) * (corner & 2 ? s.f[1] : 1 - s.f[1]) *
                     (corner & 4 ? s.f[2] : 1 - s.f[2]);
    if (w == 0.0) continue;
    acc += w * read(corner & 1 ? s.i1[0] : s.i0[0], corner & 2 ? s.i1[1] : s.i0[1], corner & 4 ? s.i1[2] : s.i0[2]);
  }
  return acc;
}

}  // namespace Merivane::Interpolation
