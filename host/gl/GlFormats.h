#pragma once
// Pixel type and channel count to GL formats; for the GL layer's sources only.
#include <epoxy/gl.h>

#include "Image.h"

namespace Merivane::GL::internal {

struct TransferFormat {
  GLenum format = 0;  // GL_RED, GL_RG_INTEGER, ...
  GLenum type = 0;    // GL_UNSIGNED_BYTE, GL_FLOAT, ...
};

inline GLenum glTypeOf(PixelType t) {
  switch (t) {
    case I8: return GL_BYTE;
    case U8: return GL_UNSIGNED_BYTE;
    case I16: return GL_SHORT;
    case U16: return GL_UNSIGNED_SHORT;
    case I32: return GL_INT;
    case U32: return GL_UNSIGNED_INT;
    case F32: return GL_FLOAT;
    case F16: return GL_HALF_FLOAT;
    case F64: return GL_DOUBLE;
  }
  return 0;
}

inline bool isIntegerType(PixelType t) { return t != F32 && t != F16 && t != F64; }

inline TransferFormat transferFormat(PixelType t, int channels) {
  static const GLenum floatFormats[] = {GL_RED, GL_RG, GL_RGB, GL_RGBA};
  static const GLenum intFormats[] = {GL_RED_INTEGER, GL_RG_INTEGER, GL_RGB_INTEGER, GL_RGBA_INTEGER};
  if (channels < 1 || channels > 4) return {};
  return {isIntegerType(t) ? intFormats[channels - 1] : floatFormats[channels - 1], glTypeOf(t)};
}

}  // namespace Merivane::GL::internal
