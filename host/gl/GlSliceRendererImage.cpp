#include "GlSliceRendererImage.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <vector>

#include "GlContext.h"
#include "GlImage.h"
#include "GlProgram.h"
#include "GlStateGuard.h"
#include "GlPrimitives.h"
#include "GlView.h"
#include "SharedImage.h"

namespace Merivane {

namespace {

std::string fragmentSource(char kind, bool volume) {
  const std::string prefix = kind == 'u' ? "u" : kind == 'i' ? "i" : "";
  std::string s = "#version 450 core\n";
  s += "uniform " + prefix + (volume ? "sampler3D" : "sampler2D") + " u_image;\n";
  s += volume ? "#define FETCH(p) texelFetch(u_image, p, 0)\n" : "#define FETCH(p) texelFetch(u_image, p.xy, 0)\n";
  s += volume ? "#define SIZE ivec3(textureSize(u_image, 0))\n" : "#define SIZE ivec3(textureSize(u_image, 0), 1)\n";
  s += R"(
uniform mat4 u_worldToTexture;
uniform float u_low;
uniform float u_high;
uniform float u_opacity;
uniform int u_channels;
in vec3 v_worldPosition;
layout(location = 0) out vec4 o_color;
void main() {
  vec3 t = (u_worldToTexture * vec4(v_worldPosition, 1.0)).xyz;
  if (any(lessThan(t, vec3(0.0))) || any(greaterThanEqual(t, vec3(1.0)))) discard;
  ivec3 size = SIZE;
  ivec3 p = clamp(ivec3(floor(t * vec3(size))), ivec3(0), size - 1);
  vec4 v = vec4(FETCH(p));
  float span = max(u_high - u_low, 1e-20);
  vec3 c = u_channels >= 3 ? clamp((v.rgb - u_low) / span, 0.0, 1.0) : vec3(clamp((v.r - u_low) / span, 0.0, 1.0));
  o_color = vec4(c, u_opacity);
}
)";
  return s;
}

}  // namespace

struct GlSliceRendererImage::Gl {
  std::map<std::pair<char, bool>, std::unique_ptr<GL::Program>> programs;
  GLuint vao = 0, vbo = 0;
  std::unique_ptr<GlImage> converted;  // float copy of a double image
  const void* convertedFrom = nullptr;
  ~Gl() {
    if (vao || vbo || converted || !programs.empty()) {
      GL::runOnGlThread([this] {
        glDeleteVertexArrays(1, &vao);
        glDeleteBuffers(1, &vbo);
        converted.reset();
        programs.clear();
      });
    }
  }
};

GlSliceRendererImage::GlSliceRendererImage(SharedImage* image) { setImage(image); }

GlSliceRendererImage::~GlSliceRendererImage() = default;

void GlSliceRendererImage::setImage(SharedImage* image) {
  image_ = image;
  if (image_) autoWindowLevel();
}

void GlSliceRendererImage::setWindowLevel(double window, double level) {
  if (!std::isfinite(window) || !std::isfinite(level)) return;
  window_ = std::max(window, 1e-12);
  level_ = level;
}

void GlSliceRendererImage::autoWindowLevel() {
  if (!image_ || !image_->mem()) return;
  const MemImage& m = *image_->mem();
  const size_t n = m.descriptor().elementCount();
  if (n == 0) return;
  // A sample of up to 200k values is enough for the percentiles.
  const size_t stride = std::max<size_t>(1, n / 200000);
  std::vector<double> sample;
  sample.reserve(n / stride + 1);
  dispatchPixelType(m.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(m.data());
    for (size_t i = 0; i < n; i += stride) {
      const double v = static_cast<double>(p[i]);
      if (std::isfinite(v)) sample.push_back(v);
    }
  });
  if (sample.empty()) return;
  std::sort(sample.begin(), sample.end());
  double lo = sample[sample.size() * 2 / 100], hi = sample[std::min(sample.size() - 1, sample.size() * 98 / 100)];
  if (hi <= lo) {
    lo = sample.front();
    hi = sample.back();
  }
  if (hi <= lo) hi = lo + 1;
  lo = image_->descriptor().toPhysical(lo);
  hi = image_->descriptor().toPhysical(hi);
  setWindowLevel(std::abs(hi - lo), 0.5 * (lo + hi));
}

Geometry::AlignedBox GlSliceRendererImage::bounds() const {
  return image_ ? image_->worldBounds() : Geometry::AlignedBox{};
}

void GlSliceRendererImage::draw(const GlView& view) {
  if (!image_) return;
  const Slice* plane = nullptr;
  if (auto* sv = dynamic_cast<const GlSliceView*>(&view))
    plane = &sv->slice().slice();
  else if (plane_)
    plane = &plane_->slice();
  if (!plane) return;
  if (!gl_) gl_ = std::make_unique<Gl>();

  // The texture: the image's own, or a float copy when it has no texture form (double).
  const GlImage* texture = nullptr;
  const ImageDescriptor& d = image_->descriptor();
  if (GlImage::hasTextureForm(d)) {
    texture = image_->gl();
  } else if (d.pixelType == F64 && image_->mem()) {
    const MemImage* m = image_->mem();
    if (gl_->convertedFrom != m->data() || !image_->hasMem()) {
      ImageDescriptor fd = d;
      fd.pixelType = F32;
      std::vector<float> values(m->descriptor().elementCount());
      const double* src = static_cast<const double*>(m->data());
      for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(src[i]);
      gl_->converted = std::make_unique<GlImage>(fd, 0, values.data());
      gl_->convertedFrom = m->data();
    }
    texture = gl_->converted.get();
  }
  if (!texture || !texture->valid()) return;

  const bool volume = d.slices() > 1;
  const char kind = GlImage::samplerKind(texture->internalFormat());
  auto& program = gl_->programs[{kind, volume}];
  if (!program) {
    program = std::make_unique<GL::Program>();
    program->compile(GL::fixedFunctionVertexSource(), fragmentSource(kind, volume));
  }
  if (!program->valid()) return;

  GL::StateGuard guard;
  program->use();
  Eigen::Matrix4d worldToTexture = ignoreMatrix_ ? image_->imageToTextureMatrix() : image_->worldToTextureMatrix();
  program->setArgument("u_worldToTexture", worldToTexture);
  program->setArgument("u_projectionMatrix", view.viewState().projection);
  program->setArgument("u_viewMatrix", view.viewState().view);
  program->setArgument("u_image", *texture, 0);
  // Window in physical units to values as the texture holds them (stored values).
  const double lo = d.toStored(level_ - 0.5 * window_), hi = d.toStored(level_ + 0.5 * window_);
  program->setArgument("u_low", static_cast<float>(std::min(lo, hi)));
  program->setArgument("u_high", static_cast<float>(std::max(lo, hi)));
  program->setArgument("u_opacity", static_cast<float>(opacity_));
  program->setArgument("u_channels", d.channels);
  glEnable(GL_BLEND);
  glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  if (!dynamic_cast<const GlSliceView*>(&view)) {
    glEnable(GL_DEPTH_TEST);
    glDepthFunc(GL_LEQUAL);
  }
  GL::drawSliceQuad(gl_->vao, gl_->vbo, *plane);
}

}  // namespace Merivane
