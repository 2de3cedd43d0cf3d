// The texture side of SharedImage: installed into MerivaneLib when this library is loaded.
// A shared library always runs its initialisers, so this registration cannot be dropped the
// way self-registering statics in a static library are.
#include "GlContext.h"
#include "GlImage.h"
#include "TextureBackend.h"

namespace Merivane::GL {

namespace {

class GlTextureBackend final : public TextureBackend {
 public:
  GlImage* asTexture(Image* image) const override { return dynamic_cast<GlImage*>(image); }

  std::shared_ptr<Image> upload(const MemImage& image, std::shared_ptr<Image> target) override {
    if (!Context::instance() || !GlImage::hasTextureForm(image.descriptor())) return nullptr;
    auto texture = std::dynamic_pointer_cast<GlImage>(target);
    const int format = GlImage::defaultInternalFormat(image.type(), image.channels());
    if (!texture || !texture->valid() || texture->dimensions() != image.dimensions() ||
        texture->channels() != image.channels() || texture->internalFormat() != format || texture->type() != image.type())
      texture = std::make_shared<GlImage>(image.descriptor(), format, nullptr);
    if (!texture->valid() || !texture->upload(image)) return nullptr;
    texture->setSpacing(image.spacing(), image.isMetric());
    texture->setShiftScale(image.shift(), image.scale());
    return texture;
  }

  bool download(const Image& texture, MemImage& target) override {
    auto* gl = dynamic_cast<const GlImage*>(&texture);
    return gl && gl->download(target);
  }

  bool download(const Image& texture, MemImage& target, const vec3i& min, const vec3i& max) override {
    auto* gl = dynamic_cast<const GlImage*>(&texture);
    return gl && gl->download(target, Cuboid{min, max});
  }

  std::shared_ptr<Image> copy(const GlImage& texture) override {
    auto result = std::make_shared<GlImage>(texture.descriptor(), texture.internalFormat(), nullptr);
    if (!result->valid() || !result->update(texture)) return nullptr;
    return result;
  }
};

GlTextureBackend g_backend;

struct Installer {
  Installer() { TextureBackend::install(&g_backend); }
  ~Installer() {
    if (TextureBackend::installed() == &g_backend) TextureBackend::install(nullptr);
  }
} g_installer;

}  // namespace

}  // namespace Merivane::GL
