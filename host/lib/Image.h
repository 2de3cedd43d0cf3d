#pragma once
// Pixel holders: the descriptor, the abstract Image, MemImage in main memory and the typed
// TypedImage<T>. Pixels are one contiguous array, channels interleaved, x fastest, then y,
// then z, with no row padding.
#include <Eigen/Core>
#include <cstdint>
#include <memory>

#include "Flags.h"

namespace Merivane {

// Values are the graphics library's type codes.
enum PixelType : uint32_t {
  I8 = 5120,
  U8 = 5121,
  I16 = 5122,
  U16 = 5123,
  I32 = 5124,
  U32 = 5125,
  F32 = 5126,
  F64 = 5130,
  F16 = 5131,  // texture side only
};

const char* pixelTypeName(PixelType type);
int pixelTypeSize(PixelType type);

namespace Utils {
template <typename T>
constexpr PixelType pixelTypeId() {
  if constexpr (std::is_same_v<T, char> || std::is_same_v<T, signed char>) return I8;
  else if constexpr (std::is_same_v<T, unsigned char>) return U8;
  else if constexpr (std::is_same_v<T, short>) return I16;
  else if constexpr (std::is_same_v<T, unsigned short>) return U16;
  else if constexpr (std::is_same_v<T, int>) return I32;
  else if constexpr (std::is_same_v<T, unsigned int>) return U32;
  else if constexpr (std::is_same_v<T, float>) return F32;
  else if constexpr (std::is_same_v<T, double>) return F64;
  else static_assert(sizeof(T) == 0, "no pixel type for this element");
}
template <typename T>
constexpr PixelType imageTypeId() {
  return pixelTypeId<T>();
}
}  // namespace Utils

struct ImageDescriptor {
  enum class Comparison : uint32_t { Type = 1, Dimensions = 2, Channels = 4, Spacing = 8, ShiftScale = 16, All = 31 };

  PixelType pixelType = U8;
  Eigen::Vector3i dimensions = Eigen::Vector3i::Ones();
  int channels = 1;
  Eigen::Vector3d spacing = Eigen::Vector3d::Ones();
  bool isMetric = true;
  double shift = 0.0;
  double scale = 1.0;

  ImageDescriptor() = default;
  ImageDescriptor(PixelType type, const Eigen::Vector3i& dims, int channels = 1);

  int width() const { return dimensions[0]; }
  int height() const { return dimensions[1]; }
  int slices() const { return dimensions[2]; }
  int dimension() const { return slices() > 1 ? 3 : (height() >= 2 ? 2 : 1); }
  bool is2D() const { return slices() <= 1 && height() >= 2; }
  size_t pixelCount() const {
    return static_cast<size_t>(dimensions[0]) * static_cast<size_t>(dimensions[1]) * static_cast<size_t>(dimensions[2]);
  }
  size_t elementCount() const { return pixelCount() * static_cast<size_t>(channels); }
  int typeSize() const { return pixelTypeSize(pixelType); }
  size_t byteSize() const { return elementCount() * static_cast<size_t>(typeSize()); }
  Eigen::Vector3d extent() const { return dimensions.cast<double>().cwiseProduct(spacing); }
  void setDimensions(const Eigen::Vector3i& dims, int channelCount) {
    dimensions = dims;
    channels = channelCount;
  }
  // True when the fields selected by `what` are equal.
  bool isApprox(const ImageDescriptor& other, Flags<Comparison> what = Comparison::All) const;
  // Stored value = (physical + shift) * scale, physical = stored / scale - shift.
  double toPhysical(double stored) const { return stored / scale - shift; }
  double toStored(double physical) const { return (physical + shift) * scale; }
  // A well-formed descriptor: positive sizes and a known element type.
  bool valid() const;
};

class Image {
 public:
  explicit Image(const ImageDescriptor& descriptor) : desc_(descriptor) {}
  virtual ~Image();

  const ImageDescriptor& descriptor() const { return desc_; }
  PixelType type() const { return desc_.pixelType; }
  const Eigen::Vector3i& dimensions() const { return desc_.dimensions; }
  int width() const { return desc_.width(); }
  int height() const { return desc_.height(); }
  int slices() const { return desc_.slices(); }
  int channels() const { return desc_.channels; }
  int dimension() const { return desc_.dimension(); }
  const Eigen::Vector3d& spacing() const { return desc_.spacing; }
  bool isMetric() const { return desc_.isMetric; }
  double shift() const { return desc_.shift; }
  double scale() const { return desc_.scale; }
  int typeSize() const { return desc_.typeSize(); }
  size_t byteSize() const { return desc_.byteSize(); }
  Eigen::Vector3d extent() const { return desc_.extent(); }

