#pragma once
// What lies under the pointer: the voxel of an image at a world position seen in a view, its
// label, and the point where three slice views meet. For tools that follow the cursor.
#include <Eigen/Core>
#include <optional>

namespace Merivane {
class DisplayWidgetMultiAdapter;
class GlView;
class SharedImage;
}  // namespace Merivane

namespace Merivane::Seg {

// Pixel coordinates of `world` in `image` plus 0.5 on each axis, so that truncation gives the
// voxel that holds it. In a 3D view the point is taken one millimetre behind the first surface
// drawn near it, which is what the user points at there; with no surface within 5 pixels the
// result is NaN on every axis. A null image gives NaN as well.
Eigen::Vector3d getPixelCoordinatesAt(const SharedImage* image, const GlView& view, const Eigen::Vector3d& world);

// The value in channel 0 of the voxel at `world`; empty outside the image, and for images that
// are not unsigned bytes in memory.
std::optional<unsigned char> getValueAt(const SharedImage* image, const GlView& view, const Eigen::Vector3d& world);

// The common point of the first three slice views of `views`; empty with fewer than three or
// when their planes do not meet in one point.
std::optional<Eigen::Vector3d> getIntersection(const DisplayWidgetMultiAdapter& views);

}  // namespace Merivane::Seg
