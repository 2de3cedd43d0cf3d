#pragma once
// Isosurface extraction on a regular grid (marching cubes).
//
// Each cell's eight corners are classified against the iso-value; a vertex sits on every
// cell edge whose ends differ, placed by linear interpolation, and is shared by the four
// cells round that edge. A face whose four corners alternate is resolved by one fixed rule
// (the corners above the iso-value are kept apart), which both cells next to the face see
// alike, so the surface of a closed object is closed and edge-manifold. A few cells next to
// such faces get one extra vertex, the centre of their polygon.
//
// Vertices come out in pixel coordinates (x, y, z of the voxel grid, not centred, no
// spacing); triangles wind counter-clockwise seen from outside, so normals point from the
// inside region to the outside. Results do not depend on the thread count.
#include <memory>

#include "Image.h"

namespace Merivane {

class Mesh;

namespace MarchingCubes {

// `thresholdAbove`: inside is value > isoValue; otherwise inside is value < isoValue.
// `mask` (same width, height and depth as `image`, or null): voxels where it is 0 count as
// outside. Only channel 0 is read. Returns null for an empty surface or bad input (a mask of
// another size, an image smaller than 2 in any axis). `origin` is added to every vertex before
// it is rounded to float: the place of a sub-volume's first voxel in the whole, so that a
// surface cut from a sub-volume has the very same vertices as one from the whole.
template <typename T>
std::unique_ptr<Mesh> computeIsosurface(const TypedImage<T>* image, const TypedImage<unsigned char>* mask,
                                        float isoValue, bool thresholdAbove = true,
                                        const Eigen::Vector3i& origin = Eigen::Vector3i::Zero());

// Same, dispatched on the image's pixel type.
std::unique_ptr<Mesh> computeIsosurface(const MemImage* image, const TypedImage<unsigned char>* mask, float isoValue,
                                        bool thresholdAbove = true,
                                        const Eigen::Vector3i& origin = Eigen::Vector3i::Zero());

}  // namespace MarchingCubes
}  // namespace Merivane
