#pragma once
// Voxel bounding boxes of the label values of a label image, in one pass over its voxels.
#include <Eigen/Core>
#include <cstdint>
#include <vector>

namespace Merivane {
class SharedImageSet;
}

namespace Merivane::LabelStatistics {

struct LabelBounds {
  Eigen::Vector3i min = Eigen::Vector3i::Zero();  // first voxel index per axis
  Eigen::Vector3i max = Eigen::Vector3i::Zero();  // last voxel index per axis, inclusive
  uint64_t count = 0;                             // voxels; 0 when the value does not occur
};

// Channel 0 of the focus frame, integer types only: entry v describes the voxels of value v,
// up to the largest value present (0 included). Empty for a float image, a frame without
// memory or an image whose largest value exceeds 2^24 (a table that long is not a label set).
std::vector<LabelBounds> computeBounds(const SharedImageSet& labels);

}  // namespace Merivane::LabelStatistics
