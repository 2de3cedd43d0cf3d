#include <gtest/gtest.h>
#include <omp.h>

#include <Eigen/SparseCholesky>
#include <cmath>

#include "ClassicalAMG.h"
#include "LinearSolver.h"
#include "RandomWalkSystems.h"

using namespace Merivane;
using Testing::randomWalkSystem;

namespace {

using RowMatrix = Eigen::SparseMatrix<float, Eigen::RowMajor, int>;

template <typename Scalar>
Eigen::Matrix<Scalar, Eigen::Dynamic, 1> vcycle(const ClassicalAMG<Scalar>& amg,
                                               const Eigen::Matrix<Scalar, Eigen::Dynamic, 1>& b) {
  Eigen::Matrix<Scalar, Eigen::Dynamic, 1> x(b.size());
  amg.apply(b.data(), x.data());
  return x;
}

std::unique_ptr<ClassicalAMG<double>> setUp(const RowMatrix& A) {
  auto amg = std::make_unique<ClassicalAMG<double>>();
  amg->setupSingle(static_cast<int>(A.rows()), A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr());
  return amg;
}

// Conjugate gradients preconditioned by one V-cycle, to a relative residual of 1e-8.
int pcg(const RowMatrix& A, const ClassicalAMG<double>& M, const Eigen::VectorXd& b, Eigen::VectorXd& x) {
  const Eigen::SparseMatrix<double, Eigen::RowMajor, int> Ad = A.cast<double>();
  x = Eigen::VectorXd::Zero(b.size());
  Eigen::VectorXd r = b, z = vcycle(M, r), p = z;
  double rz = r.dot(z);
  for (int it = 1; it <= 200; ++it) {
    const Eigen::VectorXd q = Ad * p;
    const double alpha = rz / p.dot(q);
    x += alpha * p;
    r -= alpha * q;
    if (r.norm() <= 1e-8 * b.norm()) return it;
    z = vcycle(M, r);
    const double rz2 = r.dot(z);
    p = z + (rz2 / rz) * p;
    rz = rz2;
  }
  return 1000;
}

struct SystemCase {
  Eigen::Vector3i dims;
  unsigned seed;
  int greyLevels;
  double adaptiveness;
};

}  // namespace

class ClassicalAmgSystems : public ::testing::TestWithParam<SystemCase> {};

// On random-walk systems whose weights span many orders of magnitude, conjugate gradients with
// one V-cycle reach the direct solution in a few tens of iterations (Jacobi alone needs
// hundreds), whatever the image: noise, few grey levels (ties), planar graphs.
TEST_P(ClassicalAmgSystems, PreconditionedCGReachesTheDirectSolution) {
  const SystemCase c = GetParam();
  const RowMatrix A = randomWalkSystem(c.dims, c.seed, c.greyLevels, c.adaptiveness);
  const auto amg = setUp(A);
  ASSERT_GT(amg->levels(), 1);
  EXPECT_LT(amg->levelSizes().back(), amg->levelSizes().front() / 8);
  EXPECT_LT(amg->operatorComplexity(), 4.0);

  const Eigen::VectorXd b = Eigen::VectorXd::Random(A.rows());
  Eigen::VectorXd x;
  const int iterations = pcg(A, *amg, b, x);
  EXPECT_LE(iterations, 30);

  const Eigen::SparseMatrix<double> Ad = A.cast<double>();
  Eigen::SimplicialLDLT<Eigen::SparseMatrix<double>> direct(Ad);
  ASSERT_EQ(direct.info(), Eigen::Success);
  const Eigen::VectorXd exact = direct.solve(b);
  EXPECT_LT((x - exact).norm(), 1e-5 * exact.norm());
}

INSTANTIATE_TEST_SUITE_P(RandomWalk, ClassicalAmgSystems,
                         ::testing::Values(SystemCase{{22, 20, 18}, 1, 0, 30.0}, SystemCase{{22, 20, 18}, 2, 3, 30.0},
                                           SystemCase{{22, 20, 18}, 3, 0, 100.0},
                                           SystemCase{{90, 80, 1}, 4, 0, 100.0}));

