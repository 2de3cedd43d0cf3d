#pragma once
// A triangle mesh turned into a binary map, the first step of seeding the interactive
// segmentation from an existing surface: holes are closed first, then every voxel centre is
// tested by the parity of the surface crossings of a ray along +x. Internal to interactive/.
#include <Eigen/Core>
#include <memory>
#include <vector>

#include "Image.h"

namespace Merivane {
class Mesh;
}

namespace Merivane::Seg::internal {

// Closes every hole of `mesh`: each loop of boundary edges (edges with one face) gets a vertex
// at its centroid and a fan of triangles round it, oriented against the loop's face. Returns
// the number of loops closed. Normals and colours, when present, are extended.
int closeHoles(Mesh& mesh);

// The grid a mesh is rasterised on: voxel (i, j, k) has its centre at origin + (i, j, k) *
// spacing, in the coordinates of the mesh's vertices.
struct RasterGrid {
  Eigen::Vector3d origin = Eigen::Vector3d::Zero();
  Eigen::Vector3d spacing = Eigen::Vector3d::Ones();
  Eigen::Vector3i dimensions = Eigen::Vector3i::Ones();
};

// 1 for the voxels whose centre lies inside the closed surface (odd number of crossings of a
// ray along +x), 0 elsewhere. Ties on edges and vertices are broken by a fixed symbolic
// perturbation of the ray, so a ray through a shared edge counts one crossing. Triangles seen
// edge-on from the ray are skipped.
std::unique_ptr<TypedImage<unsigned char>> rasterizeMesh(const std::vector<Eigen::Vector3d>& vertices,
                                                         const std::vector<Eigen::Vector3i>& faces,
                                                         const RasterGrid& grid);

}  // namespace Merivane::Seg::internal
