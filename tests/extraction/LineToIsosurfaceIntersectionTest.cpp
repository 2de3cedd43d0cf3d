// Walks through profiles with steps at known voxels: both thresholding modes, runs of several
// voxels, starts outside or beyond the surface, world coordinates, and failure paths.
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>

#include "GeometryLine.h"
#include "LineToIsosurfaceIntersectionAlgorithm.h"
#include "Log.h"
#include "PointSet.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

using Algo = LineToIsosurfaceIntersectionAlgorithm;

// A CT volume 24 x 8 x 8 whose value depends on x only: `profile[x]` (0 beyond its end).
std::unique_ptr<SharedImageSet> profileVolume(const std::vector<double>& profile) {
  auto set = TestKit::makeImage<short>({24, 8, 8}, [&](int x, int, int) {
    return x < static_cast<int>(profile.size()) ? profile[static_cast<size_t>(x)] : 0.0;
  });
  set->setModality(Data::CT);
  return set;
}

// Tissue (0) up to x = 11, air (-1000) from x = 12.
std::vector<double> bodyThenAir() {
  std::vector<double> v(24, -1000.0);
  for (int x = 0; x < 12; ++x) v[static_cast<size_t>(x)] = 0.0;
  return v;
}

Geometry::LineSegment alongX(double from, double to) { return {Eigen::Vector3d(from, 4, 4), Eigen::Vector3d(to, 4, 4)}; }

TEST(LineToIsosurface, StepIntoAirIsFoundAtTheLastTissueVoxel) {
  auto volume = profileVolume(bodyThenAir());
  Algo algorithm(*volume);
  algorithm.setLineInPixelCoordinates(alongX(2, 22));
  algorithm.threshold = -500.0;
  algorithm.compute();
  ASSERT_EQ(algorithm.status(), Algorithm::statusSuccess);
  ASSERT_TRUE(algorithm.getIntersectionInPixelCoordinates());
  EXPECT_TRUE(algorithm.getIntersectionInPixelCoordinates()->isApprox(Eigen::Vector3d(11, 4, 4), 1e-12));
}

TEST(LineToIsosurface, BelowThenAboveFindsTheStepFromAirIntoTissue) {
  auto volume = profileVolume(bodyThenAir());
  Algo algorithm(*volume);
  algorithm.setLineInPixelCoordinates(alongX(20, 1));
  algorithm.threshold = -500.0;
  algorithm.thresholdingMode = Algo::BelowThenAbove;
  algorithm.compute();
  ASSERT_EQ(algorithm.status(), Algorithm::statusSuccess);
  ASSERT_TRUE(algorithm.getIntersectionInPixelCoordinates());
  EXPECT_TRUE(algorithm.getIntersectionInPixelCoordinates()->isApprox(Eigen::Vector3d(12, 4, 4), 1e-12));
}

TEST(LineToIsosurface, ThinWallDoesNotCountAndTheLastRunWins) {
  // Air at 8 and 9 (two voxels), tissue again, then air from 15.
  std::vector<double> v(24, -1000.0);
  for (int x = 0; x < 15; ++x)
    if (x != 8 && x != 9) v[static_cast<size_t>(x)] = 0.0;
  auto volume = profileVolume(v);
  Algo algorithm(*volume);
  algorithm.setLineInPixelCoordinates(alongX(1, 23));
  algorithm.threshold = -500.0;
  algorithm.minConsecutiveVoxels = 3u;
  algorithm.compute();
  ASSERT_EQ(algorithm.status(), Algorithm::statusSuccess);
  ASSERT_TRUE(algorithm.getIntersectionInPixelCoordinates());
  EXPECT_TRUE(algorithm.getIntersectionInPixelCoordinates()->isApprox(Eigen::Vector3d(14, 4, 4), 1e-12));
  // With one voxel enough, the wall is the surface.
  algorithm.minConsecutiveVoxels = 1u;
  algorithm.compute();
  ASSERT_TRUE(algorithm.getIntersectionInPixelCoordinates());
  EXPECT_TRUE(algorithm.getIntersectionInPixelCoordinates()->isApprox(Eigen::Vector3d(7, 4, 4), 1e-12));
  // A run that the end of the line cuts short is no crossing.
  algorithm.minConsecutiveVoxels = 3u;
  algorithm.setLineInPixelCoordinates(alongX(1, 16));
  algorithm.compute();
  EXPECT_EQ(algorithm.status(), Algorithm::statusSuccess);
  EXPECT_FALSE(algorithm.getIntersectionInPixelCoordinates());
}

