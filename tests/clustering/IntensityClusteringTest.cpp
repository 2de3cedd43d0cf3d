#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <array>
#include <cstring>

#include "IntensityClusteringAlgorithm.h"
#include "Log.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;
using Algo = IntensityClusteringAlgorithm;
using Cluster = Algo::GaussianCluster;
using U8Image = TypedImage<unsigned char>;

namespace {

constexpr const char* kCategory = "Seg.IntensityClusteringAlgorithm";

// Three populations by x thirds around 100, 400 and 900, spread by +-30 of fixed noise.
double threeLevels(int x, int y, int z, int w) {
  const double level = x < w / 3 ? 100 : x < 2 * w / 3 ? 400 : 900;
  return std::round(level + 30 * TestKit::hashNoise(x, y, z));
}

struct Outcome {
  int status = -1;
  std::vector<Cluster> clusters;
  std::unique_ptr<SharedImageSet> labels;
};

Outcome run(SharedImageSet& image, SharedImageSet* mask, const std::vector<std::pair<double, double>>& clusters,
        int iterations, int filterSize = 0) {
  Algorithm* raw = nullptr;
  DataList list{&image};
  if (mask) list.add(mask);
  EXPECT_TRUE(Algo::createCompatible(list, &raw));
  std::unique_ptr<Algo> algo(static_cast<Algo*>(raw));
  algo->setClusters(clusters);
  algo->nbIterations = iterations;
  algo->setFilterParam(filterSize, 0.01);
  algo->compute();
  Outcome r;
  r.status = algo->status();
  r.clusters = algo->clusters();
  r.labels = algo->takeOutput().extractFirstImage();
  return r;
}

const U8Image& labelsOf(const Outcome& r) { return *dynamic_cast<U8Image*>(r.labels->mem(0)); }

}  // namespace

// The histogram path (U16) against the per-voxel path (float) on the same values: the same
// labels, and the same clusters up to rounding of the sums.
TEST(IntensityClustering, HistogramPathEqualsPerVoxelPath) {
  const Eigen::Vector3i dims(45, 20, 9);
  auto u16 = TestKit::makeImage<unsigned short>(dims, [](int x, int y, int z) { return threeLevels(x, y, z, 45); });
  auto f32 = TestKit::makeImage<float>(dims, [](int x, int y, int z) { return threeLevels(x, y, z, 45); });
  const std::vector<std::pair<double, double>> start{{50, 100}, {500, 100}, {600, 100}};
  for (int iterations : {1, 4}) {
    Outcome a = run(*u16, nullptr, start, iterations), b = run(*f32, nullptr, start, iterations);
    ASSERT_EQ(a.status, Algorithm::statusSuccess);
    ASSERT_EQ(b.status, Algorithm::statusSuccess);
    EXPECT_EQ(std::memcmp(labelsOf(a).pointer(), labelsOf(b).pointer(), dims.prod()), 0) << iterations;
    for (size_t k = 0; k < 3; ++k) {
      EXPECT_NEAR(a.clusters[k].mean, b.clusters[k].mean, 1e-9) << k;
      EXPECT_NEAR(a.clusters[k].std, b.clusters[k].std, 1e-9) << k;
    }
  }
}

// Two values 10 and 30 in equal parts: one round from rough starts finds the exact means with
// standard deviation 0, and labels 0 and 1 without a mask.
TEST(IntensityClustering, TwoValuesGiveExactMeansAndLabelsFromZero) {
  auto image = TestKit::makeImage<unsigned char>({6, 4, 1}, [](int x, int, int) { return x < 3 ? 10 : 30; });
  Outcome r = run(*image, nullptr, {{0, 5}, {50, 5}}, 1);
  ASSERT_EQ(r.status, Algorithm::statusSuccess);
  EXPECT_DOUBLE_EQ(r.clusters[0].mean, 10);
  EXPECT_DOUBLE_EQ(r.clusters[1].mean, 30);
  EXPECT_DOUBLE_EQ(r.clusters[0].std, 0);
  for (int x = 0; x < 6; ++x) EXPECT_EQ(labelsOf(r).value(x, 2), x < 3 ? 0 : 1);
  EXPECT_EQ(r.labels->modality(), Data::LABEL);
}

// One round assigns from the starting clusters (here 15 is nearer the first) and then updates;
// the update does not reassign.
TEST(IntensityClustering, OneRoundKeepsTheFirstAssignment) {
  auto image = TestKit::makeImage<float>({3, 1, 1}, [](int x, int, int) { return std::array{0.f, 15.f, 40.f}[x]; });
  Outcome r = run(*image, nullptr, {{0, 10}, {40, 10}}, 1);
  EXPECT_EQ(labelsOf(r).value(1, 0), 0);
  EXPECT_DOUBLE_EQ(r.clusters[0].mean, 7.5);
  EXPECT_DOUBLE_EQ(r.clusters[0].std, 7.5);
  // The second round uses the updated clusters: 15 is 1 std from 7.5, but 25 / 0 from 40.
  Outcome two = run(*image, nullptr, {{0, 10}, {40, 10}}, 2);
  EXPECT_EQ(labelsOf(two).value(1, 0), 0);
}

