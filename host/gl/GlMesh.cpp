#include "GlMesh.h"

#include <vector>

#include "GlPrimitives.h"
#include "GlView.h"
#include "Mesh.h"

namespace Merivane {

GlMesh::GlMesh(std::shared_ptr<const Mesh> mesh) : mesh_(std::move(mesh)) {}

GlMesh::~GlMesh() = default;

Geometry::AlignedBox GlMesh::bounds() const { return mesh_ ? mesh_->bounds() : Geometry::AlignedBox{}; }

void GlMesh::draw(const GlView& view) {
  if (!mesh_ || mesh_->faces.empty()) return;
  const auto& V = mesh_->vertices;
  const int nv = static_cast<int>(V.size());
  auto valid = [&](const Eigen::Vector3i& f) {
    return f.minCoeff() >= 0 && f.maxCoeff() < nv;
  };
  if (auto* sv = dynamic_cast<const GlSliceView*>(&view)) {
    // The segments where the triangles cross the plane.
    const Slice& s = sv->slice().slice();
    const Eigen::Vector3f n = s.normal().cast<float>();
    const float h = static_cast<float>(s.normal().dot(s.center()));
    std::vector<Eigen::Vector3f> segments;
    for (const auto& f : mesh_->faces) {
      if (!valid(f)) continue;
      float d[3];
      for (int k = 0; k < 3; ++k) d[k] = n.dot(V[static_cast<size_t>(f[k])]) - h;
      int found = 0;
      for (int k = 0; k < 3 && found < 2; ++k) {
        const float a = d[k], b = d[(k + 1) % 3];
        if ((a < 0) == (b < 0)) continue;
        const Eigen::Vector3f& pa = V[static_cast<size_t>(f[k])];
        const Eigen::Vector3f& pb = V[static_cast<size_t>(f[(k + 1) % 3])];
        segments.push_back(pa + (pb - pa) * (a / (a - b)));
        ++found;
      }
      if (found == 1) segments.pop_back();
    }
    GL::drawSegments(view, segments, color, lineWidthPx);
    return;
  }
  std::vector<Eigen::Vector3f> points, normals;
  points.reserve(mesh_->faces.size() * 3);
  const bool smooth = mesh_->hasNormals();
  for (const auto& f : mesh_->faces) {
    if (!valid(f)) continue;
    for (int k = 0; k < 3; ++k) {
      points.push_back(V[static_cast<size_t>(f[k])]);
      if (smooth) normals.push_back(mesh_->normals[static_cast<size_t>(f[k])]);
    }
  }
  GL::drawTriangles(view, points, normals, color);
}

}  // namespace Merivane
