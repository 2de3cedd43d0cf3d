#pragma once
// Preconditioned Krylov iterations over a symmetric single-precision CSR matrix, for vectors
// of either precision: the solvers' shared core.
//
// Stopping test: the relative residual |A x - b| / |b| (2-norms) falls to the tolerance, checked
// on the true residual, summed in double; a zero right side gives x = 0 at once. A normwise
// backward error |r| / (|A| |x| + |b|) would stop random-walk solves three to five times
// earlier, but then about 0.2 % of the labels differ from a tightly converged solve at the
// default tolerance, against 0.01 % with this test.
//
// Each iteration runs a few long parallel loops that fuse the vector updates with their dot
// products; dot products add fixed blocks in block order, so iterates do not depend on the
// number of threads.
#include <cstddef>
#include <functional>

namespace Merivane::Krylov {

struct Matrix {
  ptrdiff_t n = 0;
  const int* outer = nullptr;
  const int* inner = nullptr;
  const float* values = nullptr;
};

struct Settings {
  int maxIterations = 0;
  double tolerance = 0;
  // Asked once an iteration; true ends the solve with `canceled`.
  std::function<bool()> canceled;
  // When above zero, the thread count is set anew every few iterations from what the machine
  // has free, up to this many.
  int threadCap = 0;
};

struct Outcome {
  int iterations = 0;
  double relativeResidual = 0;  // of the x returned
  bool converged = false;
  bool canceled = false;
  bool breakdown = false;  // the iteration could not go on (and x is the last good iterate)
  bool finite = true;      // false when the input or an iterate held NaN or infinity
};

// out = M^-1 in, approximately.
template <typename S>
using Preconditioner = std::function<void(const S* in, S* out)>;

// Largest absolute row sum, or infinity when an entry is not finite.
double normInf(const Matrix& A);

// x holds the initial guess on entry and the solution on return.
template <typename S>
Outcome bicgstab(const Matrix& A, const S* b, S* x, const Preconditioner<S>& M, const Settings& settings);
template <typename S>
Outcome conjugateGradient(const Matrix& A, const S* b, S* x, const Preconditioner<S>& M, const Settings& settings);

// Threads to use for a solve: up to `wanted`, less the cores that other processes keep busy
// right now (runnable tasks in /proc/loadavg), at least one. Waiting at a barrier for a thread
// that another process has descheduled costs far more than doing its share on one core.
// MERIVANE_FIXED_THREADS in the environment turns this off (benchmarks, tests).
int availableThreads(int wanted);

}  // namespace Merivane::Krylov
