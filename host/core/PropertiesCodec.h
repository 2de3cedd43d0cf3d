#pragma once
// Text conversion of the value types that Properties and Parameter<T> carry. Every value is
// stored as text, so a key written as one numeric type reads back as another.
#include <array>
#include <concepts>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Merivane::PropertiesDetail {

// Basic conversions; integers read from decimal or, failing that, from a floating-point text.
std::string toText(bool v);
std::string toText(long long v);
std::string toText(unsigned long long v);
std::string toText(float v);
std::string toText(double v);
bool fromText(std::string_view text, bool& out);
bool fromText(std::string_view text, long long& out);
bool fromText(std::string_view text, unsigned long long& out);
bool fromText(std::string_view text, float& out);
bool fromText(std::string_view text, double& out);

// Splits on blanks; quoted items keep blanks, with \" and \\ as escapes.
std::vector<std::string> splitList(std::string_view text, bool quoted);
std::string quote(std::string_view item);

// Enumerations travel as text. The owner of an enumeration specialises this with
//   static constexpr std::array<std::pair<E, const char*>, N> entries{...};
template <typename E>
struct EnumText;

template <typename E>
concept TextEnum = std::is_enum_v<E> && requires { EnumText<E>::entries; };

// Fixed-size Eigen matrices, recognised by their compile-time shape so that no Eigen header
// is needed here.
template <typename M>
concept FixedMatrix = requires {
  typename M::Scalar;
  { M::RowsAtCompileTime } -> std::convertible_to<int>;
  { M::ColsAtCompileTime } -> std::convertible_to<int>;
} && (M::RowsAtCompileTime > 0) && (M::ColsAtCompileTime > 0);

template <typename T, typename Enable = void>
struct Codec;

template <>
struct Codec<bool> {
  static std::string toText(bool v) { return PropertiesDetail::toText(v); }
  static bool fromText(std::string_view t, bool& out) { return PropertiesDetail::fromText(t, out); }
};

template <typename T>
struct Codec<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
  static std::string toText(T v) {
    if constexpr (std::is_signed_v<T>)
      return PropertiesDetail::toText(static_cast<long long>(v));
    else
      return PropertiesDetail::toText(static_cast<unsigned long long>(v));
  }
  static bool fromText(std::string_view t, T& out) {
    if constexpr (std::is_signed_v<T>) {
      long long v;
      if (!PropertiesDetail::fromText(t, v)) return false;
      if (v < static_cast<long long>(std::numeric_limits<T>::min()) ||
          v > static_cast<long long>(std::numeric_limits<T>::max()))
        return false;
      out = static_cast<T>(v);
    } else {
      unsigned long long v;
      if (!PropertiesDetail::fromText(t, v)) return false;
      if (v > static_cast<unsigned long long>(std::numeric_limits<T>::max())) return false;
      out = static_cast<T>(v);
    }
    return true;
  }
};

template <typename T>
struct Codec<T, std::enable_if_t<std::is_floating_point_v<T>>> {
  static std::string toText(T v) { return PropertiesDetail::toText(v); }
  static bool fromText(std::string_view t, T& out) { return PropertiesDetail::fromText(t, out); }
};

template <>
struct Codec<std::string> {
  static std::string toText(const std::string& v) { return v; }
  static bool fromText(std::string_view t, std::string& out) {
    out.assign(t);
    return true;
  }
};

template <TextEnum E>
struct Codec<E> {
  static std::string toText(E v) {
    for (auto& [value, name] : EnumText<E>::entries)
      if (value == v) return name;
    return PropertiesDetail::toText(static_cast<long long>(v));
  }
  static bool fromText(std::string_view t, E& out) {
    for (auto& [value, name] : EnumText<E>::entries)
      if (t == name) {
        out = value;
        return true;
      }
    long long v;  // the number is accepted as well, for hand-written files
    if (!PropertiesDetail::fromText(t, v)) return false;
    for (auto& [value, name] : EnumText<E>::entries)
      if (static_cast<long long>(value) == v) {
        out = value;
        return true;
      }
    return false;
  }
};

// An empty text is an empty optional.
template <typename T>
struct Codec<std::optional<T>> {
  static std::string toText(const std::optional<T>& v) { return v ? Codec<T>::toText(*v) : std::string(); }
  static bool fromText(std::string_view t, std::optional<T>& out) {
    if (t.empty()) {
      out.reset();
      return true;
    }
    T v{};
    if (!Codec<T>::fromText(t, v)) return false;
    out = std::move(v);
    return true;
  }
};

// Numbers separated by blanks; strings quoted.
template <typename T>
struct Codec<std::vector<T>> {
  static constexpr bool quoted = std::is_same_v<T, std::string>;
  static std::string toText(const std::vector<T>& v) {
    std::string s;
    for (size_t i = 0; i < v.size(); ++i) {
      if (i) s += ' ';
      if constexpr (quoted)
        s += quote(v[i]);
      else
        s += Codec<T>::toText(v[i]);
    }
    return s;
  }
  static bool fromText(std::string_view t, std::vector<T>& out) {
    std::vector<T> result;
    for (auto& item : splitList(t, quoted)) {
      T v{};
      if (!Codec<T>::fromText(item, v)) return false;
      result.push_back(std::move(v));
    }
    out = std::move(result);
    return true;
  }
};

// Row by row, blanks between the values.
template <FixedMatrix M>
struct Codec<M> {
  using S = typename M::Scalar;
  static std::string toText(const M& m) {
    std::string s;
    for (int r = 0; r < M::RowsAtCompileTime; ++r)
      for (int c = 0; c < M::ColsAtCompileTime; ++c) {
        if (r || c) s += ' ';
        s += Codec<S>::toText(m(r, c));
      }
    return s;
  }
  static bool fromText(std::string_view t, M& out) {
    auto items = splitList(t, false);
    if (items.size() != static_cast<size_t>(M::RowsAtCompileTime * M::ColsAtCompileTime)) return false;
    M m = out;
    size_t i = 0;
    for (int r = 0; r < M::RowsAtCompileTime; ++r)
      for (int c = 0; c < M::ColsAtCompileTime; ++c) {
        S v;
        if (!Codec<S>::fromText(items[i++], v)) return false;
        m(r, c) = v;
      }
    out = m;
    return true;
  }
};

}  // namespace Merivane::PropertiesDetail
