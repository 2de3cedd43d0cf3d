#include <gtest/gtest.h>
#include <omp.h>

#include <array>
#include <cmath>
#include <deque>
#include <limits>
#include <set>

#include "Log.h"
#include "Progress.h"
#include "TestSupport.h"
#include "Watershed.h"
#include "WatershedTestImages.h"

using namespace Merivane;
using namespace Merivane::TestKit;
using Eigen::Vector3i;

namespace {

const Vector3i kWhole = Vector3i::Zero();

// A plain reading of the flooding rules: bounds-checked, std::deque queues, the lowest
// non-empty queue searched from 0 for every pop, a separate copy for the resolving pass.
std::vector<unsigned char> referenceFlood(const U8Image& src, const U8Image& seeds, Vector3i lo, Vector3i hi) {
  const Vector3i d = seeds.dimensions();
  std::vector<unsigned char> L = bytes(seeds);
  Vector3i b = Vector3i::Zero(), e = d;
  for (int i = 0; i < 3 && lo != hi; ++i) {
    b[i] = std::max(std::min(lo[i], hi[i]), 0);
    e[i] = std::min(std::max(lo[i], hi[i]), d[i] - 1) + 1;
  }
  auto at = [&](const Vector3i& p) { return (static_cast<size_t>(p[2]) * d[1] + p[1]) * d[0] + p[0]; };
  auto diff = [&](const Vector3i& p, const Vector3i& q) {
    int m = 0;
    for (int c = 0; c < src.channels(); ++c)
      m = std::max(m, std::abs(src.value(p[0], p[1], p[2], c) - src.value(q[0], q[1], q[2], c)));
    return m;
  };
  auto isLabel = [](int v) { return v >= 1 && v <= 253; };
  std::vector<Vector3i> steps = {{-1, 0, 0}, {1, 0, 0}, {0, -1, 0}, {0, 1, 0}}, region;
  if (d[2] > 1) steps.insert(steps.end(), {{0, 0, -1}, {0, 0, 1}});
  for (int z = b[2]; z < e[2]; ++z)
    for (int y = b[1]; y < e[1]; ++y)
      for (int x = b[0]; x < e[0]; ++x) region.emplace_back(x, y, z);
  auto onShell = [&](const Vector3i& p) {
    return p[0] == b[0] || p[0] == e[0] - 1 || p[1] == b[1] || p[1] == e[1] - 1 ||
           (d[2] > 1 && (p[2] == b[2] || p[2] == e[2] - 1));
  };
  std::array<std::deque<Vector3i>, 256> queues;
  for (const auto& p : region)
    if (onShell(p)) L[at(p)] = 255;
  for (const auto& p : region) {
    if (onShell(p)) continue;
    if (L[at(p)] >= 254) L[at(p)] = 0;
    int best = 256;
    for (const auto& s : steps)
      if (L[at(p)] == 0 && isLabel(L[at(p + s)])) best = std::min(best, diff(p, p + s));
    if (best == 256) continue;
    queues[best].push_back(p);
    L[at(p)] = 254;
  }
  for (int k = 0; k < 256;) {
    if (queues[k].empty()) {
      ++k;
      continue;
    }
    const Vector3i p = queues[k].front();
    queues[k].pop_front();
    std::set<int> labels;
    for (const auto& s : steps)
      if (isLabel(L[at(p + s)])) labels.insert(L[at(p + s)]);
    L[at(p)] = labels.size() > 1 ? 255 : labels.empty() ? 0 : *labels.begin();
    for (const auto& s : steps)
      if (labels.size() < 2 && L[at(p + s)] == 0) {
        queues[diff(p, p + s)].push_back(p + s);
        L[at(p + s)] = 254;
      }
    k = 0;
  }
  std::vector<unsigned char> out = L;
  for (const auto& p : region) {
    int best = 256;
    for (int z = -1; z <= 1 && !isLabel(L[at(p)]); ++z)
      for (int y = -1; y <= 1; ++y)
        for (int x = -1; x <= 1; ++x) {
          const Vector3i q = p + Vector3i(x, y, z);
          if ((q.array() >= b.array()).all() && (q.array() < e.array()).all() && isLabel(L[at(q)]) &&
              diff(p, q) < best) {
            best = diff(p, q);
            out[at(p)] = L[at(q)];
          }
        }
    if (!isLabel(L[at(p)]) && best == 256) out[at(p)] = 0;
  }
  return out;
}

}  // namespace

