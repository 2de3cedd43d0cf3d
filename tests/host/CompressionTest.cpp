#include "Compression.h"

#include <gtest/gtest.h>

#include <random>

using namespace Merivane;
namespace zstd = Merivane::Compression::zstd;

namespace {

ByteBuffer sample(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  ByteBuffer b(n);
  for (auto& v : b) v = static_cast<unsigned char>(rng() % 7 == 0 ? rng() : 3);
  return b;
}

ByteBuffer compress(const ByteBuffer& raw) {
  ByteBuffer out(zstd::getMaxCompressedSize(raw.size()));
  zstd::Context c;
  out.resize(c.compressTo(raw, out, 1));
  return out;
}

}  // namespace

TEST(Compression, RoundTripIntoExactAndLargerOutputs) {
  const ByteBuffer raw = sample(100000, 1);
  const ByteBuffer packed = compress(raw);
  ASSERT_GT(packed.size(), 0u);
  EXPECT_EQ(zstd::frameContentSize(packed), raw.size());
  EXPECT_TRUE(zstd::verify(packed));
  EXPECT_EQ(zstd::decompress(packed), raw);
  ByteBuffer out(raw.size() + 10, 0xEE);
  zstd::Context c;
  EXPECT_EQ(c.decompressTo(packed, out), raw.size());
  EXPECT_TRUE(std::equal(raw.begin(), raw.end(), out.begin()));
}

TEST(Compression, TooSmallOutputsGiveZero) {
  const ByteBuffer raw = sample(5000, 2);
  const ByteBuffer packed = compress(raw);
  zstd::Context c;
  ByteBuffer small(packed.size() - 1);
  EXPECT_EQ(c.compressTo(raw, small, 1), 0u);
  ByteBuffer shortOut(raw.size() - 1);
  EXPECT_EQ(c.decompressTo(packed, shortOut), 0u);
  EXPECT_TRUE(zstd::decompress(packed, raw.size() - 1).empty());
}

// A changed byte either is refused or changes nothing of the content (a few bits of a frame
// are padding); every cut is refused.
TEST(Compression, DamagedAndCutFramesNeverGiveWrongBytes) {
  const ByteBuffer raw = sample(3000, 3);
  const ByteBuffer packed = compress(raw);
  int refused = 0;
  for (size_t i = 0; i < packed.size(); ++i) {
    ByteBuffer damaged = packed;
    damaged[i] ^= 0x21;
    const ByteBuffer out = zstd::decompress(damaged);
    EXPECT_EQ(zstd::verify(damaged), !out.empty()) << i;
    if (out.empty())
      ++refused;
    else
      EXPECT_EQ(out, raw) << i;
  }
  EXPECT_GT(refused, static_cast<int>(packed.size()) * 9 / 10);
  for (size_t cut = 0; cut < packed.size(); ++cut) {
    const ByteBuffer part(packed.begin(), packed.begin() + static_cast<ptrdiff_t>(cut));
    EXPECT_FALSE(zstd::verify(part)) << cut;
    EXPECT_TRUE(zstd::decompress(part).empty()) << cut;
  }
  ByteBuffer trailing = packed;
  trailing.push_back(0);
  EXPECT_FALSE(zstd::frameContentSize(trailing));
  EXPECT_FALSE(zstd::verify(trailing));
}
