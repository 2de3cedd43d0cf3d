#include "GlUtils.h"

#include "Image.h"

namespace Merivane::GlUtils {

Normalization normalization(const ImageDescriptor& d) {
  switch (d.pixelType) {
    case U8: return {0.0, 255.0, true};
    case U16: return {0.0, 65535.0, true};
    case U32: return {0.0, 4294967295.0, true};
    case I8: return {-128.0, 255.0, true};
    case I16: return {-32768.0, 65535.0, true};
    case I32: return {-2147483648.0, 4294967295.0, true};
    default: return {};
  }
}

double storageToNormalized(double storage, const ImageDescriptor& d) {
  const Normalization n = normalization(d);
  return (storage - n.offset) / n.range;
}

double normalizedToStorage(double normalized, const ImageDescriptor& d) {
  const Normalization n = normalization(d);
  return normalized * n.range + n.offset;
}

}  // namespace Merivane::GlUtils
