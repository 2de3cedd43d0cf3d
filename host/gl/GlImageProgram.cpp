#include "GlImageProgram.h"

#include <epoxy/gl.h>

#include <cstdio>

#include "GlFramebuffer.h"
#include "GlImage.h"
#include "GlUtils.h"

namespace Merivane::GL {

const char* ImageProgram::vertexSource() {
  // One triangle that covers the viewport; no vertex buffer needed.
  return "#version 450 core\n"
         "void main() {\n"
         "  vec2 p = vec2((gl_VertexID << 1) & 2, gl_VertexID & 2);\n"
         "  gl_Position = vec4(p * 2.0 - 1.0, 0.0, 1.0);\n"
         "}\n";
}

std::string ImageProgram::genericSamplerDefine(const ImageDescriptor& d) {
  const int format = GlImage::defaultInternalFormat(d.pixelType, d.channels);
  if (format == 0) return {};
  const char kind = GlImage::samplerKind(format);
  const bool volume = d.slices() > 1;
  std::string s = "#define GENERIC_SAMPLER ";
  s += kind == 'u' ? "usampler" : kind == 'i' ? "isampler" : "sampler";
  s += volume ? "3D\n#define GENERIC_3D\n" : "2D\n";
  const GlUtils::Normalization n = GlUtils::normalization(d);
  if (!n.integer) return s + "#define GENERIC_NORMALIZED(t) ((t).r)\n";
  // Whole numbers up to 2^32 print exactly; the trailing ".0" keeps them float literals.
  char buffer[160];
  std::snprintf(buffer, sizeof(buffer), "#define GENERIC_NORMALIZED(t) ((float((t).r) - (%.1f)) / %.1f)\n", n.offset,
                n.range);
  return s + buffer;
}

ImageProgram::ImageProgram() = default;

ImageProgram::~ImageProgram() {
  if (vertexArray_) glDeleteVertexArrays(1, &vertexArray_);
}

bool ImageProgram::compile(const std::string& fragmentSource) {
  return Program::compile(vertexSource(), fragmentSource);
}

bool ImageProgram::compute(GlImage& target) { return compute(target, Cuboid::whole(target.dimensions())); }

bool ImageProgram::compute(GlImage& target, const Cuboid& box) {
  if (!valid() || !target.valid()) return false;
  const Cuboid b = box.clipped(target.dimensions());
  if (b.empty()) return true;
  const bool whole = b.min.head<2>().isZero() && b.max[0] == target.width() && b.max[1] == target.height();
  if (!framebuffer_) framebuffer_ = std::make_unique<Framebuffer>();
  if (!vertexArray_) glCreateVertexArrays(1, &vertexArray_);
  use();
  glBindVertexArray(vertexArray_);
  glDisable(GL_BLEND);
  glDisable(GL_DEPTH_TEST);
  if (!whole) {
    glEnable(GL_SCISSOR_TEST);
    glScissor(b.min[0], b.min[1], b.max[0] - b.min[0], b.max[1] - b.min[1]);
  }
  bool ok = true;
  for (int z = b.min[2]; z < b.max[2] && ok; ++z) {
    if (!framebuffer_->attach(target, z)) {
      ok = false;
      break;
    }
    setArgument("u_slice", z);
    glDrawArrays(GL_TRIANGLES, 0, 3);
  }
  if (!whole) glDisable(GL_SCISSOR_TEST);
  framebuffer_->unbind();
  glBindVertexArray(0);
  return ok && glGetError() == GL_NO_ERROR;
}

}  // namespace Merivane::GL
