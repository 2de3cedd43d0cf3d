// Single-precision BiCGSTAB with a Jacobi preconditioner. Vectors are float; dot products
// accumulate in double over fixed blocks that are summed in block order, so the iterates do
// not depend on the number of threads.
#include <omp.h>

#include <cmath>
#include <vector>

#include "LinearSolver.h"
#include "Log.h"

namespace Merivane {

namespace {

constexpr ptrdiff_t kBlock = 1 << 15;

struct Kernels {
  ptrdiff_t n;
  const int* outer;
  const int* inner;
  const float* values;
  std::vector<double> partial;  // one slot per block

  explicit Kernels(const SparseMatrixF& A)
      : n(A.rows()), outer(A.outerIndexPtr()), inner(A.innerIndexPtr()), values(A.valuePtr()) {
    partial.resize(static_cast<size_t>((n + kBlock - 1) / kBlock));
  }
  ptrdiff_t blocks() const { return static_cast<ptrdiff_t>(partial.size()); }

  double sumPartials() const {
    double s = 0.0;
    for (double p : partial) s += p;
    return s;
  }

  // y = A x. A is symmetric, so its column-major arrays read as rows.
  void spmv(const float* x, float* y) const {
#pragma omp parallel for schedule(static)
    for (ptrdiff_t i = 0; i < n; ++i) {
      float s = 0.0f;
      for (int k = outer[i]; k < outer[i + 1]; ++k) s += values[k] * x[inner[k]];
      y[i] = s;
    }
  }

  template <typename F>
  double reduce(F f) {
#pragma omp parallel for schedule(static)
    for (ptrdiff_t blk = 0; blk < blocks(); ++blk) {
      const ptrdiff_t end = std::min(n, (blk + 1) * kBlock);
      double s = 0.0;
      for (ptrdiff_t i = blk * kBlock; i < end; ++i) s += f(i);
      partial[static_cast<size_t>(blk)] = s;
    }
    return sumPartials();
  }

  double dot(const float* a, const float* b) {
    return reduce([=](ptrdiff_t i) { return static_cast<double>(a[i]) * static_cast<double>(b[i]); });
  }
};

}  // namespace

void BiCGStabSolver::solve(const SparseMatrixF& A, const Eigen::VectorXf& b, Eigen::VectorXf& x,
                           const Eigen::VectorXf& guess) {
  const ptrdiff_t n = A.rows();
  lastIterations_ = 0;
  lastError_ = 0.0;
  x = guess.size() == n ? guess : b;
  if (n == 0) return;

  Kernels k(A);
  // Jacobi: the inverse diagonal.
  std::vector<float> invDiag(static_cast<size_t>(n));
#pragma omp parallel for schedule(static)
  for (ptrdiff_t i = 0; i < n; ++i) {
    float d = 0.0f;
    for (int j = k.outer[i]; j < k.outer[i + 1]; ++j)
      if (k.inner[j] == i) d = k.values[j];
    invDiag[static_cast<size_t>(i)] = d != 0.0f ? 1.0f / d : 1.0f;
  }

  std::vector<float> r(n), rhat(n), p(n, 0.0f), v(n, 0.0f), y(n), s(n), z(n), t(n);
  lastWorkspaceBytes_ = static_cast<size_t>(n) * sizeof(float) * 9;
  float* xp = x.data();
  const float* bp = b.data();
  const float* D = invDiag.data();

  const double bNorm = std::sqrt(k.dot(bp, bp));
  if (bNorm == 0.0) {
    x.setZero();
    return;
  }
  const double threshold = static_cast<double>(tolerance_) * bNorm;

  k.spmv(xp, r.data());
#pragma omp parallel for schedule(static)
  for (ptrdiff_t i = 0; i < n; ++i) {
    r[i] = bp[i] - r[i];
    rhat[i] = r[i];
  }
  double rNorm = std::sqrt(k.dot(r.data(), r.data()));
  double rho = 1.0, alpha = 1.0, omega = 1.0;
  const double restartEps = 1e-30;

  int it = 0;
  while (rNorm > threshold && it < iterations_) {
    ++it;
    double rhoNew = k.dot(rhat.data(), r.data());
    if (std::abs(rhoNew) < restartEps * bNorm * bNorm) {
      // The shadow residual went orthogonal: restart from the current residual.
#pragma omp parallel for schedule(static)
      for (ptrdiff_t i = 0; i < n; ++i) {
        rhat[i] = r[i];
        p[i] = 0.0f;
        v[i] = 0.0f;
      }
      rhoNew = k.dot(r.data(), r.data());
      rho = alpha = omega = 1.0;
    }
    const float beta = static_cast<float>((rhoNew / rho) * (alpha / omega));
    const float om = static_cast<float>(omega);
#pragma omp parallel for schedule(static)
    for (ptrdiff_t i = 0; i < n; ++i) {
      p[i] = r[i] + beta * (p[i] - om * v[i]);
      y[i] = D[i] * p[i];
    }
    k.spmv(y.data(), v.data());
    const double rhatV = k.dot(rhat.data(), v.data());
    if (rhatV == 0.0) break;
    alpha = rhoNew / rhatV;
    const float al = static_cast<float>(alpha);
    const double sNorm2 = k.reduce([&](ptrdiff_t i) {
      s[i] = r[i] - al * v[i];
      z[i] = D[i] * s[i];
      return static_cast<double>(s[i]) * s[i];
    });
    if (std::sqrt(sNorm2) <= threshold) {
#pragma omp parallel for schedule(static)
      for (ptrdiff_t i = 0; i < n; ++i) xp[i] += al * y[i];
      rNorm = std::sqrt(sNorm2);
      break;
    }
    k.spmv(z.data(), t.data());
    const double tt = k.dot(t.data(), t.data());
    omega = tt > 0.0 ? k.dot(t.data(), s.data()) / tt : 0.0;
    const float o = static_cast<float>(omega);
    rNorm = std::sqrt(k.reduce([&](ptrdiff_t i) {
      xp[i] += al * y[i] + o * z[i];
      r[i] = s[i] - o * t[i];
      return static_cast<double>(r[i]) * r[i];
    }));
    rho = rhoNew;
    if (omega == 0.0) break;
  }
  lastIterations_ = it;
  lastError_ = rNorm / bNorm;
  if (verbose) LOG_INFO("Solver", "BiCGSTAB-Float: " << it << " iterations, relative residual " << lastError_);
}

}  // namespace Merivane
