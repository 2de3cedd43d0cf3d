#pragma once
// A surface mesh in the views: shaded in the 3D view, and as the line where it cuts the plane
// in slice views.
#include <memory>
#include <string>

#include <Eigen/Core>

#include "GlObject.h"

namespace Merivane {

class Mesh;

class GlMesh : public GlObject {
 public:
  explicit GlMesh(std::shared_ptr<const Mesh> mesh = nullptr);
  ~GlMesh() override;
  const std::shared_ptr<const Mesh>& mesh() const { return mesh_; }
  void setMesh(std::shared_ptr<const Mesh> mesh) { mesh_ = std::move(mesh); }
  Eigen::Vector4f color = Eigen::Vector4f(0.9f, 0.75f, 0.3f, 1.0f);
  float lineWidthPx = 2.0f;

  void draw(const GlView& view) override;
  Geometry::AlignedBox bounds() const override;
  std::string typeName() const override { return "GlMesh"; }

 private:
  std::shared_ptr<const Mesh> mesh_;
};

}  // namespace Merivane
