// Spheres and discs of known centre in noise (3D and 2D modes, fixed and free diameter),
// volumes without markers, the slice mapping of both orientations, the random-sample fits,
// serial against parallel, failure paths, and the fiducial text file.
#include <gtest/gtest.h>
#include <omp.h>

#include <Eigen/Geometry>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>

#include "FiducialExtractionAlgorithm.h"
#include "FiducialFile.h"
#include "Log.h"
#include "PointSet.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

using Fiducial = FiducialExtractionAlgorithm::Fiducial;

// A U16 volume of spacing `s` with bright balls (value 3000) of diameter `d` mm on a
// background of 1000 with Gaussian noise; `disc` makes them cylinders along z. Edge voxels
// get their covered fraction (4^3 sub-samples), so that the edges are not snapped to the
// grid. Centres are voxel positions.
std::unique_ptr<SharedImageSet> markerVolume(const Eigen::Vector3i& dims, double s, double d,
                                             const std::vector<Eigen::Vector3d>& centres, double noise,
                                             bool disc = false, unsigned seed = 1) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> gauss(0.0, noise);
  const double r = 0.5 * d / s;
  auto volume = TestKit::makeImage<unsigned short>(dims, [&](int x, int y, int z) {
    double cover = 0.0;
    for (const Eigen::Vector3d& c : centres) {
      Eigen::Vector3d q(x - c[0], y - c[1], disc ? 0.0 : z - c[2]);
      if (q.norm() > r + 1.0) continue;
      if (q.norm() < r - 1.0) {
        cover = 1.0;
        break;
      }
      int in = 0;
      for (int i = 0; i < 64; ++i) {
        const Eigen::Vector3d o((i % 4 + 0.5) / 4 - 0.5, (i / 4 % 4 + 0.5) / 4 - 0.5, disc ? 0.0 : (i / 16 + 0.5) / 4 - 0.5);
        if ((q + o).norm() <= r) ++in;
      }
      cover = std::max(cover, in / 64.0);
    }
    return std::clamp(std::round(1000.0 + 2000.0 * cover + gauss(rng)), 1.0, 65535.0);
  });
  volume->get(0)->setSpacing(Eigen::Vector3d::Constant(s));
  return volume;
}

// Each truth matched by exactly one fiducial within `tol` voxels, and no fiducial left over.
void expectMatches(const std::vector<Fiducial>& found, const std::vector<Eigen::Vector3d>& truth,
                   const SharedImage& frame, double tol, bool compareZ = true) {
  ASSERT_EQ(found.size(), truth.size());
  for (const Eigen::Vector3d& t : truth) {
    int hits = 0;
    for (const Fiducial& f : found) {
      Eigen::Vector3d v = frame.worldToPixel(f.centre);
      if (!compareZ) v[2] = t[2];
      if ((v - t).norm() <= tol) ++hits;
    }
    EXPECT_EQ(hits, 1) << "marker at " << t.transpose();
  }
}

const std::vector<Eigen::Vector3d> kSpheres = {{20.3, 22.6, 19.8}, {44.7, 40.2, 30.4}, {24.1, 45.5, 42.35}};

struct SphereCase {
  bool fixed;
  double noise;
};

class Spheres3D : public testing::TestWithParam<SphereCase> {};

TEST_P(Spheres3D, CentresWithinATenthOfAVoxelAndNoFalseMarkers) {
  const SphereCase c = GetParam();
  auto volume = markerVolume({64, 64, 64}, 0.5, 6.0, kSpheres, c.noise);
  FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode3D);
  algorithm.fixedDiameter = c.fixed;
  algorithm.compute();
  ASSERT_EQ(algorithm.status(), Algorithm::statusSuccess);
  expectMatches(algorithm.fiducials(), kSpheres, *volume->get(0), 0.1);
  for (const Fiducial& f : algorithm.fiducials()) EXPECT_NEAR(f.radius, 3.0, c.fixed ? 1e-12 : 0.1);
}

INSTANTIATE_TEST_SUITE_P(FiducialExtraction, Spheres3D,
                         testing::Values(SphereCase{true, 20.0}, SphereCase{false, 20.0}, SphereCase{true, 60.0}));

