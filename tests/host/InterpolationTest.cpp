#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <vector>

#include "Image.h"
#include "Interpolation.h"

using namespace Merivane;
using FloatImage = TypedImage<float>;

namespace {

double at(const Eigen::Vector3d& p, const Eigen::Vector3i& dims, bool nearest,
          const std::function<double(int, int, int)>& f) {
  const double q[3] = {p[0], p[1], p[2]};
  return Interpolation::interpolate(Interpolation::stencil(q, dims, nearest), f);
}

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
