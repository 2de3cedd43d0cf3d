#include "GlPrimitives.h"

#include <epoxy/gl.h>

#include <memory>

#include "GlContext.h"
#include "GlProgram.h"
#include "GlView.h"
#include "Resource.h"

namespace Merivane::GL {

namespace {

constexpr char kVertex[] = R"(#version 450 core
layout(location = 0) in vec3 a_position;
layout(location = 1) in vec3 a_normal;
uniform mat4 u_projectionMatrix;
uniform mat4 u_viewMatrix;
out vec3 v_worldPosition;
out vec3 v_normal;
void main() {
  v_worldPosition = a_position;
  v_normal = a_normal;
  gl_Position = u_projectionMatrix * u_viewMatrix * vec4(a_position, 1.0);
}
)";

constexpr char kFlat[] = R"(#version 450 core
uniform vec4 u_color;
layout(location = 0) out vec4 o_color;
void main() { o_color = u_color; }
)";

// Two-sided head light: the view direction is the eye's z axis.
constexpr char kShaded[] = R"(#version 450 core
in vec3 v_normal;
uniform vec4 u_color;
uniform mat4 u_viewMatrix;
uniform int u_flat;
in vec3 v_worldPosition;
layout(location = 0) out vec4 o_color;
void main() {
  vec3 n = u_flat != 0 ? normalize(cross(dFdx(v_worldPosition), dFdy(v_worldPosition))) : normalize(v_normal);
  vec3 toViewer = normalize(vec3(u_viewMatrix[0][2], u_viewMatrix[1][2], u_viewMatrix[2][2]));
  float d = abs(dot(n, toViewer));
  o_color = vec4(u_color.rgb * (0.25 + 0.75 * d), u_color.a);
}
)";

// The GL layer's resources, found under "MerivaneGL/".
class Repository_MerivaneGL : public Resource::Repository {
 public:
  std::string name() const override { return "MerivaneGL"; }
  bool contains(std::string_view name) const override { return text(name) != nullptr; }
  std::optional<ByteBuffer> query(std::string_view name) const override {
    const char* t = text(name);
    if (!t) return std::nullopt;
    return ByteBuffer(t, t + std::char_traits<char>::length(t));
  }

 private:
  static const char* text(std::string_view name) {
    if (name == "FixedFunctionPipeline.vert") return kVertex;
    if (name == "FlatColor.frag") return kFlat;
    if (name == "Shaded.frag") return kShaded;
    return nullptr;
  }
};

struct Programs {
  Program flat, shaded;
  GLuint vao = 0, buffers[2] = {0, 0};
  bool ready = false;
};

Programs* programs() {
  static Programs* p = [] {
    auto* created = new Programs;
    created->flat.compile(kVertex, kFlat);
    created->shaded.compile(kVertex, kShaded);
    glCreateVertexArrays(1, &created->vao);
    glCreateBuffers(2, created->buffers);
    created->ready = created->flat.valid() && created->shaded.valid();
    if (auto* c = Context::instance())
      c->addShutdownHook([created] {
        glDeleteVertexArrays(1, &created->vao);
        glDeleteBuffers(2, created->buffers);
        delete created;
      });
    return created;
  }();
  return p;
}

void setCamera(Program& program, const GlView& view) {
  program.setArgument("u_projectionMatrix", view.viewState().projection);
  program.setArgument("u_viewMatrix", view.viewState().view);
}

