#pragma once
// The operator tags of image expressions: each computes its value on the processor and
// writes its GLSL text. In GLSL every value is a vec4 (one component per channel), so
// comparisons turn their bool vectors into 1.0 and 0.0 at once.
#include <cmath>
#include <string>
#include <type_traits>

namespace Merivane::ImageMath::ImgOps {

// Comparisons give 1 or 0 in the operands' common type, without branches.

struct BinaryImgOpGl {};
struct UnaryImgOpGl {};

struct add : BinaryImgOpGl {
  template <typename V> static V apply(V a, V b) { return a + b; }
  static std::string evalString(const std::string& a, const std::string& b) { return "((" + a + ")+(" + b + "))"; }
};
struct minus : BinaryImgOpGl {
  template <typename V> static V apply(V a, V b) { return a - b; }
  static std::string evalString(const std::string& a, const std::string& b) { return "((" + a + ")-(" + b + "))"; }
};
struct mult : BinaryImgOpGl {
  template <typename V> static V apply(V a, V b) { return a * b; }
  static std::string evalString(const std::string& a, const std::string& b) { return "((" + a + ")*(" + b + "))"; }
};
struct divide : BinaryImgOpGl {
  template <typename V> static V apply(V a, V b) {
    // Integer division by zero gives 0 rather than a trap.
    if constexpr (std::is_integral_v<V>) return b == 0 ? V(0) : V(a / b);
    else return a / b;
  }
  static std::string evalString(const std::string& a, const std::string& b) { return "((" + a + ")/(" + b + "))"; }
};
struct max : BinaryImgOpGl {
  template <typename V> static V apply(V a, V b) { return a < b ? b : a; }
  static std::string evalString(const std::string& a, const std::string& b) { return "max((" + a + "), (" + b + "))"; }
};
struct min : BinaryImgOpGl {
  template <typename V> static V apply(V a, V b) { return b < a ? b : a; }
  static std::string evalString(const std::string& a, const std::string& b) { return "min((" + a + "), (" + b + "))"; }
};
struct greater : BinaryImgOpGl {
  template <typename V> static V apply(V a, V b) { return static_cast<V>(a > b); }
  static std::string evalString(const std::string& a, const std::string& b) {
    return "vec4(greaterThan((" + a + "), (" + b + ")))";
  }
};
struct less : BinaryImgOpGl {
  template <typename V> static V apply(V a, V b) { return static_cast<V>(a < b); }
  static std::string evalString(const std::string& a, const std::string& b) {
    return "vec4(lessThan((" + a + "), (" + b + ")))";
  }
};
struct binaryAnd : BinaryImgOpGl {
  // Bitwise on the two bools: no branch to mispredict on noisy images.
  template <typename V> static V apply(V a, V b) { return static_cast<V>((a != V(0)) & (b != V(0))); }
  // GLSL's && takes scalar bools only; the product of two 0/1 vectors is the same thing.
  static std::string evalString(const std::string& a, const std::string& b) {
    return "(vec4(notEqual((" + a + "), vec4(0.0))) * vec4(notEqual((" + b + "), vec4(0.0))))";
  }
};
struct abs : UnaryImgOpGl {
  template <typename V> static V apply(V a) {
    if constexpr (std::is_unsigned_v<V>) return a;
    else return a < V(0) ? V(-a) : a;
  }
  static std::string evalString(const std::string& a) { return "abs(" + a + ")"; }
};
// Channel folds: `mask` selects the operand's real channels.
struct channelAdd {
  static std::string evalString(const std::string& a, const std::string& mask) {
    return "vec4(dot((" + a + "), " + mask + "))";
  }
};
struct length {
  static std::string evalString(const std::string& a, const std::string& mask) {
    return "vec4(length( (" + a + ") * " + mask + "))";
  }
};

}  // namespace Merivane::ImageMath::ImgOps