TEST(FiducialExtraction, DiscsOnOneSliceIn2DMode) {
  const std::vector<Eigen::Vector3d> discs = {{30.4, 25.7, 2.0}, {70.2, 60.9, 2.0}, {25.5, 75.25, 2.0}};
  auto volume = markerVolume({96, 96, 5}, 0.5, 6.0, discs, 20.0, true);
  FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode2D);
  algorithm.slice = 2;
  algorithm.compute();
  ASSERT_EQ(algorithm.status(), Algorithm::statusSuccess);
  expectMatches(algorithm.fiducials(), discs, *volume->get(0), 0.1);
  for (const Fiducial& f : algorithm.fiducials()) {
    EXPECT_DOUBLE_EQ(f.radius, 3.0);
    EXPECT_NEAR(volume->get(0)->worldToPixel(f.centre)[2], 2.0, 1e-9);
  }
}

TEST(FiducialExtraction, ClickedPointWithFreeDiameterMeasuresTheRadius) {
  const std::vector<Eigen::Vector3d> discs = {{40.4, 38.7, 2.0}};
  auto volume = markerVolume({80, 80, 5}, 0.5, 8.0, discs, 20.0, true);
  FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode2D);
  algorithm.slice = 2;
  algorithm.globalDetection = false;
  algorithm.fixedDiameter = false;
  // The click is two voxels off the centre; the fit does not depend on it.
  algorithm.point = volume->get(0)->pixelToWorld(Eigen::Vector3d(42.0, 37.0, 2.0));
  algorithm.compute();
  ASSERT_EQ(algorithm.status(), Algorithm::statusSuccess);
  expectMatches(algorithm.fiducials(), discs, *volume->get(0), 0.1);
  ASSERT_EQ(algorithm.fiducials().size(), 1u);
  EXPECT_NEAR(algorithm.fiducials()[0].radius, 4.0, 0.1);
}

TEST(FiducialExtraction, NoiseAndEmptyVolumesGiveNoFiducials) {
  for (double noise : {0.0, 20.0}) {
    auto volume = markerVolume({48, 48, 40}, 0.5, 6.0, {}, noise);
    FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode3D);
    algorithm.compute();
    EXPECT_EQ(algorithm.status(), Algorithm::statusSuccess);
    EXPECT_TRUE(algorithm.fiducials().empty()) << "noise " << noise;
  }
  // Air (stored 0) is never a candidate.
  auto zeros = TestKit::makeImage<unsigned short>({40, 40, 20}, [](int, int, int) { return 0; });
  FiducialExtractionAlgorithm algorithm(zeros->get(0), FiducialExtractionAlgorithm::Mode3D);
  std::vector<Eigen::Vector3d> positions{Eigen::Vector3d::Ones()};
  std::vector<double> scores{1.0};
  algorithm.detectFiducials2D(5, positions, &scores);
  EXPECT_TRUE(positions.empty());
  EXPECT_TRUE(scores.empty());
  algorithm.compute();
  EXPECT_EQ(algorithm.status(), Algorithm::statusSuccess);
  EXPECT_TRUE(algorithm.fiducials().empty());
}

TEST(FiducialExtraction, SliceCandidatesComeBestFirstAndApart) {
  const std::vector<Eigen::Vector3d> discs = {{30.0, 30.0, 1.0}, {60.0, 64.0, 1.0}};
  auto volume = markerVolume({96, 96, 3}, 0.5, 6.0, discs, 10.0, true);
  FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode2D);
  std::vector<Eigen::Vector3d> positions;
  std::vector<double> scores;
  algorithm.detectFiducials2D(1, positions, &scores);
  ASSERT_EQ(positions.size(), scores.size());
  ASSERT_GE(positions.size(), 2u);
  EXPECT_TRUE(std::is_sorted(scores.rbegin(), scores.rend()));
  for (size_t i = 0; i < positions.size(); ++i) {
    EXPECT_EQ(positions[i][2], 1.0);
    EXPECT_GE(scores[i], 0.75 * scores[0]);
    for (size_t j = 0; j < i; ++j)  // reach ceil(0.5 D / s) = 6 pixels
      EXPECT_TRUE(std::abs(positions[i][0] - positions[j][0]) > 6 || std::abs(positions[i][1] - positions[j][1]) > 6);
  }
  // The two best are the discs, on the even scan grid next to their centres.
  for (int k = 0; k < 2; ++k) {
    double best = 1e9;
    for (int i = 0; i < 2; ++i) best = std::min(best, (positions[static_cast<size_t>(i)] - discs[k]).norm());
    EXPECT_LE(best, 1.5);
  }
}

