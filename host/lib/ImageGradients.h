#pragma once
// Image gradients by central differences and sub-pixel edge points on the gradient magnitude.
//
// Gradients are in intensity per pixel and point uphill, towards brighter values; the border
// rows use one-sided differences. Edge points are the local maxima of the magnitude along
// the gradient direction (non-maximum suppression with interpolated neighbours), moved to the
// vertex of the parabola through the three samples. Their orientation is the unit gradient,
// so on a bright disc it points inwards.
#include <utility>
#include <vector>

#include "EigenFwd.h"

namespace Merivane {
template <typename T>
class TypedImage;
}

namespace Merivane::ImageProcessing {

// x and y derivatives of channel 0 of every slice of `in`. The outputs must be one-channel
// images of the input's dimensions; false otherwise.
template <typename T>
bool computeGradient2D(const TypedImage<T>* in, TypedImage<float>* gx, TypedImage<float>* gy);

// The three derivatives of channel 0 of a volume; the same rules.
template <typename T>
bool computeGradient3D(const TypedImage<T>* in, TypedImage<float>* gx, TypedImage<float>* gy, TypedImage<float>* gz);

// Edge points of slice 0: pixels whose magnitude exceeds `threshold` and is a maximum along
// the gradient. Each pair holds the sub-pixel position in pixel coordinates and the unit
// orientation. Pixels on the image border are not examined. False when the images do not
// match.
bool computeSubpixelEdgeLocationAndOrientation2D(const TypedImage<float>* magnitude, const TypedImage<float>* gx,
                                                 const TypedImage<float>* gy, float threshold,
                                                 std::vector<std::pair<Vec2d, Vec2d>>& edges);

// The same in a volume; edge points come in x-fastest voxel order.
bool computeSubpixelEdgeLocationAndOrientation3D(const TypedImage<float>* magnitude, const TypedImage<float>* gx,
                                                 const TypedImage<float>* gy, const TypedImage<float>* gz,
                                                 float threshold, std::vector<std::pair<Vec3d, Vec3d>>& edges);

}  // namespace Merivane::ImageProcessing
