#include <gtest/gtest.h>
#include <omp.h>

#include <random>
#include <vector>

#include "SegmentationSteps.h"

using namespace Merivane;
using namespace Merivane::Seg::internal;
using U8Image = TypedImage<unsigned char>;
using FloatImage = TypedImage<float>;

namespace {

constexpr int L = 3;  // object label; 4 is its background

std::unique_ptr<U8Image> labels(int w, int h, int d, std::vector<std::tuple<int, int, int, int>> set = {}) {
  auto img = U8Image::zeros(Eigen::Vector3i(w, h, d));
  for (auto [x, y, z, v] : set) img->setValue(static_cast<unsigned char>(v), x, y, z);
  return img;
}

// Probability 1 inside [lo, hi] (inclusive, per axis), 0 elsewhere.
std::unique_ptr<FloatImage> block(const Eigen::Vector3i& dims, const Eigen::Vector3i& lo, const Eigen::Vector3i& hi) {
  auto img = FloatImage::zeros(dims);
  for (int z = lo[2]; z <= hi[2]; ++z)
    for (int y = lo[1]; y <= hi[1]; ++y)
      for (int x = lo[0]; x <= hi[0]; ++x) img->setValue(1.0f, x, y, z);
  return img;
}

struct Threads {
  explicit Threads(int n) : saved(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~Threads() { omp_set_num_threads(saved); }
  int saved;
};

}  // namespace

// --- Box round the seeds: the growth rule worked by hand on a 20 x 20 image, margin 0.2.
struct BoxCase {
  int objX, bgX;          // seeds on row y = 5 (object) and y = 10 (background)
  int offsetX, sizeX;     // expected along x
};

class SeedBoxGrowth : public testing::TestWithParam<BoxCase> {};

TEST_P(SeedBoxGrowth, FollowsTheGrowthRuleAlongX) {
  const BoxCase c = GetParam();
  auto l = labels(20, 20, 1, {{c.objX, 5, 0, L}, {c.bgX, 10, 0, L + 1}});
  const SeedBox box = seedBox(*l, nullptr, L, 0.2);
  ASSERT_TRUE(box.anySeeds);
  ASSERT_TRUE(box.crop);
  EXPECT_EQ(box.offset.x(), c.offsetX);
  EXPECT_EQ(box.size.x(), c.sizeX);
  // y: min 5, max 10: newMin = trunc(5 - 1 + 0.5) = 4, newMax = trunc(10 + 6 * 0.2 + 0.5) = 11.
  EXPECT_EQ(box.offset.y(), 4);
  EXPECT_EQ(box.size.y(), 8);
  // A single slice stays a single slice and does not by itself prevent the crop.
  EXPECT_EQ(box.offset.z(), 0);
  EXPECT_EQ(box.size.z(), 1);
}

INSTANTIATE_TEST_SUITE_P(
    HandWorked, SeedBoxGrowth,
    testing::Values(
        // min 2, max 7: newMin = trunc(2 - 1 + 0.5) = 1, newMax = trunc(7 + 6 * 0.2 + 0.5) = 8.
        BoxCase{2, 7, 1, 8},
        // At the image's start: newMin = max(trunc(-1.5), 0) = 0, and the far side grows from 0:
        // newMax = trunc(10 + 10 * 0.2 + 0.5) = 12. Not symmetric round [0, 10].
        BoxCase{0, 10, 0, 13},
        // The same extent further in: newMin = trunc(5 - 2 + 0.5) = 3, newMax = trunc(15 + 12 * 0.2 + 0.5) = 17.
        BoxCase{5, 15, 3, 15},
        // At the far end the box is clamped to the last column: newMin = trunc(15 - 0.8 + 0.5) = 14.
        BoxCase{19, 15, 14, 6},
        // Background seed left of the object seed: min and max do not care which is which.
        BoxCase{7, 2, 1, 8}));

TEST(SeedBox, NoSeedsAtAllAbort) {
  auto l = labels(6, 6, 3, {{2, 2, 1, 7}, {3, 3, 1, L + 2}});  // other labels do not count
  const SeedBox box = seedBox(*l, nullptr, L, 0.2);
  EXPECT_FALSE(box.anySeeds);
  EXPECT_FALSE(box.crop);
}

TEST(SeedBox, ObjectSeedsAloneMakeNoCrop) {
  auto l = labels(10, 10, 4, {{1, 1, 0, L}, {8, 8, 3, L}});
  const SeedBox box = seedBox(*l, nullptr, L, 0.2);
  EXPECT_TRUE(box.anySeeds);
  EXPECT_FALSE(box.crop);
}

// Two extents of 1 make a line, which is not cropped to; one extent of 1 is a plane, which is.
class SeedBoxLine : public testing::TestWithParam<std::tuple<Eigen::Vector3i, Eigen::Vector3i, bool>> {};

TEST_P(SeedBoxLine, CropsUnlessTwoExtentsAreOne) {
  const auto [a, b, crop] = GetParam();
  auto l = labels(10, 10, 10, {{a.x(), a.y(), a.z(), L}, {b.x(), b.y(), b.z(), L + 1}});
  const SeedBox box = seedBox(*l, nullptr, L, 0.0);
  EXPECT_TRUE(box.anySeeds);
  EXPECT_EQ(box.crop, crop);
}

INSTANTIATE_TEST_SUITE_P(Shapes, SeedBoxLine,
                         testing::Values(std::make_tuple(Eigen::Vector3i(2, 4, 4), Eigen::Vector3i(7, 4, 4), false),
                                         std::make_tuple(Eigen::Vector3i(4, 2, 4), Eigen::Vector3i(4, 7, 4), false),
                                         std::make_tuple(Eigen::Vector3i(4, 4, 2), Eigen::Vector3i(4, 4, 7), false),
                                         std::make_tuple(Eigen::Vector3i(4, 4, 4), Eigen::Vector3i(4, 4, 4), false),
                                         std::make_tuple(Eigen::Vector3i(2, 2, 4), Eigen::Vector3i(7, 7, 4), true),
                                         std::make_tuple(Eigen::Vector3i(2, 2, 2), Eigen::Vector3i(7, 7, 7), true)));

TEST(SeedBox, PreviousLabelsOtherThanTheObjectWidenTheBoxAsBackground) {
  // Object seeds only, so no crop on their own; a previous conversion that left label 9 at
  // (8, 8) makes that voxel relevant and counts it as background.
  auto l = labels(10, 10, 1, {{2, 2, 0, L}, {3, 3, 0, L}});
  auto prev = U8Image::zeros(Eigen::Vector3i(10, 10, 1));
  for (size_t i = 0; i < 100; ++i) prev->pointer()[i] = L;  // L everywhere: nothing relevant
  prev->setValue(9, 8, 8);
  const SeedBox box = seedBox(*l, prev.get(), L, 0.0);
  ASSERT_TRUE(box.crop);
  EXPECT_EQ(box.offset, Eigen::Vector3i(2, 2, 0));
  EXPECT_EQ(box.size, Eigen::Vector3i(7, 7, 1));

  // A previous map of another size is ignored.
  auto other = U8Image::zeros(Eigen::Vector3i(9, 10, 1));
  other->setValue(9, 8, 8);
  EXPECT_FALSE(seedBox(*l, other.get(), L, 0.0).crop);
}

// --- Outline.

TEST(DrawOutline, RingOfAnInteriorSquareIs255AndStale255AreCleared) {
  // 7 x 7, object 1 on [2, 4] x [2, 4]: its eight outer voxels have a neighbour below 0.5.
  auto p = block({7, 7, 1}, {2, 2, 0}, {4, 4, 0});
  auto l = labels(7, 7, 1, {{3, 3, 0, 255}, {0, 0, 0, 255}, {1, 3, 0, L}, {3, 3, 0, 255}});
  EXPECT_FALSE(drawOutline(*p, *l, {0, 0, 0}, {7, 7, 1}));
  for (int y = 0; y < 7; ++y)
    for (int x = 0; x < 7; ++x) {
      const bool inside = x >= 2 && x <= 4 && y >= 2 && y <= 4;
      const bool ring = inside && !(x == 3 && y == 3);
      SCOPED_TRACE(testing::Message() << x << ", " << y);
      if (ring)
        EXPECT_EQ(l->value(x, y), 255);
      else if (x == 1 && y == 3)
        EXPECT_EQ(l->value(x, y), L);  // outside the object, a seed stays
      else
        EXPECT_EQ(l->value(x, y), 0);  // stale 255 in the centre and outside are cleared
    }
}

TEST(DrawOutline, TouchingTheBorderSetsTheFlagAndMarksBorderVoxels) {
  // Object fills columns 0..2 of a 6 x 6 image: the column x = 0 is on the border although
  // none of its voxels has an outside neighbour inside the image.
  auto p = block({6, 6, 1}, {0, 0, 0}, {2, 5, 0});
  auto l = labels(6, 6, 1);
  EXPECT_TRUE(drawOutline(*p, *l, {0, 0, 0}, {6, 6, 1}));
  for (int y = 0; y < 6; ++y) {
    EXPECT_EQ(l->value(0, y), 255);
    EXPECT_EQ(l->value(2, y), 255);  // next to the background at x = 3
    EXPECT_EQ(l->value(3, y), 0);
  }
  EXPECT_EQ(l->value(1, 0), 255);  // on the border row
  EXPECT_EQ(l->value(1, 3), 0);    // interior
}

TEST(DrawOutline, SliceZeroIsBorderOnlyInAVolume) {
  // A 2D image: z = 0 is not a border, so an interior object does not warn.
  auto p2 = block({5, 5, 1}, {1, 1, 0}, {3, 3, 0});
  auto l2 = labels(5, 5, 1);
  EXPECT_FALSE(drawOutline(*p2, *l2, {0, 0, 0}, {5, 5, 1}));
  EXPECT_EQ(l2->value(2, 2), 0);
  // A volume whose object reaches z = 0: flagged, and the centre voxel of that slice is 255.
  auto p3 = block({5, 5, 4}, {1, 1, 0}, {3, 3, 2});
  auto l3 = labels(5, 5, 4);
  EXPECT_TRUE(drawOutline(*p3, *l3, {0, 0, 0}, {5, 5, 4}));
  EXPECT_EQ(l3->value(2, 2, 0), 255);
  EXPECT_EQ(l3->value(2, 2, 1), 0);
  EXPECT_EQ(l3->value(2, 2, 2), 255);  // next to z = 3, outside
}

TEST(DrawOutline, VoxelsOutsideTheBoxAreLeftAlone) {
  auto p = block({8, 8, 1}, {0, 0, 0}, {7, 7, 0});  // all object, touching every border
  auto l = labels(8, 8, 1, {{0, 0, 0, 255}, {7, 7, 0, 42}});
  EXPECT_FALSE(drawOutline(*p, *l, {2, 2, 0}, {4, 4, 1}));
  EXPECT_EQ(l->value(0, 0), 255);
  EXPECT_EQ(l->value(7, 7), 42);
  for (int y = 2; y < 6; ++y)
    for (int x = 2; x < 6; ++x) EXPECT_EQ(l->value(x, y), 0);  // no neighbour below 0.5
}

// --- Conversion.

TEST(ConvertToLabels, OneHalfIsTheObjectAndPreviousLabelsWin) {
  auto p = FloatImage::zeros(Eigen::Vector3i(6, 1, 1));
  const float values[6] = {0.49f, 0.5f, 0.51f, 1.0f, 0.0f, 0.9f};
  for (int x = 0; x < 6; ++x) p->setValue(values[x], x, 0);
  auto l = labels(6, 1, 1, {{0, 0, 0, 255}, {1, 0, 0, 17}});
  auto prev = labels(6, 1, 1, {{0, 0, 0, L}, {1, 0, 0, L}, {2, 0, 0, L}, {3, 0, 0, 9}, {4, 0, 0, L}, {5, 0, 0, 0}});
  convertToLabels(*p, *l, prev.get(), L, {0, 0, 0}, {6, 1, 1}, false);
  EXPECT_EQ(l->value(0, 0), L + 1);  // 0.49
  EXPECT_EQ(l->value(1, 0), L);      // exactly 0.5
  EXPECT_EQ(l->value(2, 0), L);
  EXPECT_EQ(l->value(3, 0), 9);  // previous label other than L
  EXPECT_EQ(l->value(4, 0), L + 1);
  EXPECT_EQ(l->value(5, 0), 0);  // previous 0 differs from L as well
}

class ConvertOutside : public testing::TestWithParam<bool> {};

TEST_P(ConvertOutside, ClearsOnlyWhenAsked) {
  const bool clearOutside = GetParam();
  auto p = FloatImage::zeros(Eigen::Vector3i(4, 1, 1));
  for (int x = 0; x < 4; ++x) p->setValue(1.0f, x, 0);
  auto l = labels(4, 1, 1, {{0, 0, 0, 255}, {1, 0, 0, 255}, {3, 0, 0, 8}});
  // Without a previous map; box is x in [2, 2].
  convertToLabels(*p, *l, nullptr, L, {2, 0, 0}, {1, 1, 1}, clearOutside);
  EXPECT_EQ(l->value(2, 0), L);
  EXPECT_EQ(l->value(0, 0), clearOutside ? L + 1 : 255);
  EXPECT_EQ(l->value(3, 0), clearOutside ? L + 1 : 8);
  // With one: outside the box its labels other than L are copied, L gives L + 1.
  auto prev = labels(4, 1, 1, {{0, 0, 0, 6}, {3, 0, 0, L}});
  auto l2 = labels(4, 1, 1, {{0, 0, 0, 255}, {3, 0, 0, 8}});
  convertToLabels(*p, *l2, prev.get(), L, {2, 0, 0}, {1, 1, 1}, clearOutside);
  EXPECT_EQ(l2->value(0, 0), clearOutside ? 6 : 255);
  EXPECT_EQ(l2->value(3, 0), clearOutside ? L + 1 : 8);
}

INSTANTIATE_TEST_SUITE_P(Both, ConvertOutside, testing::Bool());

// --- Serial equals parallel, on slice counts round the chunk edges.

class StepsThreads : public testing::TestWithParam<int> {};

TEST_P(StepsThreads, OutlineAndConversionDoNotDependOnThreads) {
  const int slices = GetParam();
  const Eigen::Vector3i dims(11, 9, slices);
  std::mt19937 rng(7 + slices);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  auto p = FloatImage::zeros(dims);
  auto start = U8Image::zeros(dims);
  const size_t n = p->descriptor().elementCount();
  for (size_t i = 0; i < n; ++i) {
    p->pointer()[i] = u(rng);
    start->pointer()[i] = static_cast<unsigned char>(u(rng) < 0.2f ? 255 : (u(rng) < 0.5f ? L : 0));
  }
  const Eigen::Vector3i offset(1, 0, 0), size(9, 9, slices);
  auto run = [&](int threads, bool& border) {
    Threads t(threads);
    auto l = U8Image::zeros(dims);
    std::copy(start->pointer(), start->pointer() + n, l->pointer());
    border = drawOutline(*p, *l, offset, size);
    auto converted = U8Image::zeros(dims);
    convertToLabels(*p, *converted, l.get(), L, offset, size, true);
    std::vector<unsigned char> out(l->pointer(), l->pointer() + n);
    out.insert(out.end(), converted->pointer(), converted->pointer() + n);
    return out;
  };
  bool serialBorder = false, parallelBorder = false;
  const auto serial = run(1, serialBorder);
  const auto parallel = run(4, parallelBorder);
  EXPECT_EQ(serial, parallel);
  EXPECT_EQ(serialBorder, parallelBorder);
  EXPECT_TRUE(serialBorder);  // random values above 0.5 reach the border rows
}

INSTANTIATE_TEST_SUITE_P(Slices, StepsThreads, testing::Values(1, 7, 9, 33));
