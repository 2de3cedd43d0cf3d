// Compressed image data: written in independent pieces on all cores, read back by plain zlib.
#include <gtest/gtest.h>
#include <omp.h>
#include <zlib.h>

#include <cstdint>
#include <string>
#include <vector>

#include "IoUtil.h"

namespace Merivane {
using IO::detail::deflateBytes;
using IO::detail::inflateBytes;
namespace {

// Sizes around the 4 MiB piece: empty, one short piece, exactly one, one and a byte, several.
class Deflate : public testing::TestWithParam<size_t> {
 protected:
  static std::vector<unsigned char> bytes(size_t n) {
    std::vector<unsigned char> v(n);
    uint32_t s = 12345;
    for (size_t i = 0; i < n; ++i) {
      s = s * 1664525u + 1013904223u;
      v[i] = static_cast<unsigned char>((i / 97) % 7 == 0 ? s >> 24 : i % 13);  // runs and noise
    }
    return v;
  }
  // Inflates with zlib alone, which checks the trailer's checksum and length.
  static std::string inflateAll(const std::string& z, bool gzip, int* rc) {
    z_stream zs{};
    inflateInit2(&zs, gzip ? 15 + 16 : 15);
    std::string out(GetParam() + 64, '\0');
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(z.data()));
    zs.avail_in = static_cast<uInt>(z.size());
    zs.next_out = reinterpret_cast<Bytef*>(out.data());
    zs.avail_out = static_cast<uInt>(out.size());
    *rc = inflate(&zs, Z_FINISH);
    out.resize(zs.total_out);
    if (*rc == Z_STREAM_END && zs.avail_in != 0) *rc = Z_DATA_ERROR;  // bytes after the stream
    inflateEnd(&zs);
    return out;
  }
};

TEST_P(Deflate, RoundTripsThroughPlainZlibAndGzip) {
  const auto in = bytes(GetParam());
  for (bool gzip : {false, true}) {
    std::string z;
    ASSERT_TRUE(deflateBytes(in.data(), in.size(), z, gzip));
    int rc = 0;
    const std::string back = inflateAll(z, gzip, &rc);
    EXPECT_EQ(rc, Z_STREAM_END) << (gzip ? "gzip" : "zlib");
    ASSERT_EQ(back.size(), in.size());
    EXPECT_TRUE(std::equal(in.begin(), in.end(), reinterpret_cast<const unsigned char*>(back.data())));
    std::string ours;
    EXPECT_TRUE(inflateBytes(z.data(), z.size(), ours, in.size(), nullptr));
    EXPECT_EQ(ours, back);
  }
}

TEST_P(Deflate, BytesDoNotDependOnTheThreadCount) {
  const auto in = bytes(GetParam());
  const int threads = omp_get_max_threads();
  std::string one, three;
  omp_set_num_threads(1);
  ASSERT_TRUE(deflateBytes(in.data(), in.size(), one, true));
  omp_set_num_threads(3);
  ASSERT_TRUE(deflateBytes(in.data(), in.size(), three, true));
  omp_set_num_threads(threads);
  EXPECT_EQ(one, three);
}

TEST_P(Deflate, ACorruptedPieceIsCaughtByTheChecksum) {
  if (GetParam() < 1000) GTEST_SKIP() << "too small to corrupt safely";
  const auto in = bytes(GetParam());
  std::string z;
  ASSERT_TRUE(deflateBytes(in.data(), in.size(), z, false));
  z[z.size() - 2] ^= 0x40;  // inside the Adler-32 trailer
  std::string out;
  EXPECT_FALSE(inflateBytes(z.data(), z.size(), out, in.size(), nullptr));
}

INSTANTIATE_TEST_SUITE_P(Sizes, Deflate,
                         testing::Values(size_t(0), size_t(1000), size_t(4) << 20, (size_t(4) << 20) + 1,
                                         size_t(13) << 20),
                         [](const testing::TestParamInfo<size_t>& i) { return "bytes" + std::to_string(i.param); });

}  // namespace
}  // namespace Merivane