void upload(Programs& p, const std::vector<Eigen::Vector3f>& points, const std::vector<Eigen::Vector3f>* normals) {
  glBindVertexArray(p.vao);
  glNamedBufferData(p.buffers[0], static_cast<GLsizeiptr>(points.size() * sizeof(Eigen::Vector3f)), points.data(),
                    GL_STREAM_DRAW);
  glVertexArrayVertexBuffer(p.vao, 0, p.buffers[0], 0, sizeof(Eigen::Vector3f));
  glVertexArrayAttribFormat(p.vao, 0, 3, GL_FLOAT, GL_FALSE, 0);
  glVertexArrayAttribBinding(p.vao, 0, 0);
  glEnableVertexArrayAttrib(p.vao, 0);
  if (normals && normals->size() == points.size()) {
    glNamedBufferData(p.buffers[1], static_cast<GLsizeiptr>(normals->size() * sizeof(Eigen::Vector3f)),
                      normals->data(), GL_STREAM_DRAW);
    glVertexArrayVertexBuffer(p.vao, 1, p.buffers[1], 0, sizeof(Eigen::Vector3f));
    glVertexArrayAttribFormat(p.vao, 1, 3, GL_FLOAT, GL_FALSE, 0);
    glVertexArrayAttribBinding(p.vao, 1, 1);
    glEnableVertexArrayAttrib(p.vao, 1);
  } else {
    glDisableVertexArrayAttrib(p.vao, 1);
  }
}

void lines(const GlView& view, const std::vector<Eigen::Vector3f>& points, const Eigen::Vector4f& color, GLenum mode,
           float widthPx) {
  Programs* p = programs();
  if (!p->ready || points.size() < 2) return;
  upload(*p, points, nullptr);
  p->flat.use();
  setCamera(p->flat, view);
  p->flat.setArgument("u_color", Eigen::Vector4d(color.cast<double>()));
  glEnable(GL_BLEND);
  glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  glLineWidth(widthPx);
  glDrawArrays(mode, 0, static_cast<GLsizei>(points.size()));
  glLineWidth(1.0f);
}

}  // namespace

const char* fixedFunctionVertexSource() { return kVertex; }

void drawSliceQuad(unsigned int& vertexArray, unsigned int& buffer, const Slice& slice) {
  if (!vertexArray) {
    glCreateVertexArrays(1, &vertexArray);
    glCreateBuffers(1, &buffer);
  }
  float quad[18];
  const int order[6] = {0, 1, 2, 0, 2, 3};
  for (int i = 0; i < 6; ++i) {
    const Eigen::Vector3d c = slice.corner(order[i]);
    for (int k = 0; k < 3; ++k) quad[i * 3 + k] = static_cast<float>(c[k]);
  }
  glNamedBufferData(buffer, sizeof(quad), quad, GL_STREAM_DRAW);
  glVertexArrayVertexBuffer(vertexArray, 0, buffer, 0, 3 * sizeof(float));
  glVertexArrayAttribFormat(vertexArray, 0, 3, GL_FLOAT, GL_FALSE, 0);
  glVertexArrayAttribBinding(vertexArray, 0, 0);
  glEnableVertexArrayAttrib(vertexArray, 0);
  glBindVertexArray(vertexArray);
  glDrawArrays(GL_TRIANGLES, 0, 6);
}

void registerResources() {
  static Repository_MerivaneGL repository;
  Resource::addRepository(&repository);
}

void drawLines(const GlView& view, const std::vector<Eigen::Vector3f>& points, const Eigen::Vector4f& color,
               bool closed, float widthPx) {
  lines(view, points, color, closed ? GL_LINE_LOOP : GL_LINE_STRIP, widthPx);
}

void drawSegments(const GlView& view, const std::vector<Eigen::Vector3f>& points, const Eigen::Vector4f& color,
                  float widthPx) {
  lines(view, points, color, GL_LINES, widthPx);
}

void drawTriangles(const GlView& view, const std::vector<Eigen::Vector3f>& points,
                   const std::vector<Eigen::Vector3f>& normals, const Eigen::Vector4f& color) {
  Programs* p = programs();
  if (!p->ready || points.size() < 3) return;
  upload(*p, points, &normals);
  p->shaded.use();
  setCamera(p->shaded, view);
  p->shaded.setArgument("u_color", Eigen::Vector4d(color.cast<double>()));
  p->shaded.setArgument("u_flat", normals.size() == points.size() ? 0 : 1);
  glEnable(GL_DEPTH_TEST);
  glDepthFunc(GL_LEQUAL);
  glEnable(GL_BLEND);
  glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  glDrawArrays(GL_TRIANGLES, 0, static_cast<GLsizei>(points.size()));
}

}  // namespace Merivane::GL
