#include <Eigen/IterativeLinearSolvers>
#include <Eigen/SparseCholesky>

#include "AggregationAMG.h"
#include "LinearSolver.h"
#include "Log.h"

namespace Merivane {
namespace {
class SingleAsDouble;
}
}  // namespace Merivane

namespace Eigen::internal {
// Looks like a double sparse matrix to Eigen's iterative solvers.
template <>
struct traits<Merivane::SingleAsDouble> : traits<Eigen::SparseMatrix<double, Eigen::RowMajor, int>> {};
}  // namespace Eigen::internal

namespace Merivane {

namespace {

constexpr const char* kCategory = "Solver";

// The single-precision system as a double-precision operator: products read the float entries
// converted (exactly) and sum in double, so that a double solve needs no double copy of the
// matrix. The preconditioner takes the float arrays as they are. Rows are the columns of the
// symmetric column-major matrix.
class SingleAsDouble : public Eigen::EigenBase<SingleAsDouble> {
 public:
  using Scalar = double;
  using RealScalar = double;
  using StorageIndex = int;
  enum { ColsAtCompileTime = Eigen::Dynamic, MaxColsAtCompileTime = Eigen::Dynamic, IsRowMajor = true };

  explicit SingleAsDouble(const SparseMatrixF& A) : A_(&A) {}
  Eigen::Index rows() const { return A_->rows(); }
  Eigen::Index cols() const { return A_->cols(); }
  const int* outerIndexPtr() const { return A_->outerIndexPtr(); }
  const int* innerIndexPtr() const { return A_->innerIndexPtr(); }
  const float* valuePtr() const { return A_->valuePtr(); }

  template <typename Rhs>
  Eigen::Product<SingleAsDouble, Rhs, Eigen::AliasFreeProduct> operator*(const Eigen::MatrixBase<Rhs>& x) const {
    return Eigen::Product<SingleAsDouble, Rhs, Eigen::AliasFreeProduct>(*this, x.derived());
  }

  // dst += alpha A x, each row summed in its own order whatever the threads.
  void addProduct(const double* x, double* dst, double alpha) const {
    const int n = static_cast<int>(rows());
    const int* outer = outerIndexPtr();
    const int* inner = innerIndexPtr();
    const float* values = valuePtr();
#pragma omp parallel for schedule(static) if (n > 16384)
    for (int i = 0; i < n; ++i) {
      double s = 0.0;
      for (int k = outer[i]; k < outer[i + 1]; ++k) s += static_cast<double>(values[k]) * x[inner[k]];
      dst[i] += alpha * s;
    }
  }

 private:
  const SparseMatrixF* A_;
};

// A symmetric column-major matrix has the same arrays as its row-major form; Eigen's sparse
// times dense product runs multithreaded only on row-major storage, so we view it that way.
using RowMap = Eigen::Map<const Eigen::SparseMatrix<float, Eigen::RowMajor, int>>;

RowMap rowMajorView(const SparseMatrixF& A) {
  return RowMap(A.rows(), A.cols(), A.nonZeros(), A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr());
}

template <typename Solver, typename Vector>
void reportIterative(const Solver& s, bool verbose, const char* name, int& iterations, double& error) {
  iterations = static_cast<int>(s.iterations());
  error = static_cast<double>(s.error());
  if (verbose) LOG_INFO(kCategory, name << ": " << iterations << " iterations, estimated error " << error);
}

}  // namespace
}  // namespace Merivane

namespace Eigen::internal {
template <typename Rhs>
struct generic_product_impl<Merivane::SingleAsDouble, Rhs, SparseShape, DenseShape, GemvProduct>
    : generic_product_impl_base<Merivane::SingleAsDouble, Rhs,
                                generic_product_impl<Merivane::SingleAsDouble, Rhs>> {
  template <typename Dest>
  static void scaleAndAddTo(Dest& dst, const Merivane::SingleAsDouble& lhs, const Rhs& rhs, const double& alpha) {
    const Eigen::Ref<const Eigen::VectorXd> x(rhs);
    Eigen::Ref<Eigen::VectorXd> y(dst);
    lhs.addProduct(x.data(), y.data(), alpha);
  }
};
}  // namespace Eigen::internal