TEST(WatershedNodes, AllocatorSkipsTheSentinelAndChainsNewNodesInOrder) {
  std::vector<Watershed::WSNode> nodes;
  EXPECT_EQ(Watershed::allocWSNodes(nodes), 1u);
  EXPECT_EQ(Watershed::allocWSNodes(nodes), 128u);
  ASSERT_EQ(nodes.size(), 192u);
  for (uint32_t i = 1; i < 192; ++i) EXPECT_EQ(nodes[i].next, i == 127 || i == 191 ? 0 : i + 1) << i;
}

// Seeds 1 and 2 at both ends of a one-voxel-wide interior along `axis`; every voxel of the
// image whose coordinate on that axis is at most `split` ends with label 1, the others with 2.
struct SplitCase {
  Vector3i dims;
  int axis, channels, split;
};

class WatershedSplit : public testing::TestWithParam<SplitCase> {};

TEST_P(WatershedSplit, TwoSeedsDivideAlongTheAxis) {
  const auto [dims, axis, channels, split] = GetParam();
  auto source = filled(dims, channels, 40);
  if (split != 4) {
    // Channel 0 steps by 100 after x = 5; channel 1 steps by 150 after x = 3 and by 100 after
    // x = 5. The largest channel difference puts the border after 3; a sum would put it after 5.
    for (int x = 0; x < dims[0]; ++x)
      for (int y = 0; y < dims[1]; ++y) {
        source->setValue(x > 5 ? 140 : 40, x, y, 0, 0);
        if (channels > 1) source->setValue((x > 3 ? 150 : 0) + (x > 5 ? 100 : 0), x, y, 0, 1);
      }
  }
  auto seeds = filled(dims);
  Vector3i a = Vector3i::Ones(), b = Vector3i::Ones();
  if (dims[2] == 1) a[2] = b[2] = 0;
  a[axis] = 1;
  b[axis] = 7;
  seeds->setValue(1, a[0], a[1], a[2]);
  seeds->setValue(2, b[0], b[1], b[2]);
  ASSERT_TRUE(Watershed::run(*source, *seeds, nullptr, kWhole, kWhole));
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x)
        EXPECT_EQ(seeds->value(x, y, z), Vector3i(x, y, z)[axis] <= split ? 1 : 2) << x << "," << y << "," << z;
}

// On a uniform image the seeds meet at 4, which becomes a line and then takes the label
// found first in its block, 1.
INSTANTIATE_TEST_SUITE_P(UniformImageSplitsMidway, WatershedSplit,
                         testing::Values(SplitCase{{9, 3, 1}, 0, 1, 4}, SplitCase{{3, 9, 1}, 1, 1, 4},
                                         SplitCase{{9, 3, 3}, 0, 1, 4}, SplitCase{{3, 9, 3}, 1, 3, 4},
                                         SplitCase{{3, 3, 9}, 2, 1, 4}, SplitCase{{3, 3, 9}, 2, 4, 4}));
INSTANTIATE_TEST_SUITE_P(BorderFollowsLargestChannelDifference, WatershedSplit,
                         testing::Values(SplitCase{{9, 3, 1}, 0, 1, 5}, SplitCase{{9, 3, 1}, 0, 2, 3},
                                         SplitCase{{9, 3, 1}, 0, 3, 3}, SplitCase{{9, 3, 1}, 0, 4, 3}));

struct OracleCase {
  Vector3i dims;
  int channels;
  Vector3i lo, hi;
};

class WatershedOracle : public testing::TestWithParam<OracleCase> {};

// Random volumes large enough for the queues to recycle thousands of nodes.
TEST_P(WatershedOracle, MatchesPlainReadingOfTheRules) {
  const auto& c = GetParam();
  for (unsigned seed = 1; seed <= 3; ++seed) {
    auto source = noise(c.dims, seed, c.channels);
    auto seeds = randomSeeds(c.dims, seed + 10);
    EXPECT_EQ(flooded(*source, *seeds, c.lo, c.hi), referenceFlood(*source, *seeds, c.lo, c.hi)) << seed;
  }
}

// Bounds: the whole image, equal bounds (the whole image too), a box, swapped and clipped ones.
INSTANTIATE_TEST_SUITE_P(RandomVolumes, WatershedOracle,
                         testing::Values(OracleCase{{20, 17, 1}, 1, kWhole, kWhole},
                                         OracleCase{{16, 15, 12}, 1, kWhole, kWhole},
                                         OracleCase{{16, 15, 12}, 1, {3, 3, 3}, {3, 3, 3}},
                                         OracleCase{{16, 15, 12}, 3, {2, 3, 1}, {13, 12, 10}},
                                         OracleCase{{14, 13, 11}, 2, {12, 40, -3}, {-1, 2, 8}},
                                         OracleCase{{30, 30, 1}, 4, {-5, 29, 0}, {40, 4, 0}}));

