#pragma once
// Least-squares circle and sphere fits to point clouds.
//
// Both fits minimise the sum of squared geometric distances (|p - c| - r)^2. They start from
// the algebraic fit (the linear least-squares solution of |p|^2 = 2 p.c + r^2 - |c|^2, taken
// with minimum norm so that repeated or collinear points still give a finite answer) and
// refine it by damped Gauss-Newton steps. With a held radius only the centre moves.
#include <vector>

#include "EigenFwd.h"

namespace Merivane::Geometry {

// Fits a circle to `points`. A true `*fixedRadius` holds `radius` at its input value;
// otherwise `radius` is an output only. `residual`, when given, receives the root mean square
// geometric distance. `algebraicOnly` skips the geometric refinement. Returns 0 on success,
// non-zero for an empty cloud, a negative or non-finite held radius, or a non-finite result;
// `centre` and `radius` are then unchanged.
int fitCircle(const std::vector<Vec2d>& points, Vec2d& centre, double& radius, bool* fixedRadius = nullptr,
              double* residual = nullptr, bool algebraicOnly = false);

// The same for a sphere.
int fitSphere(const std::vector<Vec3d>& points, Vec3d& centre, double& radius, bool* fixedRadius = nullptr,
              double* residual = nullptr);

}  // namespace Merivane::Geometry