TEST(LineToIsosurface, StartBeyondTheSurfaceFindsNothing) {
  auto volume = profileVolume(bodyThenAir());
  Algo algorithm(*volume);
  algorithm.setLineInPixelCoordinates(alongX(14, 22));
  algorithm.threshold = -500.0;
  algorithm.compute();
  EXPECT_EQ(algorithm.status(), Algorithm::statusSuccess);
  EXPECT_FALSE(algorithm.getIntersectionInPixelCoordinates());
  EXPECT_FALSE(algorithm.getIntersectionInWorldCoordinates());
  EXPECT_FALSE(algorithm.getIntersectionCylindricalCoordinates());
}

TEST(LineToIsosurface, StartOutsideMovesToTheEntryPoint) {
  auto volume = profileVolume(bodyThenAir());
  Algo algorithm(*volume);
  algorithm.threshold = -500.0;
  for (int kind = 0; kind < 2; ++kind) {
    if (kind == 0)
      algorithm.setLineInPixelCoordinates(alongX(-6, 22));
    else
      algorithm.setLineInPixelCoordinates(Geometry::Line(Eigen::Vector3d(-6, 4, 4), Eigen::Vector3d(2, 0, 0)));
    algorithm.compute();
    ASSERT_EQ(algorithm.status(), Algorithm::statusSuccess);
    ASSERT_TRUE(algorithm.getIntersectionInPixelCoordinates());
    // Steps from x = 0.001: the first sample below -500 is at 12.001.
    EXPECT_TRUE(algorithm.getIntersectionInPixelCoordinates()->isApprox(Eigen::Vector3d(11.001, 4, 4), 1e-9));
  }
}

TEST(LineToIsosurface, WorldCoordinatesFollowTheImageGeometry) {
  auto volume = profileVolume(bodyThenAir());
  SharedImage* frame = volume->get(0);
  frame->setSpacing(Eigen::Vector3d(0.5, 2.0, 1.5));
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m.topLeftCorner<3, 3>() = Eigen::AngleAxisd(0.4, Eigen::Vector3d(1, 2, 3).normalized()).toRotationMatrix();
  m.topRightCorner<3, 1>() = Eigen::Vector3d(10, -20, 30);
  frame->setMatrix(m);
  Algo algorithm(*volume);
  algorithm.threshold = -500.0;
  const Eigen::Vector3d a = frame->pixelToWorld({2, 4, 4}), b = frame->pixelToWorld({22, 4, 4});
  algorithm.setLineInWorldCoordinates(Geometry::LineSegment(a, b));
  algorithm.compute();
  ASSERT_EQ(algorithm.status(), Algorithm::statusSuccess);
  const auto world = algorithm.getIntersectionInWorldCoordinates();
  ASSERT_TRUE(world);
  EXPECT_TRUE(world->isApprox(frame->pixelToWorld({11, 4, 4}), 1e-9));
  const auto cyl = algorithm.getIntersectionCylindricalCoordinates();
  ASSERT_TRUE(cyl);
  EXPECT_DOUBLE_EQ(cyl->first, (*world)[2]);
  EXPECT_DOUBLE_EQ(cyl->second, std::atan2((*world)[1], (*world)[0]));
  // An unbounded line keeps its direction through the mapping.
  algorithm.setLineInWorldCoordinates(Geometry::Line(a, (b - a) * 0.01));
  algorithm.compute();
  ASSERT_TRUE(algorithm.getIntersectionInWorldCoordinates());
  EXPECT_TRUE(algorithm.getIntersectionInWorldCoordinates()->isApprox(frame->pixelToWorld({11, 4, 4}), 1e-9));
  OwningDataList out = algorithm.takeOutput();
  ASSERT_EQ(out.size(), 1);
  const auto* points = static_cast<const PointSet*>(out.dataListView()[0]);
  ASSERT_EQ(points->points().size(), 1u);
  EXPECT_TRUE(points->points()[0].isApprox(frame->pixelToWorld({11, 4, 4}), 1e-9));
}

