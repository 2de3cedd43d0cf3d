#pragma once
// Small drawing helpers for view objects: coloured lines and shaded triangles in world
// coordinates, through the GL layer's own programs. GL thread only.
#include <Eigen/Core>
#include <vector>

namespace Merivane {
class GlView;
class Slice;
}

namespace Merivane::GL {

// Lines between consecutive points (a strip, or a loop when `closed`), `widthPx` wide.
void drawLines(const GlView& view, const std::vector<Eigen::Vector3f>& points, const Eigen::Vector4f& color,
               bool closed, float widthPx = 1.0f);
// Independent segments: points 2k and 2k + 1.
void drawSegments(const GlView& view, const std::vector<Eigen::Vector3f>& points, const Eigen::Vector4f& color,
                  float widthPx = 1.0f);
// Triangles (three points each) with a head light; normals per point, or flat when empty.
void drawTriangles(const GlView& view, const std::vector<Eigen::Vector3f>& points,
                   const std::vector<Eigen::Vector3f>& normals, const Eigen::Vector4f& color);

// Draws the rectangle of `slice` as two triangles with the program in use, through a vertex
// array and buffer the caller keeps (made here on first use, freed by the caller).
void drawSliceQuad(unsigned int& vertexArray, unsigned int& buffer, const Slice& slice);

// The vertex stage every view object shares ("MerivaneGL/FixedFunctionPipeline.vert"): world
// positions at location 0, u_projectionMatrix and u_viewMatrix, world position out as
// v_worldPosition.
const char* fixedFunctionVertexSource();

// Adds the GL layer's resource repository ("MerivaneGL/..."); done when the context is made.
void registerResources();

}  // namespace Merivane::GL
