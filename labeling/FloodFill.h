#pragma once
// 3D flood fill of a U8 label map from one voxel: every voxel connected to the seed through
// voxels that hold the seed's label (and, optionally, an intensity within a window) gets a
// new label. Connectivity per voxel: the four in-plane face neighbours and, in the slices
// above and below, the four edge neighbours (z±1 with x±1 or y±1); the pure z neighbours
// are deliberately not connected. In a one-slice image that is the 2D four-neighbourhood.
//
// The walk is over row runs, not voxels: a run of fillable voxels is found and written with
// one memset, and only the rows next to it are scanned for further runs, so the cost follows
// the bytes scanned; slices are swept up and down so that each is filled while it sits in
// cache. In parallel the volume is cut into z slabs; each slab fills what it can
// reach and hands the runs that cross its border to its neighbour, round after round, until
// no slab has work. The filled set is the connected component, whatever the order, so the
// result does not depend on the thread count.
#include <Eigen/Core>
#include <atomic>
#include <cstdint>

namespace Merivane {
class MemImage;
}

namespace Merivane::Seg {

struct FloodFillOptions {
  // When set: only voxels whose value in channel 0 (stored, as the pixels hold it) lies in
  // [low, high] are filled. Must have the label map's dimensions.
  const MemImage* intensities = nullptr;
  double low = 0.0, high = 0.0;
  // Number of z slabs worked on in parallel; 0 means one per OpenMP thread, 1 is serial.
  int slabs = 0;
  // Read between runs; a cancelled fill leaves a partial result for the caller to undo.
  const std::atomic<bool>* canceled = nullptr;
  // Voxels filled so far, updated now and then for a progress display.
  std::atomic<int64_t>* filledSoFar = nullptr;
};

struct FloodFillResult {
  enum Status { Filled, Canceled, Refused } status = Refused;
  int64_t filled = 0;  // voxels that got the new label
};

// `labels` holds dims.prod() voxels, x fastest. Refused (nothing written) when the seed lies
// outside, the seed already holds `label`, the seed fails the intensity window, or the
// intensities do not fit.
FloodFillResult floodFill(uint8_t* labels, const Eigen::Vector3i& dims, const Eigen::Vector3i& seed, uint8_t label,
                          const FloodFillOptions& options = {});

}  // namespace Merivane::Seg
