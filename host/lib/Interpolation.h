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

inline Stencil stencil(const double p[3], const Eigen::Vector3i& dims, bool nearest = false) {
  Stencil s;
  for (int k = 0; k < 3; ++k) {
    const double c = std::clamp(p[k], 0.0, static_cast<double>(dims[k] - 1));
    s.i0[k] = nearest ? static_cast<int>(std::lround(c)) : static_cast<int>(std::floor(c));
    s.i1[k] = std::min(s.i0[k] + 1, dims[k] - 1);
    s.f[k] = nearest ? 0.0 : c - s.i0[k];
  }
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
