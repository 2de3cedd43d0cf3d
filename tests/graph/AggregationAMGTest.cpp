#include <gtest/gtest.h>
#include <omp.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>

#include "AggregationAMG.h"
#include "RandomWalkSystems.h"
#include "LinearSolver.h"
#include "GraphLaplacianImage.h"
#include "SharedImageSet.h"
#include "SystemReduction.h"

using namespace Merivane;

namespace {

using SparseMatrixF = Eigen::SparseMatrix<float, Eigen::ColMajor, int>;

using Testing::randomWalkSystem;

template <typename Scalar>
Eigen::Matrix<Scalar, Eigen::Dynamic, 1> vcycle(const AggregationAMG<Scalar>& amg,
                                               const Eigen::Matrix<Scalar, Eigen::Dynamic, 1>& b) {
  Eigen::Matrix<Scalar, Eigen::Dynamic, 1> x = amg.solve(b);
  return x;
}

}  // namespace

// Ranking the rows beforehand is a shortcut, not another method: hierarchy and V-cycle are
// bit for bit those of merging every row the second pairing round asks about.
template <typename Scalar>
class AmgPairing : public ::testing::Test {};
using Scalars = ::testing::Types<float, double>;
TYPED_TEST_SUITE(AmgPairing, Scalars);

TYPED_TEST(AmgPairing, RankedRowsGiveTheSameHierarchyAsMergedOnes) {
  using Scalar = TypeParam;
  using Vector = Eigen::Matrix<Scalar, Eigen::Dynamic, 1>;
  const Eigen::SparseMatrix<Scalar, Eigen::RowMajor, int> A = randomWalkSystem({18, 16, 14}, 3, 3).cast<Scalar>();
  AggregationAMG<Scalar> ranked, merged;
  merged.rankedPairing = false;
  ranked.compute(A);
  merged.compute(A);
  ASSERT_GT(ranked.levels(), 2);
  EXPECT_EQ(ranked.levelSizes(), merged.levelSizes());
  EXPECT_EQ(ranked.memoryBytes(), merged.memoryBytes());
  const Vector b = Vector::Random(A.rows());
  EXPECT_EQ(vcycle(ranked, b), vcycle(merged, b));
}

// One V-cycle is a symmetric positive definite operator (conjugate gradients need that), and it
// does not depend on the number of threads.
TEST(AggregationAMG, VCycleIsSymmetricPositiveAndThreadIndependent) {
  using Vector = Eigen::VectorXf;
  const Eigen::SparseMatrix<float, Eigen::RowMajor, int> A = randomWalkSystem({40, 36, 30}, 9);
  const Vector x = Vector::Random(A.rows()), y = Vector::Random(A.rows());
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  AggregationAMG<float> one;
  one.compute(A);
  const Vector mx1 = vcycle(one, x);
  omp_set_num_threads(2);
  AggregationAMG<float> two;
  two.compute(A);
  const Vector mx2 = vcycle(two, x);
  omp_set_num_threads(threads);
  EXPECT_EQ(mx1, mx2);
  EXPECT_EQ(one.levelSizes(), two.levelSizes());

  const Vector my = vcycle(two, y);
  const double xMy = x.cast<double>().dot(my.cast<double>());
  const double yMx = y.cast<double>().dot(mx2.cast<double>());
  EXPECT_NEAR(xMy, yMx, 1e-4 * (std::abs(xMy) + std::abs(yMx)));
  EXPECT_GT(x.cast<double>().dot(mx2.cast<double>()), 0.0);
}

// A double hierarchy over the single-precision matrix read as it is equals the one over a
// double copy of it, bit for bit: every float converts to double exactly.
TEST(AggregationAMG, SinglePrecisionMatrixServesADoubleHierarchyAsItIs) {
  const Eigen::SparseMatrix<float, Eigen::RowMajor, int> A = randomWalkSystem({20, 18, 16}, 4, 5);
  const Eigen::SparseMatrix<double, Eigen::RowMajor, int> Ad = A.cast<double>();
  AggregationAMG<double> single, copy;
  single.compute(A);
  copy.compute(Ad);
  ASSERT_GT(single.levels(), 2);
  EXPECT_EQ(single.levelSizes(), copy.levelSizes());
  // The copy's finest level is borrowed either way; the coarse levels weigh the same.
  EXPECT_EQ(single.memoryBytes(), copy.memoryBytes());
  const Eigen::VectorXd b = Eigen::VectorXd::Random(A.rows());
  EXPECT_EQ(vcycle(single, b), vcycle(copy, b));
}

namespace {

// The random-walk system of a smooth noisy volume with seeds in two blobs, and the graph nodes
// its rows stand for; `stroke` adds a line of background seeds, as a correction stroke does.
struct Seeded {
  SparseMatrixF A;
  Eigen::VectorXf b;
  std::vector<uint64_t> unknowns;
};

Seeded seededSystem(const Eigen::Vector3i& dims, int stroke, int erase = 0) {
  std::mt19937 rng(5);
  std::normal_distribution<float> noise(0.0f, 0.05f);
  auto img = TypedImage<float>::zeros(dims, 1);
  auto lab = TypedImage<unsigned char>::zeros(dims, 1);
  const Eigen::Vector3f c = dims.cast<float>() / 2;
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) {
        const float r = (Eigen::Vector3f(x, y, z) - c).norm();
        img->setValue((r < dims[0] / 3.0f ? 1.0f : 0.0f) + noise(rng), x, y, z);
        if (r < 3) lab->setValue(1, x, y, z);
        if (x < 2 || x >= dims[0] - 2) lab->setValue(2, x, y, z);
      }
  for (int i = 0; i < stroke; ++i) lab->setValue(2, 3 + i, dims[1] / 5, dims[2] / 2);
  for (int i = 0; i < erase; ++i) {  // erased seeds, from the x = 0 plane on
    const int plane = dims[1] * dims[2];
    lab->setValue(0, i / plane, i % plane % dims[1], i % plane / dims[1]);
  }
  SharedImage image(std::shared_ptr<Image>(std::move(img)));
  SharedImage labels(std::shared_ptr<Image>(std::move(lab)));
  GraphLaplacianImage g;
  g.generateGraph(image, labels);
  auto sys = reduceSystem(g.laplacian(), g.seedIndices(), g.unknownIndices(), g.seedValues());
  sys.A.makeCompressed();
  return {sys.A, sys.b, g.unknownIndices()};
}

