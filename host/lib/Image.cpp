#include "Image.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <type_traits>

namespace Merivane {

const char* pixelTypeName(PixelType type) {
  switch (type) {
    case I8: return "I8";
    case U8: return "U8";
    case I16: return "I16";
    case U16: return "U16";
    case I32: return "I32";
    case U32: return "U32";
    case F32: return "F32";
    case F64: return "F64";
    case F16: return "F16";
  }
  return "unknown";
}

int pixelTypeSize(PixelType type) {
  switch (type) {
    case I8:
    case U8: return 1;
    case I16:
    case U16:
    case F16: return 2;
    case I32:
    case U32:
    case F32: return 4;
    case F64: return 8;
  }
  return 0;
}

ImageDescriptor::ImageDescriptor(PixelType type, const Eigen::Vector3i& dims, int channelCount)
    : pixelType(type), dimensions(dims), channels(channelCount) {}

bool ImageDescriptor::isApprox(const ImageDescriptor& o, Flags<Comparison> what) const {
  if (what.test(Comparison::Type) && pixelType != o.pixelType) return false;
  if (what.test(Comparison::Dimensions) && dimensions != o.dimensions) return false;
  if (what.test(Comparison::Channels) && channels != o.channels) return false;
  if (what.test(Comparison::Spacing) && !spacing.isApprox(o.spacing, 1e-6)) return false;
  if (what.test(Comparison::ShiftScale) && (shift != o.shift || scale != o.scale)) return false;
  return true;
}

bool ImageDescriptor::valid() const {
  return dimensions.minCoeff() >= 1 && channels >= 1 && pixelTypeSize(pixelType) > 0;
}

Image::~Image() = default;

bool Image::compatible(const Image& other, bool ignoreType, bool ignoreSpacing, bool ignoreChannels) const {
  if (dimensions() != other.dimensions()) return false;
  if (!ignoreType && type() != other.type()) return false;
  if (!ignoreSpacing && spacing() != other.spacing()) return false;
  if (!ignoreChannels && channels() != other.channels()) return false;
  return true;
}

std::unique_ptr<MemImage> MemImage::create(const ImageDescriptor& descriptor, bool zeroed) {
  std::unique_ptr<MemImage> result;
  dispatchPixelType(descriptor.pixelType, [&](auto tag) {
    using T = decltype(tag);
    result = std::make_unique<TypedImage<T>>(descriptor, nullptr, Ownership::Owned, zeroed);
  });
  return result;
}

template <typename T>
TypedImage<T>::TypedImage(const ImageDescriptor& descriptor, T* data, Ownership ownership, bool zeroed)
    : MemImage(descriptor) {
  desc_.pixelType = Utils::pixelTypeId<T>();
  if (data) {
    data_ = data;
    owned_ = ownership == Ownership::Owned;
  } else {
    const size_t n = desc_.elementCount();
    data_ = zeroed ? new T[n]() : new T[n];
    owned_ = true;
  }
}

template <typename T>
TypedImage<T>::TypedImage(const Eigen::Vector3i& dimensions, int channels, T* data, Ownership ownership, bool zeroed)
    : TypedImage(ImageDescriptor(Utils::pixelTypeId<T>(), dimensions, channels), data, ownership, zeroed) {}

template <typename T>
TypedImage<T>::~TypedImage() {
  if (owned_) delete[] data_;
}

template <typename T>
std::unique_ptr<TypedImage<T>> TypedImage<T>::create(const ImageDescriptor& descriptor, T* data, Ownership ownership) {
  return std::make_unique<TypedImage<T>>(descriptor, data, ownership);
}

template <typename T>
std::unique_ptr<TypedImage<T>> TypedImage<T>::create(const Eigen::Vector3i& dimensions, int channels, T* data,
                                                     Ownership ownership) {
  return std::make_unique<TypedImage<T>>(dimensions, channels, data, ownership);
}

template <typename T>
std::unique_ptr<TypedImage<T>> TypedImage<T>::zeros(const ImageDescriptor& descriptor) {
  return std::make_unique<TypedImage<T>>(descriptor);
}

template <typename T>
std::unique_ptr<TypedImage<T>> TypedImage<T>::zeros(const Eigen::Vector3i& dimensions, int channels) {
  return std::make_unique<TypedImage<T>>(dimensions, channels);
}

template <typename T>
std::unique_ptr<MemImage> TypedImage<T>::clone() const {
  return cloneTyped();
}

template <typename T>
std::unique_ptr<TypedImage<T>> TypedImage<T>::cloneTyped() const {
  auto copy = std::make_unique<TypedImage<T>>(desc_, nullptr, Ownership::Owned, false);
  std::memcpy(copy->data_, data_, desc_.byteSize());
  return copy;
}

template <typename T>
void TypedImage<T>::fill(T value) {
  std::fill_n(data_, desc_.elementCount(), value);
}

template <typename T>
bool TypedImage<T>::getRange(T& min, T& max) const {
  const size_t n = desc_.elementCount();
  if (n == 0) return false;
  if constexpr (std::is_floating_point_v<T>) {
    // NaN compares false both ways and would stick as an extreme if it came first: skip it.
    bool any = false;
    T lo = 0, hi = 0;
    for (size_t i = 0; i < n; ++i) {
      const T v = data_[i];
      if (v != v) continue;
      if (!any) lo = hi = v, any = true;
      lo = v < lo ? v : lo;
      hi = v > hi ? v : hi;
    }
    if (!any) return false;
    min = lo;
    max = hi;
    return true;
  } else {
    auto [lo, hi] = std::minmax_element(data_, data_ + n);
    min = *lo;
    max = *hi;
    return true;
  }
}

template class TypedImage<char>;
template class TypedImage<unsigned char>;
template class TypedImage<short>;
template class TypedImage<unsigned short>;
template class TypedImage<int>;
template class TypedImage<unsigned int>;
template class TypedImage<float>;
template class TypedImage<double>;

}  // namespace Merivane
