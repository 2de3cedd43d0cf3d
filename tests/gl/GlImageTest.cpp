#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <tuple>
#include <vector>

#include "GlContext.h"
#include "GlImage.h"
#include "GlImageProgram.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

// Pixel values that exercise the sign and the full width of each type.
std::unique_ptr<MemImage> patterned(PixelType type, const Eigen::Vector3i& dims, int channels) {
  auto img = MemImage::create(ImageDescriptor(type, dims, channels));
  dispatchPixelType(type, [&](auto tag) {
    using T = decltype(tag);
    T* p = static_cast<T*>(img->data());
    for (size_t i = 0; i < img->descriptor().elementCount(); ++i) {
      const long long v = static_cast<long long>(i * 37 % 251) - 100;
      p[i] = std::is_unsigned_v<T> ? static_cast<T>(i * 37 % 251 + (sizeof(T) > 1 ? 300 : 0)) : static_cast<T>(v);
    }
  });
  return img;
}

using RoundTripParam = std::tuple<PixelType, Eigen::Vector3i, int>;
class GlImageRoundTrip : public testing::TestWithParam<RoundTripParam> {};

TEST_P(GlImageRoundTrip, UploadThenDownloadGivesTheSamePixels) {
  MERIVANE_REQUIRE_GL();
  const auto [type, dims, channels] = GetParam();
  auto source = patterned(type, dims, channels);
  GlImage texture(source->descriptor(), 0, source->data());
  ASSERT_TRUE(texture.valid());
  EXPECT_EQ(texture.target() == 0x806F /* GL_TEXTURE_3D */, dims[2] > 1);
  auto back = MemImage::create(source->descriptor());
  ASSERT_TRUE(texture.download(*back));
  EXPECT_EQ(0, std::memcmp(source->data(), back->data(), source->byteSize()));

  // upload() overwrites the same texture.
  auto other = patterned(type, dims, channels);
  dispatchPixelType(type, [&](auto tag) {
    using T = decltype(tag);
    static_cast<T*>(other->data())[0] = T(7);
  });
  ASSERT_TRUE(texture.upload(*other));
  ASSERT_TRUE(texture.download(*back));
  EXPECT_EQ(0, std::memcmp(other->data(), back->data(), other->byteSize()));
}

INSTANTIATE_TEST_SUITE_P(AllTextureTypes, GlImageRoundTrip,
                         testing::Combine(testing::Values(I8, U8, I16, U16, I32, U32, F32),
                                          testing::Values(Eigen::Vector3i(5, 3, 1), Eigen::Vector3i(4, 3, 6)),
                                          testing::Values(1, 2, 3, 4)));

TEST(GlImage, TypesWithoutTextureFormAreInvalid) {
  MERIVANE_REQUIRE_GL();
  EXPECT_FALSE(GlImage(ImageDescriptor(F64, Eigen::Vector3i(4, 4, 1))).valid());
  EXPECT_FALSE(GlImage(ImageDescriptor(U8, Eigen::Vector3i(4, 4, 1), 5)).valid());
  ImageDescriptor bad(U8, Eigen::Vector3i(0, 4, 1));
  EXPECT_FALSE(GlImage(bad).valid());
  // A valid texture refuses downloads of another shape or of the wrong number kind.
  GlImage u8(ImageDescriptor(U8, Eigen::Vector3i(4, 4, 1)));
  ASSERT_TRUE(u8.valid());
  TypedImage<unsigned char> small(Eigen::Vector3i(3, 4, 1), 1);
  EXPECT_FALSE(u8.download(small));
  TypedImage<float> asFloat(Eigen::Vector3i(4, 4, 1), 1);
  EXPECT_FALSE(u8.download(asFloat));
}

TEST(GlImage, SwapAndUpdateMoveContents) {
  MERIVANE_REQUIRE_GL();
  const ImageDescriptor d(U16, Eigen::Vector3i(3, 2, 2));
  auto a = patterned(U16, d.dimensions, 1);
  std::vector<unsigned short> zeros(d.elementCount(), 0);
  GlImage ta(d, 0, a->data()), tb(d, 0, zeros.data());
  ta.swapTexID(tb);
  TypedImage<unsigned short> out(d);
  ASSERT_TRUE(tb.download(out));
  EXPECT_EQ(0, std::memcmp(out.pointer(), a->data(), d.byteSize()));
  ASSERT_TRUE(ta.download(out));
  EXPECT_EQ(out.value(2, 1, 1), 0);

  ASSERT_TRUE(ta.update(tb));
  ASSERT_TRUE(ta.download(out));
  EXPECT_EQ(0, std::memcmp(out.pointer(), a->data(), d.byteSize()));
  GlImage otherShape(ImageDescriptor(U16, Eigen::Vector3i(3, 2, 1)));
  EXPECT_FALSE(otherShape.update(tb));
}

TEST(GlImage, TransfersWorkFromAnyThread) {
  MERIVANE_REQUIRE_GL();
  auto a = patterned(F32, Eigen::Vector3i(6, 5, 1), 1);
  bool ok = false;
  std::thread worker([&] {
    GlImage t(a->descriptor(), 0, a->data());
    TypedImage<float> back(a->descriptor());
    ok = t.download(back) && std::memcmp(back.pointer(), a->data(), a->byteSize()) == 0;
  });
  worker.join();
  EXPECT_TRUE(ok);
}

TEST(GlProgram, CompileErrorIsReportedNotThrown) {
  MERIVANE_REQUIRE_GL();
  bool valid = true;
  std::string log;
  GL::runOnGlThread([&] {
    GL::ImageProgram p;
    valid = p.compile("#version 450 core\nvoid main() { this is not glsl; }\n");
    log = p.log();
  });
  EXPECT_FALSE(valid);
  EXPECT_NE(log.find("fragment"), std::string::npos);
}

TEST(GlImageProgram, RendersEverySliceOfAVolume) {
  MERIVANE_REQUIRE_GL();
  const ImageDescriptor d(F32, Eigen::Vector3i(4, 3, 5));
  GlImage target(d);
  bool ok = false;
  GL::runOnGlThread([&] {
    GL::ImageProgram p;
    ok = p.compile(
        "#version 450 core\nuniform int u_slice;\nuniform float u_offset;\nout vec4 o;\n"
        "void main() { o = vec4(floor(gl_FragCoord.x) + 10.0 * floor(gl_FragCoord.y) + 100.0 * float(u_slice) + u_offset); }\n");
    ok = ok && p.setArgument("u_offset", 0.5f) && p.compute(target);
    EXPECT_FALSE(p.setArgument("u_unused", 1.0f));
  });
  ASSERT_TRUE(ok);
  TypedImage<float> out(d);
  ASSERT_TRUE(target.download(out));
  for (int z = 0; z < 5; ++z)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 4; ++x) EXPECT_FLOAT_EQ(out.value(x, y, z), x + 10 * y + 100 * z + 0.5f);
}

}  // namespace
}  // namespace Merivane