TEST(IntensityClustering, OneClusterLabelsEveryVoxelAndZeroStdLosesTies) {
  auto image = TestKit::makeImage<short>({5, 5, 1}, [](int x, int y, int) { return x * y - 4; });
  Outcome one = run(*image, nullptr, {{3, 1}}, 2);
  for (int i = 0; i < 25; ++i) EXPECT_EQ(labelsOf(one).pointer()[i], 0);
  // A zero std: infinity away from its mean, so the other cluster wins; at its mean 0 / 0,
  // which nothing beats, so the first cluster keeps the voxel.
  Outcome zero = run(*image, nullptr, {{0, 0}, {100, 1000}}, 1);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 5; ++x) EXPECT_EQ(labelsOf(zero).value(x, y), x * y == 4 ? 0 : 1) << x << "," << y;
}

TEST(IntensityClustering, MaskedVoxelsKeepZeroAndLabelsCountFromOne) {
  auto image = TestKit::makeImage<float>({8, 8, 1}, [](int x, int, int) { return x < 4 ? 5.f : 50.f; });
  auto mask = TestKit::makeImage<unsigned char>({8, 8, 1}, [](int, int y, int) { return y < 6 ? 9 : 3; });
  Outcome r = run(*image, mask.get(), {{0, 10}, {60, 10}}, 1);
  ASSERT_EQ(r.status, Algorithm::statusSuccess);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x) EXPECT_EQ(labelsOf(r).value(x, y), y >= 6 ? 0 : x < 4 ? 1 : 2) << x << "," << y;
  // A mask of another size is refused by createCompatible.
  auto other = TestKit::makeImage<unsigned char>({8, 7, 1}, [](int, int, int) { return 1; });
  EXPECT_FALSE(Algo::createCompatible(DataList{image.get(), other.get()}));
}

TEST(IntensityClustering, NaNVoxelsTakeTheFirstLabelAndNoPartInTheMeans) {
  auto image = TestKit::makeImage<float>({4, 1, 1}, [](int x, int, int) { return std::array{1.f, NAN, 3.f, 100.f}[x]; });
  Outcome r = run(*image, nullptr, {{0, 5}, {90, 5}}, 1);
  EXPECT_EQ(labelsOf(r).value(1, 0), 0);
  EXPECT_DOUBLE_EQ(r.clusters[0].mean, 2.0);
  EXPECT_DOUBLE_EQ(r.clusters[1].mean, 100.0);
}

class IntensityClusteringThreads : public testing::TestWithParam<int> {};

// Sizes that straddle the per-voxel path's blocks: labels and clusters alike on 1 and 2 threads.
TEST_P(IntensityClusteringThreads, SerialEqualsParallel) {
  const int slices = GetParam();
  const Eigen::Vector3i dims(61, 67, slices);
  auto f32 = TestKit::makeImage<float>(dims, [](int x, int y, int z) { return threeLevels(x, y, z, 61) + 0.25f; });
  auto u16 = TestKit::makeImage<unsigned short>(dims, [](int x, int y, int z) { return threeLevels(x, y, z, 61); });
  for (SharedImageSet* image : {f32.get(), u16.get()}) {
    omp_set_num_threads(1);
    Outcome a = run(*image, nullptr, {{50, 50}, {300, 50}, {1000, 50}}, 3, 3);
    omp_set_num_threads(2);
    Outcome b = run(*image, nullptr, {{50, 50}, {300, 50}, {1000, 50}}, 3, 3);
    EXPECT_EQ(std::memcmp(labelsOf(a).pointer(), labelsOf(b).pointer(), dims.prod()), 0);
    for (size_t k = 0; k < 3; ++k) EXPECT_EQ(a.clusters[k].mean, b.clusters[k].mean);
    Outcome c = run(*image, nullptr, {{50, 50}, {300, 50}, {1000, 50}}, 3);
    omp_set_num_threads(1);
    Outcome d = run(*image, nullptr, {{50, 50}, {300, 50}, {1000, 50}}, 3);
    omp_set_num_threads(2);
    EXPECT_EQ(std::memcmp(labelsOf(c).pointer(), labelsOf(d).pointer(), dims.prod()), 0);
    for (size_t k = 0; k < 3; ++k) EXPECT_EQ(c.clusters[k].std, d.clusters[k].std);
  }
}
INSTANTIATE_TEST_SUITE_P(Slices, IntensityClusteringThreads, testing::Values(1, 7, 9, 33));

TEST(IntensityClustering, FailuresSetStatusLogOnceAndLeaveTheInput) {
  auto image = TestKit::makeImage<float>({5, 5, 2}, [](int x, int, int) { return float(x); });
  auto before = image->mem(0)->clone();
  struct Case {
    std::vector<double> means, stds;
    int iterations;
    int status;
  };
  for (const Case& c : {Case{{}, {}, 1, Algorithm::statusIncompleteInput}, Case{{1, 2}, {1}, 1, Algorithm::statusInvalidInput},
                        Case{{1}, {1}, 0, Algorithm::statusInvalidInput}}) {
    TestKit::LogCapture log;
    Algo algo(image->get(0));
    algo.clustersMeans = c.means;
    algo.clustersStd = c.stds;
    algo.nbIterations = c.iterations;
    algo.compute();
    EXPECT_EQ(algo.status(), c.status);
    EXPECT_EQ(log.count(Log::Error, kCategory), 1);
    EXPECT_EQ(algo.takeOutput().size(), 0);
    if (c.means.empty()) EXPECT_TRUE(log.contains("No clusters have been selected."));
  }
  EXPECT_EQ(std::memcmp(before->data(), image->mem(0)->data(), before->byteSize()), 0);
}