TEST(LineToIsosurface, FactoryInputsAndThePointSetLine) {
  auto volume = profileVolume(bodyThenAir());
  auto mri = profileVolume(bodyThenAir());
  mri->setModality(Data::MRI);
  const SharedImage* frame = volume->get(0);
  PointSet line({frame->pixelToWorld({2, 4, 4}), frame->pixelToWorld({22, 4, 4})});
  PointSet single({Eigen::Vector3d::Zero()});
  EXPECT_TRUE(Algo::createCompatible(DataList{volume.get()}));
  EXPECT_FALSE(Algo::createCompatible(DataList{mri.get()}));
  EXPECT_FALSE(Algo::createCompatible(DataList{}));
  EXPECT_FALSE(Algo::createCompatible(DataList{volume.get(), volume.get()}));
  EXPECT_FALSE(Algo::createCompatible(DataList{volume.get(), &single}));
  Algorithm* created = nullptr;
  ASSERT_TRUE(Algo::createCompatible(DataList{volume.get(), &line}, &created));
  std::unique_ptr<Algorithm> owner(created);
  auto* algorithm = static_cast<Algo*>(created);
  algorithm->threshold = -500.0;
  algorithm->compute();
  ASSERT_EQ(algorithm->status(), Algorithm::statusSuccess);
  ASSERT_TRUE(algorithm->getIntersectionInPixelCoordinates());
  EXPECT_TRUE(algorithm->getIntersectionInPixelCoordinates()->isApprox(Eigen::Vector3d(11, 4, 4), 1e-9));
}

struct Failure {
  const char* name;
  int status;
  int errorLines;
  const char* message;
};

class LineToIsosurfaceFailure : public testing::TestWithParam<Failure> {};

TEST_P(LineToIsosurfaceFailure, GivesStatusAndNoIntersection) {
  const Failure f = GetParam();
  auto volume = profileVolume(bodyThenAir());
  Algo algorithm(*volume);
  algorithm.threshold = -500.0;
  // A result from an earlier run must not survive a failed one.
  algorithm.setLineInPixelCoordinates(alongX(2, 22));
  algorithm.compute();
  ASSERT_TRUE(algorithm.getIntersectionInPixelCoordinates());
  const std::string name = f.name;
  Algo fresh(*volume);
  Algo& a = name == "no line" ? fresh : algorithm;
  if (name == "mode") algorithm.thresholdingMode = static_cast<Algo::ThresholdingMode>(2);
  if (name == "degenerate") algorithm.setLineInPixelCoordinates(alongX(5, 5));
  if (name == "misses") algorithm.setLineInPixelCoordinates(Geometry::LineSegment({-5, 40, 4}, {30, 40, 4}));
  if (name == "short") algorithm.setLineInPixelCoordinates(alongX(3, 3.5));
  if (name == "run length") algorithm.minConsecutiveVoxels = 0u;
  TestKit::LogCapture log;
  a.compute();
  EXPECT_EQ(a.status(), f.status);
  EXPECT_EQ(log.count(Log::Error), f.errorLines);
  if (*f.message) {
    EXPECT_TRUE(log.contains(f.message));
  }
  EXPECT_FALSE(a.getIntersectionInPixelCoordinates());
  EXPECT_FALSE(a.getIntersectionInWorldCoordinates());
}

INSTANTIATE_TEST_SUITE_P(
    LineToIsosurface, LineToIsosurfaceFailure,
    testing::Values(Failure{"mode", 2, 1, "Invalid thresholding mode!"}, Failure{"no line", 3, 1, "No line was not set"},
                    Failure{"degenerate", 2, 1, "Degenerate line: start and end coincide"},
                    Failure{"misses", 2, 1, "Cannot move: Line does not intersect with volume"},
                    // Shorter than one voxel: no value is read.
                    Failure{"short", 2, 0, "Line does not intersect with volume, but was supposed to"},
                    Failure{"run length", 2, 1, "minConsecutiveVoxels"}),
    [](const testing::TestParamInfo<Failure>& info) {
      std::string s = info.param.name;
      for (char& c : s)
        if (c == ' ') c = '_';
      return s;
    });

}  // namespace
}  // namespace Merivane
