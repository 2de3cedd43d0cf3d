#pragma once
#include <memory>

namespace Merivane {
class MemImage;
}

namespace Merivane::ImageProcessing {

// A copy of `image` mirrored along axis 0 (x), 1 (y) or 2 (z); null for another axis.
std::unique_ptr<MemImage> computeFlipped(const MemImage& image, int axis);

}  // namespace Merivane::ImageProcessing
