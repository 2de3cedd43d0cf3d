#pragma once
// Image expressions: per-pixel arithmetic over images and numbers, built as a tree of small
// nodes and evaluated in one pass when assigned to an Array or folded to a number:
//
//   Array<SharedImage> out(labels);
//   out = Scalar<int>(0) + 3 * ((a > lo) && (a < hi)).cast<int>();
//
// A SharedImage target first offers the pass to the GPU (one generated fragment program,
// rendered slice by slice); when the GPU declines (no context, an operand that textures
// cannot hold: F64, I32, U32, more than 4 channels, or an operand held only as TypedImage),
// the processor runs one fused OpenMP loop over slice blocks, serially below 9 slices.
//
// Values: array reads are doubles of the original value (stored / scale - shift unless the
// array ignores shift and scale); numbers keep their type; an op computes in the common
// type of its operands; cast<T>() truncates, and an out-of-range float wraps around through
// a 64-bit integer. The target stores (value + shift) * scale converted to its type the
// same way. A one-channel operand is broadcast to every channel.
//
// Shapes are not checked: the target drives the loop, and every operand is read at the
// target's linear pixel index, so an operand of another shape but at least as many pixels is
// read there as it lies in memory (the caller makes the shapes agree). An operand with fewer
// pixels than the target would be read past its end: it leaves the target unchanged with one
// log line.
#include <omp.h>

#include <Eigen/Core>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "Image.h"
#include "ImageMathGl.h"
#include "ImageMathOps.h"
#include "SharedImage.h"
#include "SharedImageSet.h"

namespace Merivane::ImageMath {

enum class MagFilter { Nearest, Linear };
enum class Wrap { ClampToEdge, Repeat, ClampToBorder };
enum class CoordinateType { Pixel = 0, Image = 1, World = 2 };

// Which device may run an expression: 0 the processor only, 2 either.
enum DeviceStrategy : int { CpuOnly = 0, GpuAllowed = 2 };

namespace internal {

// The element being evaluated: its pixel's linear index and position, and the channel.
struct Pos {
  size_t pixel;
  int x, y, z, c;
};

// Float to integer truncates through a 64-bit integer and keeps the low bits, so values
// out of range wrap around instead of saturating (300.0 as U8 is 44).
template <typename T, typename V>
inline T castValue(V v) {
  if constexpr (std::is_integral_v<T> && std::is_floating_point_v<V>) {
    // Selects, not branches or libm calls, so the loop stays tight: NaN gives 0, values beyond the
    // 64-bit range to the bounds (the largest doubles below 2^63 in magnitude).
    constexpr double lim = 9.2233720368547748e18;
    double d = static_cast<double>(v);
    d = d == d ? d : 0.0;
    d = d < -lim ? -lim : d;
    d = d > lim ? lim : d;
    return static_cast<T>(static_cast<int64_t>(d));
  } else {
    return static_cast<T>(v);
  }
}

// Threads of the CPU pass for a target of this many slices: 1 below 9, else the default.
int threadsForSlices(int slices);
// Threads used by the last CPU pass on this thread (for tests).
int lastPassThreads();
void setLastPassThreads(int threads);

// Result descriptor of a binary node: dimensions from whichever operand is an image, the
// wider channel count, pixel type `type`.
ImageDescriptor combineImageDescriptors(const ImageDescriptor& a, bool aIsImage, const ImageDescriptor& b,
                                        bool bIsImage, PixelType type);

// Merges per-thread extremes: the better value wins, a tie goes to the earlier position
// (z, then y, then x), so the result does not depend on the thread count.
void vec4argmax(std::vector<double>& value, std::vector<Eigen::Vector4i>& position, const std::vector<double>& otherValue,
                const std::vector<Eigen::Vector4i>& otherPosition, bool isMax);

void logShapeMismatch(const char* what);

template <typename V>
constexpr PixelType valuePixelType() {
  if constexpr (std::is_same_v<V, bool>) return U8;
  else if constexpr (std::is_same_v<V, long> || std::is_same_v<V, long long>) return F64;
  else return Utils::pixelTypeId<V>();
}

// GLSL text turning a float vec4 into the value that castValue<T> gives.
template <typename T>
std::string castType(const std::string& e) {
  if constexpr (std::is_same_v<T, unsigned char>) return "mod(trunc(" + e + "), 256.0)";
  else if constexpr (std::is_same_v<T, char> || std::is_same_v<T, signed char>)
    return "(mod(trunc(" + e + ") + 128.0, 256.0) - 128.0)";
  else if constexpr (std::is_same_v<T, unsigned short>) return "mod(trunc(" + e + "), 65536.0)";
  else if constexpr (std::is_same_v<T, short>) return "(mod(trunc(" + e + ") + 32768.0, 65536.0) - 32768.0)";
  else if constexpr (std::is_integral_v<T>) return "trunc(" + e + ")";
  else return e;
}

// An untyped memory operand: the element type is known at run time only.
class MemReader;

}  // namespace internal

template <typename Derived>
class ExprBaseTpl;
template <typename T>
class Scalar;
template <typename Storage, typename T = void, bool Unused = false>
class Array;
class Coordinates;
namespace internal {
template <typename Op, typename L, typename R>
class BinaryOpTpl;
template <typename Op, typename E>
class UnaryOpTpl;
template <typename E, typename T>
class CastWrapperTpl;
template <typename E>
class ChannelSwizzleViewTpl;
template <typename Op, typename E>
class ChannelReductionTpl;
template <typename Op, typename E>
class ReductionWrapperTpl;
}  // namespace internal

template <typename Derived>
class ExprBaseTpl {
 public:
  const Derived& derived() const { return static_cast<const Derived&>(*this); }

