#include "ClassicalAMG.h"

#include <omp.h>

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <utility>

namespace Merivane {

namespace {

constexpr int kCoarsestSize = 300;      // solved densely at or below this size
constexpr int kDenseLimit = 4000;       // a stalled coarsening beyond this is smoothed, not factorised
constexpr int kCoarsestSweeps = 20;     // Jacobi sweeps standing in for that factorisation
constexpr int kMaxLevels = 25;
constexpr double kJacobiWeight = 0.7;
constexpr int kParallelRows = 16384;    // smaller levels run on one thread: a barrier costs more

// Rows of a level's matrix: the finest level borrows the caller's single-precision values,
// coarse levels own double-precision ones (their rows sum weights of very different sizes).
struct Csr {
  int n = 0;
  const int* outer = nullptr;
  const int* inner = nullptr;
  const float* valuesF = nullptr;
  const double* valuesD = nullptr;
  std::vector<int> outerStore, innerStore;
  std::vector<double> valueStore;
  void adopt() {
    outer = outerStore.data();
    inner = innerStore.data();
    valuesD = valueStore.data();
    valuesF = nullptr;
  }
  size_t nnz() const { return n ? static_cast<size_t>(outer[n]) : 0; }
  size_t bytes() const {
    return outerStore.size() * sizeof(int) + innerStore.size() * sizeof(int) + valueStore.size() * sizeof(double);
  }
};

template <typename F>
decltype(auto) withValues(const Csr& A, F&& f) {
  if (A.valuesF) return f(A.valuesF);
  return f(A.valuesD);
}

// Interpolation or restriction: rows of (column, weight).
struct Transfer {
  std::vector<int> outer, inner;
  std::vector<float> values;
  size_t bytes() const { return (outer.size() + inner.size()) * sizeof(int) + values.size() * sizeof(float); }
};

// Strong couplings of each row, in the row's own order: -a_ij >= theta * max_k(-a_ik).
struct Strength {
  std::vector<int> outer, inner;
};

template <typename V>
Strength strongCouplings(const Csr& A, const V* val, double theta) {
  const int n = A.n;
  Strength S;
  S.outer.assign(static_cast<size_t>(n) + 1, 0);
  auto threshold = [&](int i) {
    double mx = 0;
    for (int k = A.outer[i]; k < A.outer[i + 1]; ++k)
      if (A.inner[k] != i) mx = std::max(mx, -static_cast<double>(val[k]));
    return mx > 0 ? theta * mx : HUGE_VAL;
  };
#pragma omp parallel for schedule(static) if (n > kParallelRows)
  for (int i = 0; i < n; ++i) {
    const double t = threshold(i);
    int c = 0;
    for (int k = A.outer[i]; k < A.outer[i + 1]; ++k) c += A.inner[k] != i && -static_cast<double>(val[k]) >= t;
    S.outer[static_cast<size_t>(i) + 1] = c;
  }
  for (int i = 0; i < n; ++i) S.outer[static_cast<size_t>(i) + 1] += S.outer[static_cast<size_t>(i)];
  S.inner.resize(static_cast<size_t>(S.outer[static_cast<size_t>(n)]));
#pragma omp parallel for schedule(static) if (n > kParallelRows)
  for (int i = 0; i < n; ++i) {
    const double t = threshold(i);
    int p = S.outer[static_cast<size_t>(i)];
    for (int k = A.outer[i]; k < A.outer[i + 1]; ++k)
      if (A.inner[k] != i && -static_cast<double>(val[k]) >= t) S.inner[static_cast<size_t>(p++)] = A.inner[k];
  }
  return S;
}

// Coarse/fine splitting by the first pass of Ruge and Stueben: repeatedly the undecided row
// that most rows strongly depend on becomes coarse and its dependants fine. Sequential, with
// bucket lists by measure; ties go to the lower row, so the split is fixed by the matrix.
std::vector<char> splitRows(int n, const Strength& S) {
  const auto sz = [](int i) { return static_cast<size_t>(i); };
  std::vector<int> tOuter(sz(n) + 1, 0), tInner(S.inner.size());
  for (int j : S.inner) ++tOuter[sz(j) + 1];
  for (int i = 0; i < n; ++i) tOuter[sz(i) + 1] += tOuter[sz(i)];
  {
    std::vector<int> pos(tOuter.begin(), tOuter.end() - 1);
    for (int i = 0; i < n; ++i)
      for (int p = S.outer[sz(i)]; p < S.outer[sz(i) + 1]; ++p) tInner[sz(pos[sz(S.inner[sz(p)])]++)] = i;
  }
  std::vector<int> measure(sz(n));
  std::vector<char> state(sz(n), -1);  // -1 undecided, 1 coarse, 0 fine
  int maxMeasure = 0;
  for (int i = 0; i < n; ++i) {
    measure[sz(i)] = tOuter[sz(i) + 1] - tOuter[sz(i)];
    maxMeasure = std::max(maxMeasure, measure[sz(i)]);
    // Neither depending on nor influencing anything: nothing to interpolate from or to.
    if (measure[sz(i)] == 0 && S.outer[sz(i) + 1] == S.outer[sz(i)]) state[sz(i)] = 0;
  }
  std::vector<int> head(sz(maxMeasure) + 1, -1), next(sz(n), -1), prev(sz(n), -1);
  auto insert = [&](int i) {
    const int m = measure[sz(i)];
    if (m >= static_cast<int>(head.size())) head.resize(sz(m) * 2 + 1, -1);
    prev[sz(i)] = -1;
    next[sz(i)] = head[sz(m)];
    if (head[sz(m)] >= 0) prev[sz(head[sz(m)])] = i;
    head[sz(m)] = i;
  };
  auto remove = [&](int i) {
    if (prev[sz(i)] >= 0)
      next[sz(prev[sz(i)])] = next[sz(i)];
    else
      head[sz(measure[sz(i)])] = next[sz(i)];
    if (next[sz(i)] >= 0) prev[sz(next[sz(i)])] = prev[sz(i)];
  };
  // Inserted from the last row down, so that each bucket lists its rows in ascending order.
  for (int i = n - 1; i >= 0; --i)
    if (state[sz(i)] < 0) insert(i);
  int top = static_cast<int>(head.size()) - 1;
  while (true) {
    while (top >= 0 && head[sz(top)] < 0) --top;
    if (top < 0) break;
    const int c = head[sz(top)];
    remove(c);
    state[sz(c)] = 1;
    for (int p = tOuter[sz(c)]; p < tOuter[sz(c) + 1]; ++p) {
      const int f = tInner[sz(p)];
      if (state[sz(f)] != -1) continue;
      remove(f);
      state[sz(f)] = 0;
      for (int q = S.outer[sz(f)]; q < S.outer[sz(f) + 1]; ++q) {
        const int k = S.inner[sz(q)];
        if (state[sz(k)] != -1) continue;
        remove(k);
        ++measure[sz(k)];
        insert(k);
        top = std::max(top, measure[sz(k)]);
      }
    }
    for (int q = S.outer[sz(c)]; q < S.outer[sz(c) + 1]; ++q) {
      const int k = S.inner[sz(q)];
      if (state[sz(k)] != -1) continue;
      remove(k);
      --measure[sz(k)];
      insert(k);
    }
  }
  for (auto& s : state)
    if (s < 0) s = 0;
  return state;
}

// Interpolation of each fine row from its strong coarse neighbours. A strong fine neighbour k
// passes its coupling on to those coarse neighbours in proportion to its own couplings to them;
// with none in common, and for weak couplings, the coupling goes into the diagonal. The
// largest `maxWeights` weights of a row are kept, scaled to the sum of all.
template <typename V>
Transfer interpolation(const Csr& A, const V* val, const Strength& S, const std::vector<char>& coarse,
                       const std::vector<int>& coarseIndex, int maxWeights) {
  const int n = A.n;
  const auto sz = [](int i) { return static_cast<size_t>(i); };
  Transfer P;
  P.outer.assign(sz(n) + 1, 0);
  auto strongCoarseCount = [&](int i) {
    int c = 0;
    for (int p = S.outer[sz(i)]; p < S.outer[sz(i) + 1]; ++p) c += coarse[sz(S.inner[sz(p)])];
    return c;
  };
#pragma omp parallel for schedule(static) if (n > kParallelRows)
  for (int i = 0; i < n; ++i)
    P.outer[sz(i) + 1] = coarse[sz(i)] ? 1 : std::min(strongCoarseCount(i), maxWeights);
  for (int i = 0; i < n; ++i) P.outer[sz(i) + 1] += P.outer[sz(i)];
  P.inner.resize(sz(P.outer[sz(n)]));
  P.values.resize(P.inner.size());
#pragma omp parallel if (n > kParallelRows)
  {
    std::vector<int> cols;
    std::vector<double> acc;
    std::vector<std::pair<double, int>> weights;
#pragma omp for schedule(static)
    for (int i = 0; i < n; ++i) {
      int out = P.outer[sz(i)];
      if (coarse[sz(i)]) {
        P.inner[sz(out)] = coarseIndex[sz(i)];
        P.values[sz(out)] = 1.0f;
        continue;
      }
      if (P.outer[sz(i) + 1] == out) continue;
      cols.clear();
      acc.clear();
      for (int p = S.outer[sz(i)]; p < S.outer[sz(i) + 1]; ++p)
        if (coarse[sz(S.inner[sz(p)])]) {
          cols.push_back(S.inner[sz(p)]);
          acc.push_back(0.0);
        }
      const auto slot = [&](int j) {
        for (size_t s = 0; s < cols.size(); ++s)
          if (cols[s] == j) return static_cast<int>(s);
        return -1;
      };
      double diag = 0;
      int sp = S.outer[sz(i)];
      for (int k = A.outer[i]; k < A.outer[i + 1]; ++k) {
        const int j = A.inner[k];
        const double a = static_cast<double>(val[k]);
        if (j == i) {
          diag += a;
          continue;
        }
        const bool strong = sp < S.outer[sz(i) + 1] && S.inner[sz(sp)] == j;
        sp += strong;
        if (!strong) {
          diag += a;
        } else if (coarse[sz(j)]) {
          acc[sz(slot(j))] += a;
        } else {
          double shared = 0;
          for (int q = A.outer[j]; q < A.outer[j + 1]; ++q)
            if (val[q] < 0 && slot(A.inner[q]) >= 0) shared += static_cast<double>(val[q]);
          if (shared < 0) {
            for (int q = A.outer[j]; q < A.outer[j + 1]; ++q) {
              const int s = val[q] < 0 ? slot(A.inner[q]) : -1;
              if (s >= 0) acc[sz(s)] += a * static_cast<double>(val[q]) / shared;
            }
          } else {
            diag += a;
          }
        }
      }
      weights.clear();
      double sumAll = 0;
      for (size_t s = 0; s < cols.size(); ++s) {
        const double w = diag > 0 ? -acc[s] / diag : 0.0;
        weights.emplace_back(w, cols[s]);
        sumAll += w;
      }
      if (static_cast<int>(weights.size()) > maxWeights) {
        std::partial_sort(weights.begin(), weights.begin() + maxWeights, weights.end(), [](const auto& x, const auto& y) {
          const double ax = std::abs(x.first), ay = std::abs(y.first);
          return ax > ay || (ax == ay && x.second < y.second);
        });
        weights.resize(sz(maxWeights));
        double sumKept = 0;
        for (const auto& w : weights) sumKept += w.first;
        if (sumKept != 0)
          for (auto& w : weights) w.first *= sumAll / sumKept;
      }
      std::sort(weights.begin(), weights.end(), [](const auto& x, const auto& y) { return x.second < y.second; });
      for (const auto& w : weights) {
        P.inner[sz(out)] = coarseIndex[sz(w.second)];
        P.values[sz(out)] = static_cast<float>(w.first);
        ++out;
      }
    }
  }
  return P;
}

Transfer transpose(const Transfer& P, int rows, int cols) {
  const auto sz = [](int i) { return static_cast<size_t>(i); };
  Transfer R;
  R.outer.assign(sz(cols) + 1, 0);
  for (int j : P.inner) ++R.outer[sz(j) + 1];
  for (int j = 0; j < cols; ++j) R.outer[sz(j) + 1] += R.outer[sz(j)];
  R.inner.resize(P.inner.size());
  R.values.resize(P.values.size());
  std::vector<int> pos(R.outer.begin(), R.outer.end() - 1);
  for (int i = 0; i < rows; ++i)
    for (int p = P.outer[sz(i)]; p < P.outer[sz(i) + 1]; ++p) {
      const int at = pos[sz(P.inner[sz(p)])]++;
      R.inner[sz(at)] = i;
      R.values[sz(at)] = P.values[sz(p)];
    }
  return R;
}

// The Galerkin product R A P, row by row of the coarse level. Each thread takes a contiguous
// block of rows and sums every entry in the same order whatever the thread count.
template <typename V>
Csr galerkin(const Csr& A, const V* val, const Transfer& P, const Transfer& R, int nc) {
  const auto sz = [](int i) { return static_cast<size_t>(i); };
  Csr C;
  C.n = nc;
  C.outerStore.assign(sz(nc) + 1, 0);
  const int maxThreads = nc > kParallelRows / 4 ? omp_get_max_threads() : 1;
  std::vector<std::vector<int>> cols(sz(maxThreads));
  std::vector<std::vector<double>> vals(sz(maxThreads));
  std::vector<int> blockBegin(sz(maxThreads) + 1, nc);
#pragma omp parallel num_threads(maxThreads)
  {
    const int t = omp_get_thread_num(), nt = omp_get_num_threads();
    const int begin = static_cast<int>(static_cast<long long>(nc) * t / nt);
    const int end = static_cast<int>(static_cast<long long>(nc) * (t + 1) / nt);
    blockBegin[sz(t)] = begin;
    std::vector<double> acc(sz(nc));
    std::vector<int> mark(sz(nc), -1), touched;
    auto& myCols = cols[sz(t)];
    auto& myVals = vals[sz(t)];
    for (int I = begin; I < end; ++I) {
      touched.clear();
      for (int p = R.outer[sz(I)]; p < R.outer[sz(I) + 1]; ++p) {
        const int i = R.inner[sz(p)];
        const double r = R.values[sz(p)];
        for (int k = A.outer[i]; k < A.outer[i + 1]; ++k) {
          const int j = A.inner[k];
          const double ra = r * static_cast<double>(val[k]);
          for (int q = P.outer[sz(j)]; q < P.outer[sz(j) + 1]; ++q) {
            const int J = P.inner[sz(q)];
            if (mark[sz(J)] != I) {
              mark[sz(J)] = I;
              acc[sz(J)] = 0;
              touched.push_back(J);
            }
            acc[sz(J)] += ra * static_cast<double>(P.values[sz(q)]);
          }
        }
      }
      std::sort(touched.begin(), touched.end());
      for (int J : touched) {
        myCols.push_back(J);
        myVals.push_back(acc[sz(J)]);
      }
      C.outerStore[sz(I) + 1] = static_cast<int>(touched.size());
    }
  }
  for (int I = 0; I < nc; ++I) C.outerStore[sz(I) + 1] += C.outerStore[sz(I)];
  C.innerStore.resize(sz(C.outerStore[sz(nc)]));
  C.valueStore.resize(C.innerStore.size());
  for (size_t t = 0; t < cols.size(); ++t) {
    if (cols[t].empty()) continue;
    const size_t at = sz(C.outerStore[sz(blockBegin[t])]);
    std::copy(cols[t].begin(), cols[t].end(), C.innerStore.begin() + static_cast<std::ptrdiff_t>(at));
    std::copy(vals[t].begin(), vals[t].end(), C.valueStore.begin() + static_cast<std::ptrdiff_t>(at));
  }
  C.adopt();
  return C;
}

}  // namespace

template <typename Scalar>
struct ClassicalAMG<Scalar>::Level {
  Csr A;
  std::vector<Scalar> invDiag;
  Transfer P, R;                          // to and from the next level
  mutable std::vector<Scalar> r, bc, xc;  // work vectors
};

template <typename Scalar>
struct ClassicalAMG<Scalar>::Coarsest {
  Eigen::LDLT<Eigen::MatrixXd> factor;
  bool dense = false;
};

template <typename Scalar>
ClassicalAMG<Scalar>::ClassicalAMG() = default;
template <typename Scalar>
ClassicalAMG<Scalar>::~ClassicalAMG() = default;

template <typename Scalar>
void ClassicalAMG<Scalar>::setupSingle(int n, const int* outer, const int* inner, const float* values) {
  levels_.clear();
  coarsest_ = std::make_unique<Coarsest>();
  if (n <= 0) return;
  auto first = std::make_unique<Level>();
  first->A.n = n;
  first->A.outer = outer;
  first->A.inner = inner;
  first->A.valuesF = values;
  levels_.push_back(std::move(first));
  while (true) {
    Level& L = *levels_.back();
    const int ln = L.A.n;
    L.invDiag.assign(static_cast<size_t>(ln), Scalar(0));
    withValues(L.A, [&](const auto* val) {
#pragma omp parallel for schedule(static) if (ln > kParallelRows)
      for (int i = 0; i < ln; ++i)
        for (int k = L.A.outer[i]; k < L.A.outer[i + 1]; ++k)
          if (L.A.inner[k] == i && val[k] != 0) L.invDiag[static_cast<size_t>(i)] = Scalar(1) / static_cast<Scalar>(val[k]);
    });
    L.r.resize(static_cast<size_t>(ln));
    if (ln <= kCoarsestSize || static_cast<int>(levels_.size()) >= kMaxLevels) break;
    auto next = std::make_unique<Level>();
    const bool coarsened = withValues(L.A, [&](const auto* val) {
      const Strength S = strongCouplings(L.A, val, strengthThreshold);
      const std::vector<char> coarse = splitRows(ln, S);
      std::vector<int> coarseIndex(static_cast<size_t>(ln), -1);
      int nc = 0;
      for (int i = 0; i < ln; ++i)
        if (coarse[static_cast<size_t>(i)]) coarseIndex[static_cast<size_t>(i)] = nc++;
      if (nc == 0 || nc > 0.9 * ln) return false;
      L.P = interpolation(L.A, val, S, coarse, coarseIndex, maxInterpolation);
      L.R = transpose(L.P, ln, nc);
      next->A = galerkin(L.A, val, L.P, L.R, nc);
      return true;
    });
    if (!coarsened) break;
    L.bc.resize(static_cast<size_t>(next->A.n));
    L.xc.resize(static_cast<size_t>(next->A.n));
    levels_.push_back(std::move(next));
  }
  const Level& C = *levels_.back();
  if (C.A.n <= kDenseLimit) {
    Eigen::MatrixXd dense = Eigen::MatrixXd::Zero(C.A.n, C.A.n);
    withValues(C.A, [&](const auto* val) {
      for (int i = 0; i < C.A.n; ++i)
        for (int k = C.A.outer[i]; k < C.A.outer[i + 1]; ++k) dense(i, C.A.inner[k]) = static_cast<double>(val[k]);
    });
    coarsest_->factor.compute(dense);
    coarsest_->dense = coarsest_->factor.info() == Eigen::Success;
  }
}

template <typename Scalar>
void ClassicalAMG<Scalar>::cycle(size_t l, const Scalar* b, Scalar* x) const {
  const Level& L = *levels_[l];
  const int n = L.A.n;
  const int* outer = L.A.outer;
  const int* inner = L.A.inner;
  const Scalar* D = L.invDiag.data();
  Scalar* r = L.r.data();
  const bool par = n > kParallelRows;
  const Scalar w = static_cast<Scalar>(kJacobiWeight);
  const auto residual = [&] {
    withValues(L.A, [&](const auto* val) {
#pragma omp parallel for schedule(static) if (par)
      for (int i = 0; i < n; ++i) {
        Scalar s = b[i];
        for (int k = outer[i]; k < outer[i + 1]; ++k) s -= static_cast<Scalar>(val[k]) * x[inner[k]];
        r[i] = s;
      }
    });
  };
  if (l + 1 == levels_.size()) {
    if (coarsest_->dense) {
      Eigen::VectorXd rhs(n);
      for (int i = 0; i < n; ++i) rhs[i] = static_cast<double>(b[i]);
      const Eigen::VectorXd sol = coarsest_->factor.solve(rhs);
      for (int i = 0; i < n; ++i) x[i] = static_cast<Scalar>(sol[i]);
      return;
    }
#pragma omp parallel for schedule(static) if (par)
    for (int i = 0; i < n; ++i) x[i] = w * D[i] * b[i];
    for (int s = 1; s < kCoarsestSweeps; ++s) {
      residual();
#pragma omp parallel for schedule(static) if (par)
      for (int i = 0; i < n; ++i) x[i] += w * D[i] * r[i];
    }
    return;
  }
  // Pre-smoothing from zero, then the residual.
#pragma omp parallel for schedule(static) if (par)
  for (int i = 0; i < n; ++i) x[i] = w * D[i] * b[i];
  residual();
  const int nc = static_cast<int>(L.bc.size());
  Scalar* bc = L.bc.data();
  Scalar* xc = L.xc.data();
  const bool parC = nc > kParallelRows;
#pragma omp parallel for schedule(static) if (parC)
  for (int I = 0; I < nc; ++I) {
    Scalar s = 0;
    for (int p = L.R.outer[static_cast<size_t>(I)]; p < L.R.outer[static_cast<size_t>(I) + 1]; ++p)
      s += static_cast<Scalar>(L.R.values[static_cast<size_t>(p)]) * r[L.R.inner[static_cast<size_t>(p)]];
    bc[I] = s;
  }
  cycle(l + 1, bc, xc);
#pragma omp parallel for schedule(static) if (par)
  for (int i = 0; i < n; ++i) {
    Scalar s = 0;
    for (int p = L.P.outer[static_cast<size_t>(i)]; p < L.P.outer[static_cast<size_t>(i) + 1]; ++p)
      s += static_cast<Scalar>(L.P.values[static_cast<size_t>(p)]) * xc[L.P.inner[static_cast<size_t>(p)]];
    x[i] += s;
  }
  // Post-smoothing: x += w D^-1 (b - A x), through r to keep x's old values for the product.
  residual();
#pragma omp parallel for schedule(static) if (par)
  for (int i = 0; i < n; ++i) x[i] += w * D[i] * r[i];
}

template <typename Scalar>
void ClassicalAMG<Scalar>::apply(const Scalar* b, Scalar* x) const {
  if (levels_.empty()) return;
  cycle(0, b, x);
}

template <typename Scalar>
int ClassicalAMG<Scalar>::levels() const {
  return static_cast<int>(levels_.size());
}

template <typename Scalar>
std::vector<int> ClassicalAMG<Scalar>::levelSizes() const {
  std::vector<int> s;
  for (const auto& l : levels_) s.push_back(l->A.n);
  return s;
}

template <typename Scalar>
size_t ClassicalAMG<Scalar>::memoryBytes() const {
  size_t b = 0;
  for (const auto& l : levels_)
    b += l->A.bytes() + l->P.bytes() + l->R.bytes() +
         (l->invDiag.size() + l->r.size() + l->bc.size() + l->xc.size()) * sizeof(Scalar);
  if (coarsest_) b += static_cast<size_t>(coarsest_->factor.matrixLDLT().size()) * sizeof(double);
  return b;
}

template <typename Scalar>
double ClassicalAMG<Scalar>::operatorComplexity() const {
  if (levels_.empty() || levels_[0]->A.nnz() == 0) return 1.0;
  double total = 0;
  for (const auto& l : levels_) total += static_cast<double>(l->A.nnz());
  return total / static_cast<double>(levels_[0]->A.nnz());
}

template class ClassicalAMG<float>;
template class ClassicalAMG<double>;

}  // namespace Merivane
