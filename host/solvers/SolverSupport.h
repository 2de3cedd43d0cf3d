#pragma once
// What the solvers share beyond the Krylov core: the report of a solve, the thread count of a
// solve, input checks. Internal to the solver library.
#include <omp.h>

#include <string>

#include "Krylov.h"
#include "LinearSolver.h"

namespace Merivane {

// Sets OpenMP's thread count for the parallel loops this thread starts, and restores it.
class ThreadScope {
 public:
  explicit ThreadScope(int threads) : saved_(omp_get_max_threads()), threads_(threads) { omp_set_num_threads(threads); }
  // The thread count that was set before, which a solve may grow back to.
  int cap() const { return saved_; }
  ~ThreadScope() { omp_set_num_threads(saved_); }
  ThreadScope(const ThreadScope&) = delete;
  ThreadScope& operator=(const ThreadScope&) = delete;
  int threads() const { return threads_; }

 private:
  int saved_, threads_;
};

// Whether A's entries and b hold no NaN or infinity.
bool inputFinite(const SparseMatrixF& A, const Eigen::VectorXf& b);

// |A x - b| / |b|, as the iterative solvers measure it (|A x| itself when b is zero).
double relativeResidual(const SparseMatrixF& A, const Eigen::VectorXf& b, const Eigen::VectorXf& x);

// Collects what a solve did and hands it to the solver when it goes out of scope, on every
// return path.
struct SolverReport {
  explicit SolverReport(LinearSolver& s) : solver(s) {}
  ~SolverReport() {
    solver.info_ = info;
    solver.lastIterations_ = iterations;
    solver.lastError_ = error;
    solver.lastWorkspaceBytes_ = workspaceBytes;
    solver.lastFailure_ = info == SolverInfo::Success || info == SolverInfo::NoConvergence ? std::string() : failure;
  }
  SolverReport(const SolverReport&) = delete;
  SolverReport& operator=(const SolverReport&) = delete;

  // Checks the sizes and answers an empty system; false when the solve is over already.
  bool begin(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x);
  void take(const Krylov::Outcome& out);
  void fail(SolverInfo why, std::string what) {
    info = why;
    failure = std::move(what);
  }
  // For solvers with a stopping test of their own: judges x as the Krylov core would.
  void judge(const SparseMatrixF& A, const Eigen::VectorXf& b, const Eigen::VectorXf& x, double tolerance);

  LinearSolver& solver;
  SolverInfo info = SolverInfo::Success;
  int iterations = 0;
  double error = 0;
  size_t workspaceBytes = 0;
  std::string failure;  // what went wrong, when the solver knows more than `info` says
};

}  // namespace Merivane
