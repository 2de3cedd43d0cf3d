#pragma once
// The hook through which SharedImage keeps a texture copy without linking the GL layer:
// MerivaneGL depends on MerivaneLib (GlImage is an Image), so MerivaneLib cannot depend on
// it. The GL layer installs one backend when it is loaded; without one, or when it cannot
// make a context, SharedImage simply has no texture copy and every caller takes its memory
// path.
#include <memory>

#include "EigenFwd.h"

namespace Merivane {

class GlImage;
class Image;
class MemImage;

class TextureBackend {
 public:
  virtual ~TextureBackend();
  // The texture form of an image, or null if `image` is not one.
  virtual GlImage* asTexture(Image* image) const = 0;
  // Writes `image` into `target` (reusing it when its shape fits) or into a new texture,
  // which it returns; null when there is no texture path for this image.
  virtual std::shared_ptr<Image> upload(const MemImage& image, std::shared_ptr<Image> target) = 0;
  // Reads a texture into `target`, which has the texture's descriptor.
  virtual bool download(const Image& texture, MemImage& target) = 0;
  // Reads only the voxels from `min` (inclusive) to `max` (exclusive) into the same voxels
  // of `target`.
  virtual bool download(const Image& texture, MemImage& target, const vec3i& min, const vec3i& max) = 0;
  // A new texture with the contents of `texture`; null on failure.
  virtual std::shared_ptr<Image> copy(const GlImage& texture) = 0;

  // The installed backend, or null. Installing replaces the previous one (not owned).
  static TextureBackend* installed();
  static void install(TextureBackend* backend);
};

}  // namespace Merivane
