#pragma once
// Arrival times of a front and minimal paths through them, on a plain voxel grid in voxel
// units (unit spacing, x fastest).
//
// FastMarching3D solves |grad T| = 1 / speed with the first-order upwind scheme of Sethian's
// fast marching: a binary min-heap of (time, voxel) entries holds the narrow band, a lowered
// time pushes a fresh entry and stale ones are skipped when they surface, and each update solves
// the upwind quadratic over the frozen face neighbours, dropping axes whose neighbour value is
// too large for the root. One state byte per voxel says far, band or frozen.
// Everything lives in flat arrays; no per-voxel allocation.
//
// TracePath3DDiscrete walks down the arrival times from `end` towards `start`, each step to
// the 26-neighbour of steepest descent (time drop per unit length), and returns the voxels
// it visits in that order: the first element is `end` rounded, the last `start` rounded when
// the walk reaches it. Positions round halves up.
#include <Eigen/Core>
#include <vector>

namespace Merivane::LevelSet {

// Fills `times` (size[0] * size[1] * size[2] values) with arrival times from `seeds` (voxel
// positions, rounded to the nearest voxel, where the time is 0) under `speed`. Voxels the
// front does not reach stay +infinity; so do voxels whose speed is not positive or that have
// mask value 0 (a null mask lets every voxel in). Marching stops once the voxel nearest to
// `target` is frozen (a target outside the grid marches everything) or, with `limit` >= 0,
// once the next time exceeds `limit`. Voxels still in the narrow band then keep their
// tentative times, which are upper bounds. Seeds outside the grid are ignored.
// Deterministic: the result depends on the inputs only, not on threads or memory.
template <typename T>
void FastMarching3D(T* times, int* size, const std::vector<Eigen::Vector3d>& seeds, T* speed,
                    const Eigen::Vector3d& target, T limit, unsigned char* mask);

// The discrete descent described above. At most one step per voxel; it stops early at a voxel
// with no neighbour of smaller time. Empty when `end` lies outside the grid.
template <typename T>
void TracePath3DDiscrete(T* times, int* size, const Eigen::Vector3d& start, const Eigen::Vector3d& end,
                         std::vector<Eigen::Vector3d>& path);

}  // namespace Merivane::LevelSet
