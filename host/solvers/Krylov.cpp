#include "Krylov.h"

#include <dirent.h>
#include <unistd.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

namespace Merivane::Krylov {

namespace {

constexpr ptrdiff_t kBlock = 1 << 14;

// Below this many rows a loop runs on one thread: the barrier costs more than the work.
constexpr ptrdiff_t kParallelRows = 1 << 15;

// Iterations between two looks at the machine's load.
constexpr int kThreadCheck = 8;

// Times a solve goes on from the true residual after its recurrence claimed convergence.
constexpr int kConfirmations = 5;

// Runs f(begin, end, sums) over fixed blocks of rows in one parallel loop and adds the K sums
// of the blocks in block order, so that the result does not depend on the number of threads.
template <int K, typename F>
std::array<double, K> blockSums(ptrdiff_t n, std::vector<std::array<double, K>>& partial, F&& f) {
  const ptrdiff_t blocks = (n + kBlock - 1) / kBlock;
  partial.resize(static_cast<size_t>(blocks));
#pragma omp parallel for schedule(static) if (n > kParallelRows)
  for (ptrdiff_t blk = 0; blk < blocks; ++blk) {
    std::array<double, K> s{};
    f(blk * kBlock, std::min(n, (blk + 1) * kBlock), s);
    partial[static_cast<size_t>(blk)] = s;
  }
  std::array<double, K> total{};
  for (const auto& p : partial)
    for (int k = 0; k < K; ++k) total[k] += p[k];
  return total;
}

template <typename F>
void rows(ptrdiff_t n, F&& f) {
#pragma omp parallel for schedule(static) if (n > kParallelRows)
  for (ptrdiff_t blk = 0; blk < (n + kBlock - 1) / kBlock; ++blk) f(blk * kBlock, std::min(n, (blk + 1) * kBlock));
}

template <typename S, typename X>
inline S rowTimes(const Matrix& A, ptrdiff_t i, const X* x) {
  S s = 0;
  for (int k = A.outer[i]; k < A.outer[i + 1]; ++k) s += static_cast<S>(A.values[k]) * static_cast<S>(x[A.inner[k]]);
  return s;
}

bool finite(double v) { return std::isfinite(v); }

struct Criterion {
  double normA, normB, tolerance;
  double eta(double rr, double) const { return rr == 0 ? 0.0 : std::sqrt(rr) / normB; }
};

// r = b - A x, and a copy in r0 when given, with |r|^2, |b|^2 and |x|^2.
template <typename S>
std::array<double, 3> residual(const Matrix& A, const S* b, const S* x, S* r, S* r0,
                               std::vector<std::array<double, 3>>& partial) {
  return blockSums<3>(A.n, partial, [&](ptrdiff_t i0, ptrdiff_t i1, std::array<double, 3>& s) {
    for (ptrdiff_t i = i0; i < i1; ++i) {
      // Summed in double: the confirmation of convergence must see below single precision.
      const double ri = static_cast<double>(b[i]) - rowTimes<double>(A, i, x);
      r[i] = static_cast<S>(ri);
      if (r0) r0[i] = static_cast<S>(ri);
      s[0] += ri * ri;
      s[1] += static_cast<double>(b[i]) * b[i];
      s[2] += static_cast<double>(x[i]) * x[i];
    }
  });
}

// Judges the initial guess; true when the solve is over before it starts: converged already,
// or NaN or infinity in the system or the guess.
template <typename S>
bool overAtStart(Outcome& out, const Criterion& crit, double rr, double xx, S* x, ptrdiff_t n) {
  if (crit.normB == 0 && std::isfinite(rr) && std::isfinite(xx)) {
    // The solution of A x = 0 is zero; no residual measures how far a guess is from it.
    std::fill(x, x + n, S(0));
    out.relativeResidual = 0;
    out.converged = true;
    return true;
  }
  out.relativeResidual = crit.eta(rr, xx);
  if (!std::isfinite(out.relativeResidual)) {
    out.finite = false;
    return true;
  }
  out.converged = out.relativeResidual <= crit.tolerance;
  return out.converged;
}

}  // namespace

double normInf(const Matrix& A) {
  std::vector<std::array<double, 1>> partial;
  // The largest row sum, carried through the block sums as a maximum.
  const ptrdiff_t blocks = (A.n + kBlock - 1) / kBlock;
  partial.resize(static_cast<size_t>(blocks));
#pragma omp parallel for schedule(static) if (A.n > kParallelRows)
  for (ptrdiff_t blk = 0; blk < blocks; ++blk) {
    double m = 0;
    for (ptrdiff_t i = blk * kBlock; i < std::min(A.n, (blk + 1) * kBlock); ++i) {
      double s = 0;
      for (int k = A.outer[i]; k < A.outer[i + 1]; ++k) s += std::abs(static_cast<double>(A.values[k]));
      m = std::isfinite(s) ? std::max(m, s) : std::numeric_limits<double>::infinity();
    }
    partial[static_cast<size_t>(blk)][0] = m;
  }
  double m = 0;
  for (auto& p : partial) m = std::max(m, p[0]);
  return m;
}

template <typename S>
Outcome bicgstab(const Matrix& A, const S* b, S* x, const Preconditioner<S>& M, const Settings& settings) {
  Outcome out;
  const ptrdiff_t n = A.n;
  if (n == 0) {
    out.converged = true;
    return out;
  }
  std::vector<std::array<double, 3>> p3;
  std::vector<std::array<double, 2>> p2;
  std::vector<std::array<double, 1>> p1;
  // y, the preconditioned p, is added to x as soon as alpha is known, so that z, the
  // preconditioned s, takes its place: six vectors instead of seven.
  std::vector<S> r(static_cast<size_t>(n)), r0(static_cast<size_t>(n)), p(static_cast<size_t>(n), S(0)),
      v(static_cast<size_t>(n), S(0)), y(static_cast<size_t>(n)), t(static_cast<size_t>(n));
  std::vector<S>& z = y;

  const auto trueResidual = [&] { return residual(A, b, x, r.data(), r0.data(), p3); };
  auto [rr, bb, xx] = trueResidual();
  const Criterion crit{normInf(A), std::sqrt(bb), settings.tolerance};
  if (overAtStart(out, crit, rr, xx, x, n)) return out;
  double rho = 1, alpha = 1, w = 1, r0r = rr, r0norm2 = rr;
  int restarts = 0, confirmations = 0;
  while (out.iterations < settings.maxIterations) {
    if (settings.canceled && settings.canceled()) {
      out.canceled = true;
      break;
    }
    if (settings.threadCap > 0 && out.iterations % kThreadCheck == kThreadCheck - 1)
      omp_set_num_threads(availableThreads(settings.threadCap));
    // A shadow residual nearly orthogonal to r stalls the recurrences: start again from here.
    if (std::abs(r0r) < 1e-30 * r0norm2) {
      if (++restarts > 10) {
        out.breakdown = true;
        break;
      }
      const auto s = trueResidual();
      r0r = r0norm2 = s[0];
      rho = alpha = w = 1;
      std::fill(p.begin(), p.end(), S(0));
      std::fill(v.begin(), v.end(), S(0));
    }
    const double beta = (r0r / rho) * (alpha / w);
    rho = r0r;
    rows(n, [&](ptrdiff_t i0, ptrdiff_t i1) {
      const S bt = static_cast<S>(beta), wt = static_cast<S>(w);
      for (ptrdiff_t i = i0; i < i1; ++i) {
        const size_t k = static_cast<size_t>(i);
        p[k] = r[k] + bt * (p[k] - wt * v[k]);
      }
    });
    M(p.data(), y.data());
    const double r0v = blockSums<1>(n, p1, [&](ptrdiff_t i0, ptrdiff_t i1, std::array<double, 1>& s) {
      for (ptrdiff_t i = i0; i < i1; ++i) {
        const S vi = rowTimes<S>(A, i, y.data());
        v[static_cast<size_t>(i)] = vi;
        s[0] += static_cast<double>(r0[static_cast<size_t>(i)]) * vi;
      }
    })[0];
    if (r0v == 0 || !finite(r0v)) {
      out.breakdown = r0v == 0;
      out.finite = finite(r0v);
      break;
    }
    alpha = rho / r0v;
    // s = r - alpha v, kept in r; x += alpha y.
    const double ss = blockSums<1>(n, p1, [&](ptrdiff_t i0, ptrdiff_t i1, std::array<double, 1>& sum) {
      const S a = static_cast<S>(alpha);
      for (ptrdiff_t i = i0; i < i1; ++i) {
        const size_t k = static_cast<size_t>(i);
        r[k] -= a * v[k];
        x[i] += a * y[k];
        sum[0] += static_cast<double>(r[k]) * r[k];
      }
    })[0];
    // Half way through the iteration x may be there already: then the second half, a V-cycle
    // and a product, is not needed. Confirmed on the true residual, which otherwise replaces s.
    if (finite(ss) && crit.eta(ss, 0) <= settings.tolerance) {
      const auto t = residual(A, b, x, r.data(), static_cast<S*>(nullptr), p3);
      if (crit.eta(t[0], t[2]) <= settings.tolerance) {
        ++out.iterations;
        out.relativeResidual = crit.eta(t[0], t[2]);
        out.converged = true;
        break;
      }
    }
    M(r.data(), z.data());
    const auto [tt, ts] = blockSums<2>(n, p2, [&](ptrdiff_t i0, ptrdiff_t i1, std::array<double, 2>& s) {
      for (ptrdiff_t i = i0; i < i1; ++i) {
        const S ti = rowTimes<S>(A, i, z.data());
        t[static_cast<size_t>(i)] = ti;
        s[0] += static_cast<double>(ti) * ti;
        s[1] += static_cast<double>(ti) * r[static_cast<size_t>(i)];
      }
    });
    w = tt > 0 ? ts / tt : 0;
    const auto sums = blockSums<3>(n, p3, [&](ptrdiff_t i0, ptrdiff_t i1, std::array<double, 3>& s) {
      const S wt = static_cast<S>(w);
      for (ptrdiff_t i = i0; i < i1; ++i) {
        const size_t k = static_cast<size_t>(i);
        x[i] += wt * z[k];
        r[k] -= wt * t[k];
        s[0] += static_cast<double>(r[k]) * r[k];
        s[1] += static_cast<double>(x[i]) * x[i];
        s[2] += static_cast<double>(r0[k]) * r[k];
      }
    });
    ++out.iterations;
    rr = sums[0];
    xx = sums[1];
    r0r = sums[2];
    out.relativeResidual = crit.eta(rr, xx);
    if (!finite(out.relativeResidual)) {
      out.finite = false;
      break;
    }
    if (out.relativeResidual <= settings.tolerance) {
      // The recurrence drifts from the true residual in single precision: confirm, and go on
      // from the true residual when it is not there yet.
      const auto s = trueResidual();
      out.relativeResidual = crit.eta(s[0], s[2]);
      if (out.relativeResidual <= settings.tolerance) {
        out.converged = true;
        break;
      }
      if (++confirmations > kConfirmations) break;  // the true residual does not follow any more
      r0r = r0norm2 = s[0];
      rho = alpha = w = 1;
      std::fill(p.begin(), p.end(), S(0));
      std::fill(v.begin(), v.end(), S(0));
      continue;
    }
    if (w == 0) {  // no progress along t: the next step would divide by zero
      out.breakdown = true;
      break;
    }
  }
  if (!out.converged && out.finite) {
    const auto t = trueResidual();  // what the caller gets is x, not the recurrence
    out.relativeResidual = crit.eta(t[0], t[2]);
  }
  return out;
}

template <typename S>
Outcome conjugateGradient(const Matrix& A, const S* b, S* x, const Preconditioner<S>& M, const Settings& settings) {
  Outcome out;
  const ptrdiff_t n = A.n;
  if (n == 0) {
    out.converged = true;
    return out;
  }
  std::vector<std::array<double, 3>> p3;
  std::vector<std::array<double, 1>> p1;
  std::vector<S> r(static_cast<size_t>(n)), z(static_cast<size_t>(n)), p(static_cast<size_t>(n)),
      q(static_cast<size_t>(n));
  const auto trueResidual = [&] { return residual<S>(A, b, x, r.data(), nullptr, p3); };
  auto [rr, bb, xx] = trueResidual();
  const Criterion crit{normInf(A), std::sqrt(bb), settings.tolerance};
  if (overAtStart(out, crit, rr, xx, x, n)) return out;
  M(r.data(), z.data());
  double rz = blockSums<1>(n, p1, [&](ptrdiff_t i0, ptrdiff_t i1, std::array<double, 1>& s) {
    for (ptrdiff_t i = i0; i < i1; ++i) {
      p[static_cast<size_t>(i)] = z[static_cast<size_t>(i)];
      s[0] += static_cast<double>(r[static_cast<size_t>(i)]) * z[static_cast<size_t>(i)];
    }
  })[0];
  int confirmations = 0;
  while (out.iterations < settings.maxIterations) {
    if (settings.canceled && settings.canceled()) {
      out.canceled = true;
      break;
    }
    if (settings.threadCap > 0 && out.iterations % kThreadCheck == kThreadCheck - 1)
      omp_set_num_threads(availableThreads(settings.threadCap));
    const double pq = blockSums<1>(n, p1, [&](ptrdiff_t i0, ptrdiff_t i1, std::array<double, 1>& s) {
      for (ptrdiff_t i = i0; i < i1; ++i) {
        const S qi = rowTimes<S>(A, i, p.data());
        q[static_cast<size_t>(i)] = qi;
        s[0] += static_cast<double>(p[static_cast<size_t>(i)]) * qi;
      }
    })[0];
    if (!(pq > 0)) {
      out.breakdown = finite(pq);
      out.finite = finite(pq);
      break;
    }
    const double alpha = rz / pq;
    const auto sums = blockSums<3>(n, p3, [&](ptrdiff_t i0, ptrdiff_t i1, std::array<double, 3>& s) {
      const S a = static_cast<S>(alpha);
      for (ptrdiff_t i = i0; i < i1; ++i) {
        const size_t k = static_cast<size_t>(i);
        x[i] += a * p[k];
        r[k] -= a * q[k];
        s[0] += static_cast<double>(r[k]) * r[k];
        s[1] += static_cast<double>(x[i]) * x[i];
      }
    });
    ++out.iterations;
    out.relativeResidual = crit.eta(sums[0], sums[1]);
    if (!finite(out.relativeResidual)) {
      out.finite = false;
      break;
    }
    bool restart = false;
    if (out.relativeResidual <= settings.tolerance) {
      // Confirm with the true residual; go on from it (a fresh direction) when it is not there.
      const auto t = trueResidual();
      out.relativeResidual = crit.eta(t[0], t[2]);
      if (out.relativeResidual <= settings.tolerance) {
        out.converged = true;
        break;
      }
      if (++confirmations > kConfirmations) break;  // the true residual does not follow any more
      restart = true;
    }
    M(r.data(), z.data());
    const double rzNew = blockSums<1>(n, p1, [&](ptrdiff_t i0, ptrdiff_t i1, std::array<double, 1>& s) {
      for (ptrdiff_t i = i0; i < i1; ++i) s[0] += static_cast<double>(r[static_cast<size_t>(i)]) * z[static_cast<size_t>(i)];
    })[0];
    const double beta = restart ? 0.0 : rzNew / rz;
    rz = rzNew;
    rows(n, [&](ptrdiff_t i0, ptrdiff_t i1) {
      const S bt = static_cast<S>(beta);
      for (ptrdiff_t i = i0; i < i1; ++i) p[static_cast<size_t>(i)] = z[static_cast<size_t>(i)] + bt * p[static_cast<size_t>(i)];
    });
  }
  if (!out.converged && out.finite) {
    const auto t = trueResidual();  // what the caller gets is x, not the recurrence
    out.relativeResidual = crit.eta(t[0], t[2]);
  }
  return out;
}

namespace {

// Cores that other processes keep busy at this instant: runnable tasks of the whole machine
// (/proc/loadavg) less our own, scaled to the cores this process may use.
int busyElsewhere(int cores) {
  int runnable = 0;
  if (FILE* f = std::fopen("/proc/loadavg", "r")) {
    int total = 0;
    // The averages are skipped as words: their decimal point is not the locale's.
    if (std::fscanf(f, "%*s %*s %*s %d/%d", &runnable, &total) != 2) runnable = 0;
    std::fclose(f);
  }
  if (runnable <= 0) return 0;
  // Our own runnable threads (this one, and workers still spinning after the last parallel
  // loop) are not load from elsewhere.
  int own = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] == '.') continue;
      char path[320];
      std::snprintf(path, sizeof path, "/proc/self/task/%s/stat", e->d_name);
      if (FILE* f = std::fopen(path, "r")) {
        char buf[512];
        const size_t len = std::fread(buf, 1, sizeof buf - 1, f);
        std::fclose(f);
        buf[len] = 0;
        // The state follows the command name, which is in parentheses and may hold spaces.
        if (const char* close = std::strrchr(buf, ')'); close && close[1] == ' ' && close[2] == 'R') ++own;
      }
    }
    closedir(d);
  }
  // The load is the whole machine's; a process confined to some of its cores sees its share.
  const long online = std::max(1L, sysconf(_SC_NPROCESSORS_ONLN));
  return static_cast<int>(std::max(0, runnable - std::max(own, 1)) * static_cast<long>(cores) / online);
}

}  // namespace

int availableThreads(int wanted) {
  wanted = std::max(1, wanted);
  if (std::getenv("MERIVANE_FIXED_THREADS")) return wanted;
  const int cores = std::max(1, omp_get_num_procs());
  // One look catches kernel threads and short-lived processes as often as lasting load, and a
  // whole setup would then run on one core. Load is only believed when it is still there on
  // two more looks a millisecond apart; the least of the three counts.
  int others = busyElsewhere(cores);
  for (int look = 0; look < 2 && others > 0; ++look) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    others = std::min(others, busyElsewhere(cores));
  }
  return std::clamp(cores - others, 1, wanted);
}

template Outcome bicgstab<float>(const Matrix&, const float*, float*, const Preconditioner<float>&, const Settings&);
template Outcome bicgstab<double>(const Matrix&, const double*, double*, const Preconditioner<double>&, const Settings&);
template Outcome conjugateGradient<float>(const Matrix&, const float*, float*, const Preconditioner<float>&,
                                          const Settings&);
template Outcome conjugateGradient<double>(const Matrix&, const double*, double*, const Preconditioner<double>&,
                                           const Settings&);

}  // namespace Merivane::Krylov
