#include <gtest/gtest.h>
#include <omp.h>

#include <Eigen/Dense>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>

#include "GraphLaplacianImage.h"
#include "Krylov.h"
#include "LinearSolver.h"
#include "SharedImageSet.h"
#include "SystemReduction.h"

using namespace Merivane;

namespace {

// The random-walk system of a noisy 2D image with a few seeds: symmetric positive definite,
// weights over several orders of magnitude.
ReducedSystem noisySystem(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  auto img = TypedImage<float>::zeros({n, n, 1}, 1);
  auto lab = TypedImage<unsigned char>::zeros({n, n, 1}, 1);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      img->setValue((x < n / 2 ? 0.0f : 1.0f) + 0.2f * u(rng), x, y, 0);
      if (x == 1 && y % 4 == 0) lab->setValue(1, x, y, 0);
      if (x == n - 2 && y % 4 == 2) lab->setValue(2, x, y, 0);
    }
  SharedImage image(std::shared_ptr<Image>(std::move(img)));
  SharedImage labels(std::shared_ptr<Image>(std::move(lab)));
  GraphLaplacianImage g;
  g.adaptiveness = 20.0;
  g.generateGraph(image, labels);
  auto sys = reduceSystem(g.laplacian(), g.seedIndices(), g.unknownIndices(), g.seedValues());
  sys.A.makeCompressed();
  return sys;
}

std::unique_ptr<LinearSolver> makeSolver(int id, int iterations, float tolerance) {
  switch (id) {
    case 0: return std::make_unique<LLTFloatSolver>();
    case 1: return std::make_unique<LLTEigenSolver>();
    case 2: return std::make_unique<CGSolver>(iterations, tolerance);
    case 3: return std::make_unique<BiCGStabSolver>(iterations, tolerance);
    case 4: return std::make_unique<BiCGStabEigenSolver>(true, iterations, tolerance);
    case 5: return std::make_unique<BiCGStabEigenSolver>(false, iterations, tolerance);
    case 6: return std::make_unique<BiCGStabViennaCPUSolver>(iterations, tolerance);
    default: return std::make_unique<BiCGStabViennaGPUSolver>(iterations, tolerance);
  }
}

bool iterative(int id) { return id >= 2; }

}  // namespace

class EverySolverId : public ::testing::TestWithParam<int> {};

// Each solver reaches the dense solution and says so; the iterative ones within what their
// stopping test promises.
TEST_P(EverySolverId, SolvesARandomWalkSystemAndReportsSuccess) {
  const int id = GetParam();
  const ReducedSystem sys = noisySystem(24, 3);
  const Eigen::VectorXd ref = Eigen::MatrixXd(Eigen::MatrixXf(sys.A).cast<double>()).ldlt().solve(sys.b.cast<double>());
  auto solver = makeSolver(id, 5000, 1e-5f);
  Eigen::VectorXf x;
  solver->solve(sys.A, sys.b, x, Eigen::VectorXf());
  ASSERT_EQ(solver->info(), SolverInfo::Success) << toString(solver->info()) << " " << solver->lastError() << " after " << solver->lastIterations();
  ASSERT_EQ(x.size(), sys.b.size());
  const double rel = (sys.A * x - sys.b).cast<double>().norm() / sys.b.cast<double>().norm();
  if (iterative(id)) {
    EXPECT_LE(rel, 1e-5);
    EXPECT_GT(solver->lastIterations(), 0);
  } else {
    EXPECT_EQ(solver->lastIterations(), 0);
  }
  EXPECT_LT((x.cast<double>() - ref).cwiseAbs().maxCoeff(), 1e-3);
}

// NaN or infinity in the system is refused, whatever the method.
TEST_P(EverySolverId, NonFiniteRightSideIsInvalidInput) {
  const int id = GetParam();
  ReducedSystem sys = noisySystem(12, 4);
  for (float bad : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
    Eigen::VectorXf b = sys.b;
    b[3] = bad;
    auto solver = makeSolver(id, 100, 1e-6f);
    Eigen::VectorXf x;
    solver->solve(sys.A, b, x, Eigen::VectorXf());
    EXPECT_EQ(solver->info(), SolverInfo::InvalidInput) << toString(solver->info());
  }
}

// A zero right side has the solution zero, whatever the guess.
TEST_P(EverySolverId, ZeroRightSideGivesZero) {
  const ReducedSystem sys = noisySystem(12, 8);
  auto solver = makeSolver(GetParam(), 100, 1e-6f);
  Eigen::VectorXf x;
  solver->solve(sys.A, Eigen::VectorXf::Zero(sys.b.size()), x, Eigen::VectorXf::Constant(sys.b.size(), 0.5f));
  EXPECT_EQ(solver->info(), SolverInfo::Success);
  ASSERT_EQ(x.size(), sys.b.size());
  EXPECT_LT(x.cwiseAbs().maxCoeff(), 1e-5f);
}