std::vector<int> placesIn(const std::vector<uint64_t>& before, const std::vector<uint64_t>& after) {
  std::vector<int> p(before.size(), -1);
  for (size_t i = 0; i < before.size(); ++i) {
    auto it = std::lower_bound(after.begin(), after.end(), before[i]);
    if (it != after.end() && *it == before[i]) p[i] = static_cast<int>(it - after.begin());
  }
  return p;
}

}  // namespace

// Re-targeted at the very matrix it was set up on, a hierarchy is the fresh one, bit for bit.
TEST(AggregationAMG, RetargetingAtTheSameMatrixChangesNothing) {
  const Seeded s = seededSystem({24, 22, 20}, 0);
  AggregationAMG<double> fresh, kept;
  fresh.compute(s.A);
  kept.compute(s.A);
  std::vector<int> identity(static_cast<size_t>(s.A.rows()));
  for (size_t i = 0; i < identity.size(); ++i) identity[i] = static_cast<int>(i);
  ASSERT_TRUE(kept.rebindFinest(static_cast<int>(s.A.rows()), s.A.outerIndexPtr(), s.A.innerIndexPtr(),
                                s.A.valuePtr(), identity));
  const Eigen::VectorXd b = Eigen::VectorXd::Random(s.A.rows());
  EXPECT_EQ(vcycle(fresh, b), vcycle(kept, b));
}

// After a stroke of new seeds (rows gone) or erased seeds (rows new), the re-targeted
// hierarchy is still a symmetric positive definite V-cycle of the new size, and conjugate
// gradients with it reach the fresh solution in about as many iterations.
struct RetargetCase {
  int stroke, erase;
};
class AmgRetarget : public ::testing::TestWithParam<RetargetCase> {};

TEST_P(AmgRetarget, ServesTheChangedSystemLikeAFreshSetup) {
  const Eigen::Vector3i dims(32, 30, 28);
  const Seeded before = seededSystem(dims, 0);
  const Seeded after = seededSystem(dims, GetParam().stroke, GetParam().erase);
  ASSERT_NE(before.A.rows(), after.A.rows());

  KeptMultigrid kept;
  CGSolver first(500, 1e-6f);
  first.keptMultigrid = &kept;
  Eigen::VectorXf x0;
  first.solve(before.A, before.b, x0, Eigen::VectorXf());
  ASSERT_EQ(first.info(), SolverInfo::Success);
  ASSERT_FALSE(kept.lastReused);

  // A fresh aggregation hierarchy: a solve that keeps none sets up classical multigrid instead.
  KeptMultigrid freshKept;
  CGSolver fresh(500, 1e-6f);
  fresh.keptMultigrid = &freshKept;
  Eigen::VectorXf xFresh;
  fresh.solve(after.A, after.b, xFresh, Eigen::VectorXf());
  ASSERT_EQ(fresh.info(), SolverInfo::Success);

  kept.newRowOfOld = placesIn(before.unknowns, after.unknowns);
  CGSolver again(500, 1e-6f);
  again.keptMultigrid = &kept;
  Eigen::VectorXf xAgain;
  again.solve(after.A, after.b, xAgain, Eigen::VectorXf());
  ASSERT_EQ(again.info(), SolverInfo::Success);
  EXPECT_TRUE(kept.lastReused);
  EXPECT_TRUE(kept.newRowOfOld.empty());
  EXPECT_LE(again.lastIterations(), fresh.lastIterations() + 3);
  EXPECT_LT((xAgain - xFresh).cwiseAbs().maxCoeff(), 1e-3f);
}

INSTANTIATE_TEST_SUITE_P(Strokes, AmgRetarget,
                         ::testing::Values(RetargetCase{12, 0}, RetargetCase{24, 0}, RetargetCase{0, 40},
                                           RetargetCase{12, 40}));

// A change too large for the old coarse levels (most seeds erased) sets up afresh, and the
// solve is still right.
TEST(AggregationAMG, LargeChangesSetUpAfresh) {
  const Eigen::Vector3i dims(24, 22, 20);
  const Seeded before = seededSystem(dims, 0);
  const Seeded after = seededSystem(dims, 0, 2 * 22 * 20);
  KeptMultigrid kept;
  CGSolver first(500, 1e-6f);
  first.keptMultigrid = &kept;
  Eigen::VectorXf x;
  first.solve(before.A, before.b, x, Eigen::VectorXf());
  kept.newRowOfOld = placesIn(before.unknowns, after.unknowns);
  CGSolver again(500, 1e-6f);
  again.keptMultigrid = &kept;
  again.solve(after.A, after.b, x, Eigen::VectorXf());
  EXPECT_EQ(again.info(), SolverInfo::Success);
  EXPECT_FALSE(kept.lastReused);
  EXPECT_LT((after.A * x - after.b).norm(), 1e-5 * after.b.norm() * 10);
}
