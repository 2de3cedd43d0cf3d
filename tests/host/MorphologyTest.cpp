// Dilation and erosion with a Euclidean ball: hand-counted balls, the image border, a
// brute-force reference on random label images (both the windowed passes and the parabola
// envelope, which takes over above radius 16), opening and closing, the algorithm's settings,
// and one thread against many.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <random>

#include "AlgorithmUtils.h"
#include "MorphologicalOperationsAlgorithm.h"
#include "Properties.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

using Img = TypedImage<unsigned char>;

struct Threads {
  explicit Threads(int n) : saved(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~Threads() { omp_set_num_threads(saved); }
  int saved;
};

std::vector<unsigned char> voxels(const Img& img) {
  return {img.pointer(), img.pointer() + img.descriptor().pixelCount()};
}

size_t countNonZero(const Img& img) {
  const auto v = voxels(img);
  return static_cast<size_t>(std::count_if(v.begin(), v.end(), [](unsigned char c) { return c != 0; }));
}

// Labels 1..labels at the given density, else 0.
std::unique_ptr<Img> randomLabels(const Eigen::Vector3i& d, double density, int labels, unsigned seed) {
  std::mt19937 rng(seed);
  std::bernoulli_distribution fg(density);
  auto img = Img::zeros(d);
  for (size_t i = 0; i < img->descriptor().pixelCount(); ++i)
    img->pointer()[i] = fg(rng) ? static_cast<unsigned char>(1 + rng() % labels) : 0;
  return img;
}

int64_t dist2(const Eigen::Vector3i& a, const Eigen::Vector3i& b) { return (a - b).cast<int64_t>().squaredNorm(); }

// Dilation by brute force: for each background voxel the set of labels at the smallest
// distance to a labelled voxel, when that distance is within r (empty otherwise).
std::vector<std::vector<unsigned char>> dilationCandidates(const Img& img, int r) {
  const Eigen::Vector3i d = img.dimensions();
  std::vector<std::vector<unsigned char>> out(img.descriptor().pixelCount());
  size_t i = 0;
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x, ++i) {
        if (img.value(x, y, z)) {
          out[i] = {img.value(x, y, z)};
          continue;
        }
        int64_t best = static_cast<int64_t>(r) * r + 1;
        std::vector<unsigned char> labels;
        for (int w = std::max(0, z - r); w <= std::min(d[2] - 1, z + r); ++w)
          for (int v = std::max(0, y - r); v <= std::min(d[1] - 1, y + r); ++v)
            for (int u = std::max(0, x - r); u <= std::min(d[0] - 1, x + r); ++u) {
              const unsigned char l = img.value(u, v, w);
              if (!l) continue;
              const int64_t s = dist2({x, y, z}, {u, v, w});
              if (s > static_cast<int64_t>(r) * r) continue;
              if (s < best) {
                best = s;
                labels = {l};
              } else if (s == best && std::find(labels.begin(), labels.end(), l) == labels.end()) {
                labels.push_back(l);
              }
            }
        out[i] = labels;
      }
  return out;
}

std::vector<unsigned char> erosionReference(const Img& img, int r) {
  const Eigen::Vector3i d = img.dimensions();
  std::vector<unsigned char> out = voxels(img);
  size_t i = 0;
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x, ++i) {
        if (!out[i]) continue;
        for (int w = std::max(0, z - r); w <= std::min(d[2] - 1, z + r) && out[i]; ++w)
          for (int v = std::max(0, y - r); v <= std::min(d[1] - 1, y + r) && out[i]; ++v)
            for (int u = std::max(0, x - r); u <= std::min(d[0] - 1, x + r); ++u)
              if (!img.value(u, v, w) && dist2({x, y, z}, {u, v, w}) <= static_cast<int64_t>(r) * r) {
                out[i] = 0;
                break;
              }
      }
  return out;
}

