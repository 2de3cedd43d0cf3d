#include "ClassicalAMG.h"
#include "MultigridKernels.h"

#include <omp.h>

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace Merivane {

namespace {

constexpr int kCoarsestSize = 300;      // solved densely at or below this size
constexpr int kDenseLimit = 4000;       // a stalled coarsening beyond this is smoothed, not factorised
constexpr int kCoarsestSweeps = 20;     // Jacobi sweeps standing in for that factorisation
constexpr int kMaxLevels = 25;
constexpr double kJacobiWeight = 0.7;
constexpr int kParallelRows = 16384;    // smaller levels run on one thread: a barrier costs more
constexpr int kRebindShare = 20;        // a re-target changes at most 1/20 of the finest rows
constexpr int kRefactorSize = 1000;     // a re-target factorises a coarsest level this small again

// Rows of a level's matrix in single precision: the finest level borrows the caller's, coarse
// levels own theirs. The Galerkin sums are formed in double and rounded once; iterations are
// the same as with double coarse levels, for two thirds of the memory.
struct Csr {
  int n = 0;
  const int* outer = nullptr;
  const int* inner = nullptr;
  const float* values = nullptr;
  std::vector<int> outerStore, innerStore;
  std::vector<float> valueStore;
  void adopt() {
    outer = outerStore.data();
    inner = innerStore.data();
    values = valueStore.data();
  }
  size_t nnz() const { return n ? static_cast<size_t>(outer[n]) : 0; }
  size_t bytes() const {
    return outerStore.size() * sizeof(int) + innerStore.size() * sizeof(int) + valueStore.size() * sizeof(float);
  }
};


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

// Coarse/fine splitting by the first pass of Ruge and Stueben, within the rows [begin, end) and
// the strong couplings among them: repeatedly the undecided row that most rows strongly depend
// on becomes coarse and its dependants fine. Bucket lists by measure; ties go to the lower row.
void splitBlock(int begin, int end, const Strength& S, const Strength& T, std::vector<char>& state) {
  const auto sz = [](int i) { return static_cast<size_t>(i); };
  const int m = end - begin;
  const auto inside = [&](int j) { return j >= begin && j < end; };
  std::vector<int> measure(sz(m)), next(sz(m), -1), prev(sz(m), -1), head;
  int maxMeasure = 0;
  for (int i = begin; i < end; ++i) {
    int influence = 0, depends = 0;
    for (int p = T.outer[sz(i)]; p < T.outer[sz(i) + 1]; ++p) influence += inside(T.inner[sz(p)]);
    for (int p = S.outer[sz(i)]; p < S.outer[sz(i) + 1]; ++p) depends += inside(S.inner[sz(p)]);
    measure[sz(i - begin)] = influence;
    maxMeasure = std::max(maxMeasure, influence);
    // Neither depending on nor influencing anything here: nothing to interpolate from or to.
    state[sz(i)] = influence == 0 && depends == 0 ? 0 : -1;
  }
  head.assign(sz(maxMeasure) + 1, -1);
  auto insert = [&](int i) {
    const int l = i - begin, b = measure[sz(l)];
    if (b >= static_cast<int>(head.size())) head.resize(sz(b) * 2 + 1, -1);
    prev[sz(l)] = -1;
    next[sz(l)] = head[sz(b)];
    if (head[sz(b)] >= 0) prev[sz(head[sz(b)] - begin)] = i;
    head[sz(b)] = i;
  };
  auto remove = [&](int i) {
    const int l = i - begin;
    if (prev[sz(l)] >= 0)
      next[sz(prev[sz(l)] - begin)] = next[sz(l)];
    else
      head[sz(measure[sz(l)])] = next[sz(l)];
    if (next[sz(l)] >= 0) prev[sz(next[sz(l)] - begin)] = prev[sz(l)];
  };
  // Inserted from the last row down, so that each bucket lists its rows in ascending order.
  for (int i = end - 1; i >= begin; --i)
    if (state[sz(i)] < 0) insert(i);
  int top = static_cast<int>(head.size()) - 1;
  while (true) {
    while (top >= 0 && head[sz(top)] < 0) --top;
    if (top < 0) break;
    const int c = head[sz(top)];
    remove(c);
    state[sz(c)] = 1;
    for (int p = T.outer[sz(c)]; p < T.outer[sz(c) + 1]; ++p) {
      const int f = T.inner[sz(p)];
      if (!inside(f) || state[sz(f)] != -1) continue;
      remove(f);
      state[sz(f)] = 0;
      for (int q = S.outer[sz(f)]; q < S.outer[sz(f) + 1]; ++q) {
        const int k = S.inner[sz(q)];
        if (!inside(k) || state[sz(k)] != -1) continue;
        remove(k);
        ++measure[sz(k - begin)];
        insert(k);
        top = std::max(top, measure[sz(k - begin)]);
      }
    }
    for (int q = S.outer[sz(c)]; q < S.outer[sz(c) + 1]; ++q) {
      const int k = S.inner[sz(q)];
      if (!inside(k) || state[sz(k)] != -1) continue;
      remove(k);
      --measure[sz(k - begin)];
      insert(k);
    }
  }
  for (int i = begin; i < end; ++i)
    if (state[sz(i)] < 0) state[sz(i)] = 0;
}

// The split of all rows. Large levels are split in a fixed number of row blocks side by side;
// afterwards a fine row with strong couplings but no strong coarse neighbour (one that only the
// cut between blocks left without) becomes coarse, in row order. Blocks depend on the row count
// alone, so the split does not depend on the number of threads.
std::vector<char> splitRows(int n, const Strength& S) {
  constexpr int kBlocks = 16;
  constexpr int kBlockRows = 16384;  // smaller levels are split whole
  const auto sz = [](int i) { return static_cast<size_t>(i); };
  Strength T;  // who depends on each row
  T.outer.assign(sz(n) + 1, 0);
  T.inner.resize(S.inner.size());
  for (int j : S.inner) ++T.outer[sz(j) + 1];
  for (int i = 0; i < n; ++i) T.outer[sz(i) + 1] += T.outer[sz(i)];
  {
    std::vector<int> pos(T.outer.begin(), T.outer.end() - 1);
    for (int i = 0; i < n; ++i)
      for (int p = S.outer[sz(i)]; p < S.outer[sz(i) + 1]; ++p) T.inner[sz(pos[sz(S.inner[sz(p)])]++)] = i;
  }
  std::vector<char> state(sz(n), 0);  // 1 coarse, 0 fine
  const int blocks = n >= kBlocks * kBlockRows ? kBlocks : 1;
#pragma omp parallel for schedule(dynamic, 1) if (blocks > 1)
  for (int b = 0; b < blocks; ++b)
    splitBlock(static_cast<int>(static_cast<long long>(n) * b / blocks),
               static_cast<int>(static_cast<long long>(n) * (b + 1) / blocks), S, T, state);
  if (blocks > 1)
    for (int i = 0; i < n; ++i) {
      if (state[sz(i)] || S.outer[sz(i)] == S.outer[sz(i) + 1]) continue;
      bool covered = false;
      for (int p = S.outer[sz(i)]; p < S.outer[sz(i) + 1] && !covered; ++p) covered = state[sz(S.inner[sz(p)])];
      if (!covered) state[sz(i)] = 1;
    }
  return state;
}

// Interpolation of a fine row from its strong coarse neighbours. A strong fine neighbour k
// passes its coupling on to those coarse neighbours in proportion to its own couplings to them;
// with none in common, and for weak couplings, the coupling goes into the diagonal. The
// largest `maxWeights` weights of a row are kept, scaled to the sum of all. Strength is decided
// as strongCouplings() decides it.
class Interpolator {
 public:
  // With n rows, a table of n entries finds a column's place at once; with n = 0 (a handful of
  // rows to interpolate, as after a stroke) the row's few coarse columns are searched instead.
  explicit Interpolator(int n) : slotOf_(static_cast<size_t>(n), -1) {}

  // (weight, fine column) of row i, by column; `coarse` flags the coarse rows.
  template <typename V>
  const std::vector<std::pair<double, int>>& row(const Csr& A, const V* val, int i, double theta,
                                                 const std::vector<char>& coarse, int maxWeights) {
    const auto sz = [](int k) { return static_cast<size_t>(k); };
    weights_.clear();
    cols_.clear();
    acc_.clear();
    double mx = 0;
    for (int k = A.outer[i]; k < A.outer[i + 1]; ++k)
      if (A.inner[k] != i) mx = std::max(mx, -static_cast<double>(val[k]));
    const double t = mx > 0 ? theta * mx : HUGE_VAL;
    const auto strong = [&](int k) { return A.inner[k] != i && -static_cast<double>(val[k]) >= t; };
    for (int k = A.outer[i]; k < A.outer[i + 1]; ++k)
      if (strong(k) && coarse[sz(A.inner[k])]) {
        setSlot(A.inner[k], static_cast<int>(cols_.size()));
        cols_.push_back(A.inner[k]);
        acc_.push_back(0.0);
      }
    if (cols_.empty()) return weights_;
    double diag = 0;
    for (int k = A.outer[i]; k < A.outer[i + 1]; ++k) {
      const int j = A.inner[k];
      const double a = static_cast<double>(val[k]);
      if (j == i || !strong(k)) {
        diag += a;
      } else if (coarse[sz(j)]) {
        acc_[sz(slot(j))] += a;
      } else {
        double shared = 0;
        for (int q = A.outer[j]; q < A.outer[j + 1]; ++q)
          if (val[q] < 0 && slot(A.inner[q]) >= 0) shared += static_cast<double>(val[q]);
        if (shared < 0) {
          for (int q = A.outer[j]; q < A.outer[j + 1]; ++q) {
            const int s = val[q] < 0 ? slot(A.inner[q]) : -1;
            if (s >= 0) acc_[sz(s)] += a * static_cast<double>(val[q]) / shared;
          }
        } else {
          diag += a;
        }
      }
    }
    if (!slotOf_.empty())
      for (int j : cols_) slotOf_[sz(j)] = -1;
    double sumAll = 0;
    for (size_t s = 0; s < cols_.size(); ++s) {
      const double w = diag > 0 ? -acc_[s] / diag : 0.0;
      weights_.emplace_back(w, cols_[s]);
      sumAll += w;
    }
    if (static_cast<int>(weights_.size()) > maxWeights) {
      std::partial_sort(weights_.begin(), weights_.begin() + maxWeights, weights_.end(), [](const auto& x, const auto& y) {
        const double ax = std::abs(x.first), ay = std::abs(y.first);
        return ax > ay || (ax == ay && x.second < y.second);
      });
      weights_.resize(sz(maxWeights));
      double sumKept = 0;
      for (const auto& w : weights_) sumKept += w.first;
      if (sumKept != 0)
        for (auto& w : weights_) w.first *= sumAll / sumKept;
    }
    std::sort(weights_.begin(), weights_.end(), [](const auto& x, const auto& y) { return x.second < y.second; });
    return weights_;
  }

 private:
  int slot(int j) const {
    if (!slotOf_.empty()) return slotOf_[static_cast<size_t>(j)];
    const auto at = std::find(cols_.begin(), cols_.end(), j);
    return at == cols_.end() ? -1 : static_cast<int>(at - cols_.begin());
  }
  void setSlot(int j, int s) {
    if (!slotOf_.empty()) slotOf_[static_cast<size_t>(j)] = s;
  }
  std::vector<int> slotOf_;  // place of a row in cols_, or -1; empty: search cols_
  std::vector<int> cols_;
  std::vector<double> acc_;
  std::vector<std::pair<double, int>> weights_;
};

// The interpolation of all rows: coarse rows take their own coarse value.
template <typename V>
Transfer interpolation(const Csr& A, const V* val, const Strength& S, double theta, const std::vector<char>& coarse,
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
    Interpolator interpolator(n);
#pragma omp for schedule(static)
    for (int i = 0; i < n; ++i) {
      int out = P.outer[sz(i)];
      if (coarse[sz(i)]) {
        P.inner[sz(out)] = coarseIndex[sz(i)];
        P.values[sz(out)] = 1.0f;
        continue;
      }
      if (P.outer[sz(i) + 1] == out) continue;
      for (const auto& w : interpolator.row(A, val, i, theta, coarse, maxWeights)) {
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

// Calls visit(J, term) for each term r_Ii a_ik p_kJ of row I of the Galerkin product, in a
// fixed order.
template <typename V, typename Visit>
void galerkinTerms(const Csr& A, const V* val, const Transfer& P, const Transfer& R, int I, Visit&& visit) {
  const auto sz = [](int i) { return static_cast<size_t>(i); };
  for (int p = R.outer[sz(I)]; p < R.outer[sz(I) + 1]; ++p) {
    const int i = R.inner[sz(p)];
    const double r = R.values[sz(p)];
    for (int k = A.outer[i]; k < A.outer[i + 1]; ++k) {
      const int j = A.inner[k];
      const double ra = r * static_cast<double>(val[k]);
      for (int q = P.outer[sz(j)]; q < P.outer[sz(j) + 1]; ++q)
        visit(P.inner[sz(q)], ra * static_cast<double>(P.values[sz(q)]));
    }
  }
}

// Sums one row of the Galerkin product: with a table over the coarse level's columns, or (made
// with 0 columns, for a handful of rows) from the row's terms sorted by column. Either way each
// entry adds its terms in the order they are visited, so both give the same floats.
class RowSummer {
 public:
  explicit RowSummer(int columns) : mark_(static_cast<size_t>(columns), -1), acc_(static_cast<size_t>(columns)) {}

  // Calls emit(J, value) for the entries of row I, by column.
  template <typename V, typename Emit>
  void sum(const Csr& A, const V* val, const Transfer& P, const Transfer& R, int I, Emit&& emit) {
    const auto sz = [](int i) { return static_cast<size_t>(i); };
    if (mark_.empty()) {
      terms_.clear();
      galerkinTerms(A, val, P, R, I, [&](int J, double t) { terms_.emplace_back(J, t); });
      std::stable_sort(terms_.begin(), terms_.end(), [](const auto& x, const auto& y) { return x.first < y.first; });
      for (size_t e = 0; e < terms_.size();) {
        const int J = terms_[e].first;
        double total = 0;
        for (; e < terms_.size() && terms_[e].first == J; ++e) total += terms_[e].second;
        emit(J, static_cast<float>(total));
      }
      return;
    }
    row_.clear();
    galerkinTerms(A, val, P, R, I, [&](int J, double t) {
      if (mark_[sz(J)] != I) {
        mark_[sz(J)] = I;
        acc_[sz(J)] = 0;
        row_.push_back(J);
      }
      acc_[sz(J)] += t;
    });
    std::sort(row_.begin(), row_.end());
    for (int J : row_) emit(J, static_cast<float>(acc_[sz(J)]));
  }

 private:
  std::vector<int> mark_;
  std::vector<double> acc_;
  std::vector<int> row_;
  std::vector<std::pair<int, double>> terms_;
};

// The Galerkin product R A P, row by row of the coarse level. Rows are summed in fixed chunks
// side by side, each into storage of its own, then moved into place: one pass over the terms
// instead of one to count and one to sum, for a while the room of a second copy of the coarse
// matrix. Every entry is summed in the same order whatever the number of threads.
template <typename V>
Csr galerkin(const Csr& A, const V* val, const Transfer& P, const Transfer& R, int nc) {
  const auto sz = [](int i) { return static_cast<size_t>(i); };
  Csr C;
  C.n = nc;
  C.outerStore.assign(sz(nc) + 1, 0);
  const bool par = nc > kParallelRows / 4;
  constexpr int kChunks = 64;
  const int chunks = par ? kChunks : 1;
  const auto chunkBegin = [&](int c) { return static_cast<int>(static_cast<long long>(nc) * c / chunks); };
  struct Rows {
    std::vector<int> cols;
    std::vector<float> vals;
  };
  std::vector<Rows> parts(sz(chunks));
#pragma omp parallel if (par)
  {
    RowSummer summer(nc);
#pragma omp for schedule(dynamic, 1)
    for (int c = 0; c < chunks; ++c) {
      Rows& part = parts[sz(c)];
      for (int I = chunkBegin(c); I < chunkBegin(c + 1); ++I) {
        const size_t before = part.cols.size();
        summer.sum(A, val, P, R, I, [&](int J, float v) {
          part.cols.push_back(J);
          part.vals.push_back(v);
        });
        C.outerStore[sz(I) + 1] = static_cast<int>(part.cols.size() - before);
      }
    }
  }
  for (int I = 0; I < nc; ++I) C.outerStore[sz(I) + 1] += C.outerStore[sz(I)];
  // Spare capacity for rows that a re-target lets grow; address space only until it is used.
  const size_t total = sz(C.outerStore[sz(nc)]);
  C.innerStore.reserve(total + total / 64 + 64);
  C.valueStore.reserve(total + total / 64 + 64);
  C.innerStore.resize(total);
  C.valueStore.resize(total);
#pragma omp parallel for schedule(dynamic, 1) if (par)
  for (int c = 0; c < chunks; ++c) {
    Rows& part = parts[sz(c)];
    const auto at = static_cast<std::ptrdiff_t>(C.outerStore[sz(chunkBegin(c))]);
    std::copy(part.cols.begin(), part.cols.end(), C.innerStore.begin() + at);
    std::copy(part.vals.begin(), part.vals.end(), C.valueStore.begin() + at);
    part = Rows();
  }
  C.adopt();
  return C;
}

// The Galerkin product R A P over an old one, C: the rows flagged in `touched` are summed again,
// the others kept as they are. A row keeps its room when it needs less (the rest is zeros at a
// column it has); rows that need more make room by moving the rows after them along, within the
// storage's spare capacity, so that a stroke does not copy a whole level.
void resumRows(Csr& C, const Csr& A, const Transfer& P, const Transfer& R, const std::vector<char>& touched) {
  const auto sz = [](int i) { return static_cast<size_t>(i); };
  const int nc = C.n;
  std::vector<int> rows;
  for (int I = 0; I < nc; ++I)
    if (touched[sz(I)]) rows.push_back(I);
  std::vector<std::vector<int>> cols(rows.size());
  std::vector<std::vector<float>> vals(rows.size());
  const int count = static_cast<int>(rows.size());
  // A few rows are summed from their sorted terms, without tables over the whole level.
  const bool few = static_cast<size_t>(count) * 64 < static_cast<size_t>(nc);
#pragma omp parallel if (count > 256)
  {
    RowSummer summer(few ? 0 : nc);
#pragma omp for schedule(static)
    for (int r = 0; r < count; ++r)
      summer.sum(A, A.values, P, R, rows[sz(r)], [&](int J, float v) {
        cols[sz(r)].push_back(J);
        vals[sz(r)].push_back(v);
      });
  }
  // Room: a touched row gets what it needs, at least what it had.
  std::vector<int> grow(rows.size(), 0);
  int extra = 0;
  for (size_t r = 0; r < rows.size(); ++r) {
    grow[r] = std::max(0, static_cast<int>(cols[r].size()) - (C.outer[rows[r] + 1] - C.outer[rows[r]]));
    extra += grow[r];
  }
  if (extra > 0) {
    const std::vector<int> oldOuter(C.outerStore);
    {  // new row starts
      int shift = 0;
      size_t r = 0;
      for (int I = 0; I < nc; ++I) {
        C.outerStore[sz(I) + 1] = oldOuter[sz(I) + 1] + shift;
        if (r < rows.size() && rows[r] == I) {
          shift += grow[r];
          C.outerStore[sz(I) + 1] += grow[r++];
        }
      }
    }
    const size_t total = static_cast<size_t>(C.outerStore[sz(nc)]);
    if (total > C.innerStore.capacity()) {
      C.innerStore.reserve(total + total / 32);
      C.valueStore.reserve(total + total / 32);
    }
    C.innerStore.resize(total);
    C.valueStore.resize(total);
    // Rows move back by what the rows before them grew, the last run first; runs of rows with
    // the same shift move at once.
    for (int I = nc - 1; I >= 0;) {
      const int shift = C.outerStore[sz(I)] - oldOuter[sz(I)];
      if (shift == 0) break;  // and so are the shifts of all rows before
      int a = I;
      while (a > 0 && C.outerStore[sz(a) - 1] - oldOuter[sz(a) - 1] == shift) --a;
      const size_t from = sz(oldOuter[sz(a)]), len = sz(oldOuter[sz(I) + 1]) - from;
      std::memmove(C.innerStore.data() + from + sz(shift), C.innerStore.data() + from, len * sizeof(int));
      std::memmove(C.valueStore.data() + from + sz(shift), C.valueStore.data() + from, len * sizeof(float));
      I = a - 1;
    }
    C.adopt();
  }
  for (size_t r = 0; r < rows.size(); ++r) {
    const int I = rows[r];
    int at = C.outer[I];
    for (size_t e = 0; e < cols[r].size(); ++e, ++at) {
      C.innerStore[sz(at)] = cols[r][e];
      C.valueStore[sz(at)] = vals[r][e];
    }
    for (; at < C.outer[I + 1]; ++at) {
      C.innerStore[sz(at)] = cols[r].empty() ? I : cols[r].back();
      C.valueStore[sz(at)] = 0.0f;
    }
  }
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
  finestLengths_.clear();
  finestCoarse_.clear();
  coarsest_ = std::make_unique<Coarsest>();
  if (n <= 0) return;
  auto first = std::make_unique<Level>();
  first->A.n = n;
  first->A.outer = outer;
  first->A.inner = inner;
  first->A.values = values;
  levels_.push_back(std::move(first));
  finestLengths_.resize(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) finestLengths_[static_cast<size_t>(i)] = outer[i + 1] - outer[i];
  while (true) {
    setInverseDiagonal(levels_.size() - 1);
    Level& L = *levels_.back();
    const int ln = L.A.n;
    if (ln <= kCoarsestSize || static_cast<int>(levels_.size()) >= kMaxLevels) break;
    auto next = std::make_unique<Level>();
    const bool coarsened = [&] {
      const float* val = L.A.values;
      int nc = 0;
      {  // the couplings go before the Galerkin product, the largest step, takes its memory
        const Strength S = strongCouplings(L.A, val, strengthThreshold);
        const std::vector<char> coarse = splitRows(ln, S);
        std::vector<int> coarseIndex(static_cast<size_t>(ln), -1);
        for (int i = 0; i < ln; ++i)
          if (coarse[static_cast<size_t>(i)]) coarseIndex[static_cast<size_t>(i)] = nc++;
        if (nc == 0 || nc > 0.9 * ln) return false;
        L.P = interpolation(L.A, val, S, strengthThreshold, coarse, coarseIndex, maxInterpolation);
        if (levels_.size() == 1) finestCoarse_ = coarse;
      }
      L.R = transpose(L.P, ln, nc);
      next->A = galerkin(L.A, val, L.P, L.R, nc);
      return true;
    }();
    if (!coarsened) break;
    L.bc.resize(static_cast<size_t>(next->A.n));
    L.xc.resize(static_cast<size_t>(next->A.n));
    levels_.push_back(std::move(next));
  }
  factorCoarsest(kDenseLimit);
}

// A dense factorisation of the coarsest level when it has at most `limit` rows; a coarsest level
// without one is smoothed instead.
template <typename Scalar>
void ClassicalAMG<Scalar>::factorCoarsest(int limit) {
  const Level& C = *levels_.back();
  if (C.A.n > limit) return;
  Eigen::MatrixXd dense = Eigen::MatrixXd::Zero(C.A.n, C.A.n);
  for (int i = 0; i < C.A.n; ++i)
    for (int k = C.A.outer[i]; k < C.A.outer[i + 1]; ++k) dense(i, C.A.inner[k]) += static_cast<double>(C.A.values[k]);
  coarsest_->factor.compute(dense);
  coarsest_->dense = coarsest_->factor.info() == Eigen::Success;
}

template <typename Scalar>
void ClassicalAMG<Scalar>::setInverseDiagonal(size_t l) {
  Level& L = *levels_[l];
  const int n = L.A.n;
  L.invDiag.assign(static_cast<size_t>(n), Scalar(0));
  const float* val = L.A.values;
#pragma omp parallel for schedule(static) if (n > kParallelRows)
  for (int i = 0; i < n; ++i)
    for (int k = L.A.outer[i]; k < L.A.outer[i + 1]; ++k)
      if (L.A.inner[k] == i && val[k] != 0) L.invDiag[static_cast<size_t>(i)] = Scalar(1) / static_cast<Scalar>(val[k]);
  L.r.resize(static_cast<size_t>(n));
}

template <typename Scalar>
bool ClassicalAMG<Scalar>::rebindFinest(int n, const int* outer, const int* inner, const float* values,
                                       const std::vector<int>& newRowOfOld) {
  const auto sz = [](int i) { return static_cast<size_t>(i); };
  if (levels_.size() < 2 || n <= 0) return false;
  Level& L = *levels_[0];
  const int oldN = L.A.n;
  if (newRowOfOld.size() != sz(oldN)) return false;
  std::vector<int> oldOfNew(sz(n), -1);
  int removed = 0;
  for (int i = 0; i < oldN; ++i) {
    const int j = newRowOfOld[sz(i)];
    if (j >= n) return false;
    if (j < 0)
      ++removed;
    else
      oldOfNew[sz(j)] = i;
  }
  const int added = n - (oldN - removed);
  if (removed + added > oldN / kRebindShare) return false;
  Csr finest;
  finest.n = n;
  finest.outer = outer;
  finest.inner = inner;
  finest.values = values;

  // Rows whose couplings changed: those new to the system, and kept ones whose entry count
  // changed (they lost a coupling to a row that left, or gained one to a new row; the old
  // matrix itself is gone by now). Their fine rows are interpolated afresh on the new matrix
  // over the old split; kept rows keep their interpolation.
  const int nc = static_cast<int>(L.bc.size());
  std::vector<char> coarse(sz(n), 0), changed(sz(n), 0);
  std::vector<int> lengths(sz(n));
  for (int i = 0; i < n; ++i) {
    const int o = oldOfNew[sz(i)];
    lengths[sz(i)] = outer[i + 1] - outer[i];
    coarse[sz(i)] = o >= 0 && finestCoarse_[sz(o)];
    changed[sz(i)] = o < 0 || lengths[sz(i)] != finestLengths_[sz(o)];
  }
  std::vector<int> redo;
  for (int i = 0; i < n; ++i)
    if (changed[sz(i)] && !coarse[sz(i)]) redo.push_back(i);
  std::vector<std::vector<std::pair<int, float>>> redone(redo.size());
  {
    // A coarse row (kept from the old system) interpolates from itself alone: its coarse index.
    const auto coarseIndex = [&](int i) { return L.P.inner[sz(L.P.outer[sz(oldOfNew[sz(i)])])]; };
    Interpolator interpolator(0);
    for (size_t r = 0; r < redo.size(); ++r)
      for (const auto& w : interpolator.row(finest, values, redo[r], strengthThreshold, coarse, maxInterpolation))
        redone[r].emplace_back(coarseIndex(w.second), static_cast<float>(w.first));
  }
  Transfer P;
  P.outer.assign(sz(n) + 1, 0);
  {
    size_t r = 0;
    for (int i = 0; i < n; ++i) {
      const int o = oldOfNew[sz(i)];
      int len = 0;
      if (r < redo.size() && redo[r] == i)
        len = static_cast<int>(redone[r++].size());
      else if (o >= 0)
        len = L.P.outer[sz(o) + 1] - L.P.outer[sz(o)];
      P.outer[sz(i) + 1] = P.outer[sz(i)] + len;
    }
  }
  P.inner.resize(sz(P.outer[sz(n)]));
  P.values.resize(P.inner.size());
  {
#pragma omp parallel for schedule(static) if (n > kParallelRows)
    for (int i = 0; i < n; ++i) {
      const int o = oldOfNew[sz(i)];
      int at = P.outer[sz(i)];
      if (changed[sz(i)] && !coarse[sz(i)]) {  // one of `redo`, which is in row order
        const auto r = static_cast<size_t>(std::lower_bound(redo.begin(), redo.end(), i) - redo.begin());
        for (const auto& [J, w] : redone[r]) {
          P.inner[sz(at)] = J;
          P.values[sz(at++)] = w;
        }
      } else if (o >= 0) {
        std::copy(L.P.inner.begin() + L.P.outer[sz(o)], L.P.inner.begin() + L.P.outer[sz(o) + 1], P.inner.begin() + at);
        std::copy(L.P.values.begin() + L.P.outer[sz(o)], L.P.values.begin() + L.P.outer[sz(o) + 1],
                  P.values.begin() + at);
      }
    }
  }

  // Coarse rows whose Galerkin sums change: every coarse row interpolated, before or now, by a
  // changed row or a neighbour of one, or by a row that left the system.
  std::vector<char> touched(sz(nc), 0);
  const auto touch = [&](const Transfer& T, int row) {
    for (int p = T.outer[sz(row)]; p < T.outer[sz(row) + 1]; ++p) touched[sz(T.inner[sz(p)])] = 1;
  };
  for (int o = 0; o < oldN; ++o)
    if (newRowOfOld[sz(o)] < 0) touch(L.P, o);
  for (int x = 0; x < n; ++x) {
    if (!changed[sz(x)]) continue;
    for (int k = outer[x]; k < outer[x + 1]; ++k) {
      const int i = inner[k];  // x itself among them
      touch(P, i);
      if (oldOfNew[sz(i)] >= 0) touch(L.P, oldOfNew[sz(i)]);
    }
  }
  Transfer R = transpose(P, n, nc);

  // Those rows summed again, the others kept; then the rows of each deeper level that the
  // changed ones feed, so that every level stays the Galerkin product of the one above.
  resumRows(levels_[1]->A, finest, P, R, touched);
  L.A = std::move(finest);
  finestLengths_ = std::move(lengths);
  finestCoarse_ = std::move(coarse);
  L.P = std::move(P);
  L.R = std::move(R);
  setInverseDiagonal(0);
  setInverseDiagonal(1);
  for (size_t l = 1; l + 1 < levels_.size(); ++l) {
    Level& U = *levels_[l];
    std::vector<char> below(U.bc.size(), 0);
    for (int i = 0; i < U.A.n; ++i)
      if (touched[sz(i)])
        for (int p = U.P.outer[sz(i)]; p < U.P.outer[sz(i) + 1]; ++p) below[sz(U.P.inner[sz(p)])] = 1;
    touched = std::move(below);
    resumRows(levels_[l + 1]->A, U.A, U.P, U.R, touched);
    setInverseDiagonal(l + 1);
  }
  factorCoarsest(kRefactorSize);
  return true;
}

template <typename Scalar>
void ClassicalAMG<Scalar>::cycle(size_t l, const Scalar* b, Scalar* x) const {
  const Level& L = *levels_[l];
  const int n = L.A.n;
  const Scalar* D = L.invDiag.data();
  Scalar* r = L.r.data();
  const bool par = n > kParallelRows;
  const Scalar w = static_cast<Scalar>(kJacobiWeight);
  const auto residual = [&] { MultigridKernels::residual(n, L.A.outer, L.A.inner, L.A.values, b, x, r, par); };
  if (l + 1 == levels_.size()) {
    if (coarsest_->dense) {
      Eigen::VectorXd rhs(n);
      for (int i = 0; i < n; ++i) rhs[i] = static_cast<double>(b[i]);
      const Eigen::VectorXd sol = coarsest_->factor.solve(rhs);
      for (int i = 0; i < n; ++i) x[i] = static_cast<Scalar>(sol[i]);
      return;
    }
    MultigridKernels::jacobiFromZero(n, w, D, b, x, par);
    for (int s = 1; s < kCoarsestSweeps; ++s) {
      residual();
      MultigridKernels::jacobiCorrect(n, w, D, r, x, par);
    }
    return;
  }
  // Pre-smoothing from zero, then the residual.
  MultigridKernels::jacobiFromZero(n, w, D, b, x, par);
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
  MultigridKernels::jacobiCorrect(n, w, D, r, x, par);
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
  size_t b = finestLengths_.size() * sizeof(int) + finestCoarse_.size();
  for (const auto& l : levels_)
    b += l->A.bytes() + l->P.bytes() + l->R.bytes() +
         (l->invDiag.size() + l->r.size() + l->bc.size() + l->xc.size()) * sizeof(Scalar);
  if (coarsest_ && coarsest_->dense) b += static_cast<size_t>(coarsest_->factor.matrixLDLT().size()) * sizeof(double);
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
