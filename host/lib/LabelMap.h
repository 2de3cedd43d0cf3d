#pragma once
// Label-map conventions: a label map is a set of modality LABEL with U8 frames of one
// channel, matching its image frame by frame in dimensions, spacing and matrix.
#include <memory>
#include <string>

namespace Merivane {
class SharedImage;
class SharedImageSet;
}

namespace Merivane::Seg {

// The outcome of isCompatibleLabelMap: the first failing test, with the codes callers have
// always been given.
enum class LabelMapCompatibility : int {
  Compatible = 0,
  NotLabelModality = 1,  // strict only
  NotU8 = 2,             // a frame isn't U8
  NotOneChannel = 3,     // a frame doesn't have one channel
  GridDiffers = 4,       // a frame's grid differs from the image's
  FrameCountDiffers = 5, // strict only
  SpacingDiffers = 6,    // strict only, compared exactly
};

// The tests run in the order 1, 5, 2, 3, 4, 6; frames are compared up to the smaller count.
LabelMapCompatibility isCompatibleLabelMap(const SharedImageSet& image, const SharedImageSet& labelMap,
                                           bool lenient = false);

// A new label map for `image`, zeroed, built by ensureCompatibleLabelMap.
std::unique_ptr<SharedImageSet> createCompatibleLabelMap(const SharedImageSet& image);

// Brings an existing label map into line with `image`: row order, frame count, modality,
// spacing, matrix and patient information.
void ensureCompatibleLabelMap(const SharedImageSet& image, SharedImageSet& labelMap);

// Whether the world boxes of two frames (voxel edges included) share some volume. A label map
// that shares none with its image holds no seed of it, whatever its grid.
bool overlapsInWorld(const SharedImage& image, const SharedImage& labels);

// "label map spans x0..x1, y0..y1, z0..z1 mm, the image x0..x1, ... mm", for the line that
// refuses such a pair.
std::string describeWorldExtents(const SharedImage& image, const SharedImage& labels);

}  // namespace Merivane::Seg