// One V-cycle is a symmetric positive definite operator (conjugate gradients need that), and
// neither the hierarchy nor the cycle depends on the number of threads.
template <typename Scalar>
class ClassicalAmgCycle : public ::testing::Test {};
using Scalars = ::testing::Types<float, double>;
TYPED_TEST_SUITE(ClassicalAmgCycle, Scalars);

TYPED_TEST(ClassicalAmgCycle, IsSymmetricPositiveAndThreadIndependent) {
  using Scalar = TypeParam;
  using Vector = Eigen::Matrix<Scalar, Eigen::Dynamic, 1>;
  const RowMatrix A = randomWalkSystem({40, 36, 30}, 9);
  const Vector x = Vector::Random(A.rows()), y = Vector::Random(A.rows());
  const int n = static_cast<int>(A.rows());
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  ClassicalAMG<Scalar> one;
  one.setupSingle(n, A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr());
  const Vector mx1 = vcycle(one, x);
  omp_set_num_threads(2);
  ClassicalAMG<Scalar> two;
  two.setupSingle(n, A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr());
  const Vector mx2 = vcycle(two, x);
  omp_set_num_threads(threads);
  EXPECT_EQ(one.levelSizes(), two.levelSizes());
  EXPECT_EQ(one.memoryBytes(), two.memoryBytes());
  EXPECT_EQ(mx1, mx2);

  const Vector my = vcycle(two, y);
  const double xMy = x.template cast<double>().dot(my.template cast<double>());
  const double yMx = y.template cast<double>().dot(mx2.template cast<double>());
  EXPECT_NEAR(xMy, yMx, 1e-4 * (std::abs(xMy) + std::abs(yMx)));
  EXPECT_GT(x.template cast<double>().dot(mx2.template cast<double>()), 0.0);
}

// Rows without neighbours (every neighbour a seed) have nothing to interpolate from; a matrix
// of them only is its own coarsest level and the cycle solves it exactly. An empty matrix
// gives an empty hierarchy.
TEST(ClassicalAMG, DiagonalAndEmptyMatrices) {
  RowMatrix D(500, 500);
  for (int i = 0; i < 500; ++i) D.insert(i, i) = 1.0f + static_cast<float>(i % 7);
  D.makeCompressed();
  const auto amg = setUp(D);
  EXPECT_EQ(amg->levels(), 1);
  const Eigen::VectorXd b = Eigen::VectorXd::Random(500);
  const Eigen::VectorXd x = vcycle(*amg, b);
  for (int i = 0; i < 500; ++i) EXPECT_NEAR(x[i], b[i] / (1.0 + i % 7), 1e-12);

  // Too many such rows for a dense factorisation: Jacobi sweeps stand in for it.
  RowMatrix big(6000, 6000);
  for (int i = 0; i < 6000; ++i) big.insert(i, i) = 2.0f;
  big.makeCompressed();
  const auto sweeps = setUp(big);
  EXPECT_EQ(sweeps->levels(), 1);
  EXPECT_GT(sweeps->memoryBytes(), 0u);
  const Eigen::VectorXd c = Eigen::VectorXd::Random(6000);
  EXPECT_LT((vcycle(*sweeps, c) - c / 2).cwiseAbs().maxCoeff(), 1e-9);

  ClassicalAMG<double> empty;
  empty.setupSingle(0, nullptr, nullptr, nullptr);
  EXPECT_EQ(empty.levels(), 0);
  empty.apply(nullptr, nullptr);
}