  template <typename T>
  internal::CastWrapperTpl<Derived, T> cast() const {
    return internal::CastWrapperTpl<Derived, T>(derived());
  }
  internal::ChannelSwizzleViewTpl<Derived> swizzle(std::initializer_list<int> channels) const {
    return internal::ChannelSwizzleViewTpl<Derived>(derived(), channels);
  }
  internal::ChannelSwizzleViewTpl<Derived> x() const { return swizzle({0}); }
  internal::ChannelSwizzleViewTpl<Derived> xy() const { return swizzle({0, 1}); }
  internal::ChannelSwizzleViewTpl<Derived> xyz() const { return swizzle({0, 1, 2}); }
  internal::ChannelSwizzleViewTpl<Derived> xyzw() const { return swizzle({0, 1, 2, 3}); }

  // Folds over the whole image, one value per channel.
  Eigen::VectorXd max() const;
  Eigen::VectorXd min() const;
  // The same, with the position (x, y, z, frame) of the first extreme of each channel.
  Eigen::VectorXd max(std::vector<Eigen::Vector4i>& positions) const;
  Eigen::VectorXd min(std::vector<Eigen::Vector4i>& positions) const;
};

template <typename E>
struct IsExpr : std::is_base_of<ExprBaseTpl<E>, E> {};

// A constant; T is int, float or double.
template <typename T>
class Scalar : public ExprBaseTpl<Scalar<T>> {
 public:
  using value_type = T;
  explicit Scalar(T value) : value_(value) {}
  T eval(const internal::Pos&) const { return value_; }
  ImageDescriptor imgDesc() const { return ImageDescriptor(internal::valuePixelType<T>(), Eigen::Vector3i::Ones(), 1); }
  int numImgs() const { return 0; }
  int deviceStrategy() const { return GpuAllowed; }
  bool memValid(size_t) const { return true; }
  Scalar convertToMemImgExpr() const { return *this; }
  Scalar atFrame(int) const { return *this; }
  std::string evalString(internal::GlBuilder& b) const { return b.scalar(static_cast<double>(value_)); }
  T value() const { return value_; }

 private:
  T value_;
};

namespace internal {
template <typename N>
auto wrapNumber(N n) {
  if constexpr (std::is_integral_v<N>) return Scalar<int>(static_cast<int>(n));
  else if constexpr (std::is_same_v<N, float>) return Scalar<float>(n);
  else return Scalar<double>(static_cast<double>(n));
}
}  // namespace internal

// An image in main memory, typed: the node the CPU pass reads and writes.
template <typename T>
class Array<TypedImage<T>, T, false> : public ExprBaseTpl<Array<TypedImage<T>, T, false>> {
 public:
  using value_type = double;
  explicit Array(TypedImage<T>& image, bool ignoreShiftAndScale = false) : Array(&image, ignoreShiftAndScale) {}
  Array(TypedImage<T>* image, bool ignoreShiftAndScale) : img_(image), ignore_(ignoreShiftAndScale) {
    if (img_) {
      data_ = img_->pointer();
      ch_ = img_->channels();
      shift_ = img_->shift();
      scale_ = img_->scale();
      identity_ = ignore_ || (shift_ == 0.0 && scale_ == 1.0);
    }
  }

  double eval(const internal::Pos& p) const {
    const double v = static_cast<double>(data_[p.pixel * static_cast<size_t>(ch_) + static_cast<size_t>(p.c < ch_ ? p.c : 0)]);
    return identity_ ? v : v / scale_ - shift_;
  }
  ImageDescriptor imgDesc() const { return img_ ? img_->descriptor() : ImageDescriptor(); }
  int numImgs() const { return 1; }
  int deviceStrategy() const { return CpuOnly; }
  bool memValid(size_t pixels) const { return img_ && data_ && img_->descriptor().pixelCount() >= pixels; }
  Array convertToMemImgExpr() const { return *this; }
  Array atFrame(int) const { return *this; }
  std::string evalString(internal::GlBuilder& b) const {
    b.fail();
    return "vec4(0.0)";
  }

  // The fused CPU pass.
  template <typename E>
  Array& operator=(const ExprBaseTpl<E>& expr) {
    assign(expr.derived().convertToMemImgExpr());
    return *this;
  }
  // `a = b` between arrays of one type evaluates too; it never rebinds the array.
  Array(const Array&) = default;
  Array& operator=(const Array& other) { return operator= <Array>(other); }
  template <typename E>
  void assign(const E& e);

