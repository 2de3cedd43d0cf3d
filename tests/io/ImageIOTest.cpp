#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <cstring>

#include "ImageIO.h"
#include "IoTestUtil.h"
#include "LabelDataComponent.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

// An oblique frame with a reflection: rotation about (1, 2, 3), z mirrored, moved off origin.
Eigen::Matrix4d obliqueMatrix() {
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m.block<3, 3>(0, 0) = Eigen::AngleAxisd(0.3, Eigen::Vector3d(1, 2, 3).normalized()).toRotationMatrix() *
                        Eigen::Vector3d(1, 1, -1).asDiagonal();
  m.block<3, 1>(0, 3) = Eigen::Vector3d(12.5, -40.25, 7.0);
  return m;
}

std::unique_ptr<SharedImageSet> makeVolume(PixelType type, const Eigen::Vector3i& dims, int channels) {
  auto set = TestKit::makeSet(type, dims, 1, channels);
  MemImage* m = set->mem(0);
  dispatchPixelType(type, [&](auto tag) {
    using T = decltype(tag);
    T* p = static_cast<T*>(m->data());
    for (size_t k = 0; k < m->descriptor().elementCount(); ++k) {
      const double v = std::is_floating_point_v<T> ? static_cast<double>(k) * 0.37 - 3.0
                                                   : static_cast<double>((k * 7 + 3) % 120) - (std::is_signed_v<T> ? 50 : 0);
      p[k] = static_cast<T>(v);
    }
  });
  set->get(0)->setSpacing(Eigen::Vector3d(0.7, 1.3, 2.5));
  set->get(0)->setMatrix(obliqueMatrix());
  return set;
}

struct Format {
  const char* extension;
  bool compress;
  int niftiVersion;
  double tolerance;  // NIfTI-1 keeps its affine in single precision
};

void PrintTo(const Format& f, std::ostream* os) { *os << f.extension << (f.compress ? "+z" : "") << " v" << f.niftiVersion; }

const Format kFormats[] = {
    {".nrrd", true, 0, 1e-12}, {".nrrd", false, 0, 1e-12}, {".nhdr", false, 0, 1e-12}, {".nhdr", true, 0, 1e-12},
    {".mha", true, 0, 1e-12},  {".mha", false, 0, 1e-12},  {".mhd", false, 0, 1e-12},  {".nii", false, 1, 1e-5},
    {".nii.gz", true, 1, 1e-5}, {".nii", false, 2, 1e-6}, {".nii.gz", true, 2, 1e-6},
};

class ImageRoundTrip : public testing::TestWithParam<std::tuple<Format, PixelType, int>> {};

TEST_P(ImageRoundTrip, KeepsValuesSpacingAndMatrix) {
  const auto [format, type, channels] = GetParam();
  TestKit::ScratchDir dir;
  auto in = makeVolume(type, {5, 4, 3}, channels);
  const std::string path = dir.file(std::string("volume") + format.extension);
  std::string error;
  IO::WriteOptions options;
  options.compress = format.compress;
  options.niftiVersion = format.niftiVersion;
  ASSERT_TRUE(IO::writeImage(*in, path, &error, options)) << error;
  auto out = IO::readImage(path, &error);
  ASSERT_TRUE(out) << error;
  ASSERT_EQ(out->size(), 1);
  const ImageDescriptor& a = in->img(0)->descriptor();
  const ImageDescriptor& b = out->img(0)->descriptor();
  EXPECT_EQ(b.pixelType, a.pixelType);
  EXPECT_EQ(b.dimensions, a.dimensions);
  EXPECT_EQ(b.channels, a.channels);
  EXPECT_EQ(std::memcmp(in->mem(0)->data(), out->mem(0)->data(), a.byteSize()), 0);
  EXPECT_TRUE(b.spacing.isApprox(a.spacing, format.tolerance)) << b.spacing.transpose();
  EXPECT_TRUE(out->get(0)->matrix().isApprox(in->get(0)->matrix(), format.tolerance)) << out->get(0)->matrix();
  // The same voxel lands on the same world point, which is what other viewers rely on.
  const Eigen::Vector3d corner(4, 0, 2);
  EXPECT_LT((out->get(0)->pixelToWorld(corner) - in->get(0)->pixelToWorld(corner)).norm(), 1e-3);
  EXPECT_EQ(dir.entries(), std::string(format.extension) == ".nhdr" || std::string(format.extension) == ".mhd" ? 2 : 1)
      << "temporary files left behind";
}