// Two grids with no edge between them: each keeps its own coarse rows, and the cycle still
// converges on both at once.
TEST(ClassicalAMG, DisconnectedPartsConvergeTogether) {
  const RowMatrix a = randomWalkSystem({16, 15, 14}, 5), c = randomWalkSystem({12, 12, 12}, 6, 4);
  const int na = static_cast<int>(a.rows()), nc = static_cast<int>(c.rows());
  std::vector<Eigen::Triplet<float>> t;
  for (int i = 0; i < na; ++i)
    for (RowMatrix::InnerIterator it(a, i); it; ++it) t.emplace_back(i, static_cast<int>(it.col()), it.value());
  for (int i = 0; i < nc; ++i)
    for (RowMatrix::InnerIterator it(c, i); it; ++it) t.emplace_back(na + i, na + static_cast<int>(it.col()), it.value());
  RowMatrix A(na + nc, na + nc);
  A.setFromTriplets(t.begin(), t.end());
  A.makeCompressed();
  const auto amg = setUp(A);
  const Eigen::VectorXd b = Eigen::VectorXd::Random(A.rows());
  Eigen::VectorXd x;
  EXPECT_LE(pcg(A, *amg, b, x), 30);
}

// The multigrid solvers set up classical multigrid for a solve that keeps no hierarchy, and
// report success with the residual they promise.
TEST(ClassicalAMG, BiCGStabWithItConvergesOnANoisyVolume) {
  const RowMatrix R = randomWalkSystem({40, 36, 30}, 11, 0, 100.0);
  const SparseMatrixF A = R;
  const Eigen::VectorXf b = Eigen::VectorXf::Random(A.rows());
  // Single-precision vectors stall near 1e-4 on weights this far apart (pairwise aggregation does
  // not reach 1e-6 in double within 200 iterations here).
  for (bool dbl : {true, false}) {
    const float tolerance = dbl ? 1e-6f : 1e-3f;
    BiCGStabEigenSolver solver(dbl, 200, tolerance);
    Eigen::VectorXf x;
    solver.solve(A, b, x, Eigen::VectorXf());
    EXPECT_EQ(solver.info(), SolverInfo::Success) << dbl;
    EXPECT_LE(solver.lastIterations(), 20) << dbl;
    EXPECT_LE(solver.lastError(), tolerance) << dbl;
  }
}

// Re-targeted at the very matrix it was set up on, a hierarchy is the fresh one, bit for bit.
TEST(ClassicalAMG, RetargetingAtTheSameMatrixChangesNothing) {
  const RowMatrix A = randomWalkSystem({40, 36, 30}, 12);
  const auto fresh = setUp(A), kept = setUp(A);
  std::vector<int> identity(static_cast<size_t>(A.rows()));
  for (size_t i = 0; i < identity.size(); ++i) identity[i] = static_cast<int>(i);
  ASSERT_TRUE(kept->rebindFinest(static_cast<int>(A.rows()), A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr(),
                                 identity));
  const Eigen::VectorXd b = Eigen::VectorXd::Random(A.rows());
  EXPECT_EQ(vcycle(*fresh, b), vcycle(*kept, b));
  EXPECT_EQ(fresh->memoryBytes(), kept->memoryBytes());
}

// A re-target that would change more than a twentieth of the rows is refused, and the hierarchy
// stays as it was; so is a map that names rows the new matrix does not have.
TEST(ClassicalAMG, RefusedRetargetsLeaveTheHierarchyAsItWas) {
  const RowMatrix A = randomWalkSystem({30, 28, 26}, 13);
  const auto amg = setUp(A);
  const Eigen::VectorXd b = Eigen::VectorXd::Random(A.rows());
  const Eigen::VectorXd before = vcycle(*amg, b);
  const int n = static_cast<int>(A.rows());
  std::vector<int> most(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) most[static_cast<size_t>(i)] = i % 10 == 0 ? -1 : i;  // a tenth gone
  EXPECT_FALSE(amg->rebindFinest(n, A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr(), most));
  std::vector<int> beyond(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) beyond[static_cast<size_t>(i)] = i + 1;
  EXPECT_FALSE(amg->rebindFinest(n, A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr(), beyond));
  EXPECT_FALSE(amg->rebindFinest(n, A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr(), std::vector<int>(3, 0)));
  EXPECT_EQ(vcycle(*amg, b), before);
}