  TypedImage<T>* image() const { return img_; }

 private:
  TypedImage<T>* img_ = nullptr;
  const T* data_ = nullptr;
  int ch_ = 1;
  double shift_ = 0.0, scale_ = 1.0;
  bool ignore_ = false;
  bool identity_ = true;
};

namespace internal {
class MemReader : public ExprBaseTpl<MemReader> {
 public:
  using value_type = double;
  MemReader(const MemImage* image, bool ignoreShiftAndScale) : img_(image) {
    if (img_) {
      data_ = img_->data();
      type_ = img_->type();
      ch_ = img_->channels();
      shift_ = img_->shift();
      scale_ = img_->scale();
      identity_ = ignoreShiftAndScale || (shift_ == 0.0 && scale_ == 1.0);
    }
  }
  double eval(const Pos& p) const {
    const size_t i = p.pixel * static_cast<size_t>(ch_) + static_cast<size_t>(p.c < ch_ ? p.c : 0);
    double v = 0.0;
    switch (type_) {
      case I8: v = static_cast<const char*>(data_)[i]; break;
      case U8: v = static_cast<const unsigned char*>(data_)[i]; break;
      case I16: v = static_cast<const short*>(data_)[i]; break;
      case U16: v = static_cast<const unsigned short*>(data_)[i]; break;
      case I32: v = static_cast<const int*>(data_)[i]; break;
      case U32: v = static_cast<const unsigned int*>(data_)[i]; break;
      case F32: v = static_cast<const float*>(data_)[i]; break;
      case F64: v = static_cast<const double*>(data_)[i]; break;
      default: break;
    }
    return identity_ ? v : v / scale_ - shift_;
  }
  ImageDescriptor imgDesc() const { return img_ ? img_->descriptor() : ImageDescriptor(); }
  int numImgs() const { return 1; }
  int deviceStrategy() const { return CpuOnly; }
  bool memValid(size_t pixels) const {
    return img_ && data_ && type_ != F16 && img_->descriptor().pixelCount() >= pixels;
  }
  MemReader convertToMemImgExpr() const { return *this; }
  MemReader atFrame(int) const { return *this; }
  std::string evalString(GlBuilder& b) const {
    b.fail();
    return "vec4(0.0)";
  }

 private:
  const MemImage* img_ = nullptr;
  const void* data_ = nullptr;
  PixelType type_ = U8;
  int ch_ = 1;
  double shift_ = 0.0, scale_ = 1.0;
  bool identity_ = true;
};

inline int frameStrategy(const ImageDescriptor& d) {
  return (d.channels < 5 && d.pixelType != F64 && d.pixelType != I32 && d.pixelType != U32) ? GpuAllowed : CpuOnly;
}
}  // namespace internal

// One frame, in memory or as a texture. T = void: the element type is known at run time.
template <typename T>
class Array<SharedImage, T, false> : public ExprBaseTpl<Array<SharedImage, T, false>> {
 public:
  using value_type = double;
  explicit Array(SharedImage& image, bool ignoreShiftAndScale = false, MagFilter magFilter = MagFilter::Nearest,
                 Wrap wrap = Wrap::ClampToEdge, std::array<float, 4> borderColor = {0, 0, 0, 0})
      : img_(&image), ignore_(ignoreShiftAndScale), magFilter_(magFilter), wrap_(wrap), border_(borderColor) {}

  double eval(const internal::Pos&) const { return 0.0; }  // only its memory form is evaluated
  ImageDescriptor imgDesc() const { return img_->descriptor(); }
  int numImgs() const { return 1; }
  int deviceStrategy() const { return internal::frameStrategy(img_->descriptor()); }
  bool memValid(size_t) const { return false; }
  auto convertToMemImgExpr() const {
    if constexpr (std::is_void_v<T>) {
      return internal::MemReader(img_->mem(), ignore_);
    } else {
      return Array<TypedImage<T>, T>(dynamic_cast<TypedImage<T>*>(img_->mem()), ignore_);
    }
  }
  Array atFrame(int) const { return *this; }
  std::string evalString(internal::GlBuilder& b) const { return b.image(*img_, ignore_); }

  void setMagFilter(MagFilter f) { magFilter_ = f; }
  void setWrap(Wrap w) { wrap_ = w; }
  SharedImage& image() const { return *img_; }

  // Evaluates into this frame: on the GPU when both sides allow it, else on the CPU.
  template <typename E>
  Array& operator=(const ExprBaseTpl<E>& expr);
  Array(const Array&) = default;
  Array& operator=(const Array& other) { return operator= <Array>(other); }

 private:
  SharedImage* img_;
  bool ignore_;
  MagFilter magFilter_;
  Wrap wrap_;
  std::array<float, 4> border_;
};

// All frames of a set; an operand is read at the frame being written.
template <typename T>
class Array<SharedImageSet, T, false> : public ExprBaseTpl<Array<SharedImageSet, T, false>> {
 public:
  using value_type = double;
  // With `selection`, only frames selected in it (focus frame when none) are written.
  explicit Array(SharedImageSet& set, bool ignoreShiftAndScale = false, const Selection* selection = nullptr)
      : set_(&set), ignore_(ignoreShiftAndScale), selection_(selection) {}

