// Centrelines of tubes with known axes, the maps, the crop, compute modes, serial against
// parallel and failure paths; the factory's row.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <limits>

#include "CenterlineExtraction.h"
#include "CenterlineExtractionAlgorithm.h"
#include "Log.h"
#include "PointSet.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

// A bright tube with a Gaussian cross-section (width 1.5 voxels) round the line a + t (b - a) on a noisy background of about 100,
// spacing 1; world and voxel positions differ by the centred image space.
std::unique_ptr<SharedImageSet> tubeVolume(const Eigen::Vector3i& d, const Eigen::Vector3d& a, const Eigen::Vector3d& b,
                                           double width = 1.5) {
  return TestKit::makeImage<unsigned short>(d, [&](int x, int y, int z) {
    const Eigen::Vector3d p(x, y, z), u = (b - a).normalized();
    const double r = (p - a - (p - a).dot(u) * u).norm();
    return 100.0 + 5.0 * TestKit::hashNoise(x, y, z) + 700.0 * std::exp(-r * r / (2 * width * width));
  });
}

double distanceToLine(const Eigen::Vector3d& p, const Eigen::Vector3d& a, const Eigen::Vector3d& b) {
  const Eigen::Vector3d u = (b - a).normalized();
  return (p - a - (p - a).dot(u) * u).norm();
}

struct Axis {
  Eigen::Vector3d a, b;  // voxel positions of the end points
  double resolution;     // of the working image; the input's spacing is 1
  double width;          // of the tube's Gaussian cross-section
};

class TubeAxis : public testing::TestWithParam<Axis> {};

TEST_P(TubeAxis, CenterlineLiesWithinHalfAVoxelOfTheAxis) {
  const Axis axis = GetParam();
  auto volume = tubeVolume({40, 32, 24}, axis.a, axis.b, axis.width);
  SharedImage* frame = volume->get(0);
  CenterlineExtractionAlgorithm algorithm(frame);
  algorithm.workingResolution = axis.resolution;
  algorithm.croppingMargin = -1.0;
  algorithm.minimumLut = 0.0f;
  algorithm.maximumLut = 2000.0f;
  algorithm.setInitPoints({frame->pixelToWorld(axis.a), frame->pixelToWorld(axis.b)});
  algorithm.compute();
  ASSERT_EQ(algorithm.status(), Algorithm::statusSuccess);
  const auto& samples = algorithm.resultSamples();
  ASSERT_EQ(samples.size(), 20u);
  for (const auto& s : samples) EXPECT_LE(distanceToLine(frame->worldToPixel(s), axis.a, axis.b), 0.5);
  // The joined path runs from the last point back to the first.
  // Seeds round to the working grid's nearest voxel.
  EXPECT_LE((frame->worldToPixel(samples.back()) - axis.a).norm(), 0.5 * std::sqrt(3.0) * axis.resolution + 1e-9);
  EXPECT_LE((frame->worldToPixel(samples.front()) - axis.b).norm(), std::sqrt(3.0) * axis.resolution + 0.5);
}

INSTANTIATE_TEST_SUITE_P(Axes, TubeAxis,
                         testing::Values(Axis{{4, 16, 12}, {35, 16, 12}, 1.0, 1.5}, Axis{{5, 5, 11}, {30, 30, 11}, 1.0, 1.5},
                                         Axis{{6, 8, 4}, {33, 20, 19}, 0.5, 1.0}));

TEST(CenterlineExtraction, ProbabilityIsHighOnTheRidgeAndKeepsItsFloor) {
  auto volume = tubeVolume({30, 20, 20}, {3, 10, 10}, {26, 10, 10});
  CenterlineExtractionAlgorithm algorithm(volume->get(0));
  algorithm.workingResolution = 1.0;
  algorithm.croppingMargin = -1.0;
  algorithm.isotropicConstant = 0.2f;
  algorithm.setInitPoints({volume->get(0)->pixelToWorld({3, 10, 10}), volume->get(0)->pixelToWorld({26, 10, 10})});
  algorithm.computeProbability();
  auto p = algorithm.retrieveProbability();
  ASSERT_TRUE(p);
  EXPECT_FALSE(algorithm.retrieveProbability());
  const auto& map = static_cast<const TypedImage<float>&>(*p->mem());
  float lo, hi;
  map.getRange(lo, hi);
  EXPECT_GE(lo, 0.2f);
  EXPECT_LE(hi, 1.0f);
  // The ridge is the fastest way through its cross-section, the background near the floor.
  for (int z = 0; z < 20; ++z)
    for (int y = 0; y < 20; ++y)
      if (y != 10 || z != 10) {
        EXPECT_LT(map.value(15, y, z), map.value(15, 10, 10)) << y << " " << z;
      }
  EXPECT_GT(map.value(15, 10, 10), 0.8f);
  EXPECT_LT(map.value(15, 2, 2), 0.4f);
  // The working image's voxels keep their world positions.
  EXPECT_LE((p->pixelToWorld({15, 10, 10}) - volume->get(0)->pixelToWorld({15, 10, 10})).norm(), 1e-9);
}