TEST(FiducialExtraction, SerialAndParallelRunsAgree) {
  for (int slices : {1, 7, 9, 33}) {
    std::vector<Eigen::Vector3d> spheres = {{20.3, 22.6, slices / 2.0}};
    auto volume = markerVolume({48, 48, slices}, 0.5, 6.0, spheres, 30.0, slices < 9);
    std::vector<std::vector<Fiducial>> runs;
    std::vector<std::vector<Eigen::Vector3d>> candidates;
    for (int threads : {1, 2, 3}) {
      omp_set_num_threads(threads);
      FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode3D);
      algorithm.sliceStep = 1;
      algorithm.minCoverage = 0.5;
      std::vector<Eigen::Vector3d> found;
      algorithm.detectFiducials3D(found);
      candidates.push_back(found);
      algorithm.compute();
      runs.push_back(algorithm.fiducials());
    }
    omp_set_num_threads(omp_get_num_procs());
    for (size_t i = 1; i < runs.size(); ++i) {
      EXPECT_EQ(candidates[i], candidates[0]) << slices << " slices";
      ASSERT_EQ(runs[i].size(), runs[0].size()) << slices << " slices";
      for (size_t k = 0; k < runs[0].size(); ++k) {
        EXPECT_EQ(runs[i][k].centre, runs[0][k].centre);
        EXPECT_EQ(runs[i][k].radius, runs[0][k].radius);
      }
    }
  }
}

TEST(FiducialExtraction, SlicesOfTheSecondOrientationRunAlongImageY) {
  auto volume = TestKit::makeImage<unsigned short>({4, 5, 6}, [](int x, int y, int z) { return 100 * x + 10 * y + z; });
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  // Image x along world -z, image y along world +x, image z along world -y.
  m.topLeftCorner<3, 3>() << 0, 1, 0, 0, 0, -1, -1, 0, 0;
  volume->get(0)->setMatrix(m);
  FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode3D);
  Vec3i size, axes;
  Vec3d spacing;
  auto slice = algorithm.getSliceImage(3, size, axes, spacing);
  ASSERT_TRUE(slice);
  EXPECT_EQ(axes, Vec3i(-2, 0, -1));
  EXPECT_EQ(size, Vec3i(4, 5, 6));
  ASSERT_EQ(slice->width(), 6);
  ASSERT_EQ(slice->height(), 4);
  for (int x = 0; x < 4; ++x)
    for (int z = 0; z < 6; ++z) {
      EXPECT_EQ(slice->value(6 - 1 - z, x), 100 * x + 30 + z);
      const Vec3d v = FiducialExtractionAlgorithm::slice2vol(Vec3d(6 - 1 - z, x, 0.0), axes, size);
      EXPECT_EQ(v[0], x);
      EXPECT_EQ(v[2], z);
    }
  EXPECT_FALSE(algorithm.getSliceImage(5, size, axes, spacing));  // image y has 5 slices

  // An oblique volume is refused with one error line and gives no fiducials, but succeeds.
  m.topLeftCorner<3, 3>() = Eigen::AngleAxisd(0.7, Eigen::Vector3d::UnitX()).toRotationMatrix();
  volume->get(0)->setMatrix(m);
  TestKit::LogCapture log;
  algorithm.compute();
  EXPECT_EQ(algorithm.status(), Algorithm::statusSuccess);
  EXPECT_TRUE(algorithm.fiducials().empty());
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(log.contains("Image orientation not supported"));
}