  double eval(const internal::Pos&) const { return 0.0; }
  ImageDescriptor imgDesc() const { return set_->get(-1) ? set_->get(-1)->descriptor() : ImageDescriptor(); }
  int numImgs() const { return set_->size(); }
  int deviceStrategy() const {
    int s = GpuAllowed;
    for (int i = 0; i < set_->size(); ++i) s = std::min(s, internal::frameStrategy(set_->get(i)->descriptor()));
    return s;
  }
  bool memValid(size_t) const { return false; }
  Array<SharedImage, T> atFrame(int frame) const {
    SharedImage* f = set_->get(frame);
    return Array<SharedImage, T>(f ? *f : *set_->get(-1), ignore_);
  }
  auto convertToMemImgExpr() const { return atFrame(-1).convertToMemImgExpr(); }
  std::string evalString(internal::GlBuilder& b) const { return atFrame(-1).evalString(b); }

  Array(const Array&) = default;
  Array& operator=(const Array& other) { return operator= <Array>(other); }
  template <typename E>
  Array& operator=(const ExprBaseTpl<E>& expr) {
    for (int i = 0; i < set_->size(); ++i) {
      if (selection_ && !selection_->isSelected(i, 2)) continue;
      Array<SharedImage, T> frame(*set_->get(i), ignore_);
      frame = expr.derived().atFrame(i);
    }
    return *this;
  }

 private:
  SharedImageSet* set_;
  bool ignore_;
  const Selection* selection_;
};

// The position of each pixel as a value, one channel per axis; channels 3 and above are 1.
class Coordinates : public ExprBaseTpl<Coordinates> {
 public:
  using value_type = double;
  Coordinates(const ImageDescriptor& descriptor, const Eigen::Matrix4d& pixelTo) : desc_(descriptor), m_(pixelTo) {
    desc_.pixelType = F64;
    desc_.channels = 3;
    desc_.shift = 0.0;
    desc_.scale = 1.0;
  }
  double eval(const internal::Pos& p) const {
    if (p.c >= 3) return 1.0;
    return m_(p.c, 0) * p.x + m_(p.c, 1) * p.y + m_(p.c, 2) * p.z + m_(p.c, 3);
  }
  ImageDescriptor imgDesc() const { return desc_; }
  int numImgs() const { return 1; }
  int deviceStrategy() const { return GpuAllowed; }
  bool memValid(size_t pixels) const { return desc_.pixelCount() >= pixels; }
  Coordinates convertToMemImgExpr() const { return *this; }
  Coordinates atFrame(int) const { return *this; }
  std::string evalString(internal::GlBuilder& b) const { return b.coordinates(m_); }

 private:
  ImageDescriptor desc_;
  Eigen::Matrix4d m_;
};

Coordinates makeCoordinates(const SharedImage& frame, CoordinateType type);

namespace internal {

template <typename Op, typename L, typename R>
class BinaryOpTpl : public ExprBaseTpl<BinaryOpTpl<Op, L, R>> {
 public:
  using value_type = std::common_type_t<typename L::value_type, typename R::value_type>;
  BinaryOpTpl(const L& l, const R& r) : l_(l), r_(r) {}
  value_type eval(const Pos& p) const {
    return Op::template apply<value_type>(static_cast<value_type>(l_.eval(p)), static_cast<value_type>(r_.eval(p)));
  }
  ImageDescriptor imgDesc() const {
    return combineImageDescriptors(l_.imgDesc(), l_.numImgs() > 0, r_.imgDesc(), r_.numImgs() > 0,
                                   valuePixelType<value_type>());
  }
  int numImgs() const { return std::max(l_.numImgs(), r_.numImgs()); }
  int deviceStrategy() const { return std::min(l_.deviceStrategy(), r_.deviceStrategy()); }
  bool memValid(size_t pixels) const { return l_.memValid(pixels) && r_.memValid(pixels); }
  auto convertToMemImgExpr() const {
    auto l = l_.convertToMemImgExpr();
    auto r = r_.convertToMemImgExpr();
    return BinaryOpTpl<Op, decltype(l), decltype(r)>(l, r);
  }
  auto atFrame(int f) const {
    auto l = l_.atFrame(f);
    auto r = r_.atFrame(f);
    return BinaryOpTpl<Op, decltype(l), decltype(r)>(l, r);
  }
  std::string evalString(GlBuilder& b) const { return Op::evalString(l_.evalString(b), r_.evalString(b)); }

