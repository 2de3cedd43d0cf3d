#pragma once
// Whole-image operations of the host: conversion, flipping, cropping, padding, resampling and
// box filtering. Results are new images; inputs are not changed.
#include <Eigen/Core>
#include <array>
#include <memory>
#include <vector>

namespace Merivane {
class MemImage;
}

namespace Merivane::ImageProcessing {

// How createFloat maps values: None copies the stored values, TypeRange divides by the largest
// value of the element type (integers only), Original applies shift and scale (stored / scale -
// shift), MinMax maps the image's range to [0, 1].
enum Normalization : int { None = 0, TypeRange = 1, Original = 2, MinMax = 3 };

// A float image with the input's dimensions, channels and spacing.
std::unique_ptr<MemImage> createFloat(const MemImage& image, Normalization normalization);

// A copy of `image` mirrored along axis 0 (x), 1 (y) or 2 (z); null for another axis.
std::unique_ptr<MemImage> computeFlipped(const MemImage& image, int axis);

// The box [offset, offset + size) of the image; null when it does not lie inside.
std::unique_ptr<MemImage> createCropped(const MemImage& image, const Eigen::Vector3i& offset,
                                        const Eigen::Vector3i& size);

// Grown by `low` voxels before and `high` after each axis. Zero padding fills with 0; Clamp
// and Extend both continue the image by repeating its edge voxel (Extend is the code that the
// skin segmentation's settings use).
enum PaddingMode : int { Zero = 0, Clamp = 1, Extend = 2 };
std::unique_ptr<MemImage> createPadded(const MemImage& image, PaddingMode mode, const Eigen::Vector3i& low,
                                       const Eigen::Vector3i& high);

// Resampled to a new spacing over the same extent (trilinear for intensities, nearest for
// labels); the size becomes round(extent / spacing), at least 1.
std::unique_ptr<MemImage> createResampled(const MemImage& image, const Eigen::Vector3d& spacing, bool nearest = false);

// Threshold modes: Binary gives a U8 image of channel 0, 1 where the stored value is at least
// `threshold` and 0 elsewhere (shift and scale are not applied); BinaryOriginal compares the
// original value, stored / scale - shift, instead.
enum ThresholdMode : int { Binary = 17, BinaryOriginal = 33 };
// Null for an unknown mode.
std::unique_ptr<MemImage> createThresholded(const MemImage& image, int mode, double threshold);

// Logical inversion in place, every channel: 0 becomes 1 and any other value 0. Turns a mask
// into the mask of its complement.
void computeInverted(MemImage& image);

// Central differences along x, y and z of channel 0, in value per voxel (one-sided at the
// border, 0 along an axis of size 1): three float images of the input's size and spacing.
// Empty for an image without voxels.
std::vector<std::unique_ptr<MemImage>> computeGradient3D(const MemImage& image);

// One point of an edge found between voxels.
struct SubpixelEdge {
  Eigen::Vector3d position;  // voxel coordinates, 0 at the centre of the first voxel
  Eigen::Vector3d normal;    // unit gradient direction (towards larger values)
};

// Edge points of a volume from its gradient: voxels whose gradient magnitude is at least
// `contrast` and a maximum along the axis that dominates the gradient (not smaller than the
// previous voxel, larger than the next one). A parabola through the three magnitudes on that
// axis places the edge within the voxel. All four images are one-channel float of one size;
// empty otherwise. Slices run in parallel; the order is scan order, whatever the thread count.
std::vector<SubpixelEdge> computeSubpixelEdgeLocationAndOrientation3D(const MemImage& magnitude, const MemImage& gx,
                                                                       const MemImage& gy, const MemImage& gz,
                                                                       double contrast);

}  // namespace Merivane::ImageProcessing

namespace Merivane::Filters {

// Mean over a box of sx x sy x sz voxels (odd sizes centre the box), clipped at the image
// border. `out` must have the input's dimensions and channels; any pixel type, integers rounded
// to the nearest value and saturated.
bool boxFilter3d(const MemImage* in, MemImage* out, int sx, int sy, int sz);

// Correlation of a one-channel float volume with a 3 x 3 x 3 kernel (x fastest, as the image),
// the edge voxel repeated beyond the border. `out` must be a float image of the same size;
// false otherwise. Slices run in parallel; results do not depend on the thread count.
bool convolve3x3x3(const MemImage& in, MemImage& out, const float kernel[27]);

}  // namespace Merivane::Filters
