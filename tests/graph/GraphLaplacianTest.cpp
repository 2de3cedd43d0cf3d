#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <Eigen/SparseCore>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <limits>
#include <random>

#include "GraphLaplacianImage.h"
#include "Log.h"
#include "SharedImageSet.h"
#include "SystemReduction.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

// A frame with channel values f(x, y, z, c).
template <typename T, typename F>
std::shared_ptr<SharedImage> frame(const Eigen::Vector3i& dims, int channels, F f) {
  auto img = TypedImage<T>::zeros(dims, channels);
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x)
        for (int c = 0; c < channels; ++c) img->setValue(static_cast<T>(f(x, y, z, c)), x, y, z, c);
  return std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(img)));
}

std::shared_ptr<SharedImage> seeds(const Eigen::Vector3i& dims, std::function<int(int, int, int)> f) {
  return frame<unsigned char>(dims, 1, [&](int x, int y, int z, int) { return f(x, y, z); });
}

Eigen::MatrixXf dense(const GraphLaplacian::SparseMatrixF& m) { return Eigen::MatrixXf(m); }

}  // namespace

TEST(GraphLaplacian, EdgeWeightIsOneAtTheSmallestDifferenceAndFloorsAtEpsilon) {
  EXPECT_FLOAT_EQ(GraphLaplacian::computeEdgeWeight(3.0f, 10.0f, 3.0f, 1e-5f), 1.0f + 1e-5f);
  EXPECT_FLOAT_EQ(GraphLaplacian::computeEdgeWeight(-3.0f, 10.0f, 3.0f, 1e-5f), 1.0f + 1e-5f);  // |d|
  EXPECT_FLOAT_EQ(GraphLaplacian::computeEdgeWeight(1000.0f, 10.0f, 0.0f, 1e-5f), 1e-5f);
}

TEST(GraphLaplacian, DecisionRuleSendsHalfAndNaNToBackground) {
  GraphLaplacianImage g;
  g.activeLabel = 3;
  EXPECT_EQ(g.decide(0.5f), 4);
  EXPECT_EQ(g.decide(std::nextafter(0.5f, 1.0f)), 3);
  EXPECT_EQ(g.decide(std::numeric_limits<float>::quiet_NaN()), 4);
  EXPECT_EQ(g.decide(1.0f), 3);
}

// 2D and 3D images of every channel count: the Laplacian is symmetric, its columns sum to
// zero, off-diagonals are minus the weights of the 4- or 6-neighbourhood, and the node lists
// partition the nodes.
class LaplacianInvariants : public ::testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(LaplacianInvariants, SymmetricZeroColumnSumsAndNeighbourhood) {
  const auto [slices, channels] = GetParam();
  const Eigen::Vector3i dims(5, 4, slices);
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(0.0f, 100.0f);
  auto img = frame<float>(dims, channels, [&](int, int, int, int) { return u(rng); });
  auto lab = seeds(dims, [](int x, int y, int z) { return x == 0 && y == 0 && z == 0 ? 1 : (x == 4 ? 2 : 0); });
  GraphLaplacianImage g;
  g.generateGraph(*img, *lab);
  const Eigen::MatrixXf L = dense(g.laplacian());
  const int n = 5 * 4 * slices;
  ASSERT_EQ(L.rows(), n);
  EXPECT_TRUE(L.isApprox(L.transpose()));
  EXPECT_LT(L.colwise().sum().cwiseAbs().maxCoeff(), 1e-5f);
  int edges = 0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      if (i != j && L(i, j) != 0.0f) {
        ++edges;
        const int d = std::abs(i - j);
        EXPECT_TRUE(d == 1 || d == 5 || d == 20) << i << " " << j;
        EXPECT_LT(L(i, j), 0.0f);
        EXPECT_GE(-L(i, j), 1e-5f);
        EXPECT_LE(-L(i, j), 1.0f + 2e-5f);
      }
  const int expected = 2 * (4 * 4 * slices + 5 * 3 * slices + 5 * 4 * (slices - 1));
  EXPECT_EQ(edges, expected);
  EXPECT_EQ(g.seedIndices().size() + g.unknownIndices().size(), static_cast<size_t>(n));
  EXPECT_TRUE(std::is_sorted(g.unknownIndices().begin(), g.unknownIndices().end()));
}

