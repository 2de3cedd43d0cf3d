// Skin: thresholds, the largest object, hole filling across the stacking axis, padding,
// resampling, the surface points, failures, and serial against parallel.
#include <gtest/gtest.h>
#include <omp.h>

#include "LabelDataComponent.h"
#include "Log.h"
#include "PointCloud.h"
#include "SkinSegmentationAlgorithm.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

const Eigen::Vector3i kSize(40, 36, 24);

// Body: the box 6..34 x 6..30 over every slice. Inside it, air pockets: a ball round
// (14, 18, 12), a channel along z through every slice at x 18..20, y 24..26, and a notch
// cut from the side face x = 34 at y 14..22, z 8..16, 8 voxels deep.
bool inBody(int x, int y, int) { return x >= 6 && x <= 34 && y >= 6 && y <= 30; }
bool inBall(int x, int y, int z) { return (x - 14) * (x - 14) + (y - 18) * (y - 18) + (z - 12) * (z - 12) <= 9; }
bool inChannel(int x, int y, int) { return x >= 18 && x <= 20 && y >= 24 && y <= 26; }
bool inNotch(int x, int y, int z) { return x >= 27 && y >= 14 && y <= 22 && z >= 8 && z <= 16; }

short bodyValue(int x, int y, int z) {
  const bool air = !inBody(x, y, z) || inBall(x, y, z) || inChannel(x, y, z) || inNotch(x, y, z);
  return static_cast<short>(air ? -1000 + 20 * TestKit::hashNoise(x, y, z) : 40 + 20 * TestKit::hashNoise(x, y, z));
}

std::unique_ptr<SharedImageSet> ctPhantom(const Eigen::Vector3i& size = kSize) {
  auto s = TestKit::makeImage<short>(size, bodyValue);
  s->setModality(Data::CT);
  return s;
}

std::unique_ptr<SharedImageSet> run(SkinSegmentationAlgorithm& a, int expectedStatus = Algorithm::statusSuccess) {
  a.compute();
  EXPECT_EQ(a.status(), expectedStatus);
  auto out = a.takeOutput();
  return out.extractFirstImage();
}

TEST(SkinSegmentation, FillsInnerPocketsAndTheStackChannelButNotTheNotch) {
  auto ct = ctPhantom();
  SkinSegmentationAlgorithm a(ct.get());
  a.closingKernelSize = 0;
  TestKit::LogCapture log;
  auto labels = run(a);
  ASSERT_TRUE(labels);
  EXPECT_EQ(log.count(Log::Info, "Seg.SkinSegmentationAlgorithm"), 1);  // matting is not available
  EXPECT_EQ(labels->modality(), Data::LABEL);
  const auto* names = labels->components().get<LabelDataComponent>();
  ASSERT_TRUE(names);
  EXPECT_EQ(names->labelConfig(1)->name, "Skin");
  const auto& img = static_cast<const TypedImage<unsigned char>&>(*labels->mem(0));
  ASSERT_EQ(img.dimensions(), kSize);
  int wrong = 0;
  for (int z = 0; z < kSize[2]; ++z)
    for (int y = 0; y < kSize[1]; ++y)
      for (int x = 0; x < kSize[0]; ++x) {
        const int expected = inBody(x, y, z) && !inNotch(x, y, z) ? 1 : 0;
        wrong += img.value(x, y, z) != expected;
      }
  EXPECT_EQ(wrong, 0);
}

// Slices stacked along world x: the channel now reaches two side faces and stays open.
TEST(SkinSegmentation, StackingAxisComesFromTheMatrix) {
  auto ct = ctPhantom();
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m.topLeftCorner<3, 3>() << 0, 0, 1, 0, 1, 0, 1, 0, 0;
  ct->setMatrix(m);
  SkinSegmentationAlgorithm a(ct.get());
  a.closingKernelSize = 0;
  auto labels = run(a);
  ASSERT_TRUE(labels);
  const auto& img = static_cast<const TypedImage<unsigned char>&>(*labels->mem(0));
  EXPECT_EQ(img.value(19, 25, 0), 0);
  EXPECT_EQ(img.value(19, 25, 12), 0);
  EXPECT_EQ(img.value(14, 18, 12), 1);  // the ball touches no face
  EXPECT_EQ(labels->matrix(), m);
}

class SkinOptions : public testing::TestWithParam<std::tuple<int, bool, double>> {};