 private:
  L l_;
  R r_;
};

template <typename Op, typename E>
class UnaryOpTpl : public ExprBaseTpl<UnaryOpTpl<Op, E>> {
 public:
  using value_type = typename E::value_type;
  explicit UnaryOpTpl(const E& e) : e_(e) {}
  value_type eval(const Pos& p) const { return Op::template apply<value_type>(e_.eval(p)); }
  ImageDescriptor imgDesc() const {
    ImageDescriptor d = e_.imgDesc();
    d.pixelType = valuePixelType<value_type>();
    return d;
  }
  int numImgs() const { return e_.numImgs(); }
  int deviceStrategy() const { return e_.deviceStrategy(); }
  bool memValid(size_t pixels) const { return e_.memValid(pixels); }
  auto convertToMemImgExpr() const {
    auto e = e_.convertToMemImgExpr();
    return UnaryOpTpl<Op, decltype(e)>(e);
  }
  auto atFrame(int f) const {
    auto e = e_.atFrame(f);
    return UnaryOpTpl<Op, decltype(e)>(e);
  }
  std::string evalString(GlBuilder& b) const { return Op::evalString(e_.evalString(b)); }

 private:
  E e_;
};

template <typename E, typename T>
class CastWrapperTpl : public ExprBaseTpl<CastWrapperTpl<E, T>> {
 public:
  using value_type = T;
  explicit CastWrapperTpl(const E& e) : e_(e) {}
  T eval(const Pos& p) const { return castValue<T>(e_.eval(p)); }
  ImageDescriptor imgDesc() const {
    ImageDescriptor d = e_.imgDesc();
    d.pixelType = valuePixelType<T>();
    return d;
  }
  int numImgs() const { return e_.numImgs(); }
  int deviceStrategy() const { return e_.deviceStrategy(); }
  bool memValid(size_t pixels) const { return e_.memValid(pixels); }
  auto convertToMemImgExpr() const {
    auto e = e_.convertToMemImgExpr();
    return CastWrapperTpl<decltype(e), T>(e);
  }
  auto atFrame(int f) const {
    auto e = e_.atFrame(f);
    return CastWrapperTpl<decltype(e), T>(e);
  }
  std::string evalString(GlBuilder& b) const { return castType<T>(e_.evalString(b)); }

 private:
  E e_;
};

template <typename E>
class ChannelSwizzleViewTpl : public ExprBaseTpl<ChannelSwizzleViewTpl<E>> {
 public:
  using value_type = typename E::value_type;
  ChannelSwizzleViewTpl(const E& e, std::initializer_list<int> channels) : e_(e) {
    for (int c : channels)
      if (count_ < 4) idx_[count_++] = c;
  }
  ChannelSwizzleViewTpl(const E& e, const std::array<int, 4>& idx, int count) : e_(e), idx_(idx), count_(count) {}
  value_type eval(const Pos& p) const {
    Pos q = p;
    q.c = idx_[p.c < count_ ? p.c : 0];
    return e_.eval(q);
  }
  ImageDescriptor imgDesc() const {
    ImageDescriptor d = e_.imgDesc();
    d.channels = count_;
    return d;
  }
  int numImgs() const { return e_.numImgs(); }
  int deviceStrategy() const { return e_.deviceStrategy(); }
  bool memValid(size_t pixels) const {
    const int available = e_.imgDesc().channels;
    for (int i = 0; i < count_; ++i)
      if (idx_[i] < 0 || (idx_[i] >= available && available > 1)) return false;
    return count_ > 0 && e_.memValid(pixels);
  }
  auto convertToMemImgExpr() const {
    auto e = e_.convertToMemImgExpr();
    return ChannelSwizzleViewTpl<decltype(e)>(e, idx_, count_);
  }
  auto atFrame(int f) const {
    auto e = e_.atFrame(f);
    return ChannelSwizzleViewTpl<decltype(e)>(e, idx_, count_);
  }
  std::string evalString(GlBuilder& b) const {
    static const char comp[] = "xyzw";
    if (count_ < 1) return "vec4(0.0)";
    std::string s = "(";
    s += e_.evalString(b);
    s += ").";
    for (int i = 0; i < count_; ++i) {
      if (idx_[i] < 0 || idx_[i] > 3) {
        b.fail();
        return "vec4(0.0)";
      }
      s += comp[idx_[i]];
    }
    if (count_ == 1) return "vec4(" + s + ")";
    if (count_ == 4) return s;
    return "vec4(" + s + zeros(4 - count_) + ")";
  }

