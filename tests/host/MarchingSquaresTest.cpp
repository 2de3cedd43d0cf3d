#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <vector>

#include "MarchingSquares.h"

using namespace Merivane;

namespace {

std::vector<MarchingSquares::Polyline> trace(const std::vector<float>& v, int w, int h, double iso,
                                             std::vector<bool>* closed = nullptr) {
  std::vector<MarchingSquares::Polyline> out;
  MarchingSquares::run<const float>(v.data(), w, h, iso, out, Eigen::Vector2d::Zero(), Eigen::Vector2d::Ones(), closed);
  return out;
}

}  // namespace

TEST(MarchingSquares, DegenerateGridsGiveNothing) {
  EXPECT_TRUE(trace({0, 1, 0}, 3, 1, 0.5).empty());
  EXPECT_TRUE(trace({0, 1, 0}, 1, 3, 0.5).empty());
  EXPECT_TRUE(trace(std::vector<float>(16, 0.f), 4, 4, 0.5).empty());
  EXPECT_TRUE(trace(std::vector<float>(16, 1.f), 4, 4, 0.5).empty());
}

TEST(MarchingSquares, SinglePixelIsClosedDiamondOfFourPoints) {
  std::vector<float> v(25, 0.f);
  v[2 * 5 + 2] = 1.f;
  std::vector<bool> closed;
  auto lines = trace(v, 5, 5, 0.5, &closed);
  ASSERT_EQ(lines.size(), 1u);
  ASSERT_EQ(lines[0].size(), 4u);
  EXPECT_TRUE(closed[0]);
  for (const auto& p : lines[0]) EXPECT_NEAR((p - Eigen::Vector2d(2, 2)).norm(), 0.5, 1e-12);
}

// A 0/1 mask traced at 0: the curve runs through the centres of the background samples that
// touch the region, with no sample twice.
TEST(MarchingSquares, MaskAtZeroPassesThroughBackgroundCentres) {
  std::vector<unsigned char> v(25, 0);
  v[2 * 5 + 2] = 1;
  std::vector<MarchingSquares::Polyline> lines;
  std::vector<bool> closed;
  MarchingSquares::run<const unsigned char>(v.data(), 5, 5, 0.0, lines, Eigen::Vector2d::Zero(),
                                            Eigen::Vector2d::Ones(), &closed);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(closed[0]);
  std::set<std::pair<double, double>> pts;
  for (const auto& p : lines[0]) pts.insert({p.x(), p.y()});
  EXPECT_EQ(pts, (std::set<std::pair<double, double>>{{2, 1}, {1, 2}, {3, 2}, {2, 3}}));
  EXPECT_EQ(lines[0].size(), 4u);
}

// Two samples that touch only at a corner, either diagonal: the ambiguous cell's mean (0.5)
// lies above 0, so they join into one closed curve of six background centres.
class DiagonalPair : public testing::TestWithParam<bool> {};

TEST_P(DiagonalPair, JoinIntoOneCurve) {
  std::vector<unsigned char> v(36, 0);
  if (GetParam()) {
    v[2 * 6 + 2] = v[3 * 6 + 3] = 1;
  } else {
    v[2 * 6 + 3] = v[3 * 6 + 2] = 1;
  }
  std::vector<MarchingSquares::Polyline> lines;
  std::vector<bool> closed;
  MarchingSquares::run<const unsigned char>(v.data(), 6, 6, 0.0, lines, Eigen::Vector2d::Zero(),
                                            Eigen::Vector2d::Ones(), &closed);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(closed[0]);
  ASSERT_EQ(lines[0].size(), 6u);
  std::set<std::pair<double, double>> pts;
  for (const auto& p : lines[0]) pts.insert({p.x(), p.y()});
  const std::set<std::pair<double, double>> expected =
      GetParam() ? std::set<std::pair<double, double>>{{2, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 3}, {3, 2}}
                 : std::set<std::pair<double, double>>{{3, 1}, {4, 2}, {3, 3}, {2, 4}, {1, 3}, {2, 2}};
  EXPECT_EQ(pts, expected);
  // Consecutive points are neighbours on the grid: the curve is walked in order.
  for (size_t i = 0; i < 6; ++i) EXPECT_NEAR((lines[0][(i + 1) % 6] - lines[0][i]).norm(), std::sqrt(2.0), 1e-12);
}

