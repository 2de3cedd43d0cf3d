#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <random>
#include <vector>

#include "Image.h"
#include "GuidedFilter.h"
#include "ImageProcessing.h"
#include "TestSupport.h"

using namespace Merivane;
using FloatImage = TypedImage<float>;

namespace {

std::unique_ptr<FloatImage> row(std::vector<float> v) {
  auto img = FloatImage::zeros(Eigen::Vector3i(static_cast<int>(v.size()), 1, 1));
  for (size_t x = 0; x < v.size(); ++x) img->setValue(v[x], static_cast<int>(x), 0);
  return img;
}

std::vector<float> values(const MemImage& m) {
  const auto& t = dynamic_cast<const FloatImage&>(m);
  return std::vector<float>(t.pointer(), t.pointer() + t.descriptor().elementCount());
}

std::unique_ptr<FloatImage> randomVolume(const Eigen::Vector3i& dims, unsigned seed, int channels = 1) {
  auto img = FloatImage::zeros(dims, channels);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(-50.0f, 50.0f);
  for (size_t i = 0; i < img->descriptor().elementCount(); ++i) img->pointer()[i] = u(rng);
  return img;
}

struct Threads {
  explicit Threads(int n) : saved(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~Threads() { omp_set_num_threads(saved); }
  int saved;
};

void expectValues(const MemImage& m, const std::vector<float>& expected) {
  const auto got = values(m);
  ASSERT_EQ(got.size(), expected.size());
  for (size_t i = 0; i < got.size(); ++i) EXPECT_NEAR(got[i], expected[i], 1e-5) << "at " << i;
}

}  // namespace

// --- Resampling: centre-aligned, clamped at the border, over the same extent.

TEST(Resampling, HalvingAveragesNeighboursAtTheNewCentres) {
  // Output voxel v sits at input position (v + 0.5) * 2 - 0.5: 0.5 and 2.5.
  auto out = ImageProcessing::createResampled(*row({0, 10, 20, 30}), Eigen::Vector3d(2, 1, 1));
  ASSERT_TRUE(out);
  EXPECT_EQ(out->dimensions(), Eigen::Vector3i(2, 1, 1));
  EXPECT_DOUBLE_EQ(out->spacing()[0], 2.0);
  expectValues(*out, {5, 25});
}

TEST(Resampling, DoublingClampsAtTheBorder) {
  // Positions -0.25, 0.25, 0.75, 1.25: the outer two fall off the grid and take the edge value.
  auto out = ImageProcessing::createResampled(*row({0, 10}), Eigen::Vector3d(0.5, 1, 1));
  ASSERT_TRUE(out);
  EXPECT_EQ(out->dimensions(), Eigen::Vector3i(4, 1, 1));
  expectValues(*out, {0, 2.5, 7.5, 10});
}

TEST(Resampling, NearestKeepsLabelValues) {
  auto out = ImageProcessing::createResampled(*row({1, 2}), Eigen::Vector3d(0.5, 1, 1), true);
  ASSERT_TRUE(out);
  expectValues(*out, {1, 1, 2, 2});
  auto coarse = ImageProcessing::createResampled(*row({3, 7, 7, 3, 5, 5}), Eigen::Vector3d(3, 1, 1), true);
  ASSERT_TRUE(coarse);
  // Positions 1 and 4.
  expectValues(*coarse, {7, 5});
}

TEST(Resampling, SizeIsTheRoundedExtentAndAtLeastOne) {
  auto img = FloatImage::zeros(Eigen::Vector3i(5, 3, 1));
  auto out = ImageProcessing::createResampled(*img, Eigen::Vector3d(2, 10, 1));
  ASSERT_TRUE(out);
  // 5 / 2 = 2.5 rounds to 3; 3 / 10 rounds to 0 and is raised to 1. Spacing fills the extent.
  EXPECT_EQ(out->dimensions(), Eigen::Vector3i(3, 1, 1));
  EXPECT_NEAR(out->spacing()[0], 5.0 / 3.0, 1e-12);
  EXPECT_NEAR(out->spacing()[1], 3.0, 1e-12);
}

TEST(Resampling, NonPositiveSpacingIsRefused) {
  auto img = row({1, 2, 3});
  EXPECT_FALSE(ImageProcessing::createResampled(*img, Eigen::Vector3d(0, 1, 1)));
  EXPECT_FALSE(ImageProcessing::createResampled(*img, Eigen::Vector3d(1, -1, 1)));
}

TEST(Resampling, LinearRampStaysARampInside) {
  // Linear interpolation reproduces a linear function wherever no clamping happens.
  auto img = FloatImage::zeros(Eigen::Vector3i(12, 10, 6));
  for (int z = 0; z < 6; ++z)
    for (int y = 0; y < 10; ++y)
      for (int x = 0; x < 12; ++x) img->setValue(static_cast<float>(2 * x - 3 * y + 5 * z), x, y, z);
  auto out = ImageProcessing::createResampled(*img, Eigen::Vector3d(1.5, 2.5, 2));
  ASSERT_TRUE(out);
  const auto& t = dynamic_cast<const FloatImage&>(*out);
  const Eigen::Vector3d ratio = Eigen::Vector3d(12, 10, 6).cwiseQuotient(out->dimensions().cast<double>());
  for (int z = 0; z < t.dimensions()[2]; ++z)
    for (int y = 0; y < t.dimensions()[1]; ++y)
      for (int x = 0; x < t.dimensions()[0]; ++x) {
        const Eigen::Vector3d p((x + 0.5) * ratio[0] - 0.5, (y + 0.5) * ratio[1] - 0.5, (z + 0.5) * ratio[2] - 0.5);
        if (p.minCoeff() < 0 || p[0] > 11 || p[1] > 9 || p[2] > 5) continue;
        EXPECT_NEAR(t.value(x, y, z), 2 * p[0] - 3 * p[1] + 5 * p[2], 1e-4);
      }
}

// --- Cropping.

TEST(Cropping, CopiesTheBoxWithAllChannels) {
  auto img = FloatImage::zeros(Eigen::Vector3i(4, 3, 2), 2);
  for (int z = 0; z < 2; ++z)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 4; ++x)
        for (int c = 0; c < 2; ++c) img->setValue(static_cast<float>(1000 * c + 100 * z + 10 * y + x), x, y, z, c);
  auto out = ImageProcessing::createCropped(*img, {1, 1, 1}, {2, 2, 1});
  ASSERT_TRUE(out);
  EXPECT_EQ(out->dimensions(), Eigen::Vector3i(2, 2, 1));
  expectValues(*out, {111, 1111, 112, 1112, 121, 1121, 122, 1122});
}