  void setSpacing(const Eigen::Vector3d& spacing) { desc_.spacing = spacing; }
  void setSpacing(const Eigen::Vector3d& spacing, bool isMetric) {
    desc_.spacing = spacing;
    desc_.isMetric = isMetric;
  }
  void setShiftScale(double shift, double scale) {
    desc_.shift = shift;
    desc_.scale = scale;
  }

  // Same dimensions, and type, spacing (exactly) and channels unless their flag is set.
  bool compatible(const Image& other, bool ignoreType = false, bool ignoreSpacing = false,
                  bool ignoreChannels = false) const;

 protected:
  ImageDescriptor desc_;
};

class MemImage : public Image {
 public:
  enum class Ownership { Owned, Borrowed };
  using Image::Image;

  virtual void* data() = 0;
  virtual const void* data() const = 0;
  virtual std::unique_ptr<MemImage> clone() const = 0;

  // An image of the descriptor's type; zeroed unless `zeroed` is false.
  static std::unique_ptr<MemImage> create(const ImageDescriptor& descriptor, bool zeroed = true);
};

template <typename T>
class TypedImage : public MemImage {
 public:
  // A null pointer allocates; otherwise the image uses `data`, owning it or not.
  TypedImage(const ImageDescriptor& descriptor, T* data = nullptr, Ownership ownership = Ownership::Owned,
             bool zeroed = true);
  TypedImage(const Eigen::Vector3i& dimensions, int channels, T* data = nullptr,
             Ownership ownership = Ownership::Owned, bool zeroed = true);
  ~TypedImage() override;
  TypedImage(const TypedImage&) = delete;
  TypedImage& operator=(const TypedImage&) = delete;

  static std::unique_ptr<TypedImage> create(const ImageDescriptor& descriptor, T* data = nullptr,
                                            Ownership ownership = Ownership::Owned);
  static std::unique_ptr<TypedImage> create(const Eigen::Vector3i& dimensions, int channels, T* data = nullptr,
                                            Ownership ownership = Ownership::Owned);
  static std::unique_ptr<TypedImage> zeros(const ImageDescriptor& descriptor);
  static std::unique_ptr<TypedImage> zeros(const Eigen::Vector3i& dimensions, int channels = 1);

  T* pointer() { return data_; }
  const T* pointer() const { return data_; }
  void* data() override { return data_; }
  const void* data() const override { return data_; }
  std::unique_ptr<MemImage> clone() const override;
  std::unique_ptr<TypedImage> cloneTyped() const;

  void fill(T value);
  size_t index(int x, int y, int z = 0, int c = 0) const {
    return ((static_cast<size_t>(z) * static_cast<size_t>(desc_.height()) + static_cast<size_t>(y)) *
                static_cast<size_t>(desc_.width()) +
            static_cast<size_t>(x)) *
               static_cast<size_t>(desc_.channels) +
           static_cast<size_t>(c);
  }
  T value(int x, int y, int z = 0, int c = 0) const { return data_[index(x, y, z, c)]; }
  void setValue(T value, int x, int y, int z = 0, int c = 0) { data_[index(x, y, z, c)] = value; }
  // Smallest and largest element over all channels, NaN left out; false for an empty image
  // (or one of NaN only).
  bool getRange(T& min, T& max) const;

 private:
  T* data_ = nullptr;
  bool owned_ = true;
};

extern template class TypedImage<char>;
extern template class TypedImage<unsigned char>;
extern template class TypedImage<short>;
extern template class TypedImage<unsigned short>;
extern template class TypedImage<int>;
extern template class TypedImage<unsigned int>;
extern template class TypedImage<float>;
extern template class TypedImage<double>;

// Calls f with a value of the element type of `type`:  dispatchPixelType(t, [&](auto tag) {
//   using T = decltype(tag); ... }). Returns false for F16 and unknown codes.
template <typename F>
bool dispatchPixelType(PixelType type, F&& f) {
  switch (type) {
    case I8: f(char{}); return true;
    case U8: f(static_cast<unsigned char>(0)); return true;
    case I16: f(short{}); return true;
    case U16: f(static_cast<unsigned short>(0)); return true;
    case I32: f(int{}); return true;
    case U32: f(0u); return true;
    case F32: f(float{}); return true;
    case F64: f(double{}); return true;
    default: return false;
  }
}

}  // namespace Merivane
