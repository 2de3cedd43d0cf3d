#include "GlMask.h"

#include "GlImage.h"
#include "GlProgram.h"
#include "Mask.h"
#include "SharedImage.h"

namespace Merivane {

namespace {

// The first channel of `image`, non-zero as 1, as a U8 texture.
std::unique_ptr<GlImage> maskTexture(const MemImage& image) {
  std::unique_ptr<ExplicitMask> binary = ExplicitMask::convert(image);
  if (!binary) return nullptr;
  const TypedImage<unsigned char>& m = binary->maskImageTyped();
  auto texture = std::make_unique<GlImage>(ImageDescriptor(U8, m.dimensions(), 1), 0, m.pointer());
  return texture->valid() ? std::move(texture) : nullptr;
}

}  // namespace

GlMask::GlMask() = default;

GlMask::GlMask(const Mask& mask, const SharedImage& frame) {
  std::unique_ptr<ExplicitMask> explicitMask = mask.createExplicitMask(frame);
  if (explicitMask) texture_ = maskTexture(explicitMask->maskImageTyped());
}

GlMask::GlMask(const MemImage& image) : texture_(maskTexture(image)) {}

GlMask::~GlMask() = default;

bool GlMask::valid() const { return texture_ && texture_->valid(); }

Eigen::Vector3i GlMask::dimensions() const { return texture_ ? texture_->dimensions() : Eigen::Vector3i::Zero(); }

std::string GlMask::multiIncludeDefine(const std::string& name) { return GL::MultiAbstractInclude::defineName(name); }

std::string GlMask::includeSource(const std::string& name) const {
  const bool volume = dimensions()[2] > 1;
  const std::string tex = name + "_texture";
  std::string s = "uniform " + std::string(volume ? "usampler3D " : "usampler2D ") + tex + ";\n";
  s += "bool " + name + "_included(vec3 texCoord) {\n";
  if (volume) {
    s += "  ivec3 size = textureSize(" + tex + ", 0);\n"
         "  ivec3 v = clamp(ivec3(floor(texCoord * vec3(size))), ivec3(0), size - 1);\n";
  } else {
    s += "  ivec2 size = textureSize(" + tex + ", 0);\n"
         "  ivec2 v = clamp(ivec2(floor(texCoord.xy * vec2(size))), ivec2(0), size - 1);\n";
  }
  s += "  return texelFetch(" + tex + ", v, 0).r != 0u;\n}\n";
  return s;
}

bool GlMask::setIncludeUniforms(GL::Program& program, const std::string& name, int firstUnit) const {
  if (!valid()) return false;
  return program.setArgument(name + "_texture", *texture_, firstUnit);
}

}  // namespace Merivane
