// The run-based flood fill against a voxel BFS over the same neighbourhood, serial against
// any number of slabs, on random label volumes whose depths straddle slab edges.
#include "FloodFill.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <tuple>
#include <vector>

#include "FloodFillOracle.h"
#include "Image.h"

namespace Merivane::Seg {
namespace {

using Reference::Volume;
using Reference::bfsOracle;

// Blobs of labels 0..2 with a bias, so regions are large, twisted and touch every border.
Volume randomLabels(const Eigen::Vector3i& n, unsigned seed) {
  std::mt19937 rng(seed);
  std::discrete_distribution<int> pick({70, 20, 10});
  Volume v(static_cast<size_t>(n.prod()));
  for (auto& x : v) x = static_cast<uint8_t>(pick(rng));
  return v;
}

class FloodFillOracle : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(FloodFillOracle, RunsFillExactlyTheConnectedRegionForAnySlabCount) {
  const auto [depth, slabs] = GetParam();
  const Eigen::Vector3i n(23, 17, depth);
  for (unsigned trial = 0; trial < 4; ++trial) {
    const Volume labels = randomLabels(n, 11 * trial + depth);
    const Eigen::Vector3i seed(trial * 5 % n[0], trial * 3 % n[1], (depth / 2 + trial) % depth);
    const Volume expected = bfsOracle(labels, n, seed, 7);
    Volume actual = labels;
    FloodFillOptions options;
    options.slabs = slabs;
    const FloodFillResult r = floodFill(actual.data(), n, seed, 7, options);
    ASSERT_EQ(r.status, FloodFillResult::Filled);
    EXPECT_EQ(actual, expected) << "depth " << depth << " slabs " << slabs << " trial " << trial;
    int64_t changed = 0;
    for (size_t i = 0; i < labels.size(); ++i) changed += labels[i] != actual[i];
    EXPECT_EQ(r.filled, changed);
  }
}

INSTANTIATE_TEST_SUITE_P(DepthsAndSlabs, FloodFillOracle,
                         testing::Combine(testing::Values(1, 7, 9, 33), testing::Values(1, 2, 3, 8, 0)));

TEST(FloodFill, PureZNeighboursAreNotConnected) {
  // Two voxels stacked in z, nothing else: the fill stays in the seed's slice.
  const Eigen::Vector3i n(3, 3, 2);
  Volume v(18, 9);
  v[4] = 0;
  v[9 + 4] = 0;
  EXPECT_EQ(floodFill(v.data(), n, {1, 1, 0}, 5).filled, 1);
  EXPECT_EQ(v[4], 5);
  EXPECT_EQ(v[13], 0);
  // A one-voxel run reaches its diagonal neighbours across z.
  v[9 + 5] = 0;
  v[4] = 0;
  EXPECT_EQ(floodFill(v.data(), n, {1, 1, 0}, 5).filled, 3);
  EXPECT_EQ(v[13], 5);
}

TEST(FloodFill, IntensityWindowStopsTheFillForAnySlabCount) {
  const Eigen::Vector3i n(19, 13, 9);
  const Volume labels = randomLabels(n, 5);
  auto image = TypedImage<float>::zeros(n);
  std::vector<float> values(static_cast<size_t>(n.prod()));
  for (int z = 0; z < n[2]; ++z)
    for (int y = 0; y < n[1]; ++y)
      for (int x = 0; x < n[0]; ++x) {
        const float v = static_cast<float>(x + 2 * y) + 0.5f * z;
        values[(static_cast<size_t>(z) * n[1] + y) * n[0] + x] = v;
        image->setValue(v, x, y, z);
      }
  const Eigen::Vector3i seed(9, 6, 4);
  const Volume expected = bfsOracle(labels, n, seed, 9, &values, 15.0, 27.0);
  for (int slabs : {1, 4}) {
    Volume actual = labels;
    FloodFillOptions options;
    options.intensities = image.get();
    options.low = 15.0;
    options.high = 27.0;
    options.slabs = slabs;
    EXPECT_EQ(floodFill(actual.data(), n, seed, 9, options).status, FloodFillResult::Filled);
    EXPECT_EQ(actual, expected) << slabs;
  }
}

TEST(FloodFill, RefusedCasesWriteNothing) {
  const Eigen::Vector3i n(4, 4, 4);
  Volume v(64, 2);
  const Volume before = v;
  EXPECT_EQ(floodFill(v.data(), n, {1, 1, 1}, 2).status, FloodFillResult::Refused);  // already the label
  EXPECT_EQ(floodFill(v.data(), n, {4, 0, 0}, 3).status, FloodFillResult::Refused);  // outside
  EXPECT_EQ(floodFill(v.data(), n, {0, 0, -1}, 3).status, FloodFillResult::Refused);
  auto wrong = TypedImage<float>::zeros(Eigen::Vector3i(4, 4, 3));
  FloodFillOptions options;
  options.intensities = wrong.get();
  EXPECT_EQ(floodFill(v.data(), n, {0, 0, 0}, 3, options).status, FloodFillResult::Refused);
  EXPECT_EQ(v, before);
}

TEST(FloodFill, ACancelledFillSaysSo) {
  const Eigen::Vector3i n(64, 64, 64);
  Volume v(static_cast<size_t>(n.prod()), 0);
  std::atomic<bool> canceled{true};
  FloodFillOptions options;
  options.canceled = &canceled;
  EXPECT_EQ(floodFill(v.data(), n, {0, 0, 0}, 1, options).status, FloodFillResult::Canceled);
}

}  // namespace
}  // namespace Merivane::Seg