 private:
  static std::string zeros(int n) {
    std::string z;
    for (int i = 0; i < n; ++i) z += ", 0.0";
    return z;
  }
  E e_;
  std::array<int, 4> idx_{0, 0, 0, 0};
  int count_ = 0;
};

template <typename Op, typename E>
class ChannelReductionTpl : public ExprBaseTpl<ChannelReductionTpl<Op, E>> {
 public:
  using operand_type = typename E::value_type;
  using value_type = std::conditional_t<std::is_same_v<Op, ImgOps::length> && !std::is_floating_point_v<operand_type>,
                                        double, operand_type>;
  explicit ChannelReductionTpl(const E& e) : e_(e), n_(std::max(1, e.imgDesc().channels)) {}
  value_type eval(const Pos& p) const {
    Pos q = p;
    value_type acc = 0;
    for (int c = 0; c < n_; ++c) {
      q.c = c;
      const value_type v = static_cast<value_type>(e_.eval(q));
      if constexpr (std::is_same_v<Op, ImgOps::length>) acc += v * v;
      else acc += v;
    }
    if constexpr (std::is_same_v<Op, ImgOps::length>) return static_cast<value_type>(std::sqrt(acc));
    else return acc;
  }
  ImageDescriptor imgDesc() const {
    ImageDescriptor d = e_.imgDesc();
    d.channels = 1;
    d.pixelType = valuePixelType<value_type>();
    return d;
  }
  int numImgs() const { return e_.numImgs(); }
  int deviceStrategy() const { return n_ > 4 ? CpuOnly : e_.deviceStrategy(); }
  bool memValid(size_t pixels) const { return e_.memValid(pixels); }
  auto convertToMemImgExpr() const {
    auto e = e_.convertToMemImgExpr();
    return ChannelReductionTpl<Op, decltype(e)>(e);
  }
  auto atFrame(int f) const {
    auto e = e_.atFrame(f);
    return ChannelReductionTpl<Op, decltype(e)>(e);
  }
  std::string evalString(GlBuilder& b) const {
    std::string mask = "vec4(";
    for (int c = 0; c < 4; ++c) mask += std::string(c ? ", " : "") + (c < n_ ? "1.0" : "0.0");
    mask += ")";
    if constexpr (std::is_same_v<Op, ImgOps::length>) return ImgOps::length::evalString(e_.evalString(b), mask);
    else return ImgOps::channelAdd::evalString(e_.evalString(b), mask);
  }

 private:
  E e_;
  int n_;
};

// The whole-image fold of `Op` (ImgOps::max or ImgOps::min) over an expression.
template <typename Op, typename E>
class ReductionWrapperTpl {
 public:
  explicit ReductionWrapperTpl(const E& e) : e_(e) {}
  // One value per channel; with `positions`, also where the first extreme lies.
  Eigen::VectorXd eval(std::vector<Eigen::Vector4i>* positions = nullptr) const;

  // Folds an expression whose operands are all in memory.
  template <typename M>
  static Eigen::VectorXd evalImplTypedImage(const M& e, const ImageDescriptor& d,
                                            std::vector<Eigen::Vector4i>* positions);

