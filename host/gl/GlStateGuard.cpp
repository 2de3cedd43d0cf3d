#include "GlStateGuard.h"

#include <epoxy/gl.h>

namespace Merivane::GL {

StateGuard::StateGuard() {
  blend_ = glIsEnabled(GL_BLEND);
  depthTest_ = glIsEnabled(GL_DEPTH_TEST);
  glGetIntegerv(GL_BLEND_SRC_RGB, &blendSrc_);
  glGetIntegerv(GL_BLEND_DST_RGB, &blendDst_);
  glGetIntegerv(GL_CURRENT_PROGRAM, &program_);
  glGetIntegerv(GL_VERTEX_ARRAY_BINDING, &vertexArray_);
  glGetIntegerv(GL_ACTIVE_TEXTURE, &activeTexture_);
  glGetIntegerv(GL_VIEWPORT, viewport_);
  for (int u = 0; u < kUnits; ++u) {
    glActiveTexture(GL_TEXTURE0 + u);
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &tex2d_[u]);
    glGetIntegerv(GL_TEXTURE_BINDING_3D, &tex3d_[u]);
  }
  glActiveTexture(static_cast<GLenum>(activeTexture_));
}

StateGuard::~StateGuard() {
  for (int u = 0; u < kUnits; ++u) {
    glActiveTexture(GL_TEXTURE0 + u);
    glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(tex2d_[u]));
    glBindTexture(GL_TEXTURE_3D, static_cast<GLuint>(tex3d_[u]));
  }
  glActiveTexture(static_cast<GLenum>(activeTexture_));
  blend_ ? glEnable(GL_BLEND) : glDisable(GL_BLEND);
  depthTest_ ? glEnable(GL_DEPTH_TEST) : glDisable(GL_DEPTH_TEST);
  glBlendFunc(static_cast<GLenum>(blendSrc_), static_cast<GLenum>(blendDst_));
  glUseProgram(static_cast<GLuint>(program_));
  glBindVertexArray(static_cast<GLuint>(vertexArray_));
  glViewport(viewport_[0], viewport_[1], viewport_[2], viewport_[3]);
}

}  // namespace Merivane::GL
