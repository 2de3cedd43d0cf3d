#include "Mask.h"

#include "SharedImage.h"

namespace Merivane {

Mask::~Mask() = default;

std::unique_ptr<ExplicitMask> Mask::createExplicitMask(const SharedImage& image, CreateOption) const {
  const Eigen::Vector3i d = image.descriptor().dimensions;
  auto result = std::make_unique<ExplicitMask>(d);
  unsigned char* out = result->maskImageTyped().pointer();
#pragma omp parallel for schedule(static) if (d[2] >= 9)
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x)
        out[(static_cast<size_t>(z) * d[1] + y) * d[0] + x] = included(x, y, z, image) ? 255 : 0;
  return result;
}

ExplicitMask::ExplicitMask(const Eigen::Vector3i& dimensions)
    : image_(TypedImage<unsigned char>::zeros(dimensions, 1)) {}

bool ExplicitMask::included(int x, int y, int z, const SharedImage&) const {
  const auto& d = image_->dimensions();
  if (x < 0 || y < 0 || z < 0 || x >= d[0] || y >= d[1] || z >= d[2]) return false;
  return image_->value(x, y, z) != 0;
}

std::unique_ptr<ExplicitMask> ExplicitMask::createExplicitMask(const SharedImage& image, CreateOption option) const {
  if (image.descriptor().dimensions != image_->dimensions()) return Mask::createExplicitMask(image, option);
  if (option == ShallowCopy) return std::make_unique<ExplicitMask>(image_);
  return std::make_unique<ExplicitMask>(std::shared_ptr<TypedImage<unsigned char>>(image_->cloneTyped()));
}

std::unique_ptr<ExplicitMask> ExplicitMask::convert(const MemImage& image) {
  auto result = std::make_unique<ExplicitMask>(image.dimensions());
  unsigned char* out = result->maskImageTyped().pointer();
  const size_t n = image.descriptor().pixelCount();
  const int c = image.channels();
  dispatchPixelType(image.type(), [&](auto tag) {
    using T = decltype(tag);
    auto* t = dynamic_cast<const TypedImage<T>*>(&image);
    if (!t) return;
    const T* p = t->pointer();
    for (size_t i = 0; i < n; ++i) out[i] = p[i * static_cast<size_t>(c)] != T(0) ? 255 : 0;
  });
  return result;
}

bool IntensityMask::included(int x, int y, int z, const SharedImage& image) const {
  const MemImage* m = image.mem();
  bool result = true;
  dispatchPixelType(m->type(), [&](auto tag) {
    using T = decltype(tag);
    if (auto* t = dynamic_cast<const TypedImage<T>*>(m)) result = static_cast<float>(t->value(x, y, z, 0)) != value_;
  });
  return result;
}

bool CroppingMask::included(int x, int y, int z, const SharedImage&) const {
  return x >= low_[0] && y >= low_[1] && z >= low_[2] && x < dims_[0] - high_[0] && y < dims_[1] - high_[1] &&
         z < dims_[2] - high_[2];
}

std::unique_ptr<ExplicitMask> CroppingMask::createExplicitMask(const SharedImage& image, CreateOption option) const {
  return Mask::createExplicitMask(image, option);
}

std::unique_ptr<ExplicitMask> CroppingMask::createExplicitMask() const {
  auto result = std::make_unique<ExplicitMask>(dims_);
  auto& img = result->maskImageTyped();
  for (int z = low_[2]; z < dims_[2] - high_[2]; ++z)
    for (int y = low_[1]; y < dims_[1] - high_[1]; ++y)
      for (int x = low_[0]; x < dims_[0] - high_[0]; ++x) img.setValue(255, x, y, z);
  return result;
}

}  // namespace Merivane