 private:
  bool reduceGl(Eigen::VectorXd& result, std::vector<Eigen::Vector4i>* positions) const;
  E e_;
};

}  // namespace internal

// ---- building ----

#define MERIVANE_IMAGEMATH_BINARY(OPNAME, TAG)                                                              \
  template <typename L, typename R>                                                                        \
  internal::BinaryOpTpl<ImgOps::TAG, L, R> OPNAME(const ExprBaseTpl<L>& l, const ExprBaseTpl<R>& r) {      \
    return internal::BinaryOpTpl<ImgOps::TAG, L, R>(l.derived(), r.derived());                             \
  }                                                                                                        \
  template <typename L, typename N, std::enable_if_t<std::is_arithmetic_v<N>, int> = 0>                    \
  auto OPNAME(const ExprBaseTpl<L>& l, N n) {                                                              \
    auto s = internal::wrapNumber(n);                                                                      \
    return internal::BinaryOpTpl<ImgOps::TAG, L, decltype(s)>(l.derived(), s);                             \
  }                                                                                                        \
  template <typename N, typename R, std::enable_if_t<std::is_arithmetic_v<N>, int> = 0>                    \
  auto OPNAME(N n, const ExprBaseTpl<R>& r) {                                                              \
    auto s = internal::wrapNumber(n);                                                                      \
    return internal::BinaryOpTpl<ImgOps::TAG, decltype(s), R>(s, r.derived());                             \
  }

MERIVANE_IMAGEMATH_BINARY(operator+, add)
MERIVANE_IMAGEMATH_BINARY(operator-, minus)
MERIVANE_IMAGEMATH_BINARY(operator*, mult)
MERIVANE_IMAGEMATH_BINARY(operator/, divide)
MERIVANE_IMAGEMATH_BINARY(operator>, greater)
MERIVANE_IMAGEMATH_BINARY(operator<, less)
MERIVANE_IMAGEMATH_BINARY(operator&&, binaryAnd)
MERIVANE_IMAGEMATH_BINARY(max, max)
MERIVANE_IMAGEMATH_BINARY(min, min)
#undef MERIVANE_IMAGEMATH_BINARY

template <typename E>
internal::UnaryOpTpl<ImgOps::abs, E> abs(const ExprBaseTpl<E>& e) {
  return internal::UnaryOpTpl<ImgOps::abs, E>(e.derived());
}
// Sum of the channels of each pixel.
template <typename E>
internal::ChannelReductionTpl<ImgOps::add, E> channelSum(const ExprBaseTpl<E>& e) {
  return internal::ChannelReductionTpl<ImgOps::add, E>(e.derived());
}
// Euclidean norm over the channels of each pixel.
template <typename E>
internal::ChannelReductionTpl<ImgOps::length, E> length(const ExprBaseTpl<E>& e) {
  return internal::ChannelReductionTpl<ImgOps::length, E>(e.derived());
}

template <typename T>
Array<TypedImage<T>, T> makeArray(TypedImage<T>& image, bool ignoreShiftAndScale = false) {
  return Array<TypedImage<T>, T>(image, ignoreShiftAndScale);
}
inline Array<SharedImage> makeArray(SharedImage& image, bool ignoreShiftAndScale = false) {
  return Array<SharedImage>(image, ignoreShiftAndScale);
}
inline Array<SharedImageSet> makeArray(SharedImageSet& set, bool ignoreShiftAndScale = false) {
  return Array<SharedImageSet>(set, ignoreShiftAndScale);
}

// ---- evaluating ----

namespace internal {
// Slices [z0, z1) of the fused pass; Identity: the target has no shift and scale.
template <bool Identity, typename E, typename T>
void fusedSlices(const E& e, T* out, int w, int h, int ch, int z0, int z1, double shift, double scale) {
  const auto store = [shift, scale](auto v) {
    if constexpr (Identity) return castValue<T>(v);
    else return castValue<T>((static_cast<double>(v) + shift) * scale);
  };
  size_t pixel = static_cast<size_t>(z0) * static_cast<size_t>(w) * static_cast<size_t>(h);
  for (int z = z0; z < z1; ++z)
    for (int y = 0; y < h; ++y) {
      if (ch == 1) {
        T* row = out + pixel;
        for (int x = 0; x < w; ++x) row[x] = store(e.eval(Pos{pixel + static_cast<size_t>(x), x, y, z, 0}));
        pixel += static_cast<size_t>(w);
        continue;
      }
      for (int x = 0; x < w; ++x, ++pixel)
        for (int c = 0; c < ch; ++c)
          out[pixel * static_cast<size_t>(ch) + static_cast<size_t>(c)] = store(e.eval(Pos{pixel, x, y, z, c}));
    }
}
}  // namespace internal

template <typename T>
template <typename E>
void Array<TypedImage<T>, T, false>::assign(const E& e) {
  if (!img_ || !data_) return;
  const ImageDescriptor& d = img_->descriptor();
  if (!e.memValid(d.pixelCount())) {
    internal::logShapeMismatch("operand does not match the target's pixels");
    return;
  }
  const int w = d.width(), h = d.height(), slices = d.slices(), ch = d.channels;
  T* out = img_->pointer();
  const bool identity = ignore_ || (img_->shift() == 0.0 && img_->scale() == 1.0);
  const double shift = img_->shift(), scale = img_->scale();
  const int threads = internal::threadsForSlices(slices);
  internal::setLastPassThreads(threads);
  // Each thread writes its own block of whole slices, so no locking is needed.
#pragma omp parallel num_threads(threads)
  {
    const int nt = omp_get_num_threads();
    const int t = omp_get_thread_num();
    const int block = slices / nt, extra = slices % nt;
    const int z0 = t * block + std::min(t, extra);
    const int z1 = z0 + block + (t < extra ? 1 : 0);
    // A private copy of the tree: stores through `out` (a char type for U8) could alias a
    // shared one and force every field to be reloaded per element.
    const E local = e;
    if (identity) internal::fusedSlices<true>(local, out, w, h, ch, z0, z1, shift, scale);
    else internal::fusedSlices<false>(local, out, w, h, ch, z0, z1, shift, scale);
  }
}

template <typename T>
template <typename E>
Array<SharedImage, T, false>& Array<SharedImage, T, false>::operator=(const ExprBaseTpl<E>& expr) {
  const E& e = expr.derived();
  // 1. The GPU, when both sides allow it.
  if (deviceStrategy() >= GpuAllowed && e.deviceStrategy() >= GpuAllowed && internal::glAvailable()) {
    if (internal::assignGl(*img_, ignore_, [&e](internal::GlBuilder& b) { return e.evalString(b); })) return *this;
  }
  // 2. Else the processor, on the memory copy.
  std::shared_ptr<MemImage> mem = img_->sharedMem();
  if (!mem) return *this;
  auto memExpr = e.convertToMemImgExpr();
  bool done = false;
  dispatchPixelType(mem->type(), [&](auto tag) {
    using V = decltype(tag);
    if (auto* typed = dynamic_cast<TypedImage<V>*>(mem.get())) {
      Array<TypedImage<V>, V> target(*typed, ignore_);
      if (!memExpr.memValid(typed->descriptor().pixelCount())) {
        internal::logShapeMismatch("operand does not match the target's pixels");
        return;
      }
      target.assign(memExpr);
      done = true;
    }
  });
  if (done) img_->setDirtyMem();
  return *this;
}

namespace internal {

template <typename Op, typename E>
template <typename M>
Eigen::VectorXd ReductionWrapperTpl<Op, E>::evalImplTypedImage(const M& e, const ImageDescriptor& d,
                                                               std::vector<Eigen::Vector4i>* positions) {
  constexpr bool isMax = std::is_same_v<Op, ImgOps::max>;
  const double start = isMax ? std::numeric_limits<double>::lowest() : std::numeric_limits<double>::max();
  const int ch = std::max(1, d.channels);
  Eigen::VectorXd result = Eigen::VectorXd::Constant(ch, start);
  const int w = d.width(), h = d.height(), slices = d.slices();
  const long long n = static_cast<long long>(w) * h * slices;
  if (positions) positions->assign(static_cast<size_t>(ch), Eigen::Vector4i(-1, -1, -1, -1));
  if (n <= 0 || w <= 0 || h <= 0 || slices <= 0) return result;
  if (!e.memValid(static_cast<size_t>(n))) {
    logShapeMismatch("reduction operand does not match the expression's pixels");
    return result;
  }
  const auto better = [](double a, double b) { return isMax ? a > b : a < b; };
  if (!positions) {
    for (int c = 0; c < ch; ++c) {
      double best = start;
#pragma omp parallel
      {
        double local = start;
#pragma omp for schedule(static) nowait
        for (long long i = 0; i < n; ++i) {
          const int x = static_cast<int>(i % w);
          const int y = static_cast<int>((i / w) % h);
          const int z = static_cast<int>(i / (static_cast<long long>(w) * h));
          const double v = static_cast<double>(e.eval(Pos{static_cast<size_t>(i), x, y, z, c}));
          if (better(v, local)) local = v;
        }
#pragma omp critical(merivaneImageMathReduce)
        if (better(local, best)) best = local;
      }
      result[c] = best;
    }
    return result;
  }
  std::vector<double> value(static_cast<size_t>(ch), start);
  std::vector<Eigen::Vector4i> where(static_cast<size_t>(ch), Eigen::Vector4i(-1, -1, -1, -1));
#pragma omp parallel
  {
    std::vector<double> localValue(static_cast<size_t>(ch), start);
    std::vector<Eigen::Vector4i> localWhere(static_cast<size_t>(ch), Eigen::Vector4i(-1, -1, -1, -1));
#pragma omp for schedule(static) nowait
    for (long long i = 0; i < n; ++i) {
      const int x = static_cast<int>(i % w);
      const int y = static_cast<int>((i / w) % h);
      const int z = static_cast<int>(i / (static_cast<long long>(w) * h));
      for (int c = 0; c < ch; ++c) {
        const double v = static_cast<double>(e.eval(Pos{static_cast<size_t>(i), x, y, z, c}));
        // Strictly better only: within a thread the first extreme stays.
        const size_t k = static_cast<size_t>(c);
        if (localWhere[k][0] < 0 || better(v, localValue[k])) {
          localValue[k] = v;
          localWhere[k] = Eigen::Vector4i(x, y, z, 0);
        }
      }
    }
#pragma omp critical(merivaneImageMathReduce)
    vec4argmax(value, where, localValue, localWhere, isMax);
  }
  for (int c = 0; c < ch; ++c) result[c] = value[static_cast<size_t>(c)];
  *positions = std::move(where);
  return result;
}

template <typename Op, typename E>
bool ReductionWrapperTpl<Op, E>::reduceGl(Eigen::VectorXd& result, std::vector<Eigen::Vector4i>* positions) const {
  if (e_.deviceStrategy() < GpuAllowed || !glAvailable()) return false;
  const ImageDescriptor d = e_.imgDesc();
  if (d.channels > 4 || e_.numImgs() < 1) return false;
  auto values = evaluateGlToFloat(d, [this](GlBuilder& b) { return e_.evalString(b); });
  if (!values) return false;
  Array<TypedImage<float>, float> read(*values, true);
  result = evalImplTypedImage(read, values->descriptor(), positions);
  return true;
}

template <typename Op, typename E>
Eigen::VectorXd ReductionWrapperTpl<Op, E>::eval(std::vector<Eigen::Vector4i>* positions) const {
  Eigen::VectorXd result;
  if (reduceGl(result, positions)) return result;
  auto m = e_.convertToMemImgExpr();
  return evalImplTypedImage(m, e_.imgDesc(), positions);
}

}  // namespace internal

template <typename D>
Eigen::VectorXd ExprBaseTpl<D>::max() const {
  return internal::ReductionWrapperTpl<ImgOps::max, D>(derived()).eval(nullptr);
}
template <typename D>
Eigen::VectorXd ExprBaseTpl<D>::min() const {
  return internal::ReductionWrapperTpl<ImgOps::min, D>(derived()).eval(nullptr);
}
template <typename D>
Eigen::VectorXd ExprBaseTpl<D>::max(std::vector<Eigen::Vector4i>& positions) const {
  return internal::ReductionWrapperTpl<ImgOps::max, D>(derived()).eval(&positions);
}
template <typename D>
Eigen::VectorXd ExprBaseTpl<D>::min(std::vector<Eigen::Vector4i>& positions) const {
  return internal::ReductionWrapperTpl<ImgOps::min, D>(derived()).eval(&positions);
}

}  // namespace Merivane::ImageMath