class CroppingOutside : public testing::TestWithParam<std::pair<Eigen::Vector3i, Eigen::Vector3i>> {};

TEST_P(CroppingOutside, IsRefused) {
  auto img = FloatImage::zeros(Eigen::Vector3i(4, 3, 2));
  EXPECT_FALSE(ImageProcessing::createCropped(*img, GetParam().first, GetParam().second));
}

INSTANTIATE_TEST_SUITE_P(
    Boxes, CroppingOutside,
    testing::Values(std::make_pair(Eigen::Vector3i(-1, 0, 0), Eigen::Vector3i(2, 2, 1)),
                    std::make_pair(Eigen::Vector3i(3, 0, 0), Eigen::Vector3i(2, 1, 1)),   // past x
                    std::make_pair(Eigen::Vector3i(0, 0, 1), Eigen::Vector3i(1, 1, 2)),   // past z
                    std::make_pair(Eigen::Vector3i(0, 0, 0), Eigen::Vector3i(0, 1, 1))));  // empty

TEST(Cropping, WholeImageIsACopy) {
  auto img = randomVolume({5, 4, 3}, 1);
  auto out = ImageProcessing::createCropped(*img, {0, 0, 0}, {5, 4, 3});
  ASSERT_TRUE(out);
  EXPECT_EQ(values(*out), values(*img));
}

