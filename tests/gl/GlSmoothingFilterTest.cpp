#include "GlSmoothingFilter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

#include "GlContext.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

// Separable convolution on the CPU with the same edge rule (repeat the edge voxel) and the
// same rounding after each pass.
std::vector<int> smoothCpu(std::vector<int> v, const Eigen::Vector3i& d, const std::vector<float>& w) {
  const int half = static_cast<int>(w.size()) / 2;
  for (int axis = 0; axis < (d[2] > 1 ? 3 : 2); ++axis) {
    std::vector<int> out(v.size());
    for (int z = 0; z < d[2]; ++z)
      for (int y = 0; y < d[1]; ++y)
        for (int x = 0; x < d[0]; ++x) {
          double sum = 0.0;
          for (int k = -half; k <= half; ++k) {
            Eigen::Vector3i q(x, y, z);
            q[axis] = std::clamp(q[axis] + k, 0, d[axis] - 1);
            sum += w[static_cast<size_t>(k + half)] * v[static_cast<size_t>((q[2] * d[1] + q[1]) * d[0] + q[0])];
          }
          out[static_cast<size_t>((z * d[1] + y) * d[0] + x)] = static_cast<int>(std::lround(sum));
        }
    v = out;
  }
  return v;
}

TEST(GlSmoothingFilter, WeightsAreANormalisedGaussianOfOddSize) {
  GlSmoothingFilter f(8);
  ASSERT_EQ(f.kernelSize(), 9);
  double sum = 0.0;
  for (float w : f.weights()) sum += w;
  EXPECT_NEAR(sum, 1.0, 1e-6);
  EXPECT_FLOAT_EQ(f.weights()[0], f.weights()[8]);
  EXPECT_GT(f.weights()[4], f.weights()[3]);
}

// Image shape and box: 0 inside, 1 touching the low corner, 2 touching the high corner,
// 3 the whole image (an empty box).
class GlSmoothingFilterBox : public testing::TestWithParam<std::tuple<Eigen::Vector3i, int>> {};

TEST_P(GlSmoothingFilterBox, EqualsTheCpuPassesInsideTheBoxAndLeavesTheRest) {
  MERIVANE_REQUIRE_GL();
  const auto [d, kind] = GetParam();
  std::vector<int> values(static_cast<size_t>(d.prod()));
  std::vector<unsigned char> bytes(values.size());
  for (size_t i = 0; i < values.size(); ++i) values[i] = bytes[i] = static_cast<unsigned char>((i * 97) % 256);
  const std::vector<unsigned char> before(values.size(), 7);
  GlImage in(ImageDescriptor(U8, d, 1), 0, bytes.data()), out(ImageDescriptor(U8, d, 1), 0, before.data());
  GlSmoothingFilter f(5);
  const int zLo = d[2] > 1 ? 1 : 0, zHi = d[2] > 1 ? d[2] - 1 : 1;
  const GL::Cuboid boxes[4] = {{{2, 1, zLo}, {d[0] - 2, d[1] - 1, zHi}},
                               {{-3, -3, -3}, {4, 3, zHi}},
                               {{5, 4, zLo}, {d[0] + 3, d[1] + 3, d[2] + 3}},
                               {}};
  // A smaller box first, so that the scratch textures have to grow for the one checked.
  GlImage other(ImageDescriptor(U8, d, 1));
  f.setSubVolume({{3, 3, 0}, {5, 4, 1}});
  ASSERT_TRUE(f.compute(in, other));
  f.setSubVolume(boxes[kind]);
  const GL::Cuboid box = boxes[kind].empty() ? GL::Cuboid::whole(d) : boxes[kind].clipped(d);
  ASSERT_TRUE(f.compute(in, out));
  TypedImage<unsigned char> result(d, 1);
  ASSERT_TRUE(out.download(result));
  const std::vector<int> expected = smoothCpu(values, d, f.weights());
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x) {
        const bool inside = (Eigen::Vector3i(x, y, z).array() >= box.min.array()).all() &&
                            (Eigen::Vector3i(x, y, z).array() < box.max.array()).all();
        const int got = result.value(x, y, z);
        if (inside)  // rounding of sums near .5 may differ by one per pass
          EXPECT_NEAR(got, expected[static_cast<size_t>((z * d[1] + y) * d[0] + x)], 2) << x << "," << y << "," << z;
        else
          EXPECT_EQ(got, 7) << x << "," << y << "," << z;
      }
}

INSTANTIATE_TEST_SUITE_P(Shapes, GlSmoothingFilterBox,
                         testing::Combine(testing::Values(Eigen::Vector3i(12, 9, 1), Eigen::Vector3i(10, 8, 7)),
                                          testing::Values(0, 1, 2, 3)));

}  // namespace
}  // namespace Merivane
