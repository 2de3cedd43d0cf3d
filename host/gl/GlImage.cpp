#include "GlImage.h"

#include <utility>

#include "GlContext.h"
#include "GlFormats.h"
#include "Log.h"

namespace Merivane {

using GL::internal::transferFormat;

int GlImage::defaultInternalFormat(PixelType type, int channels) {
  if (channels < 1 || channels > 4) return 0;
  // Three channels live in a four-channel format: RGB integer formats are not renderable.
  const int i = channels == 3 ? 3 : channels - 1;
  static const GLenum u8[] = {GL_R8UI, GL_RG8UI, 0, GL_RGBA8UI};
  static const GLenum i8[] = {GL_R8I, GL_RG8I, 0, GL_RGBA8I};
  static const GLenum u16[] = {GL_R16UI, GL_RG16UI, 0, GL_RGBA16UI};
  static const GLenum i16[] = {GL_R16I, GL_RG16I, 0, GL_RGBA16I};
  static const GLenum u32[] = {GL_R32UI, GL_RG32UI, 0, GL_RGBA32UI};
  static const GLenum i32[] = {GL_R32I, GL_RG32I, 0, GL_RGBA32I};
  static const GLenum f32[] = {GL_R32F, GL_RG32F, 0, GL_RGBA32F};
  static const GLenum f16[] = {GL_R16F, GL_RG16F, 0, GL_RGBA16F};
  switch (type) {
    case U8: return static_cast<int>(u8[i]);
    case I8: return static_cast<int>(i8[i]);
    case U16: return static_cast<int>(u16[i]);
    case I16: return static_cast<int>(i16[i]);
    case U32: return static_cast<int>(u32[i]);
    case I32: return static_cast<int>(i32[i]);
    case F32: return static_cast<int>(f32[i]);
    case F16: return static_cast<int>(f16[i]);
    case F64: return 0;
  }
  return 0;
}

char GlImage::samplerKind(int internalFormat) {
  switch (internalFormat) {
    case GL_R8UI: case GL_RG8UI: case GL_RGBA8UI: case GL_R16UI: case GL_RG16UI: case GL_RGBA16UI:
    case GL_R32UI: case GL_RG32UI: case GL_RGBA32UI:
      return 'u';
    case GL_R8I: case GL_RG8I: case GL_RGBA8I: case GL_R16I: case GL_RG16I: case GL_RGBA16I:
    case GL_R32I: case GL_RG32I: case GL_RGBA32I:
      return 'i';
    default:
      return 'f';
  }
}

GlImage::GlImage(const ImageDescriptor& descriptor, int internalFormat, const void* pixels) : Image(descriptor) {
  if (!descriptor.valid()) return;
  if (internalFormat == 0) internalFormat = defaultInternalFormat(descriptor.pixelType, descriptor.channels);
  if (internalFormat == 0) return;
  const auto tf = transferFormat(descriptor.pixelType, descriptor.channels);
  GL::runOnGlThread([&] {
    while (glGetError() != GL_NO_ERROR) {
    }
    const GLenum tgt = target();
    GLuint id = 0;
    glCreateTextures(tgt, 1, &id);
    const auto& d = descriptor.dimensions;
    if (tgt == GL_TEXTURE_3D)
      glTextureStorage3D(id, 1, static_cast<GLenum>(internalFormat), d[0], d[1], d[2]);
    else
      glTextureStorage2D(id, 1, static_cast<GLenum>(internalFormat), d[0], d[1]);
    // Images are read texel by texel; integer textures cannot be filtered anyway.
    glTextureParameteri(id, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTextureParameteri(id, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTextureParameteri(id, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTextureParameteri(id, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glTextureParameteri(id, GL_TEXTURE_WRAP_R, GL_CLAMP_TO_EDGE);
    if (pixels && tf.format && descriptor.pixelType != F16) {
      if (tgt == GL_TEXTURE_3D)
        glTextureSubImage3D(id, 0, 0, 0, 0, d[0], d[1], d[2], tf.format, tf.type, pixels);
      else
        glTextureSubImage2D(id, 0, 0, 0, d[0], d[1], tf.format, tf.type, pixels);
    }
    if (glGetError() != GL_NO_ERROR) {
      glDeleteTextures(1, &id);
      id = 0;
    }
    id_ = id;
  });
  if (id_) internalFormat_ = internalFormat;
}

GlImage::~GlImage() {
  if (!id_) return;
  const GLuint id = id_;
  GL::runOnGlThread([id] { glDeleteTextures(1, &id); });
}

unsigned int GlImage::target() const { return desc_.slices() > 1 ? GL_TEXTURE_3D : GL_TEXTURE_2D; }

bool GlImage::upload(const MemImage& image) {
  if (!id_ || image.dimensions() != dimensions() || image.channels() != channels()) return false;
  const auto tf = transferFormat(image.type(), image.channels());
  if (!tf.format || image.type() == F64) return false;
  bool ok = false;
  GL::runOnGlThread([&] {
    while (glGetError() != GL_NO_ERROR) {
    }
    const auto& d = desc_.dimensions;
    if (target() == GL_TEXTURE_3D)
      glTextureSubImage3D(id_, 0, 0, 0, 0, d[0], d[1], d[2], tf.format, tf.type, image.data());
    else
      glTextureSubImage2D(id_, 0, 0, 0, d[0], d[1], tf.format, tf.type, image.data());
    ok = glGetError() == GL_NO_ERROR;
  });
  return ok;
}

bool GlImage::download(MemImage& image) const {
  if (!id_ || image.dimensions() != dimensions() || image.channels() != channels()) return false;
  const auto tf = transferFormat(image.type(), image.channels());
  if (!tf.format || image.type() == F64) return false;
  // Integer textures only read back as integers and float textures as floats.
  if ((samplerKind(internalFormat_) == 'f') == GL::internal::isIntegerType(image.type())) return false;
  bool ok = false;
  GL::runOnGlThread([&] {
    while (glGetError() != GL_NO_ERROR) {
    }
    glGetTextureImage(id_, 0, tf.format, tf.type, static_cast<GLsizei>(image.byteSize()), image.data());
    ok = glGetError() == GL_NO_ERROR;
  });
  return ok;
}

bool GlImage::download(MemImage& image, const GL::Cuboid& box) const {
  if (!id_ || image.dimensions() != dimensions() || image.channels() != channels()) return false;
  const GL::Cuboid b = box.clipped(dimensions());
  if (b.empty()) return true;
  const auto tf = transferFormat(image.type(), image.channels());
  if (!tf.format || image.type() == F64) return false;
  if ((samplerKind(internalFormat_) == 'f') == GL::internal::isIntegerType(image.type())) return false;
  const auto& d = desc_.dimensions;
  const size_t pixelBytes = static_cast<size_t>(image.typeSize()) * static_cast<size_t>(image.channels());
  const size_t offset =
      ((static_cast<size_t>(b.min[2]) * d[1] + static_cast<size_t>(b.min[1])) * d[0] + static_cast<size_t>(b.min[0])) *
      pixelBytes;
  bool ok = false;
  GL::runOnGlThread([&] {
    while (glGetError() != GL_NO_ERROR) {
    }
    // The box lands at its place in the full image: rows and slices keep the image's stride.
    glPixelStorei(GL_PACK_ROW_LENGTH, d[0]);
    glPixelStorei(GL_PACK_IMAGE_HEIGHT, d[1]);
    const Eigen::Vector3i size = b.max - b.min;
    glGetTextureSubImage(id_, 0, b.min[0], b.min[1], b.min[2], size[0], size[1], size[2], tf.format, tf.type,
                         static_cast<GLsizei>(image.byteSize() - offset), static_cast<char*>(image.data()) + offset);
    ok = glGetError() == GL_NO_ERROR;
    glPixelStorei(GL_PACK_ROW_LENGTH, 0);
    glPixelStorei(GL_PACK_IMAGE_HEIGHT, 0);
  });
  return ok;
}

bool GlImage::clear() { return clear(GL::Cuboid::whole(dimensions())); }

bool GlImage::clear(const GL::Cuboid& box) {
  if (!id_) return false;
  const GL::Cuboid b = box.clipped(dimensions());
  if (b.empty()) return true;
  bool ok = false;
  GL::runOnGlThread([&] {
    while (glGetError() != GL_NO_ERROR) {
    }
    const char kind = samplerKind(internalFormat_);
    const GLenum format = kind == 'f' ? GL_RED : GL_RED_INTEGER;
    const GLenum type = kind == 'f' ? GL_FLOAT : kind == 'u' ? GL_UNSIGNED_INT : GL_INT;
    const Eigen::Vector3i size = b.max - b.min;
    // A null pointer clears to zero in every format.
    glClearTexSubImage(id_, 0, b.min[0], b.min[1], b.min[2], size[0], size[1], size[2], format, type, nullptr);
    ok = glGetError() == GL_NO_ERROR;
  });
  return ok;
}

void GlImage::swapTexID(GlImage& other) {
  std::swap(id_, other.id_);
  std::swap(internalFormat_, other.internalFormat_);
}

bool GlImage::update(const GlImage& other, GL::Framebuffer*) {
  if (!id_ || !other.id_ || other.dimensions() != dimensions() || other.internalFormat_ != internalFormat_)
    return false;
  bool ok = false;
  GL::runOnGlThread([&] {
    while (glGetError() != GL_NO_ERROR) {
    }
    const auto& d = desc_.dimensions;
    glCopyImageSubData(other.id_, other.target(), 0, 0, 0, 0, id_, target(), 0, 0, 0, 0, d[0], d[1], d[2]);
    ok = glGetError() == GL_NO_ERROR;
  });
  return ok;
}

bool GlImage::update(const GlImage& other, const GL::Cuboid& box) {
  if (!id_ || !other.id_ || other.dimensions() != dimensions() || other.internalFormat_ != internalFormat_)
    return false;
  const GL::Cuboid b = box.clipped(dimensions());
  if (b.empty()) return true;
  bool ok = false;
  GL::runOnGlThread([&] {
    while (glGetError() != GL_NO_ERROR) {
    }
    const Eigen::Vector3i size = b.max - b.min;
    glCopyImageSubData(other.id_, other.target(), 0, b.min[0], b.min[1], b.min[2], id_, target(), 0, b.min[0],
                       b.min[1], b.min[2], size[0], size[1], size[2]);
    ok = glGetError() == GL_NO_ERROR;
  });
  return ok;
}

}  // namespace Merivane