INSTANTIATE_TEST_SUITE_P(Shapes, LaplacianInvariants,
                         ::testing::Combine(::testing::Values(1, 3), ::testing::Values(1, 2, 4)));

TEST(GraphLaplacianImage, ConstantImageGivesWeightsOfOnePlusEpsilon) {
  auto img = frame<unsigned short>({4, 3, 2}, 1, [](int, int, int, int) { return 77; });
  auto lab = seeds({4, 3, 2}, [](int, int, int) { return 0; });
  GraphLaplacianImage g;
  g.generateGraph(*img, *lab);
  const auto& L = g.laplacian();
  for (int c = 0; c < L.outerSize(); ++c)
    for (GraphLaplacian::SparseMatrixF::InnerIterator it(L, c); it; ++it) {
      if (it.row() != it.col()) {
        EXPECT_FLOAT_EQ(it.value(), -(1.0f + 1e-5f));
      }
    }
}

TEST(GraphLaplacianImage, SinglePixelHasNegativeZeroDiagonalAndOneRowHasOnlyHorizontalEdges) {
  auto one = frame<float>({1, 1, 1}, 1, [](int, int, int, int) { return 5; });
  auto lab = seeds({1, 1, 1}, [](int, int, int) { return 0; });
  GraphLaplacianImage g;
  g.generateGraph(*one, *lab);
  ASSERT_EQ(g.laplacian().nonZeros(), 1);
  const float d = g.laplacian().coeff(0, 0);
  EXPECT_EQ(d, 0.0f);
  EXPECT_TRUE(std::signbit(d));

  auto row = frame<float>({6, 1, 1}, 1, [](int x, int, int, int) { return x; });
  auto rowLab = seeds({6, 1, 1}, [](int, int, int) { return 0; });
  g.generateGraph(*row, *rowLab);
  EXPECT_EQ(g.laplacian().nonZeros(), 6 + 2 * 5);
}

TEST(GraphLaplacianImage, EdgeDifferenceIsTheSumOfChannelDifferences) {
  // Two pixels, three channels: differences 1, 2 and 4 give d = 7; with a second edge of d = 0
  // the range is 7, and the weight of the first edge is exp(-adaptiveness) + 1e-5.
  auto img = frame<float>({3, 1, 1}, 3, [](int x, int, int, int c) { return x == 0 ? (1 << c) : 0; });
  auto lab = seeds({3, 1, 1}, [](int, int, int) { return 0; });
  GraphLaplacianImage g;
  g.adaptiveness = 2.0;
  g.generateGraph(*img, *lab);
  EXPECT_FLOAT_EQ(-g.laplacian().coeff(0, 1), std::exp(-2.0f) + 1e-5f);
  EXPECT_FLOAT_EQ(-g.laplacian().coeff(1, 2), 1.0f + 1e-5f);
}

