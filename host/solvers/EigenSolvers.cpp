#include <omp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <type_traits>

#include <Eigen/SparseCholesky>
#include <vector>

#include "AggregationAMG.h"
#include "ClassicalAMG.h"
#include "Krylov.h"
#include "LinearSolver.h"
#include "Log.h"

#include <fmt/format.h>
#include "SolverSupport.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Solver";
constexpr Eigen::Index kDirectVolumeLimit = 40000;
constexpr Eigen::Index kDirectPlanarLimit = 2000000;

// Memory the system can still hand out (MemAvailable), or 0 when unknown.
// MERIVANE_MEMORY_AVAILABLE (bytes) stands in for it, to try the low-memory path.
size_t availableMemoryBytes() {
  if (const char* forced = std::getenv("MERIVANE_MEMORY_AVAILABLE")) return std::strtoull(forced, nullptr, 10);
  std::FILE* f = std::fopen("/proc/meminfo", "r");
  if (!f) return 0;
  char line[256];
  size_t kb = 0;
  while (std::fgets(line, sizeof line, f))
    if (std::sscanf(line, "MemAvailable: %zu kB", &kb) == 1) break;
  std::fclose(f);
  return kb * 1024;
}

// The multigrid preconditioner of A. Random-walk systems have weights over five orders of
// magnitude, where a diagonal preconditioner needs thousands of iterations. Classical multigrid,
// whose interpolation follows the strong couplings, needs a seventh of the iterations of pairwise
// aggregation on noisy volumes, for about three times its memory; where that would take more than
// half of the memory left, aggregation serves. A kept hierarchy of either kind is re-targeted at
// a re-solve after a stroke.
//
// The classical V-cycle runs in single precision whatever the iteration keeps: its coarse levels
// are summed in double and stored in single already, the iteration counts are the same, and a
// double iteration spends 7 % less time in it, with half the memory for its vectors. Aggregation,
// whose coarse levels sum weights of very different sizes, follows the iteration's precision.
template <typename S>
class MultigridPreconditioner {
 public:
  // Sets up on A, or re-targets the hierarchy kept in `kept` when it fits and the caller asked.
  MultigridPreconditioner(const SparseMatrixF& A, KeptMultigrid* kept) {
    constexpr bool isDouble = std::is_same_v<S, double>;
    const int n = static_cast<int>(A.rows());
    if (kept && kept->hierarchy && (kept->classical || kept->doublePrecision == isDouble) &&
        !kept->newRowOfOld.empty()) {
      if (kept->classical) {
        auto old = std::static_pointer_cast<ClassicalAMG<float>>(kept->hierarchy);
        if (old->rebindFinest(n, A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr(), kept->newRowOfOld))
          classical_ = std::move(old);
      } else {
        auto old = std::static_pointer_cast<AggregationAMG<S>>(kept->hierarchy);
        if (old->rebindFinest(n, A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr(), kept->newRowOfOld))
          amg_ = std::move(old);
      }
      reused_ = classical_ || amg_;
    }
    if (!reused_) {
      if (kept) kept->hierarchy.reset();  // the old one goes before the new one is built
      const size_t available = availableMemoryBytes();
      if (available == 0 || ClassicalAMG<float>::expectedBytes(static_cast<size_t>(n)) <= available / 2) {
        classical_ = std::make_shared<ClassicalAMG<float>>();
        classical_->setupSingle(n, A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr());
      } else {
        amg_ = std::make_shared<AggregationAMG<S>>();
        amg_->setupSingle(n, A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr());
      }
    }
    if (classical_ && isDouble) {
      in_.resize(static_cast<size_t>(n));
      out_.resize(static_cast<size_t>(n));
    }
    if (!kept) return;
    kept->hierarchy = classical_ ? std::shared_ptr<void>(classical_) : std::shared_ptr<void>(amg_);
    kept->classical = classical_ != nullptr;
    kept->doublePrecision = !classical_ && isDouble;
    kept->newRowOfOld.clear();
    kept->lastReused = reused_;
  }
  Krylov::Preconditioner<S> function() {
    if (!classical_) return [amg = amg_.get()](const S* in, S* out) { amg->apply(in, out); };
    if constexpr (std::is_same_v<S, float>) {
      return [amg = classical_.get()](const S* in, S* out) { amg->apply(in, out); };
    } else {
      return [this](const S* in, S* out) {
        const auto n = static_cast<ptrdiff_t>(in_.size());
#pragma omp parallel for schedule(static) if (n > 32768)
        for (ptrdiff_t i = 0; i < n; ++i) in_[static_cast<size_t>(i)] = static_cast<float>(in[i]);
        classical_->apply(in_.data(), out_.data());
#pragma omp parallel for schedule(static) if (n > 32768)
        for (ptrdiff_t i = 0; i < n; ++i) out[i] = static_cast<S>(out_[static_cast<size_t>(i)]);
      };
    }
  }
  size_t bytes() const {
    return classical_ ? classical_->memoryBytes() + (in_.size() + out_.size()) * sizeof(float) : amg_->memoryBytes();
  }
  int levels() const { return classical_ ? classical_->levels() : amg_->levels(); }
  const char* kind() const { return classical_ ? "classical" : "aggregation"; }
  bool reused() const { return reused_; }

 private:
  std::shared_ptr<ClassicalAMG<float>> classical_;
  std::shared_ptr<AggregationAMG<S>> amg_;
  std::vector<float> in_, out_;  // the V-cycle's vectors under a double iteration
  bool reused_ = false;
};

enum class Method { CG, BiCGSTAB };

