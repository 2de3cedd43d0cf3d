#pragma once
// The pixel steps that turn drawn or existing shapes into seeds for the interactive
// segmentation, on plain typed images: binary morphology with a ball, resampling of a binary
// map onto another grid, the narrow band between an eroded and a dilated object, the band
// round a filled 2D outline, and the seeds of a drawn diameter. Internal to interactive/.
//
// Seed values: `object` marks the object, `background` its background, 0 is left free for the
// random walk to decide.
#include <Eigen/Core>
#include <memory>

#include "Image.h"

namespace Merivane {
class SharedImage;
}

namespace Merivane::Seg::internal {

// Binary erosion and dilation of the non-zero voxels by a ball of `radius` voxels (the host's
// ball morphology): a voxel
// stays (erosion) when every voxel within that distance is non-zero, and joins (dilation) when
// some is. The outside of the image neither erodes nor dilates. Radius 0 gives a 0/1 copy.
// Results hold 0 and 1.
std::unique_ptr<TypedImage<unsigned char>> erodeBall(const TypedImage<unsigned char>& map, int radius);
std::unique_ptr<TypedImage<unsigned char>> dilateBall(const TypedImage<unsigned char>& map, int radius);

// Erosion and dilation of each slice by a square of (2 radius + 1)² pixels, clipped at the
// slice's edges. Results hold 0 and 1.
std::unique_ptr<TypedImage<unsigned char>> erodeSquare2D(const TypedImage<unsigned char>& map, int radius);
std::unique_ptr<TypedImage<unsigned char>> dilateSquare2D(const TypedImage<unsigned char>& map, int radius);

// A binary map sampled on the grid of `target`: each target voxel centre goes through world
// coordinates into `source`, which is read linearly with 0 outside it; 0.5 or more gives 1.
// Null when either frame has no memory copy or `source` is not U8.
std::unique_ptr<TypedImage<unsigned char>> resampleBinary(const SharedImage& source, const SharedImage& target);

// The box of the non-zero voxels of `dilated`, inclusive; false when there is none.
bool nonZeroBox(const TypedImage<unsigned char>& map, Eigen::Vector3i& min, Eigen::Vector3i& max);

// Inside the box of `dilated`'s non-zero voxels: `background` where `dilated` is 0, else
// `object` where `eroded` is non-zero; other voxels, and all outside the box, keep their
// values. The three images have the same dimensions.
void writeNarrowBand(const TypedImage<unsigned char>& eroded, const TypedImage<unsigned char>& dilated,
                     TypedImage<unsigned char>& labels, int object, int background);

// `labels` cleared, then `object` where the square erosion of `filled` is set and `background`
// where its dilation is not; the band of about 2 radius + 1 pixels between stays 0.
void writeContourBand(const TypedImage<unsigned char>& filled, TypedImage<unsigned char>& labels, int radius,
                      int object, int background);

// Seeds of a diameter of half length `radius` mm through the voxel `centre`, along the unit
// vector `axis` (in the label map's axes, mm): the map is cleared; within the half extents
// trunc(trunc(radius / s) * 1.4 + 0.5) voxels per axis round the centre (clipped to the map),
// with d the offset in mm, t = d · axis and q = |d - t axis|, voxels with |d|² >= 1.4 radius²
// get `background` and those with t² + 20 q² <= 0.8 radius² get `object`: a thin ellipsoid
// along the diameter inside a shell of background.
void writeDiameterSeeds(TypedImage<unsigned char>& labels, const Eigen::Vector3i& centre, const Eigen::Vector3d& axis,
                        double radius, int object, int background);

}  // namespace Merivane::Seg::internal