namespace {

// The system with some rows turned into seeds: the principal submatrix without them, and the
// new row of each old one (-1 where gone).
RowMatrix withoutRows(const RowMatrix& A, const std::vector<char>& gone, std::vector<int>& newRowOfOld) {
  const int n = static_cast<int>(A.rows());
  newRowOfOld.assign(static_cast<size_t>(n), -1);
  int m = 0;
  for (int i = 0; i < n; ++i)
    if (!gone[static_cast<size_t>(i)]) newRowOfOld[static_cast<size_t>(i)] = m++;
  std::vector<Eigen::Triplet<float>> t;
  for (int i = 0; i < n; ++i)
    for (RowMatrix::InnerIterator it(A, i); it; ++it) {
      const int a = newRowOfOld[static_cast<size_t>(i)], b = newRowOfOld[static_cast<size_t>(it.col())];
      if (a >= 0 && b >= 0) t.emplace_back(a, b, it.value());
    }
  RowMatrix B(m, m);
  B.setFromTriplets(t.begin(), t.end());
  B.makeCompressed();
  return B;
}

}  // namespace

// After a stroke of new seeds (a line of rows leaves the system), the re-targeted hierarchy is
// still a symmetric positive definite V-cycle, and conjugate gradients with it reach the direct
// solution in about as many iterations as with a fresh one.
TEST(ClassicalAMG, RetargetedAfterAStrokeServesLikeAFreshSetup) {
  const Eigen::Vector3i dims(40, 36, 30);
  const RowMatrix A = randomWalkSystem(dims, 14, 0, 60.0);
  const auto kept = setUp(A);
  std::vector<char> gone(static_cast<size_t>(A.rows()), 0);
  for (int k = 0; k < 30; ++k) gone[static_cast<size_t>(A.rows() / 2 + k)] = 1;  // one row of voxels
  std::vector<int> newRowOfOld;
  const RowMatrix B = withoutRows(A, gone, newRowOfOld);
  ASSERT_TRUE(kept->rebindFinest(static_cast<int>(B.rows()), B.outerIndexPtr(), B.innerIndexPtr(), B.valuePtr(),
                                 newRowOfOld));
  EXPECT_EQ(kept->levelSizes().front(), B.rows());
  const auto fresh = setUp(B);

  const Eigen::VectorXd x = Eigen::VectorXd::Random(B.rows()), y = Eigen::VectorXd::Random(B.rows());
  const double xMy = x.dot(vcycle(*kept, y)), yMx = y.dot(vcycle(*kept, x));
  EXPECT_NEAR(xMy, yMx, 1e-6 * (std::abs(xMy) + std::abs(yMx)));
  EXPECT_GT(x.dot(vcycle(*kept, x)), 0.0);

  const Eigen::VectorXd b = Eigen::VectorXd::Random(B.rows());
  Eigen::VectorXd xKept, xFresh;
  const int itKept = pcg(B, *kept, b, xKept), itFresh = pcg(B, *fresh, b, xFresh);
  EXPECT_LE(itKept, itFresh + 3);
  EXPECT_LT((xKept - xFresh).norm(), 1e-5 * xFresh.norm());
}

// A solve sets up classical multigrid where its hierarchy fits in half the free memory, and
// pairwise aggregation where it would not; either way it converges.
TEST(ClassicalAMG, LowMemoryFallsBackOnAggregation) {
  const RowMatrix R = randomWalkSystem({30, 28, 26}, 15);
  const SparseMatrixF A = R;
  const Eigen::VectorXf b = Eigen::VectorXf::Random(A.rows());
  for (const char* available : {"", "1000"}) {
    if (*available)
      setenv("MERIVANE_MEMORY_AVAILABLE", available, 1);
    else
      unsetenv("MERIVANE_MEMORY_AVAILABLE");
    KeptMultigrid kept;
    BiCGStabEigenSolver solver(true, 500, 1e-6f);
    solver.keptMultigrid = &kept;
    Eigen::VectorXf x;
    solver.solve(A, b, x, Eigen::VectorXf());
    EXPECT_EQ(solver.info(), SolverInfo::Success) << available;
    EXPECT_EQ(kept.classical, !*available) << available;
  }
  unsetenv("MERIVANE_MEMORY_AVAILABLE");
}