// One multigrid-preconditioned Krylov solve in precision S, on the threads the machine has free.
template <typename S>
void krylovSolve(Method method, const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                 const Eigen::VectorXf& guess, int iterations, float tolerance, const char* name,
                 const LinearSolver& self, SolverReport& report) {
  using Vector = Eigen::Matrix<S, Eigen::Dynamic, 1>;
  // Checked before the multigrid setup, whose coarsening has nothing to go by on NaN weights.
  if (!inputFinite(A, b) || (guess.size() == b.size() && !guess.allFinite())) {
    report.info = SolverInfo::InvalidInput;
    return;
  }
  ThreadScope threads(Krylov::availableThreads(omp_get_max_threads()));
  const auto setupStart = std::chrono::steady_clock::now();
  MultigridPreconditioner<S> M(A, self.keptMultigrid);
  const double setupMs =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - setupStart).count();
  if (self.keptMultigrid) self.keptMultigrid->lastSetupMs = setupMs;
  const Krylov::Matrix K{A.rows(), A.outerIndexPtr(), A.innerIndexPtr(), A.valuePtr()};
  Vector xs = (guess.size() == b.size() ? guess : b).template cast<S>();
  Krylov::Settings settings{iterations, tolerance, self.canceled, threads.cap()};
  Krylov::Outcome out;
  if constexpr (std::is_same_v<S, float>) {
    out = method == Method::CG ? Krylov::conjugateGradient<S>(K, b.data(), xs.data(), M.function(), settings)
                               : Krylov::bicgstab<S>(K, b.data(), xs.data(), M.function(), settings);
    x = std::move(xs);
  } else {
    const Vector bs = b.template cast<S>();
    out = method == Method::CG ? Krylov::conjugateGradient<S>(K, bs.data(), xs.data(), M.function(), settings)
                               : Krylov::bicgstab<S>(K, bs.data(), xs.data(), M.function(), settings);
    x = xs.template cast<float>();
  }
  report.take(out);
  report.workspaceBytes = M.bytes() + static_cast<size_t>(b.size()) * sizeof(S) * (method == Method::CG ? 4 : 6);
  if (self.verbose)
    LOG_INFO(kCategory, name << ": " << out.iterations << " iterations, relative residual " << out.relativeResidual << " ("
                             << threads.threads() << " threads, " << M.levels() << " " << M.kind() << " multigrid levels "
                             << (M.reused() ? "re-targeted" : "set up") << " in " << setupMs << " ms)");
}

// Eigen's sparse Cholesky in precision S, with an approximate-minimum-degree ordering.
template <typename S>
void choleskySolve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x, const char* name,
                   SolverReport& report) {
  using Matrix = Eigen::SparseMatrix<S>;
  if (!inputFinite(A, b)) {
    report.info = SolverInfo::InvalidInput;
    return;
  }
  // The factor of a volume's graph fills in far beyond the matrix: 110,000 unknowns of a 3D
  // grid take two minutes and 650 MB, and the factorisation cannot be interrupted. Planar
  // graphs (four neighbours or fewer per row) fill in mildly.
  const bool volume = A.nonZeros() > 5.5 * static_cast<double>(A.rows());
  const Eigen::Index limit = volume ? kDirectVolumeLimit : kDirectPlanarLimit;
  if (A.rows() > limit) {
    report.fail(SolverInfo::InvalidInput,
                fmt::format("{}: {} unknowns are too many for a direct factorisation of a {} (at most {}); choose "
                            "an iterative solver (Solver ID 2 to 7)",
                            name, A.rows(), volume ? "volume" : "planar graph", limit));
    return;
  }
  Matrix As = A.template cast<S>();
  Eigen::SimplicialLLT<Matrix, Eigen::Lower, Eigen::AMDOrdering<int>> llt(As);
  if (llt.info() != Eigen::Success) {
    report.fail(SolverInfo::NumericalIssue, fmt::format("{}: the matrix is not positive definite", name));
    return;
  }
  x = llt.solve(b.template cast<S>()).template cast<float>();
  report.info = x.allFinite() ? SolverInfo::Success : SolverInfo::NumericalIssue;
  report.workspaceBytes = static_cast<size_t>(llt.matrixL().nestedExpression().nonZeros()) * (sizeof(S) + sizeof(int));
  if constexpr (!std::is_same_v<S, float>)
    report.workspaceBytes += static_cast<size_t>(As.nonZeros()) * (sizeof(S) + sizeof(int));
}

}  // namespace

LinearSolver::~LinearSolver() = default;

void LLTFloatSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                           const Eigen::VectorXf&) {
  SolverReport report(*this);
  if (!report.begin(A, b, x)) return;
  choleskySolve<float>(A, b, x, "LLT-Float", report);
}

void LLTEigenSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                           const Eigen::VectorXf&) {
  SolverReport report(*this);
  if (!report.begin(A, b, x)) return;
  choleskySolve<double>(A, b, x, "LLT", report);
}

void CGSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                     const Eigen::VectorXf& guess) {
  SolverReport report(*this);
  if (!report.begin(A, b, x)) return;
  krylovSolve<float>(Method::CG, A, b, x, guess, iterations_, tolerance_, "CG", *this, report);
}

void BiCGStabEigenSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                                const Eigen::VectorXf& guess) {
  SolverReport report(*this);
  if (!report.begin(A, b, x)) return;
  if (double_)
    krylovSolve<double>(Method::BiCGSTAB, A, b, x, guess, iterations_, tolerance_, "BiCGSTAB", *this, report);
  else
    krylovSolve<float>(Method::BiCGSTAB, A, b, x, guess, iterations_, tolerance_, "BiCGSTAB-Float", *this, report);
}

}  // namespace Merivane