INSTANTIATE_TEST_SUITE_P(Formats, ImageRoundTrip,
                         testing::Combine(testing::ValuesIn(kFormats), testing::Values(U8, I8, I16, U16, I32, F32, F64),
                                          testing::Values(1, 3)));

TEST(ImageIO, SliceIsWrittenAndReadBackAsOneSlice) {
  TestKit::ScratchDir dir;
  for (const char* ext : {".nrrd", ".mha", ".nii.gz"}) {
    auto in = makeVolume(F32, {6, 5, 1}, 1);
    std::string error;
    const std::string path = dir.file(std::string("slice") + ext);
    ASSERT_TRUE(IO::writeImage(*in, path, &error)) << error;
    auto out = IO::readImage(path, &error);
    ASSERT_TRUE(out) << error;
    EXPECT_EQ(out->img(0)->dimensions(), Eigen::Vector3i(6, 5, 1)) << ext;
    EXPECT_TRUE(out->get(0)->matrix().isApprox(in->get(0)->matrix(), 1e-5)) << ext;
  }
}

TEST(ImageIO, ShiftAndScaleSurvive) {
  TestKit::ScratchDir dir;
  for (const char* ext : {".nrrd", ".mha", ".nii"}) {
    auto in = makeVolume(I16, {3, 3, 3}, 1);
    in->get(0)->setShiftScale(1024.0, 0.5);
    std::string error;
    const std::string path = dir.file(std::string("ct") + ext);
    ASSERT_TRUE(IO::writeImage(*in, path, &error)) << error;
    auto out = IO::readImage(path, &error);
    ASSERT_TRUE(out) << error;
    EXPECT_DOUBLE_EQ(out->img(0)->shift(), 1024.0) << ext;
    EXPECT_DOUBLE_EQ(out->img(0)->scale(), 0.5) << ext;
  }
}

class LabelMapRoundTrip : public testing::TestWithParam<const char*> {};

TEST_P(LabelMapRoundTrip, KeepsModalityNamesAndColours) {
  TestKit::ScratchDir dir;
  auto in = TestKit::makeImage<unsigned char>({4, 4, GetParam() == std::string(".png") ? 1 : 2},
                                              [](int x, int y, int) { return x < 2 ? 1 : (y < 2 ? 7 : 0); });
  in->setModality(Data::LABEL);
  auto* labels = in->components().getOrCreate<LabelDataComponent>(in.get());
  labels->setLabelName(1, "Liver");
  labels->setLabelColor(1, Eigen::Vector4d(0.25, 0.5, 0.75, 1.0));
  labels->setLabelName(7, "Left kidney");
  labels->setLabelColor(7, Eigen::Vector4d(1, 0, 0.5, 0.5));
  std::string error;
  const std::string path = dir.file(std::string("labels") + GetParam());
  ASSERT_TRUE(IO::writeImage(*in, path, &error)) << error;
  auto out = IO::readImage(path, &error);
  ASSERT_TRUE(out) << error;
  EXPECT_EQ(out->modality(), Data::LABEL);
  const auto* got = out->components().get<LabelDataComponent>();
  ASSERT_TRUE(got);
  ASSERT_TRUE(got->labelConfig(1) && got->labelConfig(7));
  EXPECT_EQ(got->labelConfig(1)->name, "Liver");
  EXPECT_EQ(got->labelConfig(7)->name, "Left kidney");
  EXPECT_TRUE(got->labelConfig(1)->color.isApprox(Eigen::Vector4d(0.25, 0.5, 0.75, 1.0)));
  EXPECT_TRUE(got->labelConfig(7)->color.isApprox(Eigen::Vector4d(1, 0, 0.5, 0.5)));
}

