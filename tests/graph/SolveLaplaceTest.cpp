#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <functional>
#include <random>

#include "GraphLaplacianAlgorithm.h"
#include "GraphLaplacianImage.h"
#include "LinearSolver.h"
#include "Log.h"
#include "SharedImageSet.h"
#include "SystemReduction.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

template <typename F>
std::shared_ptr<SharedImage> floatFrame(const Eigen::Vector3i& dims, F f) {
  auto img = TypedImage<float>::zeros(dims, 1);
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) img->setValue(static_cast<float>(f(x, y, z)), x, y, z);
  return std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(img)));
}

template <typename F>
std::shared_ptr<SharedImage> labelFrame(const Eigen::Vector3i& dims, F f) {
  auto img = TypedImage<unsigned char>::zeros(dims, 1);
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) img->setValue(static_cast<unsigned char>(f(x, y, z)), x, y, z);
  return std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(img)));
}

// A quiet algorithm with a tight tolerance and enough iterations to converge on small graphs.
std::unique_ptr<GraphLaplacianAlgorithm> makeAlgorithm(SharedImage& img, SharedImage& lab, int solver,
                                                       int iterations = 2000, int tolLog = -7) {
  auto a = std::make_unique<GraphLaplacianAlgorithm>(img, lab);
  Properties p;
  p.setParam("Verbose", false);
  p.setParam("Solver ID", solver);
  p.setParam("Solver Iterations", iterations);
  p.setParam("Solver Tolerance (Log)", tolLog);
  a->configure(&p);
  return a;
}

Eigen::VectorXf denseSolve(const GraphLaplacian& g) {
  auto sys = reduceSystem(g.laplacian(), g.seedIndices(), g.unknownIndices(), g.seedValues());
  Eigen::MatrixXd A = Eigen::MatrixXf(sys.A).cast<double>();
  return A.ldlt().solve(sys.b.cast<double>()).cast<float>();
}

}  // namespace

class EverySolver : public ::testing::TestWithParam<int> {};

TEST_P(EverySolver, OppositeSeedsOnConstantChainGiveLinearRamp) {
  const int n = 11;
  auto img = floatFrame({n, 1, 1}, [](int, int, int) { return 3.0; });
  auto lab = labelFrame({n, 1, 1}, [&](int x, int, int) { return x == 0 ? 1 : (x == n - 1 ? 2 : 0); });
  TestKit::LogCapture log;
  auto a = makeAlgorithm(*img, *lab, GetParam());
  a->graph().generateGraph(*img, *lab);
  Eigen::VectorXf x = a->solveLaplace(nullptr);
  ASSERT_EQ(x.size(), n - 2);
  for (int k = 0; k < n - 2; ++k) EXPECT_NEAR(x[k], 1.0 - (k + 1) / double(n - 1), 1e-4) << k;
  EXPECT_EQ(log.count(Log::Error), 0);
}