// Closing, padding and resampling keep the grid and the answer at the probe points.
TEST_P(SkinOptions, KeyVoxelsAndGrid) {
  const auto [closing, padded, spacing] = GetParam();
  auto ct = ctPhantom();
  SkinSegmentationAlgorithm a(ct.get());
  a.closingKernelSize = closing;
  a.padding = padded;
  a.resampleSpacing = spacing;
  auto labels = run(a);
  ASSERT_TRUE(labels);
  const auto& img = static_cast<const TypedImage<unsigned char>&>(*labels->mem(0));
  ASSERT_EQ(img.dimensions(), kSize);
  EXPECT_EQ(img.value(14, 18, 12), 1);  // ball
  EXPECT_EQ(img.value(19, 25, 5), 1);   // channel
  EXPECT_EQ(img.value(20, 10, 3), 1);   // body
  EXPECT_EQ(img.value(33, 18, 12), 0);  // notch
  EXPECT_EQ(img.value(2, 2, 12), 0);    // outside
  EXPECT_EQ(img.value(38, 33, 20), 0);
}

INSTANTIATE_TEST_SUITE_P(SkinSegmentation, SkinOptions,
                         testing::Combine(testing::Values(0, 2), testing::Bool(), testing::Values(0.0, 2.0)));

TEST(SkinSegmentation, ThresholdRules) {
  // CT: -400 without looking at the pixels.
  auto ct = ctPhantom();
  SkinSegmentationAlgorithm onCt(ct.get());
  onCt.compute();
  EXPECT_DOUBLE_EQ(onCt.usedThreshold(), -400.0);

  // MR in U16: two thirds of the mean stored value, mapped to original units.
  auto mr = TestKit::makeImage<unsigned short>({10, 10, 10}, [](int x, int, int) { return x < 5 ? 0 : 300; });
  mr->setModality(Data::MRI);
  mr->get(0)->mem()->setShiftScale(10.0, 2.0);
  SkinSegmentationAlgorithm onMr(mr.get());
  onMr.compute();
  EXPECT_NEAR(onMr.usedThreshold(), (2.0 * 150.0 / 3.0) / 2.0 - 10.0, 1e-9);

  // MR in float: 30 stands for the mean.
  auto mrf = TestKit::makeImage<float>({10, 10, 10}, [](int x, int, int) { return x < 5 ? 0.0f : 100.0f; });
  mrf->setModality(Data::MRI);
  SkinSegmentationAlgorithm onFloat(mrf.get());
  onFloat.compute();
  EXPECT_DOUBLE_EQ(onFloat.usedThreshold(), 20.0);

  // A set value wins.
  SkinSegmentationAlgorithm fixed(mrf.get());
  fixed.threshold = std::optional<double>(50.0);
  fixed.compute();
  EXPECT_DOUBLE_EQ(fixed.usedThreshold(), 50.0);
}

TEST(SkinSegmentation, NothingAboveTheThresholdFailsWithOneLine) {
  auto ct = ctPhantom();
  SkinSegmentationAlgorithm a(ct.get());
  a.threshold = std::optional<double>(1e6);
  a.mattingKernelSize = 0;
  TestKit::LogCapture log;
  a.compute();
  EXPECT_EQ(a.status(), Algorithm::statusError);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(a.takeOutput().empty());
}

TEST(SkinSegmentation, AcceptsOnlyOneCtOrMrVolume) {
  auto ct = ctPhantom();
  auto us = ctPhantom();
  us->setModality(Data::ULTRASOUND);
  auto mr = ctPhantom();
  mr->setModality(Data::MRI);
  auto slice = TestKit::makeImage<short>({8, 8, 1}, [](int, int, int) { return 0; });
  slice->setModality(Data::CT);
  EXPECT_TRUE(SkinSegmentationAlgorithm::createCompatible(DataList{ct.get()}));
  EXPECT_TRUE(SkinSegmentationAlgorithm::createCompatible(DataList{mr.get()}));
  EXPECT_FALSE(SkinSegmentationAlgorithm::createCompatible(DataList{us.get()}));
  EXPECT_FALSE(SkinSegmentationAlgorithm::createCompatible(DataList{slice.get()}));
  EXPECT_FALSE(SkinSegmentationAlgorithm::createCompatible(DataList{ct.get(), mr.get()}));
}

