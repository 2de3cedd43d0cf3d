#include <gtest/gtest.h>
#include <omp.h>

#include <functional>
#include <random>
#include <vector>

#include "Image.h"
#include "ImagePyramid.h"
#include "Interpolation.h"
#include "SharedImage.h"

using namespace Merivane;
using FloatImage = TypedImage<float>;

namespace {

double at(const Eigen::Vector3d& p, const Eigen::Vector3i& dims, bool nearest,
          const std::function<double(int, int, int)>& f) {
  const double q[3] = {p[0], p[1], p[2]};
  return Interpolation::interpolate(Interpolation::stencil(q, dims, nearest), f);
}

struct Threads {
  explicit Threads(int n) : saved(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~Threads() { omp_set_num_threads(saved); }
  int saved;
};

}  // namespace

// --- Interpolation on a grid of 4 x 3 x 2 with f = 10 x + 100 y + 1000 z.

struct InterpCase {
  Eigen::Vector3d p;
  bool nearest;
  double expected;
};

class GridInterpolation : public testing::TestWithParam<InterpCase> {};

TEST_P(GridInterpolation, HandWorkedValues) {
  const auto f = [](int x, int y, int z) { return 10.0 * x + 100.0 * y + 1000.0 * z; };
  EXPECT_NEAR(at(GetParam().p, {4, 3, 2}, GetParam().nearest, f), GetParam().expected, 1e-9);
}

INSTANTIATE_TEST_SUITE_P(
    Positions, GridInterpolation,
    testing::Values(InterpCase{{1.25, 0, 0}, false, 12.5}, InterpCase{{1.25, 1.5, 0.5}, false, 12.5 + 150 + 500},
                    InterpCase{{3, 2, 1}, false, 30 + 200 + 1000},  // the last voxel exactly
                    // Outside the grid the position is clamped to it.
                    InterpCase{{-0.7, 0, 0}, false, 0}, InterpCase{{5, 2.5, 1.2}, false, 30 + 200 + 1000},
                    InterpCase{{1.5, -3, 0.25}, false, 15 + 250},
                    // Nearest rounds halves away from zero.
                    InterpCase{{1.5, 0.49, 0}, true, 20}, InterpCase{{1.49, 1.51, 0.5}, true, 10 + 200 + 1000}));

TEST(Interpolation, WeightsSumToOneAndLinearFunctionsAreExact) {
  std::mt19937 rng(4);
  std::uniform_real_distribution<double> u(-1.0, 8.0);
  const Eigen::Vector3i dims(7, 5, 6);
  for (int i = 0; i < 200; ++i) {
    const Eigen::Vector3d p(u(rng), u(rng), u(rng));
    EXPECT_NEAR(at(p, dims, false, [](int, int, int) { return 1.0; }), 1.0, 1e-12);
    const Eigen::Vector3d c = p.cwiseMax(0.0).cwiseMin(dims.cast<double>() - Eigen::Vector3d::Ones());
    EXPECT_NEAR(at(p, dims, false, [](int x, int y, int z) { return 3.0 * x - 2.0 * y + 0.5 * z; }),
                3.0 * c[0] - 2.0 * c[1] + 0.5 * c[2], 1e-9);
  }
}

TEST(Interpolation, SingleVoxelAxesNeverReadOutside) {
  const Eigen::Vector3i dims(3, 1, 1);
  const double v = at({1.5, 0.7, -0.4}, dims, false, [](int x, int y, int z) {
    EXPECT_EQ(y, 0);
    EXPECT_EQ(z, 0);
    return static_cast<double>(x);
  });
  EXPECT_NEAR(v, 1.5, 1e-12);
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
