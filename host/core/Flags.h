#pragma once
#include <cstdint>
#include <type_traits>

namespace Merivane {

// A set of bits of an enumeration, stored as one 32-bit word.
template <typename E>
class Flags {
 public:
  constexpr Flags() = default;
  constexpr Flags(E e) : bits_(static_cast<uint32_t>(e)) {}
  constexpr explicit Flags(uint32_t bits) : bits_(bits) {}

  constexpr bool test(E e) const { return (bits_ & static_cast<uint32_t>(e)) == static_cast<uint32_t>(e); }
  constexpr bool any() const { return bits_ != 0; }
  constexpr uint32_t bits() const { return bits_; }
  constexpr Flags& set(E e, bool on = true) {
    bits_ = on ? (bits_ | static_cast<uint32_t>(e)) : (bits_ & ~static_cast<uint32_t>(e));
    return *this;
  }
  constexpr Flags operator|(Flags o) const { return Flags(bits_ | o.bits_); }
  constexpr Flags operator&(Flags o) const { return Flags(bits_ & o.bits_); }
  constexpr Flags& operator|=(Flags o) { bits_ |= o.bits_; return *this; }
  constexpr bool operator==(const Flags&) const = default;

 private:
  uint32_t bits_ = 0;
};

}  // namespace Merivane
