#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "Curve.h"

using namespace Merivane;

TEST(Curve, PassesThroughEverySample) {
  const std::vector<double> x{0, 2, 3, 7, 10}, y{1, 4, -2, 5, 5};
  const Curve c(x, y);
  for (size_t i = 0; i < x.size(); ++i) EXPECT_NEAR(c.evaluate(x[i]), y[i], 1e-12);
}

TEST(Curve, StaysWithinEachSegmentsSamples) {
  // A tall peak beside zeros: an unconstrained cubic spline rings below 0 here.
  const std::vector<double> x{0, 5, 10, 15, 20, 25}, y{0, 0, 1000, 0, 0, 3};
  const Curve c(x, y);
  for (double t = 0; t <= 25; t += 0.25) {
    const size_t i = std::min<size_t>(static_cast<size_t>(t / 5), 4);
    EXPECT_GE(c.evaluate(t), std::min(y[i], y[i + 1]) - 1e-9) << t;
    EXPECT_LE(c.evaluate(t), std::max(y[i], y[i + 1]) + 1e-9) << t;
  }
}

TEST(Curve, ReproducesStraightLinesAndHoldsEndsOutside) {
  const Curve line({0, 1, 2, 4}, {1, 3, 5, 9});
  for (double t = 0; t <= 4; t += 0.1) EXPECT_NEAR(line.evaluate(t), 1 + 2 * t, 1e-12);
  EXPECT_DOUBLE_EQ(line.evaluate(-3), 1);
  EXPECT_DOUBLE_EQ(line.evaluate(7), 9);
  EXPECT_DOUBLE_EQ(Curve({2}, {5}).evaluate(std::vector<double>{0, 2, 9})[2], 5);
}

TEST(Curve, BadSamplesGiveAnEmptyCurve) {
  EXPECT_TRUE(Curve({0, 0, 1}, {1, 2, 3}).empty());
  EXPECT_TRUE(Curve({0, 1}, {1}).empty());
  EXPECT_TRUE(Curve({}, {}).empty());
  EXPECT_EQ(Curve({1, 0}, {1, 2}).evaluate(std::vector<double>{0, 1}), (std::vector<double>{0, 0}));
}
