#pragma once
// The set of locked labels over the 256 values of a U8 label map: label l is bit l & 31 of
// word l >> 5. The word array goes to fragment programs as it stands.
#include <array>
#include <cstdint>

namespace Merivane::Seg {

class LabelLock {
 public:
  void setLocked(unsigned char label, bool locked) {
    const uint32_t bit = 1u << (label & 31u);
    if (locked)
      words_[label >> 5] |= bit;
    else
      words_[label >> 5] &= ~bit;
  }
  bool locked(unsigned char label) const { return (words_[label >> 5] >> (label & 31u)) & 1u; }
  void setAll(bool locked) { words_.fill(locked ? 0xffffffffu : 0u); }
  const std::array<uint32_t, 8>& flags() const { return words_; }
  bool operator==(const LabelLock&) const = default;

 private:
  std::array<uint32_t, 8> words_{};
};

}  // namespace Merivane::Seg