// --- Box filter: mean over the box clipped at the border (not zero padding).

struct BoxRow {
  std::vector<float> in;
  int size;
  std::vector<float> out;
};

class BoxFilterRow : public testing::TestWithParam<BoxRow> {};

TEST_P(BoxFilterRow, MeansOverTheClippedBox) {
  auto in = row(GetParam().in);
  auto out = FloatImage::zeros(in->dimensions());
  ASSERT_TRUE(Filters::boxFilter3d(in.get(), out.get(), GetParam().size, 1, 1));
  expectValues(*out, GetParam().out);
}

INSTANTIATE_TEST_SUITE_P(
    HandWorked, BoxFilterRow,
    testing::Values(BoxRow{{0, 0, 9, 0, 0}, 3, {0, 3, 3, 3, 0}},
                    // At the border the box holds two voxels: 3 / 2 and (3 + 0) / 2.
                    BoxRow{{3, 0, 0, 0}, 3, {1.5, 1, 0, 0}},
                    // An even size reaches one voxel further after than before.
                    BoxRow{{0, 0, 9, 0, 0}, 2, {0, 4.5, 4.5, 0, 0}},
                    BoxRow{{4, 8}, 1, {4, 8}},
                    // A box wider than the image is the mean of the whole row.
                    BoxRow{{1, 2, 3}, 9, {2, 2, 2}}));

TEST(BoxFilter, ConstantVolumeStaysConstantUpToItsBorder) {
  auto in = FloatImage::zeros(Eigen::Vector3i(6, 5, 4));
  for (size_t i = 0; i < in->descriptor().elementCount(); ++i) in->pointer()[i] = 7.0f;
  auto out = FloatImage::zeros(in->dimensions());
  ASSERT_TRUE(Filters::boxFilter3d(in.get(), out.get(), 3, 5, 3));
  for (float v : values(*out)) EXPECT_FLOAT_EQ(v, 7.0f);
}

TEST(BoxFilter, IntegerOutputRoundsTheMean) {
  auto in = TypedImage<unsigned char>::zeros(Eigen::Vector3i(3, 1, 1));
  in->setValue(1, 0, 0);
  in->setValue(2, 1, 0);
  auto out = TypedImage<unsigned char>::zeros(Eigen::Vector3i(3, 1, 1));
  ASSERT_TRUE(Filters::boxFilter3d(in.get(), out.get(), 3, 1, 1));
  EXPECT_EQ(out->value(0, 0), 2);  // 1.5
  EXPECT_EQ(out->value(1, 0), 1);  // 1
  EXPECT_EQ(out->value(2, 0), 1);  // 1
}

TEST(BoxFilter, RefusesBadSizesAndMismatchedImages) {
  auto in = FloatImage::zeros(Eigen::Vector3i(4, 4, 1));
  auto out = FloatImage::zeros(Eigen::Vector3i(4, 4, 1));
  auto other = FloatImage::zeros(Eigen::Vector3i(4, 3, 1));
  auto twoChannels = FloatImage::zeros(Eigen::Vector3i(4, 4, 1), 2);
  EXPECT_FALSE(Filters::boxFilter3d(in.get(), out.get(), 0, 1, 1));
  EXPECT_FALSE(Filters::boxFilter3d(in.get(), out.get(), 1, 1, -2));
  EXPECT_FALSE(Filters::boxFilter3d(in.get(), other.get(), 1, 1, 1));
  EXPECT_FALSE(Filters::boxFilter3d(in.get(), twoChannels.get(), 1, 1, 1));
  EXPECT_FALSE(Filters::boxFilter3d(nullptr, out.get(), 1, 1, 1));
}

