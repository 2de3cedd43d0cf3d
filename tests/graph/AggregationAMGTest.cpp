#include <gtest/gtest.h>
#include <omp.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>

#include "AggregationAMG.h"
#include "GraphLaplacianImage.h"
#include "SharedImageSet.h"
#include "SystemReduction.h"

using namespace Merivane;

namespace {

using SparseMatrixF = Eigen::SparseMatrix<float, Eigen::ColMajor, int>;

// The random-walk system of a noisy volume with a few seeds: weights over many orders of
// magnitude, rows of seven entries and fewer, as the preconditioner meets them. With `levels`
// grey values only, many weights are equal, and ties decide the pairing.
SparseMatrixF randomWalkSystem(const Eigen::Vector3i& dims, unsigned seed, int levels = 0) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  auto img = TypedImage<float>::zeros(dims, 1);
  auto lab = TypedImage<unsigned char>::zeros(dims, 1);
  for (size_t i = 0; i < img->descriptor().elementCount(); ++i) {
    const float v = u(rng);
    img->pointer()[i] = levels > 0 ? std::floor(v * static_cast<float>(levels)) : v;
    const float r = u(rng);
    lab->pointer()[i] = r < 0.02f ? 1 : (r < 0.04f ? 2 : 0);
  }
  SharedImage image(std::shared_ptr<Image>(std::move(img)));
  SharedImage labels(std::shared_ptr<Image>(std::move(lab)));
  GraphLaplacianImage g;
  g.adaptiveness = 30.0;
  g.generateGraph(image, labels);
  auto sys = reduceSystem(g.laplacian(), g.seedIndices(), g.unknownIndices(), g.seedValues());
  sys.A.makeCompressed();
  return sys.A;
}

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
