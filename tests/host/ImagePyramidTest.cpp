#include <gtest/gtest.h>
#include <omp.h>

#include <random>
#include <vector>

#include "Image.h"
#include "ImagePyramid.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;
using FloatImage = TypedImage<float>;

namespace {

struct Threads {
  explicit Threads(int n) : saved(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~Threads() { omp_set_num_threads(saved); }
  int saved;
};

}  // namespace

TEST(ImagePyramid, LevelsHalveAndLabelsKeepTheirSeeds) {
  auto img = TestKit::makeImage<unsigned short>({33, 16, 1}, [](int x, int y, int) { return x + 100 * y; });
  ImagePyramid pyramid(img->get(), false);
  EXPECT_EQ(pyramid.createLevels(5), 3);  // 33x16, 17x8, 9x4; a further level would be 5x2
  EXPECT_EQ(pyramid.level(0), img->get());
  EXPECT_EQ(pyramid.level(2)->descriptor().dimensions, Eigen::Vector3i(9, 4, 1));
  auto* l1 = static_cast<TypedImage<float>*>(pyramid.level(1)->mem());
  EXPECT_FLOAT_EQ(l1->value(0, 0), (0 + 1 + 100 + 101) / 4.0f);
  EXPECT_FLOAT_EQ(l1->value(16, 0), (32 + 132) / 2.0f);  // clipped block at the far edge
  EXPECT_DOUBLE_EQ(pyramid.level(1)->descriptor().extent()[0], 33.0);

  auto lab = TestKit::makeImage<unsigned char>({8, 8, 1}, [](int x, int y, int) {
    return (x == 1 && y == 1) ? 3 : ((x == 0 && y == 0) || (x == 1 && y == 0) ? 2 : 0);
  });
  ImagePyramid labels(lab->get(), true);
  ASSERT_EQ(labels.createLevels(2), 2);
  EXPECT_EQ(static_cast<TypedImage<unsigned char>*>(labels.level(1)->mem())->value(0, 0), 2);

  // Propagating a constant coarse level up fills the finer level with it.
  static_cast<TypedImage<float>*>(pyramid.level(2)->mem())->fill(7.0f);
  pyramid.propagateUp(2);
  EXPECT_FLOAT_EQ(l1->value(5, 3), 7.0f);
}

// --- propagateUp: a coarse level resampled into the next finer one.

TEST(PyramidPropagateUp, LinearIntoTheFinerLevelWithClampedBorders) {
  auto base = std::make_shared<SharedImage>(std::shared_ptr<Image>(FloatImage::zeros(Eigen::Vector3i(8, 8, 1))));
  ImagePyramid pyramid(base.get(), false);
  ASSERT_EQ(pyramid.createLevels(2), 2);
  auto& coarse = dynamic_cast<FloatImage&>(*pyramid.level(1)->mem());
  ASSERT_EQ(coarse.dimensions(), Eigen::Vector3i(4, 4, 1));
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 4; ++x) coarse.setValue(static_cast<float>(10 * x + y), x, y);
  pyramid.propagateUp(1);
  // Fine voxel x sits at coarse position 0.5 x - 0.25, clamped to [0, 3].
  const auto& fine = dynamic_cast<const FloatImage&>(*base->mem());
  const double pos[8] = {0, 0.25, 0.75, 1.25, 1.75, 2.25, 2.75, 3};
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x) EXPECT_NEAR(fine.value(x, y), 10 * pos[x] + pos[y], 1e-5) << x << ", " << y;
}