TEST(SkinSegmentation, BadParameterGivesStatusAndNoOutput) {
  auto ct = ctPhantom();
  SkinSegmentationAlgorithm a(ct.get());
  a.closingKernelSize = -1;
  TestKit::LogCapture log;
  a.compute();
  EXPECT_EQ(a.status(), Algorithm::statusInvalidInput);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(a.takeOutput().empty());
}

// A one-slice stack pads in x and y only and comes back at its own size.
TEST(SkinSegmentation, OneSliceIsPaddedInPlaneOnly) {
  auto ct = TestKit::makeImage<short>({20, 20, 1}, [](int x, int y, int) {
    return x >= 4 && x < 16 && y >= 4 && y < 16 && !(x == 9 && y == 9) ? 50 : -1000;
  });
  ct->setModality(Data::CT);
  SkinSegmentationAlgorithm a(ct.get());
  a.padding = true;
  a.paddingSize = 3;
  a.closingKernelSize = 0;
  auto labels = run(a);
  ASSERT_TRUE(labels);
  EXPECT_EQ(labels->mem(0)->dimensions(), Eigen::Vector3i(20, 20, 1));
  const auto& img = static_cast<const TypedImage<unsigned char>&>(*labels->mem(0));
  EXPECT_EQ(img.value(9, 9, 0), 1);
  EXPECT_EQ(img.value(2, 9, 0), 0);
}

// Edge points of a box lie on its faces, half a voxel outside the last labelled voxels.
TEST(SkinSegmentation, SubvoxelPointsLieOnTheBoxFaces) {
  auto ct = TestKit::makeImage<short>({24, 20, 16}, [](int x, int y, int z) {
    return x >= 5 && x <= 18 && y >= 4 && y <= 15 && z >= 3 && z <= 12 ? 60 : -900;
  });
  ct->setModality(Data::CT);
  ct->get(0)->mem()->setSpacing(Eigen::Vector3d(1.0, 1.5, 2.0));
  SkinSegmentationAlgorithm a(ct.get());
  a.closingKernelSize = 0;
  a.applySubvoxelRefinement = true;
  a.compute();
  ASSERT_EQ(a.status(), Algorithm::statusSuccess);
  auto out = a.takeOutput().release();
  ASSERT_EQ(out.size(), 2u);
  auto* cloud = dynamic_cast<PointCloud*>(out[1].get());
  ASSERT_TRUE(cloud);
  EXPECT_EQ(cloud->name(), "Subvoxel Segmentation");
  ASSERT_GT(cloud->points().size(), 500u);
  ASSERT_EQ(cloud->normals().size(), cloud->points().size());
  // Box faces in centred millimetres: voxel v maps to (v - (n/2 - 1/2)) * spacing.
  const Eigen::Vector3d lo((4.5 - 11.5) * 1.0, (3.5 - 9.5) * 1.5, (2.5 - 7.5) * 2.0);
  const Eigen::Vector3d hi((18.5 - 11.5) * 1.0, (15.5 - 9.5) * 1.5, (12.5 - 7.5) * 2.0);
  int onFace = 0;
  for (size_t i = 0; i < cloud->points().size(); ++i) {
    const Eigen::Vector3d& p = cloud->points()[i];
    EXPECT_NEAR(cloud->normals()[i].norm(), 1.0, 1e-9);
    double d = -1e9;
    for (int k = 0; k < 3; ++k) d = std::max({d, lo[k] - p[k], p[k] - hi[k]});
    EXPECT_LE(std::abs(d), 2.0) << p.transpose();
    onFace += std::abs(d) < 1e-6;
  }
  EXPECT_GT(onFace, static_cast<int>(cloud->points().size() * 8 / 10));
}

TEST(SkinSegmentation, SerialEqualsParallel) {
  for (int slices : {1, 7, 9, 33}) {
    auto ct = ctPhantom({40, 36, slices});
    std::vector<unsigned char> results[2];
    for (int t = 0; t < 2; ++t) {
      const int before = omp_get_max_threads();
      omp_set_num_threads(t == 0 ? 1 : 4);
      SkinSegmentationAlgorithm a(ct.get());
      a.padding = true;
      auto labels = run(a);
      omp_set_num_threads(before);
      ASSERT_TRUE(labels);
      const auto* p = static_cast<const unsigned char*>(labels->mem(0)->data());
      results[t].assign(p, p + labels->mem(0)->descriptor().pixelCount());
    }
    EXPECT_EQ(results[0], results[1]) << slices << " slices";
  }
}

}  // namespace
}  // namespace Merivane
