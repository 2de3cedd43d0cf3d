#pragma once
// Clean-up and refinement of triangle meshes. Simplification, subdivision and smoothing run
// through OpenMesh inside the implementation; this header stays free of it.
#include <cstddef>

namespace Merivane {

class Mesh;

namespace MeshProcessing {

namespace Cleaning {
// Merges vertices closer than `tolerance` (0: equal positions only) into one of them (for
// equal positions the lowest index),
// drops faces that become degenerate and, with `removeUnused`, vertices no face uses.
// Normals and colours of the kept vertices stay. Returns the number of vertices merged.
int mergeCloseVertices(Mesh& mesh, double tolerance, bool removeUnused = false);
}  // namespace Cleaning

using Cleaning::mergeCloseVertices;

// Area-weighted vertex normals of unit length (zero for a vertex no face uses).
void computeVertexNormals(Mesh& mesh);

// Quadric-error decimation down to at most `targetFaces` faces (a closed surface stays
// closed). False when the mesh cannot be converted (non-manifold input).
bool simplify(Mesh& mesh, size_t targetFaces);

// Loop subdivision, `iterations` times (each multiplies the face count by 4).
bool subdivide(Mesh& mesh, int iterations = 1);

// Laplacian (uniform) smoothing of vertex positions, `iterations` times; boundary vertices
// stay. Normals are recomputed when the mesh had them.
bool smooth(Mesh& mesh, int iterations = 5);

// True when every edge belongs to exactly two faces, used in opposite directions.
bool isClosedManifold(const Mesh& mesh);
// V - E + F, with edges counted once.
long eulerCharacteristic(const Mesh& mesh);

namespace Statistics {
// The volume a closed surface encloses, in cubic millimetres of its vertex coordinates: the sum
// of the signed volumes of the tetrahedra from the origin to each face, so faces wound the
// usual way (normals outward) give a positive value. Meaningless for surfaces with holes.
double computeVolume(const Mesh& mesh);
}  // namespace Statistics

}  // namespace MeshProcessing
}  // namespace Merivane
