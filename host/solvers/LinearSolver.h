#pragma once
// The host's solvers for A x = b with A sparse, symmetric positive definite and single
// precision. Iterative solvers start from the guess and stop at the iteration limit or when
// |A x - b| / |b| falls below the tolerance; direct solvers ignore both.
#include <Eigen/SparseCore>
#include <memory>

namespace Merivane {

using SparseMatrixF = Eigen::SparseMatrix<float, Eigen::ColMajor, int>;

class LinearSolver {
 public:
  virtual ~LinearSolver();
  // Overwrites x. A must be compressed.
  virtual void solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                     const Eigen::VectorXf& guess) = 0;

  bool verbose = false;

  // What the last solve did: iterations run (0 for direct solvers) and the relative residual
  // the solver itself estimated.
  int lastIterations() const { return lastIterations_; }
  double lastError() const { return lastError_; }
  // Bytes of working storage the last solve held beyond A, b and x.
  size_t lastWorkspaceBytes() const { return lastWorkspaceBytes_; }

 protected:
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
