// Connected components: hand-checked small images, a breadth-first reference on random images
// of every shape, the selection rules, the algorithm's outputs, and one thread against many.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <deque>
#include <map>
#include <numeric>
#include <random>

#include "AlgorithmUtils.h"
#include "ConnectedComponentsAlgorithm.h"
#include "Properties.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

using ConnectedComponents::Labeling;

struct Threads {
  explicit Threads(int n) : saved(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~Threads() { omp_set_num_threads(saved); }
  int saved;
};

// Rows of characters, '#' foreground; slices separated by an empty string.
std::unique_ptr<TypedImage<unsigned char>> picture(const std::vector<std::string>& rows) {
  std::vector<std::vector<std::string>> slices(1);
  for (const auto& r : rows) {
    if (r.empty())
      slices.emplace_back();
    else
      slices.back().push_back(r);
  }
  const Eigen::Vector3i d(static_cast<int>(slices[0][0].size()), static_cast<int>(slices[0].size()),
                          static_cast<int>(slices.size()));
  auto img = TypedImage<unsigned char>::zeros(d);
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x) img->setValue(slices[z][y][x] == '#' ? 7 : 0, x, y, z);
  return img;
}

std::unique_ptr<TypedImage<unsigned char>> randomImage(const Eigen::Vector3i& d, double density, unsigned seed) {
  std::mt19937 rng(seed);
  std::bernoulli_distribution fg(density);
  auto img = TypedImage<unsigned char>::zeros(d);
  for (size_t i = 0; i < img->descriptor().pixelCount(); ++i) img->pointer()[i] = fg(rng) ? 1 + rng() % 200 : 0;
  return img;
}

// Breadth-first labelling, components numbered in scan order of their first voxel.
std::vector<int64_t> reference(const TypedImage<unsigned char>& img, std::vector<uint64_t>& sizes) {
  const Eigen::Vector3i d = img.dimensions();
  std::vector<int64_t> label(img.descriptor().pixelCount(), -1);
  sizes.clear();
  auto idx = [&](int x, int y, int z) { return (static_cast<size_t>(z) * d[1] + y) * d[0] + x; };
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x) {
        if (!img.value(x, y, z) || label[idx(x, y, z)] >= 0) continue;
        const int64_t c = static_cast<int64_t>(sizes.size());
        sizes.push_back(0);
        std::deque<Eigen::Vector3i> queue{{x, y, z}};
        label[idx(x, y, z)] = c;
        while (!queue.empty()) {
          const Eigen::Vector3i p = queue.front();
          queue.pop_front();
          ++sizes.back();
          for (int a = 0; a < 3; ++a)
            for (int s : {-1, 1}) {
              Eigen::Vector3i q = p;
              q[a] += s;
              if ((q.array() < 0).any() || (q.array() >= d.array()).any()) continue;
              if (!img.value(q[0], q[1], q[2]) || label[idx(q[0], q[1], q[2])] >= 0) continue;
              label[idx(q[0], q[1], q[2])] = c;
              queue.push_back(q);
            }
        }
      }
  return label;
}

std::vector<unsigned> values(const MemImage& m) {
  std::vector<unsigned> v(m.descriptor().pixelCount());
  dispatchPixelType(m.type(), [&](auto tag) {
    using T = decltype(tag);
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<unsigned>(static_cast<const T*>(m.data())[i]);
  });
  return v;
}

TEST(ConnectedComponents, FaceNeighboursConnectAndCornersDoNot) {
  const auto img = picture({
      "##..#",
      "#...#",
      ".#..#",
      "..##.",
  });
  const Labeling l = Labeling::compute(*img);
  // Components in scan order: the L at the top left (3), the column on the right (3), the lone
  // (1, 2), which touches the L only by a corner, and the pair at the bottom.
  ASSERT_EQ(l.componentCount(), 4u);
  EXPECT_EQ(l.sizes(), (std::vector<uint64_t>{3, 3, 1, 2}));
  const auto c = l.componentImage();
  EXPECT_EQ(c[0], 0);
  EXPECT_EQ(c[5], 0);
  EXPECT_EQ(c[4], 1);
  EXPECT_EQ(c[11], 2);
  EXPECT_EQ(c[17], 3);
  EXPECT_EQ(c[2], -1);
}

TEST(ConnectedComponents, SlicesConnectThroughFacesOnly) {
  const auto img = picture({"#..", "...", "", "#..", "...", "", "...", ".#.", "", "...", ".#."});
  const Labeling l = Labeling::compute(*img);
  // (0,0) in slices 0 and 1 is one component; (1,1) in slices 2 and 3 another, which meets the
  // first only at a corner.
  EXPECT_EQ(l.sizes(), (std::vector<uint64_t>{2, 2}));
}

