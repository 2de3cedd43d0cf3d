#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <random>
#include <set>

#include "Log.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "SuperpixelsAlgorithm.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

std::unique_ptr<TypedImage<float>> floatImage(const Eigen::Vector3i& dims, const std::function<double(int, int, int)>& f) {
  auto img = TypedImage<float>::zeros(dims, 1);
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) img->setValue(static_cast<float>(f(x, y, z)), x, y, z);
  return img;
}

// Number of face-connected pieces of each label.
std::vector<int> piecesPerLabel(const TypedImage<int>& map, int labels) {
  const int W = map.width(), H = map.height(), D = map.slices();
  const int64_t N = int64_t(W) * H * D;
  std::vector<int> pieces(static_cast<size_t>(labels), 0);
  std::vector<char> seen(static_cast<size_t>(N), 0);
  const int* s = map.pointer();
  for (int64_t start = 0; start < N; ++start) {
    if (seen[start]) continue;
    ++pieces[static_cast<size_t>(s[start])];
    std::vector<int64_t> stack{start};
    seen[start] = 1;
    while (!stack.empty()) {
      const int64_t i = stack.back();
      stack.pop_back();
      const int x = int(i % W), y = int((i / W) % H), z = int(i / (int64_t(W) * H));
      const int64_t nb[6] = {x > 0 ? i - 1 : -1, x < W - 1 ? i + 1 : -1, y > 0 ? i - W : -1,
                             y < H - 1 ? i + W : -1, z > 0 ? i - int64_t(W) * H : -1,
                             z < D - 1 ? i + int64_t(W) * H : -1};
      for (int64_t j : nb)
        if (j >= 0 && !seen[j] && s[j] == s[i]) {
          seen[j] = 1;
          stack.push_back(j);
        }
    }
  }
  return pieces;
}

struct Case {
  Eigen::Vector3i dims;
  int count;
};

}  // namespace

class SuperpixelPartition : public ::testing::TestWithParam<Case> {};

// A noisy two-region image: every pixel gets a superpixel, each superpixel is one connected
// piece, its record matches its pixels, and the count is near the request.
TEST_P(SuperpixelPartition, CoversConnectedAndCountsNearTheRequest) {
  const auto [dims, count] = GetParam();
  std::mt19937 rng(7);
  std::normal_distribution<double> noise(0.0, 0.1);
  auto img = floatImage(dims, [&](int x, int y, int) { return (x + y < dims[0] ? 0.0 : 1.0) + noise(rng); });
  img->setSpacing(Eigen::Vector3d(0.5, 2.0, 1.5));
  Superpixels::Result r = Superpixels::compute(*img, {count, 2.5, 5, false});
  ASSERT_TRUE(r.map);
  const int K = static_cast<int>(r.superpixels.size());
  const int64_t N = int64_t(dims[0]) * dims[1] * dims[2];
  // Near the request, which cannot exceed the pixel count; a line splits more easily.
  const double wanted = static_cast<double>(std::min<int64_t>(count, N));
  EXPECT_GE(K, wanted / 2);
  EXPECT_LE(K, wanted * 2.5);
  std::vector<int64_t> size(static_cast<size_t>(K), 0);
  std::vector<Eigen::Vector3d> pos(static_cast<size_t>(K), Eigen::Vector3d::Zero());
  std::vector<double> sum(static_cast<size_t>(K), 0.0);
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) {
        const int k = r.map->value(x, y, z);
        ASSERT_GE(k, 0);
        ASSERT_LT(k, K);
        ++size[k];
        pos[k] += Eigen::Vector3d(x, y, z);
        sum[k] += img->value(x, y, z);
      }
  int64_t total = 0;
  for (int k = 0; k < K; ++k) {
    ASSERT_GT(size[k], 0) << "superpixel " << k << " is empty";
    EXPECT_EQ(r.superpixels[k].size, size[k]);
    const Eigen::Vector3d mean = pos[k] / double(size[k]);
    const Eigen::Vector3d mm = (mean - (dims.cast<double>() * 0.5 - Eigen::Vector3d::Constant(0.5)))
                                   .cwiseProduct(Eigen::Vector3d(0.5, 2.0, 1.5));
    EXPECT_NEAR((r.superpixels[k].center - mm).norm(), 0.0, 1e-6);
    ASSERT_EQ(r.superpixels[k].features.size(), 1u);
    EXPECT_NEAR(r.superpixels[k].features[0], sum[k] / size[k], 1e-4);
    total += size[k];
  }
  EXPECT_EQ(total, N);
  for (int p : piecesPerLabel(*r.map, K)) EXPECT_EQ(p, 1);
}

