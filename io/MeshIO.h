#pragma once
// Meshes by file extension: .ply (binary little-endian written; ascii and binary little-endian
// read, with optional normals and colours), .stl (binary written; ascii and binary read; equal
// corners are merged) and .obj (vertices, normals and polygonal faces, fanned into triangles).
// Coordinates are world millimetres.
#include <memory>
#include <string>

namespace Merivane {
class Mesh;
}

namespace Merivane::IO {

bool isMeshPath(const std::string& path);
std::unique_ptr<Mesh> readMesh(const std::string& path, std::string* error = nullptr);
bool writeMesh(const Mesh& mesh, const std::string& path, std::string* error = nullptr);

}  // namespace Merivane::IO
