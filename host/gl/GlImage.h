#pragma once
// An image as a texture: GL_TEXTURE_2D for one slice, GL_TEXTURE_3D for a volume. Integer
// pixel types get integer formats (R8UI, R16I, ...) so values are kept exactly; F32 and F16
// get float formats; 3 channels are held in a 4-channel format. F64 and more than 4
// channels have no texture form. Every method may be called from any thread: the GL work
// runs on the context's thread. Without a context the texture is invalid (id 0).
#include "Image.h"

namespace Merivane {

namespace GL {
class Framebuffer;

// A box of voxels, min inclusive and max exclusive, in the texture's voxel indices.
struct Cuboid {
  Eigen::Vector3i min = Eigen::Vector3i::Zero();
  Eigen::Vector3i max = Eigen::Vector3i::Zero();
  bool empty() const { return (max.array() <= min.array()).any(); }
  // The whole of an image of `dimensions`.
  static Cuboid whole(const Eigen::Vector3i& dimensions) { return {Eigen::Vector3i::Zero(), dimensions}; }
  // This box clipped to an image of `dimensions`.
  Cuboid clipped(const Eigen::Vector3i& dimensions) const {
    return {min.cwiseMax(0), max.cwiseMin(dimensions)};
  }
  // The smallest box that holds both; an empty box adds nothing.
  Cuboid united(const Cuboid& other) const {
    if (empty()) return other;
    if (other.empty()) return *this;
    return {min.cwiseMin(other.min), max.cwiseMax(other.max)};
  }
};
}  // namespace GL

class GlImage : public Image {
 public:
  // internalFormat 0 picks the default for the descriptor; pixels (null: undefined contents)
  // are in the memory layout of the descriptor's type.
  explicit GlImage(const ImageDescriptor& descriptor, int internalFormat = 0, const void* pixels = nullptr);
  ~GlImage() override;
  GlImage(const GlImage&) = delete;
  GlImage& operator=(const GlImage&) = delete;

  bool valid() const { return id_ != 0; }
  unsigned int id() const { return id_; }
  int internalFormat() const { return internalFormat_; }
  // GL_TEXTURE_2D or GL_TEXTURE_3D.
  unsigned int target() const;

  // Writes the pixels of `image`, which must have this texture's dimensions and channels.
  bool upload(const MemImage& image);
  // Reads the texture into `image` (same dimensions and channels; element type of the
  // descriptor). False when the texture is invalid or the shapes differ.
  bool download(MemImage& image) const;
  // Reads the voxels of `box` into the same voxels of `image`, which has this texture's
  // dimensions and channels; the rest of `image` is left as it was.
  bool download(MemImage& image, const GL::Cuboid& box) const;
  // Sets every texel of `box` (the whole texture by default) to zero.
  bool clear();
  bool clear(const GL::Cuboid& box);
  // Exchanges textures (and formats) with `other`; descriptors stay.
  void swapTexID(GlImage& other);
  // Copies the contents of `other`, which must have the same size and format.
  bool update(const GlImage& other, GL::Framebuffer* framebuffer = nullptr);
  // Copies only the voxels of `box` of `other`.
  bool update(const GlImage& other, const GL::Cuboid& box);

  // Default internal format, 0 when the type has no texture form.
  static int defaultInternalFormat(PixelType type, int channels);
  static bool hasTextureForm(const ImageDescriptor& descriptor) {
    return defaultInternalFormat(descriptor.pixelType, descriptor.channels) != 0;
  }
  // How shaders sample an internal format: 'f' float, 'i' signed, 'u' unsigned integer.
  static char samplerKind(int internalFormat);

 private:
  unsigned int id_ = 0;
  int internalFormat_ = 0;
};

}  // namespace Merivane