// Trilinear in a volume of two channels: a linear function comes back exactly where no border
// clamps it, channel by channel.
TEST(PyramidPropagateUp, TrilinearInAVolumeOfTwoChannels) {
  auto base =
      std::make_shared<SharedImage>(std::shared_ptr<Image>(FloatImage::zeros(Eigen::Vector3i(8, 8, 8), 2)));
  ImagePyramid pyramid(base.get(), false);
  ASSERT_EQ(pyramid.createLevels(2), 2);
  auto& coarse = dynamic_cast<FloatImage&>(*pyramid.level(1)->mem());
  ASSERT_EQ(coarse.dimensions(), Eigen::Vector3i(4, 4, 4));
  ASSERT_EQ(coarse.channels(), 2);
  for (int z = 0; z < 4; ++z)
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 4; ++x) {
        const float f = static_cast<float>(x + 10 * y + 100 * z);
        coarse.setValue(f, x, y, z, 0);
        coarse.setValue(-2 * f, x, y, z, 1);
      }
  pyramid.propagateUp(1);
  const auto& fine = dynamic_cast<const FloatImage&>(*base->mem());
  const double pos[8] = {0, 0.25, 0.75, 1.25, 1.75, 2.25, 2.75, 3};
  for (int z = 0; z < 8; ++z)
    for (int y = 0; y < 8; ++y)
      for (int x = 0; x < 8; ++x) {
        const double f = pos[x] + 10 * pos[y] + 100 * pos[z];
        EXPECT_NEAR(fine.value(x, y, z, 0), f, 1e-4) << x << ", " << y << ", " << z;
        EXPECT_NEAR(fine.value(x, y, z, 1), -2 * f, 1e-4) << x << ", " << y << ", " << z;
      }
}

TEST(PyramidPropagateUp, LabelsTakeTheNearestValue) {
  auto base = std::make_shared<SharedImage>(
      std::shared_ptr<Image>(TypedImage<unsigned char>::zeros(Eigen::Vector3i(8, 8, 1))));
  ImagePyramid pyramid(base.get(), true);
  ASSERT_EQ(pyramid.createLevels(2), 2);
  auto& coarse = dynamic_cast<TypedImage<unsigned char>&>(*pyramid.level(1)->mem());
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 4; ++x) coarse.setValue(static_cast<unsigned char>(x < 2 ? 1 : 2), x, y);
  pyramid.propagateUp(1);
  const auto& fine = dynamic_cast<const TypedImage<unsigned char>&>(*base->mem());
  // Positions 0.5 x - 0.25 round to 0, 0, 1, 1, 2, 2, 3, 3 (0.75 -> 1, 1.75 -> 2): no blend.
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x) EXPECT_EQ(fine.value(x, y), x < 4 ? 1 : 2) << x << ", " << y;
}

TEST(PyramidPropagateUp, MissingLevelsAreIgnored) {
  auto base = std::make_shared<SharedImage>(std::shared_ptr<Image>(FloatImage::zeros(Eigen::Vector3i(8, 8, 1))));
  ImagePyramid pyramid(base.get(), false);
  ASSERT_EQ(pyramid.createLevels(2), 2);
  pyramid.propagateUp(0);
  pyramid.propagateUp(5);
  ImagePyramid empty(nullptr, false);
  EXPECT_EQ(empty.createLevels(3), 0);
  empty.propagateUp(1);
  EXPECT_EQ(empty.level(0), nullptr);
}

class PropagateThreads : public testing::TestWithParam<int> {};

TEST_P(PropagateThreads, SerialEqualsParallel) {
  const int slices = GetParam();
  auto run = [&](int threads) {
    Threads t(threads);
    auto img = FloatImage::zeros(Eigen::Vector3i(10, 9, slices));
    std::mt19937 rng(slices);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (size_t i = 0; i < img->descriptor().elementCount(); ++i) img->pointer()[i] = u(rng);
    auto base = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(img)));
    ImagePyramid pyramid(base.get(), false);
    const int levels = pyramid.createLevels(2);
    if (levels == 2) pyramid.propagateUp(1);
    const auto& fine = dynamic_cast<const FloatImage&>(*base->mem());
    std::vector<float> v(fine.pointer(), fine.pointer() + fine.descriptor().elementCount());
    v.push_back(static_cast<float>(levels));
    return v;
  };
  EXPECT_EQ(run(1), run(4));
}

INSTANTIATE_TEST_SUITE_P(Slices, PropagateThreads, testing::Values(1, 7, 9, 33));