TEST(CenterlineExtraction, FlatWindowGivesUniformSpeed) {
  auto volume = TestKit::makeImage<float>({10, 10, 10}, [](int, int, int) { return 5000.0; });
  CenterlineExtractionAlgorithm algorithm(volume->get(0));
  algorithm.workingResolution = 1.0;
  algorithm.setInitPoints({volume->get(0)->pixelToWorld({1, 1, 1}), volume->get(0)->pixelToWorld({8, 8, 8})});
  algorithm.compute();
  EXPECT_EQ(algorithm.status(), Algorithm::statusSuccess);
  auto p = algorithm.retrieveProbability();
  float lo, hi;
  static_cast<const TypedImage<float>&>(*p->mem()).getRange(lo, hi);
  EXPECT_EQ(lo, 1.0f);
  EXPECT_EQ(hi, 1.0f);
}

TEST(CenterlineExtraction, CroppingFollowsTheMargin) {
  auto volume = tubeVolume({30, 20, 20}, {5, 10, 10}, {20, 10, 10});
  SharedImage* frame = volume->get(0);
  // Box from (5, 6, 8) to (20, 12, 10).
  const std::vector<Eigen::Vector3d> points{frame->pixelToWorld({5, 6, 8}), frame->pixelToWorld({20, 12, 10})};
  auto sizeFor = [&](double margin) {
    CenterlineExtractionAlgorithm a(frame);
    a.workingResolution = 1.0;
    a.croppingMargin = margin;
    a.setInitPoints(points);
    a.computeProbability();
    auto p = a.retrieveProbability();
    // The crop keeps world positions: the first point maps onto a whole voxel.
    const Eigen::Vector3d v = p->worldToPixel(points[0]);
    EXPECT_LE((v - v.array().round().matrix()).norm(), 1e-9);
    return Eigen::Vector3i(p->descriptor().dimensions);
  };
  EXPECT_EQ(sizeFor(-0.5), Eigen::Vector3i(30, 20, 20));
  EXPECT_EQ(sizeFor(0.0), Eigen::Vector3i(16, 7, 3));
  // e = 0.5 (max - min): x 7.5 voxels each side, cut at the image's low end; y 3; z 1.
  EXPECT_EQ(sizeFor(0.5), Eigen::Vector3i(29, 13, 5));
}

TEST(CenterlineExtraction, ComputeModesAndTheActionMap) {
  auto volume = tubeVolume({30, 20, 20}, {3, 10, 10}, {26, 10, 10});
  SharedImage* frame = volume->get(0);
  auto run = [&](int mode) {
    auto a = std::make_unique<CenterlineExtractionAlgorithm>(frame);
    a->workingResolution = 1.0;
    a->croppingMargin = -1.0;
    a->computeMode = mode;
    a->setInitPoints({frame->pixelToWorld({3, 10, 10}), frame->pixelToWorld({12, 10, 10})});
    a->compute();
    EXPECT_EQ(a->status(), Algorithm::statusSuccess);
    return a;
  };
  auto probabilityOnly = run(0);
  EXPECT_TRUE(probabilityOnly->resultSamples().empty());
  EXPECT_FALSE(probabilityOnly->retrieveActionMap());
  EXPECT_EQ(probabilityOnly->takeOutput().size(), 1);

  auto withMaps = run(1);
  EXPECT_TRUE(withMaps->resultSamples().empty());
  auto action = withMaps->retrieveActionMap();
  ASSERT_TRUE(action);
  // The march stopped at the target: what it never reached holds 1.001 times the largest time.
  const auto& t = static_cast<const TypedImage<float>&>(*action->mem());
  float lo, hi;
  t.getRange(lo, hi);
  EXPECT_EQ(lo, 0.0f);
  float below = 0;
  int atTop = 0;
  for (size_t i = 0; i < t.descriptor().pixelCount(); ++i) {
    const float v = t.pointer()[i];
    ASSERT_TRUE(std::isfinite(v));
    if (v == hi) ++atTop;
    else below = std::max(below, v);
  }
  EXPECT_GT(atTop, 1000);
  EXPECT_FLOAT_EQ(hi, 1.001f * below);

  auto everything = run(-1);
  EXPECT_EQ(everything->resultSamples().size(), 20u);
  OwningDataList out = everything->takeOutput();
  ASSERT_EQ(out.size(), 3);
  const DataList view = out.dataListView();
  EXPECT_EQ(view[0]->name(), "Centerline");
  EXPECT_EQ(view[0]->kind(), Data::kindPointSet);
  EXPECT_EQ(view[1]->name(), "Probability Map");
  EXPECT_EQ(view[2]->name(), "Action Map");
}