TEST(WatershedRegion, OutsideStaysBitIdenticalAndShellSeedsAreDropped) {
  const Vector3i dims(10, 9, 8), lo(2, 1, 3), hi(7, 6, 6);
  auto seeds = noise(dims, 9);  // labels everywhere around the region
  for (int z = lo[2]; z <= hi[2]; ++z)
    for (int y = lo[1]; y <= hi[1]; ++y)
      for (int x = lo[0]; x <= hi[0]; ++x)
        seeds->setValue(x == 4 && y == 3 && z == 4 ? 5 : x == 6 && y == 4 && z == 5 ? 6 : 0, x, y, z);
  seeds->setValue(7, 2, 3, 4);  // on the shell
  const auto before = bytes(*seeds);
  ASSERT_TRUE(Watershed::run(*noise(dims, 5), *seeds, nullptr, lo, hi));
  std::set<int> inside;
  for (int i = 0; i < dims.prod(); ++i) {
    const Vector3i p(i % dims[0], i / dims[0] % dims[1], i / dims[0] / dims[1]);
    if ((p.array() >= lo.array()).all() && (p.array() <= hi.array()).all())
      inside.insert(seeds->pointer()[i]);
    else
      ASSERT_EQ(seeds->pointer()[i], before[i]) << p.transpose();
  }
  // Shell voxels next to lines only may stay 0; the shell seed 7 is gone.
  EXPECT_TRUE(inside.count(5) && inside.count(6));
  for (int v : inside) EXPECT_TRUE(v == 0 || v == 5 || v == 6) << v;
}

TEST(Watershed2D, NeverLooksAlongZ) {
  // The 2D image is the middle slice of a three-slice buffer whose outer slices hold label 9.
  const int w = 7, h = 6, n = w * h;
  std::vector<unsigned char> src(3 * n, 50), lab(3 * n, 9);
  std::fill(lab.begin() + n, lab.begin() + 2 * n, 0);
  lab[n + 3 * w + 3] = 1;
  lab[n + 1 * w + 1] = 2;
  U8Image source({w, h, 1}, 1, src.data() + n, MemImage::Ownership::Borrowed);
  U8Image seeds({w, h, 1}, 1, lab.data() + n, MemImage::Ownership::Borrowed);
  ASSERT_TRUE(Watershed::run(source, seeds, nullptr, kWhole, kWhole));
  for (int i = 0; i < 3 * n; ++i) EXPECT_TRUE(i / n == 1 ? lab[i] == 1 || lab[i] == 2 : lab[i] == 9) << i;
}

TEST(WatershedSeeds, QueuedAndLineValuesAreUnreachedAndOneLabelFloodsAll) {
  const Vector3i dims(12, 11, 10);
  auto source = noise(dims, 21, 2);
  auto seeds = randomSeeds(dims, 22);  // with 254 and 255 scattered
  auto cleaned = seeds->cloneTyped();
  for (int i = 0; i < dims.prod(); ++i)
    cleaned->pointer()[i] = cleaned->pointer()[i] >= 254 ? 0 : cleaned->pointer()[i];
  EXPECT_EQ(flooded(*source, *seeds), flooded(*source, *cleaned));
  auto none = randomSeeds(dims, 23, 0.0);
  EXPECT_EQ(flooded(*source, *none), std::vector<unsigned char>(dims.prod(), 0));
  none->setValue(3, 5, 5, 5);
  EXPECT_EQ(flooded(*source, *none), std::vector<unsigned char>(dims.prod(), 3));
}

class WatershedThreads : public testing::TestWithParam<int> {};

TEST_P(WatershedThreads, ResultDoesNotDependOnThreadCount) {
  auto source = noise({13, 11, GetParam()}, 41);
  auto seeds = randomSeeds({13, 11, GetParam()}, 42, 0.05, 6);
  const int was = omp_get_max_threads();
  omp_set_num_threads(1);
  const auto serial = flooded(*source, *seeds);
  for (int threads : {2, 3}) {
    omp_set_num_threads(threads);
    EXPECT_EQ(flooded(*source, *seeds), serial) << threads << " threads";
  }
  omp_set_num_threads(was);
}

INSTANTIATE_TEST_SUITE_P(SlicesAcrossChunkEdges, WatershedThreads, testing::Values(1, 2, 7, 9, 33));