TEST(FiducialExtraction, RandomSampleCircleFitIgnoresOutliersAndRepeats) {
  std::vector<Vec2d> points;
  for (int i = 0; i < 40; ++i) {
    const double a = i * 2 * M_PI / 40;
    points.emplace_back(5.0 + 3.0 * std::cos(a), -2.0 + 3.0 * std::sin(a));
  }
  points.emplace_back(5.0, -2.0);
  points.emplace_back(12.0, 7.0);
  points.emplace_back(0.0, 0.0);  // never drawn: the last point
  for (double diameter : {6.0, -1.0}) {
    Vec3d fit;
    std::vector<Vec2d> inliers;
    const double residual = FiducialExtractionAlgorithm::fitCircleToPointCloud(points, fit, inliers, 0.1, diameter);
    EXPECT_NEAR(residual, 0.0, 1e-6);
    EXPECT_NEAR(fit[0], 5.0, 1e-6);
    EXPECT_NEAR(fit[1], -2.0, 1e-6);
    EXPECT_NEAR(fit[2], 3.0, 1e-6);
    EXPECT_EQ(inliers.size(), 40u);
    Vec3d again;
    std::vector<Vec2d> inliers2;
    EXPECT_EQ(FiducialExtractionAlgorithm::fitCircleToPointCloud(points, again, inliers2, 0.1, diameter), residual);
    EXPECT_EQ(again, fit);
  }
  // No points: no round finds inliers.
  Vec3d fit = Vec3d::Zero();
  std::vector<Vec2d> inliers{Vec2d::Ones()};
  EXPECT_EQ(FiducialExtractionAlgorithm::fitCircleToPointCloud({}, fit, inliers, 0.1, 6.0),
            std::numeric_limits<double>::infinity());
  EXPECT_TRUE(inliers.empty());
  EXPECT_EQ(fit, Vec3d::Zero());
}

TEST(FiducialExtraction, RandomSampleSphereFitFindsTheSphere) {
  std::vector<Vec3d> points;
  for (int i = 0; i < 200; ++i) {
    const double z = -1.0 + (i + 0.5) / 100.0, a = i * 2.399963;
    const double rho = std::sqrt(1 - z * z);
    points.emplace_back(1.0 + 2.5 * rho * std::cos(a), 2.0 + 2.5 * rho * std::sin(a), 3.0 + 2.5 * z);
  }
  for (int i = 0; i < 20; ++i) points.emplace_back(1.0 + 0.2 * i, 2.0, 3.0);
  Eigen::Vector4d fit;
  std::vector<Vec3d> inliers;
  EXPECT_NEAR(FiducialExtractionAlgorithm::fitSphereToPointCloud(points, fit, inliers, 0.05, -1.0), 0.0, 1e-6);
  EXPECT_TRUE(fit.isApprox(Eigen::Vector4d(1.0, 2.0, 3.0, 2.5), 1e-6));
  EXPECT_GE(inliers.size(), 200u);
  EXPECT_LE(inliers.size(), 202u);  // two of the line's points lie on the sphere
}

TEST(FiducialExtraction, WrongInputKindsAreRefused) {
  auto u16 = TestKit::makeSet(U16, {16, 16, 16});
  auto u8 = TestKit::makeSet(U8, {16, 16, 16});
  auto flat = TestKit::makeSet(U16, {16, 16, 1});
  EXPECT_TRUE(FiducialExtractionAlgorithm::createCompatible(DataList{u16.get()}));
  EXPECT_FALSE(FiducialExtractionAlgorithm::createCompatible(DataList{u8.get()}));
  EXPECT_FALSE(FiducialExtractionAlgorithm::createCompatible(DataList{flat.get()}));
  EXPECT_FALSE(FiducialExtractionAlgorithm::createCompatible(DataList{u16.get(), u16.get()}));
  EXPECT_FALSE(FiducialExtractionAlgorithm::createCompatible(DataList{}));
  Algorithm* created = nullptr;
  ASSERT_TRUE(FiducialExtractionAlgorithm::createCompatible(DataList{u16.get()}, &created));
  std::unique_ptr<Algorithm> owner(created);
  EXPECT_EQ(static_cast<FiducialExtractionAlgorithm*>(created)->mode(), FiducialExtractionAlgorithm::Mode3D);

  // Constructed directly on another pixel type: the fixed message and status 2.
  FiducialExtractionAlgorithm wrong(u8->get(0), FiducialExtractionAlgorithm::Mode3D);
  TestKit::LogCapture log;
  wrong.compute();
  EXPECT_EQ(wrong.status(), Algorithm::statusInvalidInput);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(log.contains("Cannot measure cube. Input volume does not exist or does not have required type"));
  FiducialExtractionAlgorithm none(nullptr, FiducialExtractionAlgorithm::Mode3D);
  none.compute();
  EXPECT_EQ(none.status(), Algorithm::statusInvalidInput);
}

