// Circle and sphere fits against exact clouds and noisy ones, degenerate samples, held radii;
// the line-box entry; gradients and sub-pixel edges on images with known edges.
#include <gtest/gtest.h>

#include <Eigen/Core>
#include <cmath>
#include <random>

#include "GeometryFit.h"
#include "GeometryLine.h"
#include "Image.h"
#include "ImageGradients.h"

namespace Merivane {
namespace {

std::vector<Vec2d> circlePoints(const Vec2d& c, double r, int n, double arc = 2 * M_PI, double noise = 0.0) {
  std::mt19937 rng(3);
  std::normal_distribution<double> g(0.0, noise > 0 ? noise : 1.0);
  std::vector<Vec2d> p;
  for (int i = 0; i < n; ++i) {
    const double a = arc * i / n, rr = r + (noise > 0 ? g(rng) : 0.0);
    p.emplace_back(c[0] + rr * std::cos(a), c[1] + rr * std::sin(a));
  }
  return p;
}

TEST(GeometryFit, CircleThroughExactPointsFarFromTheOrigin) {
  for (double arc : {2 * M_PI, M_PI / 2}) {
    const auto points = circlePoints(Vec2d(1000.5, -2000.25), 3.5, 30, arc);
    Vec2d c;
    double r = 0.0, residual = -1.0;
    ASSERT_EQ(Geometry::fitCircle(points, c, r, nullptr, &residual), 0);
    EXPECT_NEAR(c[0], 1000.5, 1e-7);
    EXPECT_NEAR(c[1], -2000.25, 1e-7);
    EXPECT_NEAR(r, 3.5, 1e-7);
    EXPECT_NEAR(residual, 0.0, 1e-7);
  }
}

TEST(GeometryFit, GeometricFitBeatsTheAlgebraicOneOnAShortNoisyArc) {
  const auto points = circlePoints(Vec2d(2, 3), 10.0, 60, M_PI / 3, 0.2);
  Vec2d c1, c2;
  double r1 = 0, r2 = 0, e1 = 0, e2 = 0;
  ASSERT_EQ(Geometry::fitCircle(points, c1, r1, nullptr, &e1, true), 0);
  ASSERT_EQ(Geometry::fitCircle(points, c2, r2, nullptr, &e2, false), 0);
  EXPECT_LE(e2, e1 + 1e-12);  // the refinement minimises exactly this
}

TEST(GeometryFit, HeldRadiusMovesOnlyTheCentre) {
  const auto points = circlePoints(Vec2d(5, -1), 4.0, 24);
  Vec2d c;
  double r = 3.0, residual = 0.0;
  bool fixed = true;
  ASSERT_EQ(Geometry::fitCircle(points, c, r, &fixed, &residual), 0);
  EXPECT_EQ(r, 3.0);
  EXPECT_NEAR(c[0], 5.0, 1e-6);
  EXPECT_NEAR(c[1], -1.0, 1e-6);
  EXPECT_NEAR(residual, 1.0, 1e-6);
}

TEST(GeometryFit, DegenerateSamplesStillGiveAFiniteFit) {
  Vec2d c;
  double r = 2.0;
  bool fixed = false;
  // Repeated and collinear points, as random samples draw them.
  EXPECT_EQ(Geometry::fitCircle({Vec2d(1, 1), Vec2d(1, 1), Vec2d(1, 1)}, c, r, &fixed), 0);
  EXPECT_TRUE(c.allFinite() && std::isfinite(r));
  EXPECT_EQ(Geometry::fitCircle({Vec2d(0, 0), Vec2d(1, 0), Vec2d(2, 0)}, c, r, &fixed), 0);
  EXPECT_TRUE(c.allFinite() && std::isfinite(r));
  fixed = true;
  r = 2.0;
  EXPECT_EQ(Geometry::fitCircle({Vec2d(0, 0), Vec2d(0, 0), Vec2d(2, 0)}, c, r, &fixed), 0);
  EXPECT_NEAR((c - Vec2d(0, 0)).norm(), 2.0, 1e-6);
  EXPECT_NEAR((c - Vec2d(2, 0)).norm(), 2.0, 1e-6);
  // Nothing to fit, or a held radius that is no radius.
  const Vec2d before(7, 7);
  c = before;
  EXPECT_NE(Geometry::fitCircle({}, c, r), 0);
  r = -1.0;
  EXPECT_NE(Geometry::fitCircle({Vec2d(0, 0)}, c, r, &fixed), 0);
  EXPECT_EQ(c, before);
}

TEST(GeometryFit, SphereFreeAndHeld) {
  std::vector<Vec3d> points;
  for (int i = 0; i < 100; ++i) {
    const double z = -1 + (i + 0.5) / 50.0, a = i * 2.399963, rho = std::sqrt(1 - z * z);
    const Vec3d u(rho * std::cos(a), rho * std::sin(a), z);
    points.push_back(Vec3d(-3, 4, 50) + 2 * u);
    points.push_back(Vec3d(-3, 4, 50) - 2 * u);  // antipodes: the held-radius optimum is the centre too
  }
  Vec3d c;
  double r = 0, residual = -1;
  ASSERT_EQ(Geometry::fitSphere(points, c, r, nullptr, &residual), 0);
  EXPECT_TRUE(c.isApprox(Vec3d(-3, 4, 50), 1e-9));
  EXPECT_NEAR(r, 2.0, 1e-9);
  EXPECT_NEAR(residual, 0.0, 1e-9);
  bool fixed = true;
  r = 2.5;
  ASSERT_EQ(Geometry::fitSphere(points, c, r, &fixed, &residual), 0);
  EXPECT_EQ(r, 2.5);
  EXPECT_TRUE(c.isApprox(Vec3d(-3, 4, 50), 1e-6));
  EXPECT_NEAR(residual, 0.5, 1e-6);
}

TEST(GeometryLine, EntryIntoABox) {
  const Eigen::Vector3d lo(0, 0, 0), hi(10, 5, 5);
  const Geometry::LineSegment s({-5, 2, 2}, {15, 2, 2});
  auto e = Geometry::intersection(lo, hi, s);
  ASSERT_TRUE(e);
  EXPECT_TRUE(e->isApprox(Eigen::Vector3d(0, 2, 2)));
  // The segment ends before the box; the line through it does not.
  const Geometry::LineSegment shortOne({-5, 2, 2}, {-1, 2, 2});
  EXPECT_FALSE(Geometry::intersection(lo, hi, shortOne));
  EXPECT_TRUE(Geometry::intersection(lo, hi, Geometry::Line({-5, 2, 2}, {4, 0, 0})));
  // Walked backwards the line enters from the far side.
  e = Geometry::intersection(lo, hi, Geometry::Line({-5, 2, 2}, {-1, 0, 0}));
  ASSERT_TRUE(e);
  EXPECT_TRUE(e->isApprox(Eigen::Vector3d(10, 2, 2)));
  EXPECT_FALSE(Geometry::intersection(lo, hi, Geometry::Line({-5, 7, 2}, {1, 0, 0})));
  EXPECT_FALSE(Geometry::intersection(lo, hi, Geometry::Line({1, 1, 1}, {0, 0, 0})));
  EXPECT_EQ(Geometry::Line({0, 0, 0}, {1, 0, 0}).length(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(s.length(), 20.0);
}

TEST(ImageGradients, CentralDifferencesOfARampPointUphill) {
  auto img = TypedImage<unsigned short>::create(Eigen::Vector3i(5, 4, 3), 1);
  for (int z = 0; z < 3; ++z)
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 5; ++x) img->setValue(static_cast<unsigned short>(3 * x + 5 * y + 7 * z + 1), x, y, z);
  auto gx = TypedImage<float>::create(img->dimensions(), 1), gy = TypedImage<float>::create(img->dimensions(), 1);
  auto gz = TypedImage<float>::create(img->dimensions(), 1);
  ASSERT_TRUE(ImageProcessing::computeGradient3D(img.get(), gx.get(), gy.get(), gz.get()));
  for (size_t i = 0; i < 60; ++i) {  // borders too: one-sided differences are exact on a ramp
    EXPECT_EQ(gx->pointer()[i], 3.0f);
    EXPECT_EQ(gy->pointer()[i], 5.0f);
    EXPECT_EQ(gz->pointer()[i], 7.0f);
  }
  ASSERT_TRUE(ImageProcessing::computeGradient2D(img.get(), gx.get(), gy.get()));
  EXPECT_EQ(gx->value(4, 3, 2), 3.0f);
  auto small = TypedImage<float>::create(Eigen::Vector3i(4, 4, 3), 1);
  EXPECT_FALSE(ImageProcessing::computeGradient2D(img.get(), small.get(), gy.get()));
}

TEST(ImageGradients, SubpixelEdgesOfABlurredStepLieAtItsMiddle) {
  // A step at x = 10.3 blurred linearly over two pixels; the magnitude peaks at the middle.
  const int w = 24, h = 8;
  auto img = TypedImage<float>::create(Eigen::Vector3i(w, h, 1), 1);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) img->setValue(static_cast<float>(std::clamp((x - 10.3) / 2.0 + 0.5, 0.0, 1.0)), x, y);
  auto gx = TypedImage<float>::create(img->dimensions(), 1), gy = TypedImage<float>::create(img->dimensions(), 1);
  auto mag = TypedImage<float>::create(img->dimensions(), 1);
  ASSERT_TRUE(ImageProcessing::computeGradient2D(img.get(), gx.get(), gy.get()));
  for (int i = 0; i < w * h; ++i) mag->pointer()[i] = std::hypot(gx->pointer()[i], gy->pointer()[i]);
  std::vector<std::pair<Vec2d, Vec2d>> edges;
  ASSERT_TRUE(ImageProcessing::computeSubpixelEdgeLocationAndOrientation2D(mag.get(), gx.get(), gy.get(), 0.1f, edges));
  ASSERT_EQ(edges.size(), static_cast<size_t>(h - 2));  // one per inner row
  for (const auto& [p, o] : edges) {
    EXPECT_NEAR(p[0], 10.3, 0.3);
    EXPECT_EQ(o, Vec2d(1, 0));
  }
  // Above every magnitude: none.
  ASSERT_TRUE(ImageProcessing::computeSubpixelEdgeLocationAndOrientation2D(mag.get(), gx.get(), gy.get(), 1.0f, edges));
  EXPECT_TRUE(edges.empty());
}

TEST(ImageGradients, SubpixelEdgesOfABallLieOnItsSurfaceAndPointInwards) {
  const int n = 24;
  const Vec3d c(11.6, 12.2, 11.9);
  const double r = 6.0;
  auto img = TypedImage<float>::create(Eigen::Vector3i(n, n, n), 1);
  for (int z = 0; z < n; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        const double d = (Vec3d(x, y, z) - c).norm();
        img->setValue(static_cast<float>(std::clamp(r - d + 0.5, 0.0, 1.0)), x, y, z);
      }
  const Eigen::Vector3i dims(n, n, n);
  auto gx = TypedImage<float>::create(dims, 1), gy = TypedImage<float>::create(dims, 1);
  auto gz = TypedImage<float>::create(dims, 1), mag = TypedImage<float>::create(dims, 1);
  ASSERT_TRUE(ImageProcessing::computeGradient3D(img.get(), gx.get(), gy.get(), gz.get()));
  for (int i = 0; i < n * n * n; ++i)
    mag->pointer()[i] = std::sqrt(gx->pointer()[i] * gx->pointer()[i] + gy->pointer()[i] * gy->pointer()[i] +
                                  gz->pointer()[i] * gz->pointer()[i]);
  std::vector<std::pair<Vec3d, Vec3d>> edges;
  ASSERT_TRUE(ImageProcessing::computeSubpixelEdgeLocationAndOrientation3D(mag.get(), gx.get(), gy.get(), gz.get(),
                                                                         0.1f, edges));
  ASSERT_GT(edges.size(), 300u);
  for (const auto& [p, o] : edges) {
    EXPECT_NEAR((p - c).norm(), r, 0.35);
    EXPECT_LT(o.dot((p - c).normalized()), -0.8);
  }
}

}  // namespace
}  // namespace Merivane
