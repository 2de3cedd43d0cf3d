#include <gtest/gtest.h>

#include <cstring>

#include "GlContext.h"
#include "GlImage.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

std::shared_ptr<TypedImage<short>> ramp(const Eigen::Vector3i& dims) {
  auto img = std::shared_ptr<TypedImage<short>>(TypedImage<short>::zeros(dims, 1));
  for (size_t i = 0; i < img->descriptor().elementCount(); ++i) img->pointer()[i] = static_cast<short>(i * 3 - 20);
  return img;
}

TEST(SharedImageGl, GlUploadsWhenMemoryIsNewerAndMemDownloadsWhenTextureIsNewer) {
  MERIVANE_REQUIRE_GL();
  auto mem = ramp(Eigen::Vector3i(4, 3, 2));
  SharedImage frame(mem);
  EXPECT_TRUE(frame.hasMem());
  EXPECT_FALSE(frame.hasGl());

  GlImage* texture = frame.gl();
  ASSERT_NE(texture, nullptr);
  EXPECT_TRUE(frame.hasGl());
  EXPECT_TRUE(frame.hasMem());
  TypedImage<short> check(mem->descriptor());
  ASSERT_TRUE(texture->download(check));
  EXPECT_EQ(check.value(3, 2, 1), mem->value(3, 2, 1));

  // Write through memory: the texture is stale and gl() uploads again, into the same texture.
  frame.mem()->setShiftScale(0, 1);
  static_cast<TypedImage<short>*>(frame.mem())->setValue(-999, 1, 1, 1);
  frame.setDirtyMem();
  EXPECT_FALSE(frame.hasGl());
  EXPECT_EQ(frame.gl(), texture);
  ASSERT_TRUE(texture->download(check));
  EXPECT_EQ(check.value(1, 1, 1), -999);

  // Write the texture: the memory copy is stale and mem() downloads.
  auto replacement = ramp(Eigen::Vector3i(4, 3, 2));
  replacement->setValue(1234, 0, 0, 0);
  ASSERT_TRUE(texture->upload(*replacement));
  frame.setDirtyGl();
  EXPECT_FALSE(frame.hasMem());
  auto* typed = dynamic_cast<TypedImage<short>*>(frame.mem());
  ASSERT_NE(typed, nullptr);
  EXPECT_EQ(typed->value(0, 0, 0), 1234);
  EXPECT_TRUE(frame.hasMem());
  EXPECT_TRUE(frame.hasGl());
}

TEST(SharedImageGl, WrapsATextureAndDownloadsOnDemand) {
  MERIVANE_REQUIRE_GL();
  auto mem = ramp(Eigen::Vector3i(5, 4, 1));
  auto texture = std::make_shared<GlImage>(mem->descriptor(), 0, mem->data());
  SharedImage frame(texture);
  EXPECT_TRUE(frame.hasGl());
  EXPECT_FALSE(frame.hasMem());
  EXPECT_EQ(frame.img(), texture.get());
  EXPECT_EQ(frame.descriptor().dimensions, Eigen::Vector3i(5, 4, 1));
  auto* typed = dynamic_cast<TypedImage<short>*>(frame.mem());
  ASSERT_NE(typed, nullptr);
  EXPECT_EQ(0, std::memcmp(typed->pointer(), mem->pointer(), mem->byteSize()));

  auto copy = frame.clone();
  EXPECT_TRUE(copy->hasMem());
  EXPECT_EQ(dynamic_cast<TypedImage<short>*>(copy->mem())->value(4, 3), mem->value(4, 3));
}

TEST(SharedImageGl, UpdateFromTextureReplacesContents) {
  MERIVANE_REQUIRE_GL();
  SharedImage frame(ramp(Eigen::Vector3i(3, 3, 1)));
  auto other = ramp(Eigen::Vector3i(3, 3, 1));
  other->fill(42);
  GlImage texture(other->descriptor(), 0, other->data());
  frame.update(texture);
  EXPECT_TRUE(frame.hasGl());
  EXPECT_FALSE(frame.hasMem());
  EXPECT_NE(frame.gl(), &texture);  // a copy, not the caller's texture
  EXPECT_EQ(dynamic_cast<TypedImage<short>*>(frame.mem())->value(2, 2), 42);
}

TEST(SharedImageGl, UpdateWithAnotherShapeTakesTheTexturesDescriptor) {
  MERIVANE_REQUIRE_GL();
  SharedImage frame(ramp(Eigen::Vector3i(3, 3, 1)));
  auto bigger = ramp(Eigen::Vector3i(6, 2, 4));
  GlImage texture(bigger->descriptor(), 0, bigger->data());
  frame.update(texture);
  EXPECT_EQ(frame.descriptor().dimensions, Eigen::Vector3i(6, 2, 4));
  auto* typed = dynamic_cast<TypedImage<short>*>(frame.mem());
  ASSERT_NE(typed, nullptr);
  EXPECT_EQ(typed->descriptor().dimensions, Eigen::Vector3i(6, 2, 4));
  EXPECT_EQ(typed->value(5, 1, 3), bigger->value(5, 1, 3));
}

TEST(SharedImageGl, NoTextureForF64OrWideImagesAndMemoryStaysUsable) {
  MERIVANE_REQUIRE_GL();
  SharedImage f64(ImageDescriptor(F64, Eigen::Vector3i(3, 3, 1)));
  EXPECT_EQ(f64.gl(), nullptr);
  EXPECT_TRUE(f64.hasMem());
  SharedImage wide(ImageDescriptor(U8, Eigen::Vector3i(3, 3, 1), 5));
  EXPECT_EQ(wide.gl(), nullptr);
  EXPECT_NE(wide.mem(), nullptr);
}

TEST(SharedImageGl, SetShortcutReachesTheFrameTexture) {
  MERIVANE_REQUIRE_GL();
  SharedImageSet set(std::shared_ptr<Image>(ramp(Eigen::Vector3i(3, 2, 1))));
  GlImage* texture = set.gl(-1);
  ASSERT_NE(texture, nullptr);
  EXPECT_EQ(texture, set.get(0)->gl());
  EXPECT_EQ(set.gl(5), nullptr);
}

TEST(SharedImageGl, DisabledContextDeclinesTexturesAndKeepsMemory) {
  GL::Context::setEnabled(false);
  SharedImage frame(ramp(Eigen::Vector3i(3, 3, 1)));
  EXPECT_EQ(frame.gl(), nullptr);
  EXPECT_FALSE(frame.hasGl());
  EXPECT_NE(frame.mem(), nullptr);
  GL::Context::setEnabled(true);
}

}  // namespace
}  // namespace Merivane