struct BadSetting {
  const char* key;
  const char* value;
};

class FiducialBadParameter : public testing::TestWithParam<BadSetting> {};

TEST_P(FiducialBadParameter, GivesStatusAndOneErrorLine) {
  auto volume = markerVolume({32, 32, 8}, 0.5, 6.0, {{16.0, 16.0, 4.0}}, 10.0);
  FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode3D);
  Properties p;
  p.setRawParam(GetParam().key, GetParam().value);
  algorithm.configure(&p);
  TestKit::LogCapture log;
  algorithm.compute();
  EXPECT_EQ(algorithm.status(), Algorithm::statusInvalidInput);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(algorithm.fiducials().empty());
}

INSTANTIATE_TEST_SUITE_P(FiducialExtraction, FiducialBadParameter,
                         testing::Values(BadSetting{"diameter", "0"}, BadSetting{"sliceStep", "0"},
                                         BadSetting{"contrast", "1.5"}, BadSetting{"roiSize", "-1"},
                                         BadSetting{"mode", "2"}, BadSetting{"minCoverage", "-0.1"}));

TEST(FiducialExtraction, SliceOutsideTheVolumeIn2DModeIsRefused) {
  auto volume = markerVolume({32, 32, 8}, 0.5, 6.0, {}, 10.0);
  FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode2D);
  TestKit::LogCapture log;
  algorithm.compute();  // "slice" is -1 by default
  EXPECT_EQ(algorithm.status(), Algorithm::statusInvalidInput);
  EXPECT_EQ(log.count(Log::Error), 1);
}

TEST(FiducialExtraction, SettersAndConfigureSignalParameterChanges) {
  auto volume = TestKit::makeSet(U16, {8, 8, 8});
  FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode2D);
  int signals = 0;
  algorithm.signalParametersChanged.connect([&] { ++signals; });
  algorithm.setMinContrast(0.1);  // unchanged
  algorithm.setMinContrast(1.5);  // out of range
  EXPECT_EQ(signals, 0);
  algorithm.setMinContrast(0.3);
  EXPECT_EQ(algorithm.contrast.value(), 0.3);
  algorithm.setMode(FiducialExtractionAlgorithm::Mode3D);
  algorithm.setMode(FiducialExtractionAlgorithm::Mode3D);
  EXPECT_EQ(signals, 2);
  Properties p;
  p.setRawParam("diameter", "4");
  p.setRawParam("mode", "0");
  algorithm.configure(&p);
  EXPECT_EQ(signals, 3);
  EXPECT_EQ(algorithm.mode(), FiducialExtractionAlgorithm::Mode2D);
  Properties written;
  algorithm.configuration(&written);
  const std::vector<std::string> keys = written.paramKeys();
  const std::vector<std::string> expected = {"mode", "slice", "sliceStep", "point", "contrast", "roiSize",
                                             "diameter", "fixedDiameter", "globalDetection", "minCoverage",
                                             "scoreThreshold", "sliceSphere"};
  EXPECT_EQ(keys, expected);
}

