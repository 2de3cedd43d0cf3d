#pragma once
// The host's solvers for A x = b with A sparse, symmetric positive definite and single
// precision. Iterative solvers start from the guess and stop at the iteration limit or when
// the relative residual |A x - b| / |b| falls to the tolerance; direct solvers ignore both.
// `info()` tells how the last solve ended.
#include <Eigen/SparseCore>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Merivane {

using SparseMatrixF = Eigen::SparseMatrix<float, Eigen::ColMajor, int>;

// How a solve ended, in the manner of Eigen's ComputationInfo.
enum class SolverInfo {
  Success,         // converged (iterative) or factorised and solved (direct)
  NoConvergence,   // stopped at the iteration limit above the tolerance; x is the last iterate
  NumericalIssue,  // not positive definite, a breakdown, or NaN or infinity in an iterate
  InvalidInput,    // NaN or infinity in the matrix or the right side, or sizes that differ
  Canceled,        // `canceled` answered true; x is the last iterate
};

const char* toString(SolverInfo info);

// |A x - b| of a symmetric system (A's columns read as its rows), summed in double on all
// threads in fixed blocks, so that it does not depend on their number.
double residualNorm(const SparseMatrixF& A, const Eigen::VectorXf& b, const Eigen::VectorXf& x);

// A multigrid hierarchy carried from one solve to the next, for the multigrid-preconditioned
// iterative solvers. A re-solve of a system that differs from the last in a few rows (a stroke
// of new seeds) reuses the hierarchy instead of setting up a new one. Before such a solve the
// caller fills `newRowOfOld` (the new row of each row of the last system, -1 where it is gone);
// left empty, the solver sets up afresh. Either way the solver keeps its hierarchy here.
struct KeptMultigrid {
  std::shared_ptr<void> hierarchy;  // the solver's, opaque to the caller
  bool doublePrecision = false;  // of an aggregation hierarchy; a classical one is single
  bool classical = false;  // classical multigrid, or pairwise aggregation
  std::vector<int> newRowOfOld;
  bool lastReused = false;  // whether the last solve reused the hierarchy
  double lastSetupMs = 0;   // time the last solve spent on setting up or re-targeting it
};

class LinearSolver {
 public:
  virtual ~LinearSolver();
  // Overwrites x. A must be compressed.
  virtual void solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                     const Eigen::VectorXf& guess) = 0;

  bool verbose = false;
  // Asked between iterations by the iterative solvers; true ends the solve as Canceled.
  std::function<bool()> canceled;
  // Where the multigrid solvers take a kept hierarchy from and keep theirs; null: none kept.
  KeptMultigrid* keptMultigrid = nullptr;

  SolverInfo info() const { return info_; }
  // Why the last solve failed, in words; empty unless info() is a failure. Solvers do not log
  // failures themselves: their caller reports them once.
  std::string lastFailure() const;

  // What the last solve did: iterations run (0 for direct solvers) and the relative residual of
  // the x it returned.
  int lastIterations() const { return lastIterations_; }
  double lastError() const { return lastError_; }
  // Bytes of working storage the last solve held beyond A, b and x.
  size_t lastWorkspaceBytes() const { return lastWorkspaceBytes_; }

 protected:
  friend struct SolverReport;
  SolverInfo info_ = SolverInfo::Success;
  std::string lastFailure_;
  int lastIterations_ = 0;
  double lastError_ = 0.0;
  size_t lastWorkspaceBytes_ = 0;
};

// Single-precision sparse Cholesky with an approximate-minimum-degree ordering.
class LLTFloatSolver : public LinearSolver {
 public:
  void solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x, const Eigen::VectorXf& guess) override;
};

// Eigen's sparse Cholesky in double precision.
class LLTEigenSolver : public LinearSolver {
 public:
  void solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x, const Eigen::VectorXf& guess) override;
};

// Eigen's conjugate gradients over the full symmetric matrix, with a multithreaded product and
// our aggregation multigrid as preconditioner.
class CGSolver : public LinearSolver {
 public:
  CGSolver(int iterations, float tolerance) : iterations_(iterations), tolerance_(tolerance) {}
  void solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x, const Eigen::VectorXf& guess) override;

 private:
  int iterations_;
  float tolerance_;
};

// Our own single-precision BiCGSTAB with OpenMP vector kernels and a Jacobi preconditioner.
class BiCGStabSolver : public LinearSolver {
 public:
  BiCGStabSolver(int iterations, float tolerance) : iterations_(iterations), tolerance_(tolerance) {}
  void solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x, const Eigen::VectorXf& guess) override;

 private:
  int iterations_;
  float tolerance_;
};

// Eigen's BiCGSTAB preconditioned by aggregation multigrid, in double or single precision.
class BiCGStabEigenSolver : public LinearSolver {
 public:
  BiCGStabEigenSolver(bool doublePrecision, int iterations, float tolerance)
      : double_(doublePrecision), iterations_(iterations), tolerance_(tolerance) {}
  void solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x, const Eigen::VectorXf& guess) override;

 private:
  bool double_;
  int iterations_;
  float tolerance_;
};

// ViennaCL's BiCGSTAB on its OpenMP backend.
class BiCGStabViennaCPUSolver : public LinearSolver {
 public:
  BiCGStabViennaCPUSolver(int iterations, float tolerance) : iterations_(iterations), tolerance_(tolerance) {}
  void solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x, const Eigen::VectorXf& guess) override;

 private:
  int iterations_;
  float tolerance_;
};

// ViennaCL's BiCGSTAB on its OpenCL backend: whatever OpenCL device the machine has. Without
// one it warns once and solves on the CPU backend.
class BiCGStabViennaGPUSolver : public LinearSolver {
 public:
  BiCGStabViennaGPUSolver(int iterations, float tolerance) : iterations_(iterations), tolerance_(tolerance) {}
  void solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x, const Eigen::VectorXf& guess) override;
  // Whether an OpenCL device is usable in this process.
  static bool deviceAvailable();

 private:
  int iterations_;
  float tolerance_;
};

}  // namespace Merivane