class CenterlineThreads : public testing::TestWithParam<int> {};

TEST_P(CenterlineThreads, SerialEqualsParallel) {
  auto volume = tubeVolume({24, 20, GetParam()}, {2, 3, GetParam() / 2.0}, {21, 16, GetParam() / 2.0});
  SharedImage* frame = volume->get(0);
  auto run = [&](int threads) {
    omp_set_num_threads(threads);
    CenterlineExtractionAlgorithm a(frame);
    a.workingResolution = 0.8;
    a.setInitPoints({frame->pixelToWorld({2, 3, GetParam() / 2.0}), frame->pixelToWorld({11, 9, GetParam() / 2.0}),
                     frame->pixelToWorld({21, 16, GetParam() / 2.0})});
    a.compute();
    EXPECT_EQ(a.status(), Algorithm::statusSuccess);
    return a.resultSamples();
  };
  const int threads = omp_get_max_threads();
  const auto serial = run(1), parallel = run(2);
  omp_set_num_threads(threads);
  EXPECT_EQ(serial, parallel);
}

INSTANTIATE_TEST_SUITE_P(Slices, CenterlineThreads, testing::Values(3, 7, 9, 33));

struct BadInput {
  const char* name;
  std::vector<Eigen::Vector3d> voxels;  // initial points as voxel positions
  int status;
};

void PrintTo(const BadInput& b, std::ostream* os) { *os << b.name; }

class CenterlineFailure : public testing::TestWithParam<BadInput> {};

TEST_P(CenterlineFailure, StatusOneErrorLineAndNoResults) {
  auto volume = tubeVolume({16, 16, 16}, {2, 8, 8}, {13, 8, 8});
  SharedImage* frame = volume->get(0);
  CenterlineExtractionAlgorithm a(frame);
  std::vector<Eigen::Vector3d> world;
  for (const auto& v : GetParam().voxels) world.push_back(frame->pixelToWorld(v));
  a.setInitPoints(world);
  TestKit::LogCapture log;
  a.compute();
  EXPECT_EQ(a.status(), GetParam().status);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(a.resultSamples().empty());
  EXPECT_TRUE(a.takeOutput().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CenterlineFailure,
    testing::Values(BadInput{"none", {}, Algorithm::statusIncompleteInput},
                    BadInput{"one", {{3, 8, 8}}, Algorithm::statusIncompleteInput},
                    BadInput{"outside", {{3, 8, 8}, {3, 8, 19}}, Algorithm::statusInvalidInput},
                    BadInput{"behind", {{-4, 8, 8}, {3, 8, 8}}, Algorithm::statusInvalidInput}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(CenterlineExtraction, WrongInputKindsAndBadParameters) {
  auto volume = tubeVolume({16, 16, 16}, {2, 8, 8}, {13, 8, 8});
  auto slice = TestKit::makeImage<float>({16, 16, 1}, [](int, int, int) { return 1.0; });
  PointSet points({volume->get(0)->pixelToWorld({2, 8, 8}), volume->get(0)->pixelToWorld({13, 8, 8})});
  EXPECT_FALSE(CenterlineExtractionAlgorithm::createCompatible(DataList{slice.get()}));
  EXPECT_FALSE(CenterlineExtractionAlgorithm::createCompatible(DataList{volume.get(), volume.get()}));
  EXPECT_FALSE(CenterlineExtractionAlgorithm::createCompatible(DataList{&points}));
  Algorithm* created = nullptr;
  ASSERT_TRUE(CenterlineExtractionAlgorithm::createCompatible(DataList{volume.get(), &points}, &created));
  std::unique_ptr<Algorithm> algorithm(created);
  EXPECT_EQ(static_cast<CenterlineExtractionAlgorithm*>(created)->initPoints().size(), 2u);

  TestKit::LogCapture log;
  CenterlineExtractionAlgorithm onSlice(slice->get(0));
  onSlice.setInitPoints(points.points());
  onSlice.compute();
  EXPECT_EQ(onSlice.status(), Algorithm::statusInvalidInput);
  CenterlineExtractionAlgorithm badResolution(volume->get(0));
  badResolution.setInitPoints(points.points());
  badResolution.workingResolution = 0.0;
  badResolution.compute();
  EXPECT_EQ(badResolution.status(), Algorithm::statusInvalidInput);
  EXPECT_EQ(log.count(Log::Error), 2);
}

}  // namespace
}  // namespace Merivane
