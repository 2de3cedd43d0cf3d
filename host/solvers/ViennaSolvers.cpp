// BiCGSTAB through ViennaCL, on its OpenMP backend (main memory) or its OpenCL backend.
#define VIENNACL_WITH_OPENMP
#define VIENNACL_WITH_OPENCL
#include <viennacl/compressed_matrix.hpp>
#include <viennacl/linalg/bicgstab.hpp>
#include <viennacl/linalg/jacobi_precond.hpp>
#include <viennacl/ocl/backend.hpp>
#include <viennacl/vector.hpp>

#include <atomic>
#include <mutex>
#include <vector>

#include "LinearSolver.h"
#include "Log.h"
#include "SolverSupport.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Solver";

// Runs BiCGSTAB with a Jacobi preconditioner in the given memory context.
void viennaSolveOnce(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x, const Eigen::VectorXf& guess,
                 int iterations, float tolerance, viennacl::context ctx, int& itOut, double& errOut) {
  const size_t n = static_cast<size_t>(A.rows());
  const size_t nnz = static_cast<size_t>(A.nonZeros());
  // ViennaCL wants unsigned 32-bit row pointers and column indices; a symmetric matrix's
  // column-major arrays are its rows.
  std::vector<unsigned int> rows(n + 1), cols(nnz);
  for (size_t i = 0; i <= n; ++i) rows[i] = static_cast<unsigned int>(A.outerIndexPtr()[i]);
  for (size_t k = 0; k < nnz; ++k) cols[k] = static_cast<unsigned int>(A.innerIndexPtr()[k]);

  viennacl::compressed_matrix<float> vA(n, n, nnz, ctx);
  vA.set(rows.data(), cols.data(), A.valuePtr(), n, n, nnz);
  viennacl::vector<float> vb(n, ctx), vguess(n, ctx);
  viennacl::fast_copy(b.data(), b.data() + n, vb.begin());
  const Eigen::VectorXf& start = guess.size() == b.size() ? guess : b;
  viennacl::fast_copy(start.data(), start.data() + n, vguess.begin());

  // ViennaCL measures against the initial residual, we against |b|: ask for what makes both
  // agree.
  const Eigen::VectorXf& from = guess.size() == b.size() ? guess : b;
  const double r0 = (b - A * from).cast<double>().norm(), nb = b.cast<double>().norm();
  if (r0 > 0 && nb > 0) tolerance = static_cast<float>(std::min(1.0, tolerance * nb / r0));
  viennacl::linalg::bicgstab_tag tag(tolerance, static_cast<viennacl::vcl_size_t>(std::max(iterations, 0)),
                                     static_cast<viennacl::vcl_size_t>(std::max(iterations, 1)));
  viennacl::linalg::jacobi_precond<viennacl::compressed_matrix<float>> precond(vA, viennacl::linalg::jacobi_tag());
  viennacl::linalg::bicgstab_solver<viennacl::vector<float>> solver(tag);
  solver.set_initial_guess(vguess);
  viennacl::vector<float> vx = solver(vA, vb, precond);
  x.resize(static_cast<Eigen::Index>(n));
  viennacl::fast_copy(vx.begin(), vx.end(), x.data());
  // The solver runs on its own copy of the tag, which holds what the run did.
  itOut = static_cast<int>(solver.tag().iters());
  errOut = solver.tag().error();
}

// The same until the true residual meets the tolerance: in single precision the solver's own
// residual drifts from it, so a run that stops early is continued from where it ended.
void viennaSolve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x, const Eigen::VectorXf& guess,
                 int iterations, float tolerance, viennacl::context ctx, int& itOut, double& errOut) {
  itOut = 0;
  const double nb = b.cast<double>().norm();
  if (nb == 0) {  // the solution of A x = 0
    x = Eigen::VectorXf::Zero(b.size());
    return;
  }
  Eigen::VectorXf start = guess.size() == b.size() ? guess : b;
  for (int round = 0; round < 4 && itOut < iterations; ++round) {
    int it = 0;
    viennaSolveOnce(A, b, x, start, iterations - itOut, tolerance, ctx, it, errOut);
    itOut += it;
    const double rel = nb > 0 ? (A * x - b).cast<double>().norm() / nb : 0.0;
    if (!(rel > tolerance) || it == 0) return;
    start = x;
  }
}

// Judges the result by our own stopping test and reports it.
void finish(SolverReport& report, const SparseMatrixF& A, const Eigen::VectorXf& b, const Eigen::VectorXf& x,
            float tolerance, bool verbose, const char* name) {
  report.judge(A, b, x, tolerance);
  report.workspaceBytes = static_cast<size_t>(A.nonZeros()) * 8 + static_cast<size_t>(A.rows()) * 4 * 10;
  if (verbose) LOG_INFO(kCategory, name << ": " << report.iterations << " iterations, relative residual " << report.error);
}

}  // namespace

void BiCGStabViennaCPUSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                                    const Eigen::VectorXf& guess) {
  SolverReport report(*this);
  if (!report.begin(A, b, x)) return;
  if (!inputFinite(A, b)) {
    report.info = SolverInfo::InvalidInput;
    return;
  }
  double ownError = 0;
  viennaSolve(A, b, x, guess, iterations_, tolerance_, viennacl::context(viennacl::MAIN_MEMORY), report.iterations,
              ownError);
  finish(report, A, b, x, tolerance_, verbose, "[Vienna] BiCGSTAB-CPU");
}

bool BiCGStabViennaGPUSolver::deviceAvailable() {
  static std::once_flag once;
  static bool available = false;
  std::call_once(once, [] {
    try {
      auto platforms = viennacl::ocl::get_platforms();
      for (auto& p : platforms)
        if (!p.devices(CL_DEVICE_TYPE_ALL).empty()) available = true;
    } catch (...) {
      available = false;
    }
  });
  return available;
}

void BiCGStabViennaGPUSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                                    const Eigen::VectorXf& guess) {
  SolverReport report(*this);
  if (!report.begin(A, b, x)) return;
  if (!inputFinite(A, b)) {
    report.info = SolverInfo::InvalidInput;
    return;
  }
  double ownError = 0;
  static std::atomic<bool> warned{false};
  bool done = false;
  if (deviceAvailable()) {
    try {
      // Prefer a GPU; any other OpenCL device (a CPU one) serves too.
      static std::once_flag pick;
      std::call_once(pick, [] {
        for (auto& p : viennacl::ocl::get_platforms())
          if (!p.devices(CL_DEVICE_TYPE_GPU).empty()) {
            viennacl::ocl::set_context_device_type(0, CL_DEVICE_TYPE_GPU);
            return;
          }
        viennacl::ocl::set_context_device_type(0, CL_DEVICE_TYPE_ALL);
      });
      viennaSolve(A, b, x, guess, iterations_, tolerance_, viennacl::context(viennacl::OPENCL_MEMORY),
                  report.iterations, ownError);
      done = true;
    } catch (const std::exception& e) {
      if (!warned.exchange(true)) LOG_WARN(kCategory, "OpenCL solve failed (" << e.what() << "); solving on the CPU");
    }
  } else if (!warned.exchange(true)) {
    LOG_WARN(kCategory, "No OpenCL device found; [Vienna] BiCGSTAB-GPU solves on the CPU");
  }
  if (!done)
    viennaSolve(A, b, x, guess, iterations_, tolerance_, viennacl::context(viennacl::MAIN_MEMORY), report.iterations,
                ownError);
  finish(report, A, b, x, tolerance_, verbose, "[Vienna] BiCGSTAB-GPU");
}

}  // namespace Merivane
