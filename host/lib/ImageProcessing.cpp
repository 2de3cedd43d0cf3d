#include "ImageProcessing.h"

#include <cstring>

#include "Image.h"

namespace Merivane::ImageProcessing {

std::unique_ptr<MemImage> computeFlipped(const MemImage& image, int axis) {
  if (axis < 0 || axis > 2) return nullptr;
  auto out = MemImage::create(image.descriptor(), false);
  if (!out) return nullptr;
  const auto& d = image.descriptor();
  const int w = d.width(), h = d.height(), s = d.slices();
  const size_t pixelBytes = static_cast<size_t>(d.channels) * static_cast<size_t>(d.typeSize());
  const size_t rowBytes = pixelBytes * static_cast<size_t>(w);
  const auto* src = static_cast<const unsigned char*>(image.data());
  auto* dst = static_cast<unsigned char*>(out->data());
#pragma omp parallel for schedule(static) if (s >= 9)
  for (int z = 0; z < s; ++z) {
    for (int y = 0; y < h; ++y) {
      const int sy = axis == 1 ? h - 1 - y : y;
      const int sz = axis == 2 ? s - 1 - z : z;
      const unsigned char* srow = src + (static_cast<size_t>(sz) * h + sy) * rowBytes;
      unsigned char* drow = dst + (static_cast<size_t>(z) * h + y) * rowBytes;
      if (axis != 0) {
        std::memcpy(drow, srow, rowBytes);
      } else {
        for (int x = 0; x < w; ++x) std::memcpy(drow + x * pixelBytes, srow + (w - 1 - x) * pixelBytes, pixelBytes);
      }
    }
  }
  return out;
}

}  // namespace Merivane::ImageProcessing
