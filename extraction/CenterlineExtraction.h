#pragma once
// The numerical core of the centreline extraction, on plain float volumes.
//
//   speedFromWindow: the window image (clamped intensities, negated for dark structures)
//   filtered by a fixed 3 x 3 x 3 Laplacian-type kernel whose coefficients sum to 0, then
//   mapped to speeds p = (hi - x) / (hi - lo) over the filter's range [lo, hi], cut to 1 and
//   raised to the floor: a bright ridge answers strongly negative and gets speeds near 1.
//
//   minimalPath: fast marching from a seed voxel position until the target voxel is frozen,
//   unreached voxels raised to 1.001 times the largest reached time, and the discrete descent
//   from the target back to the seed.
#include <Eigen/Core>
#include <vector>

#include "Image.h"

namespace Merivane::CenterlineExtraction {

// The filter's taps, x fastest: outer planes 0.25 0.5 0.25 / 0.5 1 0.5 / 0.25 0.5 0.25,
// middle plane 0.5 1 0.5 / 1 -14 1 / 0.5 1 0.5.
extern const float kRidgeKernel[27];

// `window` holds the window image (one channel); returns the speed image of the same size.
// A flat filter response (hi == lo) gives speed 1 everywhere.
std::unique_ptr<TypedImage<float>> speedFromWindow(const TypedImage<float>& window, float floor);

// Fills `times` (resized to the speed's voxel count) with the arrival times from `seed` and
// `path` with the descent from `target` to `seed`, in voxel coordinates of the speed image.
// Returns false when no time was reached (no positive speed at the seed).
bool minimalPath(const TypedImage<float>& speed, const Eigen::Vector3d& seed, const Eigen::Vector3d& target,
                 std::vector<float>& times, std::vector<Eigen::Vector3d>* path);

}  // namespace Merivane::CenterlineExtraction