TEST_P(EverySolverId, EmptySystemSucceedsWithAnEmptySolution) {
  auto solver = makeSolver(GetParam(), 10, 1e-6f);
  SparseMatrixF A(0, 0);
  A.makeCompressed();
  Eigen::VectorXf x = Eigen::VectorXf::Ones(3);
  solver->solve(A, Eigen::VectorXf(), x, Eigen::VectorXf());
  EXPECT_EQ(solver->info(), SolverInfo::Success);
  EXPECT_EQ(x.size(), 0);
}

INSTANTIATE_TEST_SUITE_P(Ids, EverySolverId, ::testing::Range(0, 8));

class IterativeSolverId : public ::testing::TestWithParam<int> {};

// Stopped by the iteration limit above the tolerance: the last iterate, and NoConvergence.
TEST_P(IterativeSolverId, IterationLimitGivesNoConvergence) {
  const ReducedSystem sys = noisySystem(24, 5);
  auto solver = makeSolver(GetParam(), 2, 1e-12f);
  Eigen::VectorXf x;
  solver->solve(sys.A, sys.b, x, Eigen::VectorXf());
  EXPECT_EQ(solver->info(), SolverInfo::NoConvergence) << toString(solver->info());
  EXPECT_LE(solver->lastIterations(), 2);
  EXPECT_GT(solver->lastError(), 1e-12);
  EXPECT_TRUE(x.allFinite());
}

INSTANTIATE_TEST_SUITE_P(Ids, IterativeSolverId, ::testing::Range(2, 8));

class KrylovSolverId : public ::testing::TestWithParam<int> {};

// A cancel request is seen between iterations and leaves the iterate it reached.
TEST_P(KrylovSolverId, CancelRequestEndsTheSolve) {
  const ReducedSystem sys = noisySystem(24, 6);
  auto solver = makeSolver(GetParam(), 1000, 1e-12f);
  int asked = 0;
  solver->canceled = [&] { return ++asked > 2; };
  Eigen::VectorXf x;
  solver->solve(sys.A, sys.b, x, Eigen::VectorXf());
  EXPECT_EQ(solver->info(), SolverInfo::Canceled);
  EXPECT_EQ(solver->lastIterations(), 2);
  EXPECT_TRUE(x.allFinite());
}

// Iterates do not depend on the number of threads: dot products add fixed blocks in order.
TEST_P(KrylovSolverId, IteratesDoNotDependOnTheThreadCount) {
  const ReducedSystem sys = noisySystem(380, 7);  // 140k unknowns: nine blocks, parallel loops
  Eigen::VectorXf x1, x2;
  const int threads = omp_get_max_threads();
  setenv("MERIVANE_FIXED_THREADS", "1", 1);  // the machine's load must not pick the team
  omp_set_num_threads(1);
  auto one = makeSolver(GetParam(), 15, 1e-12f);
  one->solve(sys.A, sys.b, x1, Eigen::VectorXf());
  omp_set_num_threads(3);
  auto three = makeSolver(GetParam(), 15, 1e-12f);
  three->solve(sys.A, sys.b, x2, Eigen::VectorXf());
  omp_set_num_threads(threads);
  unsetenv("MERIVANE_FIXED_THREADS");
  auto& two = three;
  EXPECT_EQ(one->lastIterations(), two->lastIterations());
  EXPECT_TRUE(x1 == x2);
}

INSTANTIATE_TEST_SUITE_P(Ids, KrylovSolverId, ::testing::Range(2, 6));

TEST(LinearSolver, CholeskyOfAnIndefiniteMatrixIsANumericalIssue) {
  Eigen::MatrixXf dense(3, 3);
  dense << 1, 2, 0, 2, 1, 0, 0, 0, 1;
  SparseMatrixF A = dense.sparseView();
  A.makeCompressed();
  for (int id : {0, 1}) {
    auto solver = makeSolver(id, 0, 0);
    Eigen::VectorXf x;
    solver->solve(A, Eigen::VectorXf::Ones(3), x, Eigen::VectorXf());
    EXPECT_EQ(solver->info(), SolverInfo::NumericalIssue) << "id " << id;
  }
}

// Conjugate gradients on an indefinite matrix meet a direction of non-positive curvature.
TEST(Krylov, ConjugateGradientStopsOnNonPositiveCurvature) {
  std::vector<int> outer{0, 1, 2}, inner{0, 1};
  std::vector<float> values{1.0f, -1.0f};
  const Krylov::Matrix A{2, outer.data(), inner.data(), values.data()};
  const std::vector<float> b{0.0f, 1.0f};
  std::vector<float> x{0.0f, 0.0f};
  const auto identity = [](const float* in, float* out) { std::copy(in, in + 2, out); };
  const Krylov::Outcome out = Krylov::conjugateGradient<float>(A, b.data(), x.data(), identity, {10, 1e-8, {}});
  EXPECT_FALSE(out.converged);
  EXPECT_TRUE(out.breakdown);
}