TEST(ConnectedComponents, SelectionKeepsTheLargestAndDropsTheSmall) {
  const auto img = picture({
      "###.#.##",
      "........",
      "##.#####",
  });
  const Labeling l = Labeling::compute(*img);
  ASSERT_EQ(l.sizes(), (std::vector<uint64_t>{3, 1, 2, 2, 5}));
  EXPECT_EQ(l.select(0, 0), (std::vector<uint32_t>{2, 5, 3, 4, 1}));
  EXPECT_EQ(l.select(2, 0), (std::vector<uint32_t>{2, 0, 0, 0, 1}));
  // Equal sizes: the earlier one in scan order wins.
  EXPECT_EQ(l.select(3, 0), (std::vector<uint32_t>{2, 0, 3, 0, 1}));
  EXPECT_EQ(l.select(0, 3), (std::vector<uint32_t>{2, 0, 0, 0, 1}));
  EXPECT_EQ(l.select(1, 3), (std::vector<uint32_t>{0, 0, 0, 0, 1}));
  EXPECT_EQ(l.select(0, 6), (std::vector<uint32_t>{0, 0, 0, 0, 0}));
}

TEST(ConnectedComponents, EmptyAndFullImages) {
  auto empty = TypedImage<unsigned char>::zeros(Eigen::Vector3i(4, 3, 2));
  EXPECT_EQ(Labeling::compute(*empty).componentCount(), 0u);
  empty->fill(1);
  const Labeling full = Labeling::compute(*empty);
  EXPECT_EQ(full.sizes(), (std::vector<uint64_t>{24}));
}

class ConnectedComponentsRandom : public testing::TestWithParam<std::tuple<Eigen::Vector3i, double>> {};

TEST_P(ConnectedComponentsRandom, EqualsBreadthFirstLabelling) {
  const auto [d, density] = GetParam();
  for (unsigned seed = 1; seed <= 6; ++seed) {
    const auto img = randomImage(d, density, seed * 31 + d[0]);
    std::vector<uint64_t> sizes;
    const auto expected = reference(*img, sizes);
    const Labeling l = Labeling::compute(*img);
    ASSERT_EQ(l.sizes(), sizes) << "seed " << seed;
    ASSERT_EQ(l.componentImage(), expected) << "seed " << seed;
    // Selection against a sort of the reference sizes.
    for (int n : {0, 1, 3}) {
      for (uint64_t minSize : {uint64_t(0), uint64_t(2), uint64_t(5)}) {
        std::vector<uint32_t> order(sizes.size());
        std::iota(order.begin(), order.end(), 0u);
        std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
          return sizes[a] != sizes[b] ? sizes[a] > sizes[b] : a < b;
        });
        std::vector<uint32_t> rank(sizes.size(), 0);
        uint32_t kept = 0;
        for (uint32_t c : order)
          if (sizes[c] >= minSize && (n == 0 || kept < static_cast<uint32_t>(n))) rank[c] = ++kept;
        EXPECT_EQ(l.select(n, minSize), rank) << "n " << n << " minSize " << minSize;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, ConnectedComponentsRandom,
    testing::Combine(testing::Values(Eigen::Vector3i(1, 1, 1), Eigen::Vector3i(17, 1, 1), Eigen::Vector3i(1, 13, 1),
                                     Eigen::Vector3i(12, 9, 1), Eigen::Vector3i(1, 1, 11), Eigen::Vector3i(7, 6, 5),
                                     Eigen::Vector3i(13, 11, 9)),
                     testing::Values(0.2, 0.45, 0.6, 0.9)));

TEST(ConnectedComponents, OneThreadGivesTheSameAsMany) {
  const auto img = randomImage({64, 48, 40}, 0.5, 99);
  std::vector<int64_t> serial, parallel;
  std::vector<uint64_t> serialSizes;
  {
    Threads one(1);
    const Labeling l = Labeling::compute(*img);
    serial = l.componentImage();
    serialSizes = l.sizes();
  }
  {
    Threads many(4);
    const Labeling l = Labeling::compute(*img);
    parallel = l.componentImage();
    EXPECT_EQ(l.sizes(), serialSizes);
  }
  EXPECT_EQ(serial, parallel);
}

TEST(ConnectedComponentsAlgorithm, BinaryMaskOfTheKeptComponents) {
  auto set = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(picture({
      "###.#.##",
      "........",
      "##.#####",
  })));
  set->get()->setSpacing(Eigen::Vector3d(0.5, 2, 3));
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m(0, 3) = 12;
  set->get()->setMatrix(m);
  ConnectedComponentsAlgorithm a(set.get());
  a.setNumComponents(2);
  a.setLabelComponents(false);
  a.compute();
  ASSERT_EQ(a.status(), Algorithm::statusSuccess);
  auto out = a.takeOutput().extractFirstImage();
  ASSERT_TRUE(out);
  EXPECT_EQ(out->modality(), Data::LABEL);
  EXPECT_EQ(out->mem()->type(), U8);
  EXPECT_EQ(out->mem()->spacing(), Eigen::Vector3d(0.5, 2, 3));
  EXPECT_EQ(out->get()->matrix(), m);
  const std::vector<unsigned> expected = {255, 255, 255, 0, 0, 0, 0, 0,  //
                                          0,   0,   0,   0, 0, 0, 0, 0,  //
                                          0,   0,   0,   255, 255, 255, 255, 255};
  EXPECT_EQ(values(*out->mem()), expected);
}

