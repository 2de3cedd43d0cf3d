// Single-precision BiCGSTAB with a Jacobi preconditioner: the Krylov core with float vectors.
#include <omp.h>

#include <vector>

#include "Krylov.h"
#include "LinearSolver.h"
#include "Log.h"
#include "SolverSupport.h"

namespace Merivane {

void BiCGStabSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                           const Eigen::VectorXf& guess) {
  SolverReport report(*this);
  if (!report.begin(A, b, x)) return;
  ThreadScope threads(Krylov::availableThreads(omp_get_max_threads()));
  const auto n = static_cast<ptrdiff_t>(A.rows());
  std::vector<float> invDiag(static_cast<size_t>(n), 1.0f);
  const int* outer = A.outerIndexPtr();
  const int* inner = A.innerIndexPtr();
  const float* values = A.valuePtr();
#pragma omp parallel for schedule(static) if (n > 32768)
  for (ptrdiff_t i = 0; i < n; ++i)
    for (int k = outer[i]; k < outer[i + 1]; ++k)
      if (inner[k] == i && values[k] != 0.0f) invDiag[static_cast<size_t>(i)] = 1.0f / values[k];
  const Krylov::Preconditioner<float> jacobi = [&](const float* in, float* out) {
#pragma omp parallel for schedule(static) if (n > 32768)
    for (ptrdiff_t i = 0; i < n; ++i) out[i] = invDiag[static_cast<size_t>(i)] * in[i];
  };
  x = guess.size() == b.size() ? guess : b;
  const Krylov::Matrix K{n, outer, inner, values};
  report.take(Krylov::bicgstab<float>(K, b.data(), x.data(), jacobi, {iterations_, tolerance_, canceled, threads.cap()}));
  report.workspaceBytes = static_cast<size_t>(n) * sizeof(float) * 7;
  if (verbose)
    LOG_INFO("Solver", "BiCGSTAB-Float: " << report.iterations << " iterations, relative residual " << report.error);
}

}  // namespace Merivane
