#pragma once
// A triangle mesh in world millimetres: vertices, faces as vertex index triples, and optional
// per-vertex normals and colours (red, green, blue, opacity in [0, 1]). Empty normal or colour
// vectors mean "none"; otherwise they hold one entry per vertex.
#include <Eigen/Core>
#include <vector>

#include "Data.h"

namespace Merivane {

class Mesh : public Data {
 public:
  Kind kind() const override { return kindMesh; }
  Mesh* asMesh() override { return this; }
  Geometry::AlignedBox bounds() const override;
  std::string describe() const override;

  std::vector<Eigen::Vector3f> vertices;
  std::vector<Eigen::Vector3i> faces;
  std::vector<Eigen::Vector3f> normals;
  std::vector<Eigen::Vector4f> colors;

  bool hasNormals() const { return !normals.empty() && normals.size() == vertices.size(); }
  bool hasColors() const { return !colors.empty() && colors.size() == vertices.size(); }
  // Every face index lies within the vertex list and the optional arrays have vertex length.
  bool isValid() const;
};

}  // namespace Merivane