// With an exact preconditioner the first half of a BiCGSTAB iteration solves the system: the
// solve stops there, after one preconditioner application instead of two.
TEST(Krylov, BiCGStabStopsHalfWayWhenTheFirstHalfConverged) {
  std::vector<int> outer{0, 1, 2, 3}, inner{0, 1, 2};
  std::vector<float> values{2.0f, 4.0f, 8.0f};
  const Krylov::Matrix A{3, outer.data(), inner.data(), values.data()};
  const std::vector<double> b{1.0, 2.0, 3.0};
  std::vector<double> x(3, 0.0);
  int applications = 0;
  const auto exact = [&](const double* in, double* out) {
    ++applications;
    for (int i = 0; i < 3; ++i) out[i] = in[i] / values[static_cast<size_t>(i)];
  };
  const Krylov::Outcome out = Krylov::bicgstab<double>(A, b.data(), x.data(), exact, {10, 1e-10, {}});
  EXPECT_TRUE(out.converged);
  EXPECT_EQ(out.iterations, 1);
  EXPECT_EQ(applications, 1);
  EXPECT_LE(out.relativeResidual, 1e-10);
  EXPECT_NEAR(x[0], 0.5, 1e-12);
  EXPECT_NEAR(x[1], 0.5, 1e-12);
  EXPECT_NEAR(x[2], 0.375, 1e-12);
}

// The residual of a symmetric system, read by rows on all threads, is the one of the plain
// product, and the same on one thread and two.
TEST(LinearSolver, ResidualNormIsThatOfThePlainProductOnAnyThreadCount) {
  const Eigen::Index n = 200000;
  std::vector<Eigen::Triplet<float>> t;
  for (Eigen::Index i = 0; i < n; ++i) {
    t.emplace_back(i, i, 4.0f + static_cast<float>(i % 7));
    if (i + 1 < n) {
      t.emplace_back(i, i + 1, -1.0f - static_cast<float>(i % 3));
      t.emplace_back(i + 1, i, -1.0f - static_cast<float>(i % 3));
    }
  }
  SparseMatrixF A(n, n);
  A.setFromTriplets(t.begin(), t.end());
  A.makeCompressed();
  const Eigen::VectorXf b = Eigen::VectorXf::Random(n), x = Eigen::VectorXf::Random(n);
  const double plain = (A.cast<double>() * x.cast<double>() - b.cast<double>()).norm();
  double byThreads[2];
  const int saved = omp_get_max_threads();
  for (int threads : {1, 2}) {
    omp_set_num_threads(threads);
    byThreads[threads - 1] = residualNorm(A, b, x);
  }
  omp_set_num_threads(saved);
  EXPECT_NEAR(byThreads[0], plain, 1e-9 * plain);
  EXPECT_EQ(byThreads[0], byThreads[1]);
}

TEST(Krylov, AvailableThreadsIsWithinOneAndTheOpenMPLimit) {
  unsetenv("MERIVANE_FIXED_THREADS");
  for (int wanted : {1, 2, 8}) {
    const int t = Krylov::availableThreads(wanted);
    EXPECT_GE(t, 1);
    EXPECT_LE(t, wanted);
  }
}

// A direct factorisation of a large volume would run for minutes and could not be stopped:
// it is refused at once, saying why.
TEST(LinearSolver, DirectSolversRefuseVolumesTheyCannotFactorInTime) {
  auto img = TypedImage<float>::zeros({36, 36, 36}, 1);
  auto lab = TypedImage<unsigned char>::zeros({36, 36, 36}, 1);
  lab->setValue(1, 0, 0, 0);
  lab->setValue(2, 35, 35, 35);
  SharedImage image(std::shared_ptr<Image>(std::move(img)));
  SharedImage labels(std::shared_ptr<Image>(std::move(lab)));
  GraphLaplacianImage g;
  g.generateGraph(image, labels);
  auto sys = reduceSystem(g.laplacian(), g.seedIndices(), g.unknownIndices(), g.seedValues());
  sys.A.makeCompressed();
  for (int id : {0, 1}) {
    auto solver = makeSolver(id, 0, 0);
    Eigen::VectorXf x;
    solver->solve(sys.A, sys.b, x, Eigen::VectorXf());
    EXPECT_EQ(solver->info(), SolverInfo::InvalidInput) << "id " << id;
    EXPECT_NE(solver->lastFailure().find("too many"), std::string::npos) << solver->lastFailure();
  }
}