TEST(FiducialExtraction, OutputIsThePointSetWithRadii) {
  auto volume = markerVolume({64, 64, 64}, 0.5, 6.0, kSpheres, 20.0);
  FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode3D);
  algorithm.compute();
  OwningDataList out = algorithm.takeOutput();
  ASSERT_EQ(out.size(), 1);
  const auto* set = static_cast<const PointSet*>(out.dataListView()[0]);
  ASSERT_EQ(set->kind(), Data::kindPointSet);
  EXPECT_EQ(set->name(), "Fiducials");
  ASSERT_EQ(set->points().size(), 3u);
  const auto* radii = set->components().template get<FiducialRadiiComponent>();
  ASSERT_TRUE(radii);
  EXPECT_EQ(radii->radii, std::vector<double>(3, 3.0));
}

TEST(FiducialList, SortedByZWithTouchingNeighboursThinned) {
  const std::vector<Fiducial> in = {{Vec3d(0, 0, 1), 1.0},   // overlaps (0, 0, 2), its predecessor
                                    {Vec3d(0, 0, 2), 1.0},
                                    {Vec3d(0, 0, 10), 1.0},
                                    {Vec3d(0, 0, 4.5), 1.0},  // 2.5 from (0, 0, 2): kept
                                    {Vec3d(0, 0, 0.5), 0.1}};  // touches (0, 0, 1), which was dropped
  const auto out = FiducialFile::sortedWithoutOverlaps(in);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].centre[2], 10.0);
  EXPECT_EQ(out[1].centre[2], 4.5);
  EXPECT_EQ(out[2].centre[2], 2.0);
}

class FiducialFileTest : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("fiducial-file-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::filesystem::path dir_;
};

TEST_F(FiducialFileTest, RoundTripWithAndWithoutRadius) {
  const std::vector<Fiducial> fiducials = {{Vec3d(1.5, -20.25, 3.0), 2.5}, {Vec3d(-100.125, 0.0, 7.75), 4.0}};
  const std::string path = (dir_ / "f.txt").string();
  ASSERT_TRUE(FiducialFile::write(path, fiducials, false));
  std::ifstream in(path);
  std::string first;
  std::getline(in, first);
  EXPECT_EQ(first, "1.5 -20.25 3");
  std::vector<Fiducial> back;
  ASSERT_TRUE(FiducialFile::read(path, 9.0, back));
  ASSERT_EQ(back.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(back[i].centre, fiducials[i].centre);
    EXPECT_EQ(back[i].radius, 9.0);
  }
  ASSERT_TRUE(FiducialFile::write(path, fiducials, true));
  ASSERT_TRUE(FiducialFile::read(path, 9.0, back));
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[1].radius, 4.0);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_), std::filesystem::directory_iterator()), 1);
}

TEST_F(FiducialFileTest, CommentsBlanksAndBrokenLinesAreSkipped) {
  const auto read = FiducialFile::parse(
      "# x y z r\n"
      "  \t1 2 3\r\n"
      "\n"
      "4 5 6 7\n"
      "   # 8 8 8\n"
      "1 2\n"
      "a b c\n"
      "\v\f9 10 11 x\n",
      3.0);
  ASSERT_EQ(read.size(), 3u);
  EXPECT_EQ(read[0].centre, Vec3d(1, 2, 3));
  EXPECT_EQ(read[0].radius, 3.0);
  EXPECT_EQ(read[1].radius, 7.0);
  EXPECT_EQ(read[2].centre, Vec3d(9, 10, 11));
  EXPECT_EQ(read[2].radius, 3.0);
}

TEST_F(FiducialFileTest, FailuresNameTheFileAndKeepTheOldOne) {
  std::string error;
  std::vector<Fiducial> back;
  EXPECT_FALSE(FiducialFile::read((dir_ / "missing.txt").string(), 1.0, back, &error));
  EXPECT_NE(error.find("missing.txt"), std::string::npos);
  EXPECT_FALSE(FiducialFile::read(dir_.string(), 1.0, back, &error));
  // A folder in the way of the file: the write fails and leaves no temporary behind.
  std::filesystem::create_directories(dir_ / "taken.txt" / "inner");
  EXPECT_FALSE(FiducialFile::write((dir_ / "taken.txt").string(), {{Vec3d::Zero(), 1.0}}, false, &error));
  EXPECT_NE(error.find("taken.txt"), std::string::npos);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_), std::filesystem::directory_iterator()), 1);
}

}  // namespace
}  // namespace Merivane