TEST(GraphLaplacianImage, SeedRuleRoundsLabelValuesAndTreatsOthersAsUnknown) {
  auto img = frame<float>({6, 1, 1}, 1, [](int, int, int, int) { return 0; });
  // Stored values with scale 2: 4 reads as 2, 3 as 1.5 + 0.5 = 2, 2 as 1.
  auto lab = seeds({6, 1, 1}, [](int x, int, int) { return std::array<int, 6>{0, 2, 3, 4, 6, 255}[x]; });
  lab->setShiftScale(0.0, 2.0);
  GraphLaplacianImage g;
  g.generateGraph(*img, *lab);
  EXPECT_EQ(g.seedIndices(), (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_EQ(g.seedValues(), (std::vector<float>{1.0f, 0.0f, 0.0f}));
  EXPECT_EQ(g.unknownIndices(), (std::vector<uint64_t>{0, 4, 5}));
}

TEST(GraphLaplacianImage, ImageEdgesAsBackgroundSeedsTheBorderOfVolumesAndEverythingIn2D) {
  GraphLaplacianImage g;
  g.imageEdgesAsBackground = true;
  auto vol = frame<float>({4, 4, 4}, 1, [](int, int, int, int) { return 0; });
  auto volLab = seeds({4, 4, 4}, [](int x, int y, int z) { return x == 1 && y == 1 && z == 1 ? 1 : 0; });
  g.generateGraph(*vol, *volLab);
  EXPECT_EQ(g.unknownIndices().size(), 8u - 1u);  // the 2x2x2 core less the object seed
  auto flat = frame<float>({5, 5, 1}, 1, [](int, int, int, int) { return 0; });
  auto flatLab = seeds({5, 5, 1}, [](int x, int y, int) { return x == 2 && y == 2 ? 1 : 0; });
  g.generateGraph(*flat, *flatLab);
  EXPECT_TRUE(g.unknownIndices().empty());
}

TEST(GraphLaplacianImage, VectorsMoveBetweenNodeOrderAndImages) {
  auto img = frame<float>({3, 2, 1}, 1, [](int, int, int, int) { return 0; });
  auto lab = seeds({3, 2, 1}, [](int x, int y, int) { return x == 0 && y == 0 ? 1 : (x == 2 && y == 1 ? 2 : 0); });
  GraphLaplacianImage g;
  g.generateGraph(*img, *lab);
  ASSERT_EQ(g.unknownIndices().size(), 4u);

  auto source = frame<short>({3, 2, 1}, 1, [](int x, int y, int, int) { return 10 * y + x; });
  EXPECT_EQ(g.generateVectorFromImage(*source), Eigen::Vector4f(1, 2, 10, 11));

  TestKit::LogCapture log;
  auto wrong = frame<short>({2, 2, 1}, 1, [](int, int, int, int) { return 1; });
  EXPECT_TRUE(g.generateVectorFromImage(*wrong).isZero());
  EXPECT_TRUE(log.contains("[GraphLaplacianSuperpixels] Image is not compatible"));

  auto out = frame<float>({3, 2, 1}, 1, [](int, int, int, int) { return -1; });
  out->setShiftScale(5.0, 3.0);
  g.generateImageFromVector(Eigen::Vector4f(0.25f, 0.5f, 0.75f, 1.0f), *out);
  auto* f = static_cast<TypedImage<float>*>(out->mem());
  EXPECT_EQ(f->value(0, 0), 1.0f);
  EXPECT_EQ(f->value(2, 1), 0.0f);
  EXPECT_EQ(f->value(2, 0), 0.5f);
  EXPECT_EQ(out->descriptor().scale, 1.0);
  EXPECT_EQ(out->descriptor().shift, 0.0);

  auto labelsOut = seeds({3, 2, 1}, [](int, int, int) { return 0; });
  g.generateImageFromVector(Eigen::Vector4f(0.25f, 0.5f, 0.75f, 1.0f), *labelsOut);
  auto* u = static_cast<TypedImage<unsigned char>*>(labelsOut->mem());
  EXPECT_EQ(u->value(1, 0), 2);  // 0.25
  EXPECT_EQ(u->value(2, 0), 2);  // exactly 0.5
  EXPECT_EQ(u->value(0, 1), 1);  // 0.75
  EXPECT_EQ(u->value(0, 0), 1);  // object seed

  log.clear();
  g.generateImageFromVector(Eigen::Vector3f(1, 1, 1), *out);
  EXPECT_TRUE(log.contains("Problem in vector size"));
  EXPECT_EQ(f->value(2, 0), 0.5f);
  auto ints = frame<int>({3, 2, 1}, 1, [](int, int, int, int) { return 9; });
  g.generateImageFromVector(Eigen::Vector4f(0, 0, 0, 0), *ints);
  EXPECT_TRUE(log.contains("Problem with label image"));
  EXPECT_EQ(static_cast<TypedImage<int>*>(ints->mem())->value(0, 0), 9);
}

TEST(GraphLaplacianImageAttenuation, LastRowIsFlatAndHorizontalEdgesCarryThePenalty) {
  const int W = 4, H = 5;
  auto lab = seeds({W, H, 1}, [](int, int, int) { return 0; });
  // The last row is attenuated to zero whatever the image, so its horizontal edges all see
  // exactly the penalty.
  auto img = frame<float>({W, H, 1}, 1, [](int x, int y, int, int) { return (x * 7 + y * 3) % 11; });
  GraphLaplacianImageAttenuation g;
  g.generateGraph(*img, *lab);
  const auto& L = g.laplacian();
  const float wLast = -L.coeff((H - 1) * W + 1, (H - 1) * W);
  for (int x = 2; x < W; ++x) EXPECT_FLOAT_EQ(-L.coeff((H - 1) * W + x, (H - 1) * W + x - 1), wLast);

  // On a constant image vertical edges have d = 0 and horizontal ones d = penalty, which is
  // then the whole range: weights 1 + 1e-5 and exp(-adaptiveness) + 1e-5.
  auto constant = frame<float>({W, H, 1}, 1, [](int, int, int, int) { return 4; });
  GraphLaplacianImageAttenuation flat;
  flat.adaptiveness = 3.0;
  flat.generateGraph(*constant, *lab);
  EXPECT_FLOAT_EQ(-flat.laplacian().coeff(W, 0), 1.0f + 1e-5f);
  EXPECT_FLOAT_EQ(-flat.laplacian().coeff(1, 0), std::exp(-3.0f) + 1e-5f);
}

// The one-pass reduction equals the selection-matrix products.
TEST(SystemReduction, DirectExtractionMatchesSelectionProducts) {
  for (int slices : {1, 4}) {
    std::mt19937 rng(11 + slices);
    std::uniform_int_distribution<int> u(0, 200), s(0, 9);
    const Eigen::Vector3i dims(6, 5, slices);
    auto img = frame<unsigned char>(dims, 1, [&](int, int, int, int) { return u(rng); });
    auto lab = seeds(dims, [&](int, int, int) {
      const int r = s(rng);
      return r == 0 ? 1 : (r == 1 ? 2 : 0);
    });
    GraphLaplacianImage g;
    g.generateGraph(*img, *lab);
    auto fast = reduceSystem(g.laplacian(), g.seedIndices(), g.unknownIndices(), g.seedValues());
    auto ref = reduceSystemByProducts(g.laplacian(), g.seedIndices(), g.unknownIndices(), g.seedValues());
    EXPECT_TRUE(dense(fast.A).isApprox(dense(ref.A), 1e-6f));
    EXPECT_TRUE(fast.b.isApprox(ref.b, 1e-5f) || (fast.b - ref.b).norm() < 1e-6f);

    addToDiagonal(fast.A, 0.5f);
    Eigen::MatrixXf withPrior = dense(ref.A);
    withPrior.diagonal().array() += 0.5f;
    EXPECT_TRUE(dense(fast.A).isApprox(withPrior, 1e-6f));
  }
}

namespace {

// The arrays of a compressed sparse matrix, to compare storage bit for bit (-0.0f is not 0.0f).
struct Arrays {
  std::vector<int> outer, inner;
  std::vector<float> values;
  bool operator==(const Arrays& o) const {
    return outer == o.outer && inner == o.inner && values.size() == o.values.size() &&
           (values.empty() || std::memcmp(values.data(), o.values.data(), values.size() * sizeof(float)) == 0);
  }
};

Arrays arrays(const GraphLaplacian::SparseMatrixF& m) {
  Arrays a;
  a.outer.assign(m.outerIndexPtr(), m.outerIndexPtr() + m.outerSize() + 1);
  a.inner.assign(m.innerIndexPtr(), m.innerIndexPtr() + m.nonZeros());
  a.values.assign(m.valuePtr(), m.valuePtr() + m.nonZeros());
  return a;
}

// Seed densities from none to all, in 2D and 3D.
class BorrowedSystemCase : public ::testing::TestWithParam<std::tuple<int, int>> {
 protected:
  std::unique_ptr<GraphLaplacianImage> graph() {
    const auto [slices, seedPercent] = GetParam();
    std::mt19937 rng(7 * slices + seedPercent);
    std::uniform_int_distribution<int> u(0, 255), pct(0, 99), label(1, 2);
    const Eigen::Vector3i dims(7, 6, slices);
    auto img = frame<unsigned char>(dims, 1, [&](int, int, int, int) { return u(rng); });
    auto lab = seeds(dims, [&, p = seedPercent](int, int, int) { return pct(rng) < p ? label(rng) : 0; });
    auto g = std::make_unique<GraphLaplacianImage>();
    g->generateGraph(*img, *lab);
    return g;
  }
};

}  // namespace

// The system built in the Laplacian's storage is the copied one, entry for entry, and the
// Laplacian comes back bit for bit, with and without a change of the diagonal.
TEST_P(BorrowedSystemCase, EqualsTheCopyAndGivesTheLaplacianBack) {
  for (bool prior : {false, true}) {
    auto owned = graph();
    GraphLaplacianImage& g = *owned;
    auto& L = const_cast<GraphLaplacian::SparseMatrixF&>(g.laplacian());
    ASSERT_TRUE(BorrowedSystem::canBorrow(L));
    const Arrays before = arrays(L);
    auto copy = reduceSystem(L, g.seedIndices(), g.unknownIndices(), g.seedValues());
    if (prior) addToDiagonal(copy.A, 0.25f);
    {
      BorrowedSystem borrowed(L, g.seedIndices(), g.unknownIndices(), g.seedValues());
      if (prior) borrowed.addToDiagonal(0.25f);
      EXPECT_TRUE(borrowed.A.isCompressed());
      EXPECT_EQ(arrays(borrowed.A), arrays(copy.A));
      EXPECT_EQ(borrowed.b, copy.b);  // the same sums in the same order
    }
    EXPECT_EQ(arrays(L), before);
  }
}

INSTANTIATE_TEST_SUITE_P(SlicesAndSeedShare, BorrowedSystemCase,
                         ::testing::Combine(::testing::Values(1, 3), ::testing::Values(0, 10, 60, 100)));

// A column without its diagonal: the system detaches into a copy of its own, gives the
// Laplacian back at once, and inserts the entry.
TEST(BorrowedSystem, MissingDiagonalDetaches) {
  using M = GraphLaplacian::SparseMatrixF;
  M L(4, 4);
  std::vector<Eigen::Triplet<float>> t{{0, 0, 2}, {1, 0, -1}, {0, 1, -1}, {3, 1, -1}, {1, 3, -1},
                                       {2, 2, 1}, {3, 3, 1}};  // column 1 has no diagonal
  L.setFromTriplets(t.begin(), t.end());
  L.makeCompressed();
  const Arrays before = arrays(L);
  const std::vector<uint64_t> seedsIdx{2}, unknown{0, 1, 3};
  const std::vector<float> values{1.0f};
  auto copy = reduceSystem(L, seedsIdx, unknown, values);
  addToDiagonal(copy.A, 0.5f);
  {
    BorrowedSystem borrowed(L, seedsIdx, unknown, values);
    borrowed.addToDiagonal(0.5f);
    EXPECT_EQ(arrays(L), before);  // already given back
    EXPECT_EQ(dense(borrowed.A), dense(copy.A));
    EXPECT_FLOAT_EQ(borrowed.A.coeff(1, 1), 0.5f);
  }
  EXPECT_EQ(arrays(L), before);
}

TEST(BorrowedSystem, NeedsCompressedSortedColumns) {
  GraphLaplacian::SparseMatrixF L(3, 3);
  L.insert(0, 0) = 1.0f;
  EXPECT_FALSE(BorrowedSystem::canBorrow(L));  // still in insertion mode
  L.makeCompressed();
  EXPECT_TRUE(BorrowedSystem::canBorrow(L));
  L.resize(3, 3);
  L.resizeNonZeros(2);
  L.outerIndexPtr()[0] = 0;
  L.outerIndexPtr()[1] = 2;
  L.outerIndexPtr()[2] = 2;
  L.outerIndexPtr()[3] = 2;
  L.innerIndexPtr()[0] = 2;
  L.innerIndexPtr()[1] = 0;  // descending rows
  L.valuePtr()[0] = L.valuePtr()[1] = 1.0f;
  EXPECT_FALSE(BorrowedSystem::canBorrow(L));
}

// A node in neither list is left out of the system, by the products and by both one-pass
// reductions alike, and the borrowed Laplacian still comes back whole.
TEST(SystemReduction, NodeInNeitherListIsLeftOut) {
  using M = GraphLaplacian::SparseMatrixF;
  // A chain 0 - 1 - 2 - 3 - 4 with weights 1..4; node 2 is in neither list.
  M L(5, 5);
  std::vector<Eigen::Triplet<float>> t;
  for (int i = 0; i < 4; ++i) {
    const float w = static_cast<float>(i + 1);
    t.emplace_back(i, i + 1, -w);
    t.emplace_back(i + 1, i, -w);
    t.emplace_back(i, i, w);
    t.emplace_back(i + 1, i + 1, w);
  }
  L.setFromTriplets(t.begin(), t.end());
  L.makeCompressed();
  const Arrays before = arrays(L);
  const std::vector<uint64_t> seedsIdx{0, 4}, unknown{1, 3};
  const std::vector<float> values{1.0f, 0.0f};
  auto copy = reduceSystem(L, seedsIdx, unknown, values);
  auto ref = reduceSystemByProducts(L, seedsIdx, unknown, values);
  EXPECT_EQ(dense(copy.A), dense(ref.A));
  EXPECT_EQ(copy.b, ref.b);
  Eigen::Matrix2f expected;
  expected << 3, 0, 0, 7;  // the edges to node 2 are gone, its weights stay on the diagonal
  EXPECT_EQ(dense(copy.A), Eigen::MatrixXf(expected));
  EXPECT_EQ(copy.b, Eigen::Vector2f(1, 0));
  {
    BorrowedSystem borrowed(L, seedsIdx, unknown, values);
    EXPECT_EQ(arrays(borrowed.A), arrays(copy.A));
    EXPECT_EQ(borrowed.b, copy.b);
  }
  EXPECT_EQ(arrays(L), before);
}

// Column kinds the graphs never make: an unknown node without any entry, an unknown node whose
// entries all lie in seed rows (no diagonal), and a seed column; and the empty matrix.
TEST(BorrowedSystem, EmptyAndSeedOnlyColumnsComeBackWhole) {
  using M = GraphLaplacian::SparseMatrixF;
  M L(5, 5);
  std::vector<Eigen::Triplet<float>> t{{3, 1, -1}, {1, 3, -1}, {4, 1, -2}, {1, 4, -2},
                                       {2, 2, 5},  {3, 3, 1},  {4, 4, -0.0f}};
  L.setFromTriplets(t.begin(), t.end());
  L.makeCompressed();
  const Arrays before = arrays(L);
  const std::vector<uint64_t> seedsIdx{3, 4}, unknown{0, 1, 2};
  const std::vector<float> values{1.0f, 0.5f};
  ASSERT_TRUE(listsFit(L, seedsIdx, unknown));
  auto copy = reduceSystem(L, seedsIdx, unknown, values);
  auto ref = reduceSystemByProducts(L, seedsIdx, unknown, values);
  EXPECT_EQ(dense(copy.A), dense(ref.A));
  EXPECT_EQ(copy.b, Eigen::Vector3f(0, 2, 0));  // -(-1 * 1 + -2 * 0.5) at node 1
  {
    BorrowedSystem borrowed(L, seedsIdx, unknown, values);
    EXPECT_EQ(arrays(borrowed.A), arrays(copy.A));
    EXPECT_EQ(borrowed.b, copy.b);
  }
  EXPECT_EQ(arrays(L), before);

  M none(0, 0);
  none.makeCompressed();
  {
    BorrowedSystem borrowed(none, {}, {}, {});
    EXPECT_EQ(borrowed.A.rows(), 0);
    EXPECT_EQ(borrowed.b.size(), 0);
  }
  EXPECT_EQ(none.rows(), 0);
}

// Two changes of the diagonal add up in A, and the Laplacian's own diagonal comes back; so it
// does when the scope is left by an exception.
TEST(BorrowedSystem, RepeatedDiagonalChangeAndExceptionGiveTheLaplacianBack) {
  std::mt19937 rng(5);
  std::uniform_int_distribution<int> u(0, 255), pct(0, 9);
  const Eigen::Vector3i dims(6, 5, 2);
  auto img = frame<unsigned char>(dims, 1, [&](int, int, int, int) { return u(rng); });
  auto lab = seeds(dims, [&](int, int, int) { const int r = pct(rng); return r == 0 ? 1 : (r == 1 ? 2 : 0); });
  GraphLaplacianImage g;
  g.generateGraph(*img, *lab);
  auto& L = const_cast<GraphLaplacian::SparseMatrixF&>(g.laplacian());
  const Arrays before = arrays(L);
  auto copy = reduceSystem(L, g.seedIndices(), g.unknownIndices(), g.seedValues());
  addToDiagonal(copy.A, 0.25f);
  addToDiagonal(copy.A, 0.5f);
  {
    BorrowedSystem borrowed(L, g.seedIndices(), g.unknownIndices(), g.seedValues());
    borrowed.addToDiagonal(0.25f);
    borrowed.addToDiagonal(0.5f);
    EXPECT_EQ(arrays(borrowed.A), arrays(copy.A));
  }
  EXPECT_EQ(arrays(L), before);

  try {
    BorrowedSystem borrowed(L, g.seedIndices(), g.unknownIndices(), g.seedValues());
    borrowed.addToDiagonal(1.0f);
    throw std::runtime_error("solver failed");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(arrays(L), before);
}

// Lists that name a node twice, miss one, run past the matrix or come unsorted do not fit.
TEST(SystemReduction, ListsMustPartitionTheNodes) {
  GraphLaplacian::SparseMatrixF L(4, 4);
  L.makeCompressed();
  EXPECT_TRUE(listsFit(L, {0, 3}, {1, 2}));
  EXPECT_TRUE(listsFit(L, {}, {0, 1, 2, 3}));
  EXPECT_FALSE(listsFit(L, {0, 3}, {2, 1}));     // unsorted unknowns
  EXPECT_FALSE(listsFit(L, {0, 1}, {1, 2}));     // node 1 twice
  EXPECT_FALSE(listsFit(L, {0}, {1, 2}));        // node 3 in neither list
  EXPECT_FALSE(listsFit(L, {0, 4}, {1, 2}));     // past the matrix
  EXPECT_FALSE(listsFit(L, {0, 3, 5}, {1, 2}));  // more nodes than the matrix has
  GraphLaplacian::SparseMatrixF wide(4, 5);
  EXPECT_FALSE(listsFit(wide, {0, 3}, {1, 2}));
}