// Small random graphs in 2D and 3D against a dense double-precision solve of the same system.
TEST_P(EverySolver, AgreesWithDenseSolveOnRandomGraphs) {
  for (int slices : {1, 5}) {
    std::mt19937 rng(100 + slices);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    const Eigen::Vector3i dims(9, 7, slices);
    auto img = floatFrame(dims, [&](int, int, int) { return u(rng); });
    auto lab = labelFrame(dims, [&](int, int, int) {
      const float r = u(rng);
      return r < 0.08f ? 1 : (r < 0.16f ? 2 : 0);
    });
    auto a = makeAlgorithm(*img, *lab, GetParam());
    a->graph().adaptiveness = 5.0;  // keeps the system well conditioned for float solvers
    a->graph().generateGraph(*img, *lab);
    Eigen::VectorXf x = a->solveLaplace(nullptr);
    Eigen::VectorXf ref = denseSolve(a->graph());
    ASSERT_EQ(x.size(), ref.size());
    EXPECT_LT((x - ref).cwiseAbs().maxCoeff(), 2e-4f) << "slices " << slices;
    // Iterative solvers report the iterations they ran, direct ones none. On graphs this
    // small the multigrid preconditioner (ids 2, 4, 5) is an exact solve, and Eigen counts the
    // one step that converges as none; the Jacobi-preconditioned ones need several.
    const int id = GetParam();
    EXPECT_LE(a->lastIterations(), 2000);
    if (id == 3 || id == 6 || id == 7) {
      EXPECT_GT(a->lastIterations(), 1) << "id " << id;
    }
    if (id < 2) {
      EXPECT_EQ(a->lastIterations(), 0);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Ids, EverySolver, ::testing::Range(0, 8));

TEST(SolveLaplace, NoUnknownsGivesEmptySystemAndSeedsFillTheOutput) {
  auto img = floatFrame({2, 1, 1}, [](int x, int, int) { return x; });
  auto lab = labelFrame({2, 1, 1}, [](int x, int, int) { return x == 0 ? 1 : 2; });
  for (int id = 0; id < 8; ++id) {
    auto a = makeAlgorithm(*img, *lab, id);
    a->graph().generateGraph(*img, *lab);
    EXPECT_EQ(a->solveLaplace(nullptr).size(), 0) << id;
  }
  auto a = makeAlgorithm(*img, *lab, 4);
  a->compute();
  auto out = a->takeOutput().extractFirstImage();
  ASSERT_TRUE(out);
  auto* p = static_cast<TypedImage<float>*>(out->mem());
  EXPECT_EQ(p->value(0, 0), 1.0f);
  EXPECT_EQ(p->value(1, 0), 0.0f);
}

TEST(SolveLaplace, PriorPullsUnknownsTowardsItsNormalisedValues) {
  auto img = floatFrame({7, 1, 1}, [](int, int, int) { return 1.0; });
  auto lab = labelFrame({7, 1, 1}, [](int x, int, int) { return x == 0 ? 1 : (x == 6 ? 2 : 0); });
  auto prior = floatFrame({7, 1, 1}, [](int x, int, int) { return x == 3 ? 4.0 : 0.0; });
  auto a = makeAlgorithm(*img, *lab, 1);
  a->priorWeight = 10000.0f;  // gamma = 1
  a->graph().generateGraph(*img, *lab);
  Eigen::VectorXf with = a->solveLaplace(prior.get());

  // Oracle: (A + I) x = b + p / pmax.
  auto sys = reduceSystem(a->graph().laplacian(), a->graph().seedIndices(), a->graph().unknownIndices(),
                          a->graph().seedValues());
  Eigen::MatrixXd A = Eigen::MatrixXf(sys.A).cast<double>() + Eigen::MatrixXd::Identity(5, 5);
  Eigen::VectorXd b = sys.b.cast<double>();
  b[2] += 1.0;
  Eigen::VectorXd ref = A.ldlt().solve(b);
  EXPECT_LT((with.cast<double>() - ref).cwiseAbs().maxCoeff(), 1e-5);
  // Without a prior the values form a ramp; the prior raises a bump where it is set.
  EXPECT_GT(with[2], 0.5f * (with[1] + with[3]));
}

// A prior that is zero everywhere divides by its zero maximum: the right side holds NaN, which
// the solver refuses, and the run ends with an error instead of a map of NaN.
TEST(SolveLaplace, ZeroPriorIsRefusedWithOneErrorLine) {
  auto img = floatFrame({5, 1, 1}, [](int, int, int) { return 1.0; });
  auto lab = labelFrame({5, 1, 1}, [](int x, int, int) { return x == 0 ? 1 : (x == 4 ? 2 : 0); });
  auto prior = floatFrame({5, 1, 1}, [](int, int, int) { return 0.0; });
  for (int id : {1, 4}) {
    auto a = makeAlgorithm(*img, *lab, id);
    a->graph().generateGraph(*img, *lab);
    TestKit::LogCapture log;
    Eigen::VectorXf x = a->solveLaplace(prior.get());
    EXPECT_EQ(a->lastSolveStatus(), Algorithm::statusError) << "id " << id;
    EXPECT_EQ(x, a->previousSolution()) << "id " << id;
    EXPECT_EQ(log.count(Log::Error), 1) << "id " << id;
  }
}

// With no iterations the solver leaves x at its guess, which shows which guess was chosen.
struct GuessCase {
  int previous;  // size of the previous solution; 1 means nothing to reuse
  bool reuse;
};

class WarmStart : public ::testing::TestWithParam<GuessCase> {};

TEST_P(WarmStart, GuessFollowsTheSizeRules) {
  auto img = floatFrame({8, 1, 1}, [](int, int, int) { return 1.0; });
  auto lab = labelFrame({8, 1, 1}, [](int x, int, int) { return x == 0 ? 1 : (x == 7 ? 2 : 0); });
  auto a = makeAlgorithm(*img, *lab, 3, 0);
  a->reuseSolution = GetParam().reuse;
  Eigen::VectorXf prev = Eigen::VectorXf::LinSpaced(GetParam().previous, 10.0f, 20.0f);
  a->setPreviousSolution(prev);
  a->graph().generateGraph(*img, *lab);
  const int nU = 6;
  auto sys = reduceSystem(a->graph().laplacian(), a->graph().seedIndices(), a->graph().unknownIndices(),
                          a->graph().seedValues());
  Eigen::VectorXf x = a->solveLaplace(nullptr);
  Eigen::VectorXf expected = sys.b;
  if (GetParam().reuse && GetParam().previous != 1) {
    const int m = std::min(GetParam().previous, nU);
    expected.head(m) = prev.head(m);
  }
  EXPECT_EQ(x, expected);
}

INSTANTIATE_TEST_SUITE_P(Sizes, WarmStart,
                         ::testing::Values(GuessCase{1, true}, GuessCase{6, false}, GuessCase{6, true},
                                           GuessCase{9, true}, GuessCase{3, true}));

TEST(SolveLaplace, UnknownSolverIdReturnsPreviousSolutionWithOneErrorLine) {
  auto img = floatFrame({5, 1, 1}, [](int, int, int) { return 1.0; });
  auto lab = labelFrame({5, 1, 1}, [](int x, int, int) { return x == 0 ? 1 : (x == 4 ? 2 : 0); });
  auto a = makeAlgorithm(*img, *lab, 8);
  Eigen::VectorXf prev(4);
  prev << 1, 2, 3, 4;
  a->setPreviousSolution(prev);
  a->graph().generateGraph(*img, *lab);
  TestKit::LogCapture log;
  EXPECT_EQ(a->solveLaplace(nullptr), prev);
  EXPECT_EQ(a->lastSolveStatus(), Algorithm::statusError);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(log.contains("Incorrect solver ID"));
}

// A failed solve ends the run: error status, no result, the error line once.
TEST(GraphLaplacianAlgorithm, FailedSolveEndsTheRunWithAnErrorAndNoResult) {
  auto img = floatFrame({6, 6, 1}, [](int x, int, int) { return x < 3 ? 0.0 : 1.0; });
  auto lab = labelFrame({6, 6, 1}, [](int x, int y, int) { return y == 0 ? (x == 0 ? 1 : (x == 5 ? 2 : 0)) : 0; });
  auto zero = floatFrame({6, 6, 1}, [](int, int, int) { return 0.0; });
  for (int id : {8, 4}) {
    GraphLaplacianAlgorithm a(*img, *lab, id == 4 ? zero.get() : nullptr);
    a.verbose = false;
    a.solverId = static_cast<unsigned short>(id);
    TestKit::LogCapture log;
    a.compute();
    EXPECT_EQ(a.status(), Algorithm::statusError) << "id " << id;
    EXPECT_EQ(a.takeOutput().size(), 0) << "id " << id;
    EXPECT_EQ(log.count(Log::Error), 1) << "id " << id;
  }
}

// A solver stopped by its iteration limit keeps its iterate and says so in one warning; the
// run succeeds, since the values are usually close.
TEST(GraphLaplacianAlgorithm, IterationLimitAboveToleranceWarnsAndKeepsTheIterate) {
  auto img = floatFrame({16, 16, 1}, [](int x, int y, int) { return std::sin(x * 0.7) + std::cos(y * 1.3); });
  auto lab = labelFrame({16, 16, 1}, [](int x, int y, int) { return x == 0 && y == 0 ? 1 : (x == 15 && y == 15 ? 2 : 0); });
  for (int id : {2, 3, 4, 5, 6}) {
    auto a = makeAlgorithm(*img, *lab, id, 1, -12);
    a->graph().generateGraph(*img, *lab);
    TestKit::LogCapture log;
    Eigen::VectorXf x = a->solveLaplace(nullptr);
    EXPECT_EQ(a->lastSolveStatus(), Algorithm::statusSuccess) << "id " << id;
    EXPECT_EQ(x.size(), static_cast<Eigen::Index>(a->graph().unknownIndices().size())) << "id " << id;
    EXPECT_EQ(log.count(Log::Warning), 1) << "id " << id;
    EXPECT_TRUE(log.contains("Solver Iterations")) << "id " << id;
  }
}

TEST(GraphLaplacianAlgorithm, ConfigureSwapsGraphClassAndKeepsItForUnknownTypes) {
  auto img = floatFrame({4, 4, 1}, [](int, int, int) { return 1.0; });
  auto lab = labelFrame({4, 4, 1}, [](int, int, int) { return 0; });
  GraphLaplacianAlgorithm a(*img, *lab);
  Properties p;
  p.setParam("Graph Type", 2);
  p.setParam("Vertical penalty", 3.5);
  a.configure(&p);
  auto* att = dynamic_cast<GraphLaplacianImageAttenuation*>(&a.graph());
  ASSERT_TRUE(att);
  EXPECT_EQ(att->verticalPenalty.value(), 3.5);
  p.setParam("Graph Type", 9);
  a.configure(&p);
  EXPECT_TRUE(dynamic_cast<GraphLaplacianImageAttenuation*>(&a.graph()));

  Properties out;
  a.configuration(&out);
  for (const char* key : {"Verbose", "Graph Type", "Prior Weight", "Solver ID", "Solver Iterations",
                          "Solver Tolerance (Log)", "Re-Use Solution", "Propagate Up", "Min Level", "Num Levels",
                          "Active Label", "Adaptiveness", "Horizontal penalty"})
    EXPECT_TRUE(out.contains(key)) << key;
}

TEST(GraphLaplacianAlgorithm, MemoryEstimateFollowsLevelAndSolver) {
  auto img = floatFrame({16, 16, 8}, [](int, int, int) { return 1.0; });
  auto lab = labelFrame({16, 16, 8}, [](int, int, int) { return 0; });
  GraphLaplacianAlgorithm a(*img, *lab);
  const int64_t n = 16 * 16 * 8;
  const int64_t base = n * 48 + (7 * n + n) * 12;
  EXPECT_EQ(a.memoryEstimation(1), static_cast<uint64_t>(static_cast<float>(base + n * 12 * 8) * 1.3f));
  EXPECT_EQ(a.memoryEstimation(0), a.memoryEstimation(1));
  a.solverId = 3;
  const int64_t n2 = n / 8;
  EXPECT_EQ(a.memoryEstimation(2), static_cast<uint64_t>(static_cast<float>(n2 * 48 + (7 * n2 + n2) * 12) * 1.3f));
}

TEST(GraphLaplacianAlgorithm, CheckLabelsWantsBothSeedLabels) {
  auto img = floatFrame({3, 1, 1}, [](int, int, int) { return 1.0; });
  auto both = labelFrame({3, 1, 1}, [](int x, int, int) { return x == 0 ? 5 : (x == 2 ? 6 : 0); });
  auto one = labelFrame({3, 1, 1}, [](int x, int, int) { return x == 0 ? 5 : 0; });
  GraphLaplacianAlgorithm a(*img, *both);
  a.graph().activeLabel = 5;
  EXPECT_TRUE(a.checkLabels(both.get()));
  EXPECT_FALSE(a.checkLabels(one.get()));
  EXPECT_FALSE(a.checkLabels(nullptr));
}

// The solve borrows the Laplacian's storage; whatever the solve does, with a prior or with an
// unknown solver id, the graph holds the same Laplacian afterwards, and the result is the one
// of the copied system.
TEST(SolveLaplace, LeavesTheLaplacianAsItWas) {
  auto img = floatFrame({6, 5, 3}, [](int x, int y, int z) { return (x * 13 + y * 7 + z * 5) % 9; });
  auto lab = labelFrame({6, 5, 3}, [](int x, int y, int z) { return x == 0 ? 1 : (x == 5 && y > 1 ? 2 : 0); });
  auto prior = floatFrame({6, 5, 3}, [](int x, int, int) { return x < 3 ? 1.0 : 0.0; });
  for (int solver : {2, 8})
    for (SharedImage* p : {static_cast<SharedImage*>(nullptr), prior.get()}) {
      auto a = makeAlgorithm(*img, *lab, solver);
      a->graph().generateGraph(*img, *lab);
      const Eigen::MatrixXf before(a->graph().laplacian());
      const auto& L = a->graph().laplacian();
      const std::vector<float> values(L.valuePtr(), L.valuePtr() + L.nonZeros());
      TestKit::LogCapture log;
      const Eigen::VectorXf x = a->solveLaplace(p);
      EXPECT_EQ(Eigen::MatrixXf(a->graph().laplacian()), before);
      EXPECT_EQ(std::vector<float>(L.valuePtr(), L.valuePtr() + L.nonZeros()), values);
      if (solver == 2) {
        auto sys = reduceSystem(L, a->graph().seedIndices(), a->graph().unknownIndices(), a->graph().seedValues());
        if (p) {
          Eigen::VectorXf q = a->graph().generateVectorFromImage(*p);
          addToDiagonal(sys.A, 1e-4f * 1.0f);  // "Prior Weight" 1 by default
          sys.b += q * (1e-4f * (1.0f / q.maxCoeff()));
        }
        // The same solver on the copied system, from the same guess, gives the same bits.
        CGSolver cg(2000, 1e-7f);
        Eigen::VectorXf y = sys.b;
        cg.solve(sys.A, sys.b, y, sys.b);
        EXPECT_EQ(x, y);
      }
    }
}

// Image and seeds of different sizes leave the graph with node lists that do not fit its
// Laplacian: nothing is solved, one error line, the previous solution comes back.
TEST(SolveLaplace, NodeListsThatDoNotFitTheMatrixSolveNothing) {
  auto img = floatFrame({4, 4, 1}, [](int x, int, int) { return x; });
  auto lab = labelFrame({5, 5, 1}, [](int x, int, int) { return x == 0 ? 1 : (x == 4 ? 2 : 0); });
  auto a = makeAlgorithm(*img, *lab, 2);
  Eigen::VectorXf prev(2);
  prev << 0.25f, 0.75f;
  a->setPreviousSolution(prev);
  a->graph().generateGraph(*img, *lab);
  TestKit::LogCapture log;
  EXPECT_EQ(a->solveLaplace(nullptr), prev);
  EXPECT_EQ(log.count(Log::Error), 1);
}

// The integer of "Solver ID" in Properties picks the class of the solver table: ids 4 and 5
// are the same class in double and single precision, and an id past the table gives none.
struct SolverRow {
  int id;
  std::function<bool(const LinearSolver*)> isClass;
};

class SolverTable : public testing::TestWithParam<SolverRow> {};

template <typename S>
std::function<bool(const LinearSolver*)> is() {
  return [](const LinearSolver* s) { return dynamic_cast<const S*>(s) != nullptr; };
}

TEST_P(SolverTable, StoredIdCreatesTheSolverOfItsRow) {
  auto img = floatFrame({3, 3, 1}, [](int, int, int) { return 0.0; });
  auto lab = labelFrame({3, 3, 1}, [](int, int, int) { return 0; });
  GraphLaplacianAlgorithm a(*img, *lab);
  Properties p;
  p.setParam("Solver ID", GetParam().id);
  a.configure(&p);
  EXPECT_EQ(static_cast<int>(a.selectedSolver()), GetParam().id);
  auto solver = a.createSolver(a.selectedSolver());
  EXPECT_TRUE(GetParam().isClass(solver.get())) << "id " << GetParam().id;
  Properties written;
  a.configuration(&written);
  int stored = -1;
  written.param("Solver ID", stored);
  EXPECT_EQ(stored, GetParam().id);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SolverTable,
    testing::Values(SolverRow{0, is<LLTFloatSolver>()}, SolverRow{1, is<LLTEigenSolver>()}, SolverRow{2, is<CGSolver>()},
                    SolverRow{3, is<BiCGStabSolver>()}, SolverRow{4, is<BiCGStabEigenSolver>()},
                    SolverRow{5, is<BiCGStabEigenSolver>()}, SolverRow{6, is<BiCGStabViennaCPUSolver>()},
                    SolverRow{7, is<BiCGStabViennaGPUSolver>()},
                    SolverRow{8, [](const LinearSolver* s) { return s == nullptr; }}));

// "Graph Type" 2 swaps in the attenuation graph, 0 brings back the plain one, and a value
// outside the table keeps the graph in use.
TEST(GraphTypeSetting, StoredTypePicksTheGraphClass) {
  auto img = floatFrame({3, 3, 1}, [](int, int, int) { return 0.0; });
  auto lab = labelFrame({3, 3, 1}, [](int, int, int) { return 0; });
  GraphLaplacianAlgorithm a(*img, *lab);
  auto configureType = [&](int type) {
    Properties p;
    p.setParam("Graph Type", type);
    a.configure(&p);
  };
  configureType(2);
  EXPECT_EQ(a.selectedGraphType(), GraphType::ImageAttenuation);
  EXPECT_NE(dynamic_cast<GraphLaplacianImageAttenuation*>(&a.graph()), nullptr);
  configureType(9);
  EXPECT_NE(dynamic_cast<GraphLaplacianImageAttenuation*>(&a.graph()), nullptr);
  configureType(0);
  EXPECT_EQ(typeid(a.graph()), typeid(GraphLaplacianImage));
}

TEST(GraphLaplacianAlgorithm, AKeptSolutionMakesTheNextComputeSolveItsFinestLevelAloneFromIt) {
  // A noisy step in 24³ with seeds on both sides, three levels, BiCGSTAB to 1e-6.
  std::mt19937 rng(3);
  std::normal_distribution<double> noise(0.0, 0.1);
  auto img = floatFrame({24, 24, 24}, [&](int x, int, int) { return (x < 12 ? 0.0 : 1.0) + noise(rng); });
  auto lab = labelFrame({24, 24, 24}, [](int x, int y, int) { return y == 12 && x == 3 ? 1 : (y == 12 && x == 20 ? 2 : 0); });
  auto a = makeAlgorithm(*img, *lab, 4, 500, -6);
  Properties p;
  p.setParam("Num Levels", 3);
  p.setParam("Re-Use Solution", true);
  a->configure(&p);
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  const std::vector<int> cold = a->levelIterations();
  ASSERT_EQ(cold.size(), 3u);
  EXPECT_FALSE(a->lastComputeWarmStarted());
  auto first = a->takeOutput().extractFirstImage();
  // Off by default: the second compute starts as the first did.
  a->compute();
  EXPECT_FALSE(a->lastComputeWarmStarted());
  a->setKeepResultForWarmStart(true);
  a->compute();
  EXPECT_FALSE(a->lastComputeWarmStarted());  // nothing kept yet
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  EXPECT_TRUE(a->lastComputeWarmStarted());
  // Unchanged seeds: the finest level alone, starting at its own solution, with (almost)
  // nothing to do.
  const std::vector<int> warm = a->levelIterations();
  ASSERT_EQ(warm.size(), 1u);
  EXPECT_LT(warm[0], std::max(cold.back(), 2));
  auto second = a->takeOutput().extractFirstImage();
  const auto* u = static_cast<const TypedImage<float>*>(first->mem(0));
  const auto* v = static_cast<const TypedImage<float>*>(second->mem(0));
  // Both solve the same system to the tolerance; the iterates differ a little, the decisions not.
  for (size_t k = 0; k < u->descriptor().pixelCount(); ++k) {
    ASSERT_NEAR(u->pointer()[k], v->pointer()[k], 0.02) << k;
    ASSERT_EQ(u->pointer()[k] > 0.5f, v->pointer()[k] > 0.5f) << k;
  }
  // Another finest level, or reset(), forgets the kept solution.
  p.setParam("Min Level", 2);
  a->configure(&p);
  a->compute();
  EXPECT_FALSE(a->lastComputeWarmStarted());
  EXPECT_EQ(a->levelIterations().size(), 2u);
  a->reset();
  a->compute();
  EXPECT_FALSE(a->lastComputeWarmStarted());
}

// A re-run after a correction stroke takes over the multigrid hierarchy of the run before,
// re-targeted at the new seeds, and decides every voxel as a fresh run on those seeds does.
TEST(GraphLaplacianAlgorithm, ARerunAfterAStrokeReusesTheHierarchyAndMatchesAFreshRun) {
  std::mt19937 rng(4);
  std::normal_distribution<double> noise(0.0, 0.1);
  const Eigen::Vector3i dims(28, 26, 24);
  auto img = floatFrame(dims, [&](int x, int y, int z) {
    return (std::hypot(x - 14.0, y - 13.0, z - 12.0) < 8 ? 1.0 : 0.0) + noise(rng);
  });
  auto seeds = [](int x, int y, int z) { return std::hypot(x - 14.0, y - 13.0, z - 12.0) < 2 ? 1 : (x < 2 ? 2 : 0); };
  auto lab = labelFrame(dims, seeds);
  auto a = makeAlgorithm(*img, *lab, 4, 500, -6);
  Properties p;
  p.setParam("Re-Use Solution", true);
  a->configure(&p);
  a->setKeepResultForWarmStart(true);
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  EXPECT_FALSE(a->lastSolveReusedHierarchy());
  // A stroke of background seeds inside the ball's edge, and one erased seed.
  auto* l = static_cast<TypedImage<unsigned char>*>(lab->mem());
  for (int x = 16; x < 24; ++x) l->setValue(2, x, 13, 12);
  l->setValue(0, 0, 5, 5);
  lab->setDirtyMem();
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  EXPECT_TRUE(a->lastComputeWarmStarted());
  EXPECT_TRUE(a->lastSolveReusedHierarchy());
  auto rerun = a->takeOutput().extractFirstImage();

  auto fresh = makeAlgorithm(*img, *lab, 4, 500, -6);
  fresh->compute();
  ASSERT_EQ(fresh->status(), Algorithm::statusSuccess);
  auto reference = fresh->takeOutput().extractFirstImage();
  const auto* u = static_cast<const TypedImage<float>*>(rerun->mem(0));
  const auto* v = static_cast<const TypedImage<float>*>(reference->mem(0));
  for (size_t k = 0; k < u->descriptor().pixelCount(); ++k) {
    ASSERT_NEAR(u->pointer()[k], v->pointer()[k], 1e-3) << k;
    if (std::abs(v->pointer()[k] - 0.5f) > 1e-3f) {
      ASSERT_EQ(u->pointer()[k] > 0.5f, v->pointer()[k] > 0.5f) << k;
    }
  }
  // reset() forgets the hierarchy with the solution.
  a->reset();
  a->compute();
  EXPECT_FALSE(a->lastSolveReusedHierarchy());
}

// A grid whose Laplacian has more entries than 32-bit indices hold (about 306 million voxels
// and up) is refused with one error line before anything is built; the pixels are never read,
// so the untouched zero pages of this 314 MB image cost no memory.
TEST(GraphLaplacianImage, GridTooLargeForTheMatrixIndicesIsRefused) {
  auto huge = TypedImage<unsigned char>::zeros(Eigen::Vector3i(700, 700, 640), 1);
  SharedImage image(std::shared_ptr<Image>(std::move(huge)));
  GraphLaplacianImage g;
  TestKit::LogCapture log;
  g.generateGraph3D(&image);
  EXPECT_EQ(g.laplacian().rows(), 0);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(log.contains("more than the 32-bit indices can hold"));
}