TEST(WatershedProgress, PolledEveryThousandPopsAndCancelStopsTheRun) {
  struct Steps : Progress {
    std::vector<std::pair<int, int>> seen;
    size_t cancelAt = 0;
    void onTaskUpdated(TaskState& task) override {
      seen.emplace_back(task.current, task.steps);
      if (seen.size() == cancelAt) cancelAllTasks();
    }
  } all, early;
  auto seeds = filled({40, 40, 40});
  seeds->setValue(1, 20, 20, 20);
  auto source = filled({40, 40, 40});
  auto result = seeds->cloneTyped();
  ASSERT_TRUE(Watershed::run(*source, *result, &all, kWhole, kWhole));
  ASSERT_EQ(all.seen.size(), 55u);  // 38^3 - 1 pops: 54 polls and the final step
  EXPECT_TRUE(std::is_sorted(all.seen.begin(), all.seen.end()));
  EXPECT_EQ(all.seen.back(), std::make_pair(100, 105));
  early.cancelAt = 3;
  EXPECT_FALSE(Watershed::run(*source, *seeds, &early, kWhole, kWhole));
  EXPECT_EQ(early.seen.size(), 3u);
  EXPECT_FALSE(Watershed::run(*source, *seeds, &early, kWhole, kWhole));  // stays cancelled
}

TEST(WatershedInput, MismatchedImagesAreRefusedUntouched) {
  TestKit::LogCapture log;
  auto seeds = randomSeeds({6, 6, 6}, 1);
  const auto before = bytes(*seeds);
  EXPECT_FALSE(Watershed::run(*filled({6, 6, 5}), *seeds, nullptr, kWhole, kWhole));
  EXPECT_EQ(bytes(*seeds), before);
  EXPECT_EQ(log.count(Log::Error), 1);
}

TEST(WatershedSeedsValid, NeedsTwoDifferentLabels) {
  auto row = [](std::vector<unsigned char> v) {
    auto img = U8Image::zeros({static_cast<int>(v.size()), 1, 1}, 1);
    std::copy(v.begin(), v.end(), img->pointer());
    return Watershed::seedsValid(*img);
  };
  EXPECT_FALSE(Watershed::seedsValid(*U8Image::zeros({0, 0, 0}, 1)));
  EXPECT_FALSE(row({0, 1, 1, 0}));
  EXPECT_FALSE(row({254, 255, 7}));
  EXPECT_TRUE(row({0, 253, 254, 1}));
}

class WatershedQuantize : public testing::TestWithParam<PixelType> {};

TEST_P(WatershedQuantize, MapsTheWindowOntoBytes) {
  // Stored values less the shift of 10 are 0, 25, 50, 99, 100 and -5 in a window from 0 to 100.
  const std::vector<double> stored = {10, 35, 60, 109, 110, 5};
  auto img = MemImage::create(ImageDescriptor(GetParam(), {6, 1, 1}));
  dispatchPixelType(GetParam(), [&](auto tag) {
    for (size_t i = 0; i < stored.size(); ++i)
      static_cast<decltype(tag)*>(img->data())[i] = static_cast<decltype(tag)>(stored[i]);
  });
  img->setShiftScale(10, 1);
  img->setSpacing({0.5, 2, 3});
  auto out = Watershed::quantizeAndBakeWindowLevel(*img, 100, 50);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->spacing(), img->spacing());
  EXPECT_EQ(bytes(*out), (std::vector<unsigned char>{0, 63, 127, 252, 255, 0}));
}

INSTANTIATE_TEST_SUITE_P(EveryServedType, WatershedQuantize, testing::Values(I8, U8, I16, U16, I32, U32, F32, F64));

TEST(WatershedQuantizeEdges, ZeroWindowNanAndUnservedTypes) {
  auto img = TypedImage<float>::zeros({4, 1, 1}, 1);
  const float values[] = {4, 5, 6, std::numeric_limits<float>::quiet_NaN()};
  std::copy(values, values + 4, img->pointer());
  // With window 0 the factor is infinite: below the level 0, above it 255, at it 0 * inf = NaN.
  EXPECT_EQ(bytes(*Watershed::quantizeAndBakeWindowLevel(*img, 0, 5)), (std::vector<unsigned char>{0, 255, 255, 255}));
  EXPECT_EQ(bytes(*Watershed::quantizeAndBakeWindowLevel(*img, 10, 5)),
            (std::vector<unsigned char>{102, 127, 153, 255}));
  EXPECT_EQ(Watershed::quantizeAndBakeWindowLevel(*TypedImage<double>::zeros({2, 1, 1}, 3), 1, 0.5)->channels(), 3);
  struct Half : MemImage {  // stands for any pixel type that is not served
    Half() : MemImage(ImageDescriptor(F16, {1, 1, 1})) {}
    void* data() override { return &bits; }
    const void* data() const override { return &bits; }
    std::unique_ptr<MemImage> clone() const override { return std::make_unique<Half>(); }
    uint16_t bits = 0;
  };
  EXPECT_FALSE(Watershed::quantizeAndBakeWindowLevel(Half(), 1, 0.5));
}