INSTANTIATE_TEST_SUITE_P(Sizes, SuperpixelPartition,
                         testing::Values(Case{{64, 48, 1}, 40}, Case{{64, 64, 1}, 300}, Case{{24, 20, 18}, 60},
                                         Case{{17, 9, 1}, 1000}, Case{{1, 50, 1}, 5}, Case{{1, 1, 1}, 3}));

class SuperpixelStep : public ::testing::TestWithParam<std::tuple<Eigen::Vector3i, int, int>> {};

// A strong step, off the seed grid and oblique in 3D: no superpixel holds pixels of both sides.
TEST_P(SuperpixelStep, NoSuperpixelCrossesTheEdge) {
  const auto [dims, count, axis] = GetParam();
  std::mt19937 rng(11);
  std::normal_distribution<double> noise(0.0, 2.0);
  auto side = [&, dims = dims, axis = axis](int x, int y, int z) {
    const int v[3] = {x, y, z};
    return dims[2] > 1 ? x + z / 3 > dims[0] * 3 / 7 : v[axis] > dims[axis] * 3 / 7;
  };
  auto img = floatImage(dims, [&](int x, int y, int z) { return (side(x, y, z) ? 100.0 : 0.0) + noise(rng); });
  Superpixels::Result r = Superpixels::compute(*img, {count, 2.5, 5, false});
  ASSERT_TRUE(r.map);
  std::vector<int> sides(r.superpixels.size(), 0);  // bit 1: low side, bit 2: high side
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) sides[r.map->value(x, y, z)] |= side(x, y, z) ? 2 : 1;
  for (size_t k = 0; k < sides.size(); ++k) EXPECT_NE(sides[k], 3) << "superpixel " << k << " crosses the step";
}

INSTANTIATE_TEST_SUITE_P(Images, SuperpixelStep,
                         testing::Values(std::make_tuple(Eigen::Vector3i(80, 60, 1), 50, 0),
                                         std::make_tuple(Eigen::Vector3i(80, 60, 1), 200, 1),
                                         std::make_tuple(Eigen::Vector3i(40, 30, 20), 100, 0),
                                         std::make_tuple(Eigen::Vector3i(40, 30, 20), 400, 0)));

class SuperpixelThreads : public ::testing::TestWithParam<Eigen::Vector3i> {};