TEST(ConnectedComponentsAlgorithm, LabelsByRankAndWidensTheTypeBeyond255) {
  // 20 x 30 isolated pixels: 600 components of one voxel.
  auto set = TestKit::makeImage<unsigned char>({40, 60, 1}, [](int x, int y, int) { return x % 2 == 0 && y % 2 == 0; });
  Properties config;
  config.setParam("minSize", 1ul);
  auto out = AlgorithmUtils::execute<ConnectedComponentsAlgorithm>(DataList{set.get()}, config);
  ASSERT_TRUE(out);
  auto labels = out->extractFirstImage();
  ASSERT_TRUE(labels);
  ASSERT_EQ(labels->mem()->type(), U16);
  const auto v = values(*labels->mem());
  EXPECT_EQ(v[0], 1u);           // equal sizes: scan order
  EXPECT_EQ(v[2], 2u);
  EXPECT_EQ(v[40 * 2], 21u);     // the second row of pixels
  EXPECT_EQ(v[40 * 58 + 38], 600u);
  EXPECT_EQ(v[1], 0u);

  auto small = TestKit::makeImage<unsigned char>({5, 1, 1}, [](int x, int, int) { return x != 2; });
  auto out2 = AlgorithmUtils::execute<ConnectedComponentsAlgorithm>(DataList{small.get()}, Properties());
  ASSERT_TRUE(out2);
  auto l2 = out2->extractFirstImage();
  EXPECT_EQ(l2->mem()->type(), U8);
  EXPECT_EQ(values(*l2->mem()), (std::vector<unsigned>{1, 1, 0, 2, 2}));
}

TEST(ConnectedComponentsAlgorithm, EveryFrameAndAnyPixelType) {
  auto set = std::make_unique<SharedImageSet>();
  for (int f = 0; f < 2; ++f) {
    auto img = TypedImage<float>::zeros(Eigen::Vector3i(4, 1, 1));
    img->pointer()[f] = -0.5f;
    img->pointer()[3] = 2.0f;
    set->add(std::shared_ptr<Image>(std::move(img)));
  }
  ConnectedComponentsAlgorithm a(set.get());
  a.setNumComponents(1);
  a.setLabelComponents(false);
  a.compute();
  auto out = a.takeOutput().extractFirstImage();
  ASSERT_TRUE(out);
  ASSERT_EQ(out->size(), 2);
  // Both components have one voxel: the earlier one is kept.
  EXPECT_EQ(values(*out->mem(0)), (std::vector<unsigned>{255, 0, 0, 0}));
  EXPECT_EQ(values(*out->mem(1)), (std::vector<unsigned>{0, 255, 0, 0}));
}

TEST(ConnectedComponentsAlgorithm, RefusesSeveralChannelsAndBadSettings) {
  auto rgb = TestKit::makeSet(U8, {4, 4, 1}, 1, 3);
  EXPECT_FALSE(ConnectedComponentsAlgorithm::createCompatible(DataList{rgb.get()}));
  auto set = TestKit::makeSet(U8, {4, 4, 1});
  EXPECT_TRUE(ConnectedComponentsAlgorithm::createCompatible(DataList{set.get()}));
  TestKit::LogCapture log;
  ConnectedComponentsAlgorithm a(set.get());
  a.setNumComponents(-1);
  a.compute();
  EXPECT_EQ(a.status(), Algorithm::statusInvalidInput);
  EXPECT_TRUE(a.takeOutput().empty());
}

}  // namespace
}  // namespace Merivane