INSTANTIATE_TEST_SUITE_P(Formats, LabelMapRoundTrip, testing::Values(".nrrd", ".nhdr", ".mha", ".nii", ".nii.gz", ".png"));

TEST(ImageIO, PlainImageIsNotALabelMapAndMarkingConvertsWholeValues) {
  TestKit::ScratchDir dir;
  auto in = TestKit::makeImage<short>({3, 2, 1}, [](int x, int, int) { return x * 2; });
  std::string error;
  ASSERT_TRUE(IO::writeImage(*in, dir.file("a.nrrd"), &error)) << error;
  auto out = IO::readImage(dir.file("a.nrrd"), &error);
  ASSERT_TRUE(out);
  EXPECT_NE(out->modality(), Data::LABEL);
  ASSERT_TRUE(IO::markAsLabelMap(*out, &error)) << error;
  EXPECT_EQ(out->modality(), Data::LABEL);
  EXPECT_EQ(out->img(0)->type(), U8);
  EXPECT_EQ(static_cast<const unsigned char*>(out->mem(0)->data())[2], 4);

  auto negative = TestKit::makeImage<float>({2, 1, 1}, [](int x, int, int) { return x - 0.5; });
  EXPECT_FALSE(IO::markAsLabelMap(*negative, &error));
  EXPECT_NE(error.find("0..255"), std::string::npos) << error;
}

TEST(ImageIO, PngKeepsGrayColourAndSixteenBits) {
  TestKit::ScratchDir dir;
  struct Case {
    PixelType type;
    int channels;
  };
  for (Case c : {Case{U8, 1}, Case{U8, 2}, Case{U8, 3}, Case{U8, 4}, Case{U16, 1}, Case{U16, 3}}) {
    auto in = makeVolume(c.type, {7, 5, 1}, c.channels);
    in->get(0)->setMatrix(Eigen::Matrix4d::Identity());
    in->get(0)->setSpacing(Eigen::Vector3d(0.5, 0.25, 1.0));
    std::string error;
    const std::string path = dir.file("frame.png");
    ASSERT_TRUE(IO::writeImage(*in, path, &error)) << error;
    auto out = IO::readImage(path, &error);
    ASSERT_TRUE(out) << error;
    ASSERT_EQ(out->img(0)->type(), c.type);
    ASSERT_EQ(out->img(0)->channels(), c.channels);
    EXPECT_EQ(std::memcmp(in->mem(0)->data(), out->mem(0)->data(), in->mem(0)->byteSize()), 0);
    EXPECT_TRUE(out->img(0)->spacing().isApprox(Eigen::Vector3d(0.5, 0.25, 1.0)));
  }
}

TEST(ImageIO, RefusedWriteLeavesTheOldFileAndNoTemporary) {
  TestKit::ScratchDir dir;
  const std::string path = dir.file("keep.png");
  TestKit::writeBytes(path, "old contents");
  auto volume = makeVolume(F32, {3, 3, 3}, 1);
  std::string error;
  EXPECT_FALSE(IO::writeImage(*volume, path, &error));
  EXPECT_NE(error.find("keep.png"), std::string::npos) << error;
  EXPECT_EQ(TestKit::readBytes(path), "old contents");
  EXPECT_EQ(dir.entries(), 1);

  EXPECT_FALSE(IO::writeImage(*volume, dir.file("missing/sub/x.nrrd"), &error));
  EXPECT_FALSE(IO::writeImage(*volume, dir.file("missing/sub/x.nii"), &error));
  EXPECT_EQ(dir.entries(), 1);

  auto twoFrames = TestKit::makeSet(U8, {2, 2, 1}, 2);
  EXPECT_FALSE(IO::writeImage(*twoFrames, dir.file("two.nrrd"), &error));
  EXPECT_NE(error.find("one frame"), std::string::npos) << error;
}

}  // namespace