namespace Merivane {

LinearSolver::~LinearSolver() = default;

void LLTFloatSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                           const Eigen::VectorXf&) {
  lastIterations_ = 0;
  if (A.rows() == 0) {
    x.resize(0);
    return;
  }
  Eigen::SimplicialLLT<SparseMatrixF, Eigen::Lower, Eigen::AMDOrdering<int>> llt(A);
  if (llt.info() != Eigen::Success) {
    LOG_ERROR(kCategory, "LLT-Float: the matrix is not positive definite");
    lastError_ = 1.0;
    return;
  }
  x = llt.solve(b);
  lastError_ = 0.0;
  lastWorkspaceBytes_ = static_cast<size_t>(llt.matrixL().nestedExpression().nonZeros()) * (sizeof(float) + sizeof(int));
}

void LLTEigenSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                           const Eigen::VectorXf&) {
  lastIterations_ = 0;
  if (A.rows() == 0) {
    x.resize(0);
    return;
  }
  Eigen::SparseMatrix<double> Ad = A.cast<double>();
  Eigen::SimplicialLLT<Eigen::SparseMatrix<double>, Eigen::Lower, Eigen::AMDOrdering<int>> llt(Ad);
  if (llt.info() != Eigen::Success) {
    LOG_ERROR(kCategory, "LLT: the matrix is not positive definite");
    lastError_ = 1.0;
    return;
  }
  x = llt.solve(b.cast<double>()).cast<float>();
  lastError_ = 0.0;
  lastWorkspaceBytes_ =
      static_cast<size_t>(llt.matrixL().nestedExpression().nonZeros()) * (sizeof(double) + sizeof(int)) +
      static_cast<size_t>(Ad.nonZeros()) * (sizeof(double) + sizeof(int));
}

void CGSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                     const Eigen::VectorXf& guess) {
  using Matrix = Eigen::SparseMatrix<float, Eigen::RowMajor, int>;
  if (A.rows() == 0) {
    x.resize(0);
    return;
  }
  // Preconditioned by aggregation multigrid: random-walk systems have weights over five orders
  // of magnitude, where a diagonal preconditioner needs thousands of iterations.
  Eigen::ConjugateGradient<Matrix, Eigen::Lower | Eigen::Upper, AggregationAMG<float>> cg;
  cg.setMaxIterations(iterations_);
  cg.setTolerance(tolerance_);
  RowMap view = rowMajorView(A);
  cg.compute(view);
  x = cg.solveWithGuess(b, guess.size() == b.size() ? guess : b);
  reportIterative<decltype(cg), Eigen::VectorXf>(cg, verbose, "CG", lastIterations_, lastError_);
  lastWorkspaceBytes_ = static_cast<size_t>(b.size()) * sizeof(float) * 5 + cg.preconditioner().memoryBytes();
}

// Also preconditioned by aggregation multigrid, so that the default solver converges on noisy
// images within its iteration limit.
void BiCGStabEigenSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                                const Eigen::VectorXf& guess) {
  if (A.rows() == 0) {
    x.resize(0);
    return;
  }
  const Eigen::VectorXf& start = guess.size() == b.size() ? guess : b;
  if (double_) {
    // Double-precision vectors and multigrid over the single-precision matrix as it is.
    SingleAsDouble op(A);
    Eigen::BiCGSTAB<SingleAsDouble, AggregationAMG<double>> solver;
    solver.setMaxIterations(iterations_);
    solver.setTolerance(tolerance_);
    solver.compute(op);
    x = solver.solveWithGuess(b.cast<double>(), start.cast<double>()).cast<float>();
    reportIterative<decltype(solver), Eigen::VectorXd>(solver, verbose, "BiCGSTAB", lastIterations_, lastError_);
    lastWorkspaceBytes_ = static_cast<size_t>(b.size()) * sizeof(double) * 10 + solver.preconditioner().memoryBytes();
  } else {
    using Matrix = Eigen::SparseMatrix<float, Eigen::RowMajor, int>;
    RowMap view = rowMajorView(A);
    Eigen::BiCGSTAB<Matrix, AggregationAMG<float>> solver;
    solver.setMaxIterations(iterations_);
    solver.setTolerance(tolerance_);
    solver.compute(view);
    x = solver.solveWithGuess(b, start);
    reportIterative<decltype(solver), Eigen::VectorXf>(solver, verbose, "BiCGSTAB-Float", lastIterations_, lastError_);
    lastWorkspaceBytes_ = static_cast<size_t>(b.size()) * sizeof(float) * 10;
  }
}

}  // namespace Merivane
