#include "SolverSupport.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace Merivane {

const char* toString(SolverInfo info) {
  switch (info) {
    case SolverInfo::Success: return "success";
    case SolverInfo::NoConvergence: return "no convergence";
    case SolverInfo::NumericalIssue: return "numerical issue";
    case SolverInfo::InvalidInput: return "invalid input";
    case SolverInfo::Canceled: return "canceled";
  }
  return "unknown";
}

std::string LinearSolver::lastFailure() const {
  if (info_ == SolverInfo::Success || info_ == SolverInfo::NoConvergence) return {};
  if (!lastFailure_.empty()) return lastFailure_;
  switch (info_) {
    case SolverInfo::InvalidInput: return "NaN or infinity in the system, or sizes that do not fit";
    case SolverInfo::NumericalIssue:
      return "the iteration broke down after " + std::to_string(lastIterations_) + " iterations";
    case SolverInfo::Canceled: return "canceled";
    default: return toString(info_);
  }
}

bool inputFinite(const SparseMatrixF& A, const Eigen::VectorXf& b) {
  const float* v = A.valuePtr();
  const Eigen::Index nnz = A.nonZeros();
  bool ok = b.allFinite();
#pragma omp parallel for schedule(static) reduction(&& : ok) if (nnz > 65536)
  for (Eigen::Index k = 0; k < nnz; ++k) ok = ok && std::isfinite(v[k]);
  return ok;
}

double residualNorm(const SparseMatrixF& A, const Eigen::VectorXf& b, const Eigen::VectorXf& x) {
  if (!A.isCompressed()) return (A * x - b).cast<double>().norm();
  constexpr Eigen::Index kBlock = 16384;
  const Eigen::Index n = A.cols(), blocks = (n + kBlock - 1) / kBlock;
  std::vector<double> partial(static_cast<size_t>(blocks), 0.0);
  const int* outer = A.outerIndexPtr();
  const int* inner = A.innerIndexPtr();
  const float* values = A.valuePtr();
#pragma omp parallel for schedule(static) if (n > 4 * kBlock)
  for (Eigen::Index blk = 0; blk < blocks; ++blk) {
    double sum = 0;
    for (Eigen::Index i = blk * kBlock; i < std::min(n, (blk + 1) * kBlock); ++i) {
      double r = -static_cast<double>(b[i]);
      for (int k = outer[i]; k < outer[i + 1]; ++k) r += static_cast<double>(values[k]) * x[inner[k]];
      sum += r * r;
    }
    partial[static_cast<size_t>(blk)] = sum;
  }
  double total = 0;
  for (double p : partial) total += p;
  return std::sqrt(total);
}

double relativeResidual(const SparseMatrixF& A, const Eigen::VectorXf& b, const Eigen::VectorXf& x) {
  const double r = residualNorm(A, b, x);
  const double nb = b.cast<double>().norm();
  return nb > 0 ? r / nb : r;  // the solution of A x = 0 is zero: any residual is off by itself
}

bool SolverReport::begin(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x) {
  if (A.rows() != A.cols() || b.size() != A.rows()) {
    info = SolverInfo::InvalidInput;
    return false;
  }
  if (A.rows() == 0) {
    x.resize(0);
    return false;
  }
  return true;
}

void SolverReport::take(const Krylov::Outcome& out) {
  iterations = out.iterations;
  error = out.relativeResidual;
  if (out.canceled)
    info = SolverInfo::Canceled;
  else if (!out.finite)
    info = out.iterations == 0 ? SolverInfo::InvalidInput : SolverInfo::NumericalIssue;
  else if (out.converged)
    info = SolverInfo::Success;
  else if (out.breakdown)
    info = SolverInfo::NumericalIssue;
  else
    info = SolverInfo::NoConvergence;
}

void SolverReport::judge(const SparseMatrixF& A, const Eigen::VectorXf& b, const Eigen::VectorXf& x,
                         double tolerance) {
  if (!inputFinite(A, b)) {
    info = SolverInfo::InvalidInput;
    return;
  }
  error = x.size() == b.size() ? relativeResidual(A, b, x) : std::nan("");
  info = !std::isfinite(error) ? SolverInfo::NumericalIssue
         : error <= tolerance  ? SolverInfo::Success
                               : SolverInfo::NoConvergence;
}

}  // namespace Merivane