void expectDilation(const Img& before, const Img& after, int r, const std::string& what) {
  const auto candidates = dilationCandidates(before, r);
  const auto got = voxels(after);
  for (size_t i = 0; i < got.size(); ++i) {
    if (candidates[i].empty()) {
      ASSERT_EQ(got[i], 0) << what << " voxel " << i;
    } else {
      ASSERT_NE(std::find(candidates[i].begin(), candidates[i].end(), got[i]), candidates[i].end())
          << what << " voxel " << i << " got " << int(got[i]);
    }
  }
}

TEST(Morphology, DilatingOneVoxelGivesTheDigitalBall) {
  // In 3D: 1 + 6 at radius 1; 2 adds 12 edge, 8 corner and 6 face neighbours at distance 2.
  for (auto [r, expected] : {std::pair{1, 7}, std::pair{2, 33}, std::pair{3, 123}}) {
    auto img = Img::zeros({11, 11, 11});
    img->setValue(5, 5, 5, 5);
    ASSERT_TRUE(Morphology::dilate(*img, r));
    EXPECT_EQ(countNonZero(*img), static_cast<size_t>(expected)) << "radius " << r;
    EXPECT_EQ(img->value(5 + r, 5, 5), 5);
    EXPECT_EQ(img->value(5 + r, 5 + 1, 5), 0);  // r^2 + 1 away
  }
  // In 2D the ball is a disc: 5, 13, 29 pixels.
  for (auto [r, expected] : {std::pair{1, 5}, std::pair{2, 13}, std::pair{3, 29}}) {
    auto img = Img::zeros({9, 9, 1});
    img->setValue(1, 4, 4);
    ASSERT_TRUE(Morphology::dilate(*img, r));
    EXPECT_EQ(countNonZero(*img), static_cast<size_t>(expected)) << "radius " << r;
  }
}

TEST(Morphology, ErosionShrinksACubeAndTheBorderErodesNothing) {
  auto img = Img::zeros({9, 9, 9});
  for (int z = 2; z < 7; ++z)
    for (int y = 2; y < 7; ++y)
      for (int x = 2; x < 7; ++x) img->setValue(3, x, y, z);
  ASSERT_TRUE(Morphology::erode(*img, 1));
  EXPECT_EQ(countNonZero(*img), 27u);
  EXPECT_EQ(img->value(3, 3, 3), 3);
  EXPECT_EQ(img->value(2, 4, 4), 0);
  // A full image has no background to erode from.
  auto full = Img::zeros({6, 5, 4});
  full->fill(1);
  ASSERT_TRUE(Morphology::erode(*full, 2));
  EXPECT_EQ(countNonZero(*full), 120u);
  // A slab along the border erodes only from its inner face.
  auto slab = Img::zeros({6, 6, 1});
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 3; ++x) slab->setValue(1, x, y);
  ASSERT_TRUE(Morphology::erode(*slab, 1));
  EXPECT_EQ(countNonZero(*slab), 12u);
  EXPECT_EQ(slab->value(1, 0), 1);
  EXPECT_EQ(slab->value(2, 0), 0);
}

TEST(Morphology, TouchingLabelsDoNotErodeEachOther) {
  auto img = Img::zeros({8, 1, 1});
  const unsigned char row[8] = {1, 1, 1, 1, 2, 2, 2, 0};
  std::copy_n(row, 8, img->pointer());
  ASSERT_TRUE(Morphology::erode(*img, 1));
  EXPECT_EQ(voxels(*img), (std::vector<unsigned char>{1, 1, 1, 1, 2, 2, 0, 0}));
}

TEST(Morphology, DilationTakesTheNearestLabel) {
  auto img = Img::zeros({9, 1, 1});
  img->pointer()[0] = 4;
  img->pointer()[5] = 9;
  ASSERT_TRUE(Morphology::dilate(*img, 3));
  EXPECT_EQ(voxels(*img), (std::vector<unsigned char>{4, 4, 4, 9, 9, 9, 9, 9, 9}));
}

