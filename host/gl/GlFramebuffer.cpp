#include "GlFramebuffer.h"

#include <epoxy/gl.h>

#include "GlImage.h"

namespace Merivane::GL {

Framebuffer::Framebuffer() { glCreateFramebuffers(1, &id_); }

Framebuffer::~Framebuffer() {
  if (id_) glDeleteFramebuffers(1, &id_);
}

bool Framebuffer::attach(const GlImage& image, int slice) {
  if (!id_ || !image.valid() || slice < 0 || slice >= image.slices()) return false;
  if (image.target() == GL_TEXTURE_3D)
    glNamedFramebufferTextureLayer(id_, GL_COLOR_ATTACHMENT0, image.id(), 0, slice);
  else
    glNamedFramebufferTexture(id_, GL_COLOR_ATTACHMENT0, image.id(), 0);
  glNamedFramebufferDrawBuffer(id_, GL_COLOR_ATTACHMENT0);
  if (glCheckNamedFramebufferStatus(id_, GL_DRAW_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) return false;
  glBindFramebuffer(GL_DRAW_FRAMEBUFFER, id_);
  glViewport(0, 0, image.width(), image.height());
  return true;
}

void Framebuffer::unbind() { glBindFramebuffer(GL_DRAW_FRAMEBUFFER, 0); }

}  // namespace Merivane::GL