// Brute force: each output is the mean of the input over the clipped box round it.
TEST(BoxFilter, MatchesTheMeanOverTheClippedBox) {
  const Eigen::Vector3i d(7, 6, 5);
  auto in = randomVolume(d, 3, 2);
  auto out = FloatImage::zeros(d, 2);
  ASSERT_TRUE(Filters::boxFilter3d(in.get(), out.get(), 3, 2, 5));
  const int before[3] = {1, 0, 2}, after[3] = {1, 1, 2};
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x)
        for (int c = 0; c < 2; ++c) {
          double s = 0;
          int n = 0;
          for (int k = std::max(0, z - before[2]); k <= std::min(d[2] - 1, z + after[2]); ++k)
            for (int j = std::max(0, y - before[1]); j <= std::min(d[1] - 1, y + after[1]); ++j)
              for (int i = std::max(0, x - before[0]); i <= std::min(d[0] - 1, x + after[0]); ++i, ++n)
                s += in->value(i, j, k, c);
          EXPECT_NEAR(out->value(x, y, z, c), s / n, 1e-4);
        }
}

// --- Serial equals parallel, on slice counts round the chunk edges.

class ProcessingThreads : public testing::TestWithParam<int> {};

TEST_P(ProcessingThreads, ResampleCropAndBoxFilterDoNotDependOnThreads) {
  const int slices = GetParam();
  auto img = randomVolume({9, 7, slices}, 11 + slices);
  auto run = [&](int threads) {
    Threads t(threads);
    std::vector<float> all;
    auto r = ImageProcessing::createResampled(*img, Eigen::Vector3d(0.7, 1.6, 1.0));
    auto n = ImageProcessing::createResampled(*img, Eigen::Vector3d(0.7, 1.6, 1.0), true);
    auto c = ImageProcessing::createCropped(*img, {1, 2, 0}, {6, 4, slices});
    auto b = FloatImage::zeros(img->dimensions());
    EXPECT_TRUE(Filters::boxFilter3d(img.get(), b.get(), 3, 3, 3));
    for (const MemImage* m : std::vector<const MemImage*>{r.get(), n.get(), c.get(), b.get()}) {
      const auto v = values(*m);
      all.insert(all.end(), v.begin(), v.end());
    }
    return all;
  };
  EXPECT_EQ(run(1), run(4));
}

INSTANTIATE_TEST_SUITE_P(Slices, ProcessingThreads, testing::Values(1, 7, 9, 33));

// The guided filter with the image as its own guide: a constant stays, a step far above
// epsilon stays sharp, and small noise on the flat parts is smoothed.
TEST(GuidedFilter, KeepsEdgesAndSmoothsFlatNoise) {
  auto img = TypedImage<float>::create(Eigen::Vector3i(20, 20, 1), 1);
  for (int y = 0; y < 20; ++y)
    for (int x = 0; x < 20; ++x)
      img->setValue(static_cast<float>((x < 10 ? 0.0 : 1.0) + 0.01 * TestKit::hashNoise(x, y, 0)), x, y);
  auto out = TypedImage<float>::create(img->descriptor());
  GuidedFilter f;
  f.setSmoothingKernelSize(5);
  f.setEpsilon(0.01);
  ASSERT_TRUE(f.compute(*img, *out));
  double noiseIn = 0, noiseOut = 0;
  for (int y = 0; y < 20; ++y)
    for (int x = 0; x < 20; ++x) {
      const double ideal = x < 10 ? 0.0 : 1.0;
      EXPECT_NEAR(out->value(x, y), ideal, 0.05) << x << "," << y;
      if (x < 7 || x > 12) {
        noiseIn += std::abs(img->value(x, y) - ideal);
        noiseOut += std::abs(out->value(x, y) - ideal);
      }
    }
  EXPECT_LT(noiseOut, 0.6 * noiseIn);
  img->fill(3.0f);
  ASSERT_TRUE(f.compute(*img, *out));
  for (int i = 0; i < 400; ++i) EXPECT_NEAR(out->pointer()[i], 3.0f, 1e-5);
  f.setSmoothingKernelSize(0);
  EXPECT_FALSE(f.compute(*img, *out));
}