TEST(Morphology, SizeZeroAndEmptyImagesChangeNothingAndBadInputIsRefused) {
  auto img = randomLabels({5, 5, 5}, 0.3, 3, 5);
  const auto before = voxels(*img);
  EXPECT_TRUE(Morphology::dilate(*img, 0));
  EXPECT_TRUE(Morphology::erode(*img, 0));
  EXPECT_EQ(voxels(*img), before);
  auto empty = Img::zeros({5, 5, 5});
  EXPECT_TRUE(Morphology::dilate(*empty, 3));
  EXPECT_EQ(countNonZero(*empty), 0u);
  EXPECT_FALSE(Morphology::dilate(*img, -1));
  auto f = TypedImage<float>::zeros(Eigen::Vector3i(3, 3, 3));
  EXPECT_FALSE(Morphology::dilate(*f, 1));
  auto two = Img::zeros({3, 3, 1}, 2);
  EXPECT_FALSE(Morphology::dilate(*two, 1));
}

class MorphologyRandom : public testing::TestWithParam<std::tuple<Eigen::Vector3i, int>> {};

TEST_P(MorphologyRandom, EqualsTheBruteForceBall) {
  const auto [d, r] = GetParam();
  for (unsigned seed = 1; seed <= 3; ++seed) {
    for (double density : {0.03, 0.3, 0.8}) {
      const auto original = randomLabels(d, density, 3, seed * 7 + r);
      const std::string what = "seed " + std::to_string(seed) + " density " + std::to_string(density);
      auto dilated = original->cloneTyped();
      ASSERT_TRUE(Morphology::dilate(*dilated, r));
      expectDilation(*original, *dilated, r, "dilation " + what);
      auto eroded = original->cloneTyped();
      ASSERT_TRUE(Morphology::erode(*eroded, r));
      ASSERT_EQ(voxels(*eroded), erosionReference(*original, r)) << "erosion " << what;
      // Binary opening and closing against the two references in a row.
      auto binary = original->cloneTyped();
      for (size_t i = 0; i < binary->descriptor().pixelCount(); ++i) binary->pointer()[i] = binary->pointer()[i] ? 255 : 0;
      auto opened = binary->cloneTyped();
      ASSERT_TRUE(Morphology::apply(*opened, Morphology::Opening, r));
      auto step = binary->cloneTyped();
      const auto e = erosionReference(*step, r);
      std::copy(e.begin(), e.end(), step->pointer());
      expectDilation(*step, *opened, r, "opening " + what);
      auto closed = binary->cloneTyped();
      ASSERT_TRUE(Morphology::apply(*closed, Morphology::Closing, r));
      auto grown = binary->cloneTyped();
      ASSERT_TRUE(Morphology::dilate(*grown, r));
      expectDilation(*binary, *grown, r, "closing's dilation " + what);
      ASSERT_EQ(voxels(*closed), erosionReference(*grown, r)) << "closing " << what;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    ShapesAndRadii, MorphologyRandom,
    testing::Combine(testing::Values(Eigen::Vector3i(23, 1, 1), Eigen::Vector3i(15, 12, 1), Eigen::Vector3i(9, 8, 7),
                                     Eigen::Vector3i(1, 10, 9)),
                     testing::Values(1, 2, 3, 5)));

// Radii above 16 take the parabola envelope; the images must be large enough for it to matter.
INSTANTIATE_TEST_SUITE_P(Envelope, MorphologyRandom,
                         testing::Combine(testing::Values(Eigen::Vector3i(48, 40, 1), Eigen::Vector3i(40, 1, 1),
                                                          Eigen::Vector3i(22, 20, 5)),
                                          testing::Values(17, 20)));

TEST(Morphology, EnvelopeAndWindowAgreeAtTheSwitch) {
  // Radius 16 runs windowed, 17 through the envelope: a ball of 17 is a ball of 16 grown by
  // one voxel's worth of distance, so compare each with its own brute force on one image.
  const auto original = randomLabels({40, 36, 1}, 0.01, 1, 3);
  for (int r : {16, 17}) {
    auto img = original->cloneTyped();
    ASSERT_TRUE(Morphology::dilate(*img, r));
    expectDilation(*original, *img, r, "radius " + std::to_string(r));
  }
}

TEST(Morphology, OneThreadGivesTheSameAsMany) {
  for (int r : {3, 18}) {
    const auto original = randomLabels({64, 56, 48}, 0.02, 5, 11);
    auto serial = original->cloneTyped(), parallel = original->cloneTyped();
    {
      Threads one(1);
      ASSERT_TRUE(Morphology::dilate(*serial, r));
      ASSERT_TRUE(Morphology::erode(*serial, r / 2));
    }
    {
      Threads many(4);
      ASSERT_TRUE(Morphology::dilate(*parallel, r));
      ASSERT_TRUE(Morphology::erode(*parallel, r / 2));
    }
    EXPECT_EQ(voxels(*serial), voxels(*parallel)) << "radius " << r;
  }
}

TEST(MorphologicalOperationsAlgorithm, InPlaceOrACopyOfEveryFrame) {
  auto set = std::make_unique<SharedImageSet>();
  for (int f = 0; f < 2; ++f) {
    auto img = Img::zeros({7, 7, 1});
    img->setValue(2, 3, 3);
    set->add(std::shared_ptr<Image>(std::move(img)));
  }
  {
    MorphologicalOperationsAlgorithm a(set.get());
    a.setOpMode(0);
    a.setOpSize(1);
    a.setInPlace(false);
    a.compute();
    ASSERT_EQ(a.status(), Algorithm::statusSuccess);
    auto out = a.takeOutput().extractFirstImage();
    ASSERT_TRUE(out);
    ASSERT_EQ(out->size(), 2);
    EXPECT_EQ(countNonZero(*static_cast<Img*>(out->mem(1))), 5u);
    EXPECT_EQ(countNonZero(*static_cast<Img*>(set->mem(1))), 1u);
  }
  Properties config;
  config.setParam("opMode", 0);
  config.setParam("opSize", 2);
  auto none = AlgorithmUtils::execute<MorphologicalOperationsAlgorithm>(DataList{set.get()}, config);
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->empty());
  EXPECT_EQ(countNonZero(*static_cast<Img*>(set->mem(0))), 13u);
  EXPECT_EQ(countNonZero(*static_cast<Img*>(set->mem(1))), 13u);
  config.setParam("opMode", 1);
  config.setParam("opSize", 1);
  ASSERT_TRUE(AlgorithmUtils::execute<MorphologicalOperationsAlgorithm>(DataList{set.get()}, config));
  EXPECT_EQ(countNonZero(*static_cast<Img*>(set->mem(0))), 5u);
}

TEST(MorphologicalOperationsAlgorithm, RefusesFloatImagesAndBadSettings) {
  auto f = TestKit::makeSet(F32, {4, 4, 1});
  EXPECT_FALSE(MorphologicalOperationsAlgorithm::createCompatible(DataList{f.get()}));
  auto u16 = TestKit::makeSet(U16, {4, 4, 1});
  EXPECT_TRUE(MorphologicalOperationsAlgorithm::createCompatible(DataList{u16.get()}));
  TestKit::LogCapture log;
  MorphologicalOperationsAlgorithm a(u16.get());
  a.setOpMode(4);
  a.compute();
  EXPECT_EQ(a.status(), Algorithm::statusInvalidInput);
  a.setOpMode(1);
  a.setOpSize(-2);
  a.compute();
  EXPECT_EQ(a.status(), Algorithm::statusInvalidInput);
}

}  // namespace
}  // namespace Merivane
