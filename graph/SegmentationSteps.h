#pragma once
// The pixel steps of GraphBasedSegmentation on plain typed images: the box round the seeds,
// the outline drawn into the label map, and the conversion of probabilities to labels. They
// know nothing of data lists or parameters, so tests reach them directly. Internal to graph/.
//
// In all three, L is the object label and L + 1 its background; `previous` is the label map of
// the last conversion, or null, and is ignored when its size differs from the labels'.
#include <Eigen/Core>

#include "Image.h"

namespace Merivane::Seg::internal {

struct SeedBox {
  bool anySeeds = false;  // some voxel is relevant: a seed of L or L + 1, or one `previous` sets
  bool crop = false;      // a box is worth cropping to; offset and size hold it
  Eigen::Vector3i offset = Eigen::Vector3i::Zero();
  Eigen::Vector3i size = Eigen::Vector3i::Zero();
};

// The bounding box of the relevant voxels, grown per side by `margin` times its extent. No crop
// without background voxels or when at least two extents of the box are 1. Per axis,
//   newMin = max(trunc(min - (max - min) * margin + 0.5), 0)
//   newMax = min(trunc(max + (max - newMin) * margin + 0.5), extent - 1),
// so the far side grows from the clamped newMin: less near the image's start.
SeedBox seedBox(const TypedImage<unsigned char>& labels, const TypedImage<unsigned char>* previous, int L,
                double margin);

// Inside the box: a voxel of probability >= 0.5 with a six-neighbour below 0.5 becomes 255, and
// so does any such voxel on the image border (z only counts in a volume); other 255 values
// become 0. Returns whether the object touched the image border. Voxels outside the box are
// left alone.
bool drawOutline(const TypedImage<float>& probability, TypedImage<unsigned char>& labels, const Eigen::Vector3i& offset,
                 const Eigen::Vector3i& size);

// Inside the box, L where the probability is 0.5 or more and L + 1 elsewhere; outside it, L + 1
// when `clearOutside` is set and nothing otherwise. A value of `previous` other than L wins
// over both.
void convertToLabels(const TypedImage<float>& probability, TypedImage<unsigned char>& labels,
                     const TypedImage<unsigned char>* previous, int L, const Eigen::Vector3i& offset,
                     const Eigen::Vector3i& size, bool clearOutside);

}  // namespace Merivane::Seg::internal