// Labels and records are the same with 1, 2 and 3 threads, on sizes that straddle chunk edges.
TEST_P(SuperpixelThreads, LabelsDoNotDependOnTheThreadCount) {
  const Eigen::Vector3i dims = GetParam();
  auto img = floatImage(dims, [](int x, int y, int z) {
    return (x * x + y * y + 2 * z * z < 300 ? 50.0 : 0.0) + 10.0 * TestKit::hashNoise(x, y, z);
  });
  const int before = omp_get_max_threads();
  std::vector<Superpixels::Result> results;
  for (int threads : {1, 2, 3}) {
    omp_set_num_threads(threads);
    results.push_back(Superpixels::compute(*img, {70, 3.0, 4, false}));
  }
  omp_set_num_threads(before);
  const int64_t N = int64_t(dims[0]) * dims[1] * dims[2];
  for (size_t t = 1; t < results.size(); ++t) {
    ASSERT_EQ(results[t].superpixels.size(), results[0].superpixels.size());
    EXPECT_TRUE(std::equal(results[0].map->pointer(), results[0].map->pointer() + N, results[t].map->pointer()));
    for (size_t k = 0; k < results[0].superpixels.size(); ++k) {
      EXPECT_EQ(results[t].superpixels[k].center, results[0].superpixels[k].center);
      EXPECT_EQ(results[t].superpixels[k].features, results[0].superpixels[k].features);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, SuperpixelThreads,
                         testing::Values(Eigen::Vector3i(37, 41, 1), Eigen::Vector3i(30, 22, 7), Eigen::Vector3i(21, 19, 9),
                                         Eigen::Vector3i(16, 12, 33)));

// "Random indices" renames the superpixels, the same way every run, without changing the partition.
TEST(SuperpixelsAlgorithm, RandomIndicesPermuteTheSamePartition) {
  auto set = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(
      floatImage({30, 30, 1}, [](int x, int y, int) { return (x > 12) * 10.0 + TestKit::hashNoise(x, y, 0); })));
  auto run = [&](bool shuffle) {
    SuperpixelsAlgorithm a(set->get(0));
    Properties p;
    p.setParam("Number of superpixels", 25);
    p.setParam("Random indices", shuffle);
    a.configure(&p);
    a.compute();
    EXPECT_EQ(a.status(), Algorithm::statusSuccess);
    auto out = a.takeOutput().extractFirstImage();
    return std::make_pair(std::dynamic_pointer_cast<TypedImage<int>>(out->get(0)->sharedMem()), a.superpixels());
  };
  auto [plain, plainRecords] = run(false);
  auto [shuffled, shuffledRecords] = run(true);
  auto [again, againRecords] = run(true);
  ASSERT_TRUE(plain && shuffled && again);
  const int K = static_cast<int>(plainRecords.size());
  ASSERT_EQ(static_cast<int>(shuffledRecords.size()), K);
  std::vector<int> to(static_cast<size_t>(K), -1);
  bool moved = false;
  for (int i = 0; i < 900; ++i) {
    const int a = plain->pointer()[i], b = shuffled->pointer()[i];
    if (to[a] < 0) to[a] = b;
    EXPECT_EQ(to[a], b);
    moved |= a != b;
    EXPECT_EQ(again->pointer()[i], b);
  }
  EXPECT_TRUE(moved);
  EXPECT_EQ(std::set<int>(to.begin(), to.end()).size(), static_cast<size_t>(K));
  for (int k = 0; k < K; ++k) EXPECT_EQ(shuffledRecords[to[k]].size, plainRecords[k].size);
}

TEST(SuperpixelsAlgorithm, FailuresSetTheStatusAndLogOneLine) {
  auto set = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(floatImage({8, 8, 1}, [](int, int, int) { return 1.0; })));
  {
    TestKit::LogCapture log;
    SuperpixelsAlgorithm a(nullptr);
    a.compute();
    EXPECT_EQ(a.status(), Algorithm::statusIncompleteInput);
    EXPECT_EQ(log.count(Log::Error), 1);
    EXPECT_TRUE(a.takeOutput().empty());
  }
  for (const char* key : {"Number of superpixels", "Number of iterations"}) {
    TestKit::LogCapture log;
    SuperpixelsAlgorithm a(set->get(0));
    Properties p;
    p.setParam(key, -1);
    a.configure(&p);
    a.compute();
    EXPECT_EQ(a.status(), Algorithm::statusInvalidInput) << key;
    EXPECT_EQ(log.count(Log::Error), 1) << key;
    EXPECT_TRUE(log.contains(key));
    EXPECT_TRUE(a.takeOutput().empty());
  }
}

// A flat image still divides into compact cells, one per seed, each near the grid's cell size
// and centred near its grid cell.
TEST(SuperpixelsAlgorithm, FlatImageGivesTheSeedGrid) {
  auto img = floatImage({40, 40, 1}, [](int, int, int) { return 3.0; });
  Superpixels::Result r = Superpixels::compute(*img, {16, 2.5, 5, false});
  ASSERT_TRUE(r.map);
  ASSERT_EQ(r.superpixels.size(), 16u);
  for (const Superpixel& s : r.superpixels) {
    EXPECT_GE(s.size, 70);
    EXPECT_LE(s.size, 130);
    // Cell centres lie at -15, -5, 5, 15 in centred space.
    for (int a = 0; a < 2; ++a) {
      const double r = std::fmod(std::fabs(s.center[a]) + 5.0, 10.0);
      EXPECT_LE(std::min(r, 10.0 - r), 2.0) << s.center[a];
    }
  }
}