INSTANTIATE_TEST_SUITE_P(BothDiagonals, DiagonalPair, testing::Bool());

// A region on the grid's border is not closed by the tracer: its curve runs from border to border.
TEST(MarchingSquares, RegionOnTheBorderGivesAnOpenCurve) {
  std::vector<unsigned char> v(25, 0);
  v[2 * 5 + 0] = 1;
  std::vector<MarchingSquares::Polyline> lines;
  std::vector<bool> closed;
  MarchingSquares::run<const unsigned char>(v.data(), 5, 5, 0.0, lines, Eigen::Vector2d::Zero(),
                                            Eigen::Vector2d::Ones(), &closed);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_FALSE(closed[0]);
  ASSERT_EQ(lines[0].size(), 3u);
  const bool down = lines[0].front().y() < lines[0].back().y();
  EXPECT_EQ(lines[0].front(), Eigen::Vector2d(0, down ? 1 : 3));
  EXPECT_EQ(lines[0][1], Eigen::Vector2d(1, 2));
  EXPECT_EQ(lines[0].back(), Eigen::Vector2d(0, down ? 3 : 1));
}

TEST(MarchingSquares, OriginSpacingAndInterpolation) {
  // A ramp along x crosses 0.25 a quarter of the way from sample 0 to sample 1.
  std::vector<float> v = {0, 1, 2, 0, 1, 2};
  std::vector<MarchingSquares::Polyline> out;
  std::vector<bool> closed;
  MarchingSquares::run<float>(v.data(), 3, 2, 0.25, out, Eigen::Vector2d(10, 20), Eigen::Vector2d(2, 3), &closed);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_FALSE(closed[0]);
  ASSERT_EQ(out[0].size(), 2u);
  for (const auto& p : out[0]) EXPECT_DOUBLE_EQ(p.x(), 10 + 0.25 * 2);
}

// Cases 5 and 10 on a 2 x 2 grid: the mean against the level decides which corners join.
class AmbiguousCell : public testing::TestWithParam<std::tuple<bool, double>> {};

TEST_P(AmbiguousCell, MeanDecidesTheJoin) {
  const auto [case5, iso] = GetParam();
  // Corners 0..3 are (0,0), (1,0), (1,1), (0,1); case 5 lifts corners 0 and 2.
  std::vector<float> v = case5 ? std::vector<float>{1, 0, 0, 1} : std::vector<float>{0, 1, 1, 0};
  auto lines = trace(v, 2, 2, iso);
  ASSERT_EQ(lines.size(), 2u);
  const double mean = 0.5;
  // Joined above-corners (centre above) cut off the two low corners.
  const bool cutLow = case5 ? mean > iso : !(iso >= mean);
  const Eigen::Vector2d lowCorner = case5 ? Eigen::Vector2d(1, 0) : Eigen::Vector2d(0, 0);
  const Eigen::Vector2d highCorner = case5 ? Eigen::Vector2d(0, 0) : Eigen::Vector2d(1, 0);
  // Some segment has both ends next to the cut corner.
  auto cuts = [&](const Eigen::Vector2d& corner) {
    for (const auto& l : lines)
      if ((l[0] - corner).norm() < 0.8 && (l[1] - corner).norm() < 0.8) return true;
    return false;
  };
  EXPECT_EQ(cuts(lowCorner), cutLow);
  EXPECT_EQ(cuts(highCorner), !cutLow);
}

INSTANTIATE_TEST_SUITE_P(Cases, AmbiguousCell, testing::Combine(testing::Bool(), testing::Values(0.3, 0.5, 0.7)));
