#include "AggregationAMG.h"
#include "MultigridKernels.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <type_traits>

namespace Merivane {

namespace {

constexpr int kCoarsestSize = 400;
constexpr double kStrength = 0.25;  // a neighbour is strong at a quarter of the row's largest
// Damped Jacobi stays a contraction, and the V-cycle symmetric positive definite, for weights
// below 1 (the eigenvalues of D^-1 A of a graph Laplacian lie in (0, 2)). Piecewise-constant
// coarse corrections leave more to the smoother than smooth interpolation would, and a weight
// near 1 pays: 0.9 against the textbook 2/3 takes a random-walk solve of the 7 M-voxel demo
// brain from 37 to 28 BiCGSTAB iterations and of the 128^3 phantom from 77 to 53.
constexpr double kJacobiWeight = 0.9;
constexpr int kMaxLevels = 25;

// A CSR matrix, owned or borrowed. A double-precision hierarchy may borrow its finest matrix
// in single precision (`valuesF` instead of `values`) and read it converted, exactly.
template <typename Scalar>
struct Csr {
  int n = 0;
  const int* outer = nullptr;
  const int* inner = nullptr;
  const Scalar* values = nullptr;
  const float* valuesF = nullptr;
  std::vector<int> outerStore, innerStore;
  std::vector<Scalar> valueStore;

  void adopt() {
    outer = outerStore.data();
    inner = innerStore.data();
    values = valueStore.data();
  }
  size_t bytes() const {
    return outerStore.size() * sizeof(int) + innerStore.size() * sizeof(int) + valueStore.size() * sizeof(Scalar);
  }
};

// Calls f with the values of A, in whichever precision they are held.
template <typename Scalar, typename F>
decltype(auto) withValues(const Csr<Scalar>& A, F&& f) {
  if constexpr (!std::is_same_v<Scalar, float>)
    if (A.valuesF) return f(A.valuesF);
  return f(A.values);
}

// What a row offers to a pairing: the first neighbour (in the row's order) of the largest
// strength -a_ij > 0 among those accepted, and the largest strength of all neighbours (0 if
// none is positive).
template <typename Scalar>
struct Strongest {
  int partner = -1;
  Scalar best = 0;
  Scalar maxAll = 0;
};

// The query over rows given as `forRow(i, f)`, which calls f(j, a_ij) for the entries of row i.
template <typename Scalar, typename RowFn>
struct RowQuery {
  RowFn forRow;
  template <typename Accept>
  Strongest<Scalar> operator()(int i, Accept accept) const {
    Strongest<Scalar> r;
    forRow(i, [&](int j, Scalar v) {
      if (j == i) return;
      const Scalar s = -v;
      r.maxAll = std::max(r.maxAll, s);
      if (accept(j) && s > r.best) {
        r.best = s;
        r.partner = j;
      }
    });
    return r;
  }
};
template <typename Scalar, typename RowFn>
RowQuery<Scalar, RowFn> rowQuery(RowFn f) {
  return RowQuery<Scalar, RowFn>{std::move(f)};
}

// Greedy pairing with the strongest unpaired neighbour, in node order, so the result is fixed.
// A node left alone because its neighbours are all taken joins the aggregate of its strongest
// neighbour, which keeps the coarsening rate near two even where every weight is tiny.
template <typename Scalar, typename Query>
int pairNodes(int n, const Query& query, std::vector<int>& agg) {
  agg.assign(static_cast<size_t>(n), -1);
  std::vector<char> single(static_cast<size_t>(n), 0);
  int nc = 0;
  for (int i = 0; i < n; ++i) {
    if (agg[static_cast<size_t>(i)] >= 0) continue;
    const Strongest<Scalar> r = query(i, [&](int j) { return agg[static_cast<size_t>(j)] < 0; });
    agg[static_cast<size_t>(i)] = nc;
    if (r.partner >= 0 && r.best >= static_cast<Scalar>(kStrength) * r.maxAll)
      agg[static_cast<size_t>(r.partner)] = nc;
    else
      single[static_cast<size_t>(i)] = 1;
    ++nc;
  }
  // Attach singles, then number the aggregates that remain densely.
  std::vector<int> alive(static_cast<size_t>(nc), 1);
  for (int i = 0; i < n; ++i) {
    if (!single[static_cast<size_t>(i)]) continue;
    const Strongest<Scalar> r = query(i, [&](int j) { return !single[static_cast<size_t>(j)]; });
    if (r.partner >= 0) {
      alive[static_cast<size_t>(agg[static_cast<size_t>(i)])] = 0;
      agg[static_cast<size_t>(i)] = agg[static_cast<size_t>(r.partner)];
    }
  }
  std::vector<int> number(static_cast<size_t>(nc));
  int m = 0;
  for (int c = 0; c < nc; ++c) number[static_cast<size_t>(c)] = alive[static_cast<size_t>(c)] ? m++ : -1;
  for (auto& a : agg) a = number[static_cast<size_t>(a)];
  return m;
}

// A row's strongest neighbours, ranked once: up to kRanked of them, strongest first and, among
// equals, first met first, and whether that is all of its positive ones. A query answered by
// the list is the query the whole row would answer; otherwise the row is merged again.
template <typename Scalar>
struct Ranked {
  static constexpr int kRanked = 3;
  Scalar maxAll = 0;
  int count = 0;
  bool complete = true;
  int J[kRanked];
  Scalar s[kRanked];

  void add(int j, Scalar strength) {
    maxAll = std::max(maxAll, strength);
    if (!(strength > 0)) return;
    int p = count;
    while (p > 0 && s[p - 1] < strength) --p;
    if (p == kRanked) {
      complete = false;
      return;
    }
    if (count == kRanked) complete = false;
    for (int q = std::min(count, kRanked - 1); q > p; --q) {
      J[q] = J[q - 1];
      s[q] = s[q - 1];
    }
    J[p] = j;
    s[p] = strength;
    count = std::min(count + 1, kRanked);
  }
};

// Members of each aggregate, in node order: members[start[I] .. start[I + 1]).
void groupMembers(const std::vector<int>& agg, int nc, std::vector<int>& start, std::vector<int>& members) {
  start.assign(static_cast<size_t>(nc) + 1, 0);
  members.resize(agg.size());
  for (int a : agg) ++start[static_cast<size_t>(a) + 1];
  for (size_t I = 1; I < start.size(); ++I) start[I] += start[I - 1];
  std::vector<int> fill(start.begin(), start.end() - 1);
  for (size_t i = 0; i < agg.size(); ++i) members[static_cast<size_t>(fill[static_cast<size_t>(agg[i])]++)] = static_cast<int>(i);
}

// Galerkin product with piecewise-constant interpolation: Ac(I, J) = sum of A(i, j) over the
// members i of I and j of J. Each coarse row is merged from its members' rows in a fixed order.
template <typename Scalar, typename V>
Csr<Scalar> coarsen(const Csr<Scalar>& A, const V* fine, const std::vector<int>& agg, int nc,
                    const std::vector<int>& start, const std::vector<int>& members) {
  // Accumulates through a per-thread position table, then orders the row's few columns (a few
  // dozen at most, which an insertion sort puts right fastest).
  struct Scratch {
    std::vector<int> pos;
    std::vector<std::pair<int, Scalar>> buf;
  };
  auto mergeRow = [&](int I, Scratch& sc) {
    auto& buf = sc.buf;
    buf.clear();
    for (int m = start[static_cast<size_t>(I)]; m < start[static_cast<size_t>(I) + 1]; ++m) {
      const int i = members[static_cast<size_t>(m)];
      for (int k = A.outer[i]; k < A.outer[i + 1]; ++k) {
        const int J = agg[static_cast<size_t>(A.inner[k])];
        int& p = sc.pos[static_cast<size_t>(J)];
        if (p < 0) {
          p = static_cast<int>(buf.size());
          buf.emplace_back(J, static_cast<Scalar>(fine[k]));
        } else {
          buf[static_cast<size_t>(p)].second += static_cast<Scalar>(fine[k]);
        }
      }
    }
    for (auto& e : buf) sc.pos[static_cast<size_t>(e.first)] = -1;
    for (size_t a = 1; a < buf.size(); ++a) {
      const auto e = buf[a];
      size_t b = a;
      for (; b > 0 && buf[b - 1].first > e.first; --b) buf[b] = buf[b - 1];
      buf[b] = e;
    }
  };

  // One pass: each thread merges a block of rows into entries of its own. The first thread's
  // arrays, with room reserved for every fine entry (address space only; no coarse matrix has
  // more), then take the other blocks behind its own and become the matrix.
  Csr<Scalar> C;
  C.n = nc;
  C.outerStore.assign(static_cast<size_t>(nc) + 1, 0);
  const int threads = std::max(1, omp_get_max_threads());
  std::vector<std::vector<int>> inner(static_cast<size_t>(threads));
  std::vector<std::vector<Scalar>> values(static_cast<size_t>(threads));
  std::vector<int> blockBegin(static_cast<size_t>(threads), nc);
  inner[0].reserve(static_cast<size_t>(A.outer[A.n]));
  values[0].reserve(static_cast<size_t>(A.outer[A.n]));
#pragma omp parallel num_threads(threads) if (nc > 16384)
  {
    const int t = omp_get_thread_num(), team = omp_get_num_threads();
    const int I0 = static_cast<int>(int64_t(nc) * t / team), I1 = static_cast<int>(int64_t(nc) * (t + 1) / team);
    blockBegin[static_cast<size_t>(t)] = I0;
    Scratch sc;
    sc.pos.assign(static_cast<size_t>(nc), -1);
    auto& in = inner[static_cast<size_t>(t)];
    auto& val = values[static_cast<size_t>(t)];
    for (int I = I0; I < I1; ++I) {
      mergeRow(I, sc);
      C.outerStore[static_cast<size_t>(I) + 1] = static_cast<int>(sc.buf.size());
      for (auto& [J, v] : sc.buf) {
        in.push_back(J);
        val.push_back(v);
      }
    }
  }
  for (size_t I = 1; I < C.outerStore.size(); ++I) C.outerStore[I] += C.outerStore[I - 1];
  const auto total = static_cast<size_t>(C.outerStore.back());
  inner[0].resize(total);  // within the room reserved
  values[0].resize(total);
  for (size_t t = 1; t < inner.size(); ++t) {
    if (blockBegin[t] >= nc) continue;  // a thread the team did not have
    const auto at = static_cast<ptrdiff_t>(C.outerStore[static_cast<size_t>(blockBegin[t])]);
    std::copy(inner[t].begin(), inner[t].end(), inner[0].begin() + at);
    std::copy(values[t].begin(), values[t].end(), values[0].begin() + at);
    inner[t] = {};
    values[t] = {};
  }
  C.innerStore = std::move(inner[0]);
  C.valueStore = std::move(values[0]);
  C.adopt();
  return C;
}

}  // namespace

template <typename Scalar>
struct AggregationAMG<Scalar>::Level {
  Csr<Scalar> A;
  std::vector<Scalar> invDiag;
  std::vector<int> aggStart, aggMembers;  // members of each aggregate of the next level
  mutable std::vector<Scalar> r, bc, xc;  // work vectors
};

template <typename Scalar>
AggregationAMG<Scalar>::AggregationAMG() = default;
template <typename Scalar>
AggregationAMG<Scalar>::~AggregationAMG() = default;
template <typename Scalar>
AggregationAMG<Scalar>::AggregationAMG(AggregationAMG&&) noexcept = default;
template <typename Scalar>
AggregationAMG<Scalar>& AggregationAMG<Scalar>::operator=(AggregationAMG&&) noexcept = default;

template <typename Scalar>
void AggregationAMG<Scalar>::setup(int n, const int* outer, const int* inner, const Scalar* values) {
  build(n, outer, inner, values, nullptr);
}

template <typename Scalar>
void AggregationAMG<Scalar>::setupSingle(int n, const int* outer, const int* inner, const float* values) {
  if constexpr (std::is_same_v<Scalar, float>)
    build(n, outer, inner, values, nullptr);
  else
    build(n, outer, inner, nullptr, values);
}

template <typename Scalar>
bool AggregationAMG<Scalar>::rebindFinest(int n, const int* outer, const int* inner, const float* values,
                                         const std::vector<int>& newRowOfOld) {
  if (levels_.size() < 2 || n <= 0) return false;
  Level& L = *levels_[0];
  if (newRowOfOld.size() != static_cast<size_t>(L.A.n)) return false;
  const int nc = static_cast<int>(L.bc.size());
  std::vector<int> aggOf(static_cast<size_t>(n), -1);
  std::vector<char> touched(static_cast<size_t>(nc), 0);  // aggregates that lost or gained rows
  for (int I = 0; I < nc; ++I)
    for (int m = L.aggStart[static_cast<size_t>(I)]; m < L.aggStart[static_cast<size_t>(I) + 1]; ++m) {
      const int i = newRowOfOld[static_cast<size_t>(L.aggMembers[static_cast<size_t>(m)])];
      if (i >= n) return false;
      if (i >= 0)
        aggOf[static_cast<size_t>(i)] = I;
      else
        touched[static_cast<size_t>(I)] = 1;
    }
  std::vector<int> orphans;
  for (int i = 0; i < n; ++i)
    if (aggOf[static_cast<size_t>(i)] < 0) orphans.push_back(i);
  // A new row lies where a seed was erased; past a few per cent of the matrix the old
  // aggregates no longer describe it.
  if (orphans.size() > static_cast<size_t>(n) / 50 + 64) return false;
  // New rows join the aggregate of their strongest neighbour that has one; a few passes reach
  // rows whose neighbours are new too. Serial and in row order, so the result is fixed.
  for (int pass = 0; pass < 4 && !orphans.empty(); ++pass) {
    std::vector<int> left;
    for (int i : orphans) {
      int best = -1;
      float strongest = 0;
      for (int k = outer[i]; k < outer[i + 1]; ++k) {
        const int j = inner[k];
        if (j == i || aggOf[static_cast<size_t>(j)] < 0 || -values[k] <= strongest) continue;
        strongest = -values[k];
        best = aggOf[static_cast<size_t>(j)];
      }
      if (best >= 0) {
        aggOf[static_cast<size_t>(i)] = best;
        touched[static_cast<size_t>(best)] = 1;
      } else {
        left.push_back(i);
      }
    }
    orphans.swap(left);
  }

  // The rows of the touched aggregates are summed again on every coarser level, from the level
  // above as it now is, and mirrored into their columns. A new seed anchors its neighbours,
  // which a coarse row summed before the seed existed does not know; without this a re-run
  // takes half as many iterations again as a fresh setup.
  if (!resumLevel(1, outer, inner, values, aggOf, touched)) return false;
  for (size_t l = 1; l + 1 < levels_.size(); ++l) {
    const Level& F = *levels_[l];
    std::vector<int> agg(static_cast<size_t>(F.A.n), -1);
    const int ncl = static_cast<int>(F.bc.size());
    std::vector<char> next(static_cast<size_t>(ncl), 0);
    for (int I = 0; I < ncl; ++I)
      for (int m = F.aggStart[static_cast<size_t>(I)]; m < F.aggStart[static_cast<size_t>(I) + 1]; ++m) {
        const int i = F.aggMembers[static_cast<size_t>(m)];
        agg[static_cast<size_t>(i)] = I;
        if (touched[static_cast<size_t>(i)]) next[static_cast<size_t>(I)] = 1;
      }
    touched.swap(next);
    if (!resumLevel(l + 1, F.A.outer, F.A.inner, F.A.values, agg, touched)) return false;
  }
  factorCoarsest();

  // Rows still without an aggregate are only smoothed.
  L.aggStart.assign(static_cast<size_t>(nc) + 1, 0);
  for (int a : aggOf)
    if (a >= 0) ++L.aggStart[static_cast<size_t>(a) + 1];
  for (size_t I = 1; I < L.aggStart.size(); ++I) L.aggStart[I] += L.aggStart[I - 1];
  L.aggMembers.resize(static_cast<size_t>(L.aggStart.back()));
  std::vector<int> fill(L.aggStart.begin(), L.aggStart.end() - 1);
  for (int i = 0; i < n; ++i)
    if (const int a = aggOf[static_cast<size_t>(i)]; a >= 0)
      L.aggMembers[static_cast<size_t>(fill[static_cast<size_t>(a)]++)] = i;

  L.A.n = n;
  L.A.outer = outer;
  L.A.inner = inner;
  if constexpr (std::is_same_v<Scalar, float>) {
    L.A.values = values;
  } else {
    L.A.values = nullptr;
    L.A.valuesF = values;
  }
  L.invDiag.assign(static_cast<size_t>(n), Scalar(1));
#pragma omp parallel for schedule(static) if (n > 65536)
  for (int i = 0; i < n; ++i)
    for (int k = outer[i]; k < outer[i + 1]; ++k)
      if (inner[k] == i && values[k] != 0) L.invDiag[static_cast<size_t>(i)] = Scalar(1) / static_cast<Scalar>(values[k]);
  L.r.assign(static_cast<size_t>(n), Scalar(0));
  size_ = n;
  return true;
}

// Sums the rows `touched` of level c again from the level above (rows outer/inner/values,
// aggregate `aggOf` of each row, -1 for none), and writes each new entry into its mirror too.
// False when a sum needs an entry that the level's pattern lacks.
template <typename Scalar>
template <typename V>
bool AggregationAMG<Scalar>::resumLevel(size_t c, const int* outer, const int* inner, const V* values,
                                       const std::vector<int>& aggOf, const std::vector<char>& touched) {
  Level& CL = *levels_[c];
  Csr<Scalar>& C = CL.A;
  const int nc = C.n;
  std::vector<std::vector<int>> membersOf(static_cast<size_t>(nc));
  for (size_t i = 0; i < aggOf.size(); ++i)
    if (const int a = aggOf[i]; a >= 0 && touched[static_cast<size_t>(a)])
      membersOf[static_cast<size_t>(a)].push_back(static_cast<int>(i));
  auto find = [&](int row, int col) {
    const int* b = C.inner + C.outer[row];
    const int* e = C.inner + C.outer[row + 1];
    const int* p = std::lower_bound(b, e, col);
    return p != e && *p == col ? static_cast<int>(p - C.inner) : -1;
  };
  struct Update {
    int pos;
    Scalar value;
  };
  std::vector<Update> updates;
  std::vector<Scalar> sum(static_cast<size_t>(nc), Scalar(0));
  std::vector<char> inRow(static_cast<size_t>(nc), 0);
  std::vector<int> seen;
  for (int I = 0; I < nc; ++I) {
    if (!touched[static_cast<size_t>(I)]) continue;
    seen.clear();
    for (int i : membersOf[static_cast<size_t>(I)])
      for (int k = outer[i]; k < outer[i + 1]; ++k) {
        const int J = aggOf[static_cast<size_t>(inner[k])];
        if (J < 0) continue;
        if (!inRow[static_cast<size_t>(J)]) {
          inRow[static_cast<size_t>(J)] = 1;
          seen.push_back(J);
        }
        sum[static_cast<size_t>(J)] += static_cast<Scalar>(values[k]);
      }
    // Every entry of the old row is rewritten, to zero where the coupling went.
    for (int k = C.outer[I]; k < C.outer[I + 1]; ++k) {
      const int J = C.inner[k];
      updates.push_back({k, sum[static_cast<size_t>(J)]});
      if (J != I && !touched[static_cast<size_t>(J)]) {
        const int mirror = find(J, I);
        if (mirror < 0) return false;
        updates.push_back({mirror, sum[static_cast<size_t>(J)]});
      }
    }
    for (int J : seen) {
      if (sum[static_cast<size_t>(J)] != Scalar(0) && find(I, J) < 0) return false;
      sum[static_cast<size_t>(J)] = Scalar(0);
      inRow[static_cast<size_t>(J)] = 0;
    }
  }
  Scalar* v = C.valueStore.data();
  for (const Update& u : updates) v[u.pos] = u.value;
  for (int I = 0; I < nc; ++I)
    if (touched[static_cast<size_t>(I)])
      if (const int d = find(I, I); d >= 0 && v[d] != 0) CL.invDiag[static_cast<size_t>(I)] = Scalar(1) / v[d];
  return true;
}

template <typename Scalar>
void AggregationAMG<Scalar>::build(int n, const int* outer, const int* inner, const Scalar* values,
                                   const float* single) {
  levels_.clear();
  size_ = n;
  auto first = std::make_unique<Level>();
  first->A.n = n;
  first->A.outer = outer;
  first->A.inner = inner;
  first->A.values = values;
  first->A.valuesF = single;
  levels_.push_back(std::move(first));

  while (true) {
    Level& L = *levels_.back();
    const int ln = L.A.n;
    L.invDiag.assign(static_cast<size_t>(ln), Scalar(1));
    withValues(L.A, [&](const auto* val) {
#pragma omp parallel for schedule(static) if (ln > 65536)
      for (int i = 0; i < ln; ++i)
        for (int k = L.A.outer[i]; k < L.A.outer[i + 1]; ++k)
          if (L.A.inner[k] == i && val[k] != 0) L.invDiag[static_cast<size_t>(i)] = Scalar(1) / static_cast<Scalar>(val[k]);
    });
    L.r.resize(static_cast<size_t>(ln));
    if (ln <= kCoarsestSize || static_cast<int>(levels_.size()) >= kMaxLevels) break;
    if (!withValues(L.A, [&](const auto* val) { return coarsenLevel(L, val); })) break;
  }

  factorCoarsest();
}

// Dense Cholesky of the coarsest level, in double precision.
template <typename Scalar>
void AggregationAMG<Scalar>::factorCoarsest() {
  const Level& C = *levels_.back();
  Eigen::MatrixXd dense = Eigen::MatrixXd::Zero(C.A.n, C.A.n);
  withValues(C.A, [&](const auto* val) {
    for (int i = 0; i < C.A.n; ++i)
      for (int k = C.A.outer[i]; k < C.A.outer[i + 1]; ++k) dense(i, C.A.inner[k]) = static_cast<double>(val[k]);
  });
  coarsest_.compute(dense);
}

// Pairs the nodes of level L twice and appends the coarse level; false when coarsening stalls.
template <typename Scalar>
template <typename V>
bool AggregationAMG<Scalar>::coarsenLevel(Level& L, const V* values) {
  const int ln = L.A.n;
  // Two rounds of pairing give aggregates of up to four nodes. The second round pairs on the
  // Galerkin matrix of the first, whose rows are merged when needed rather than stored: on
  // the finest level that matrix would be the largest allocation of the whole setup.
  std::vector<int> agg1, agg2;
  const Csr<Scalar>& A = L.A;
  const int n1 = pairNodes<Scalar>(ln, rowQuery<Scalar>([&](int i, auto&& f) {
    for (int k = A.outer[i]; k < A.outer[i + 1]; ++k) f(A.inner[k], static_cast<Scalar>(values[k]));
  }), agg1);
  std::vector<int> start1, members1;
  groupMembers(agg1, n1, start1, members1);
  // A row of the first round's Galerkin matrix, merged from its members' rows in a fixed order.
  auto mergeRow = [&](int I, std::vector<int>& pos, std::vector<std::pair<int, Scalar>>& row) {
    row.clear();
    for (int m = start1[static_cast<size_t>(I)]; m < start1[static_cast<size_t>(I) + 1]; ++m) {
      const int i = members1[static_cast<size_t>(m)];
      for (int k = A.outer[i]; k < A.outer[i + 1]; ++k) {
        const int J = agg1[static_cast<size_t>(A.inner[k])];
        int& p = pos[static_cast<size_t>(J)];
        if (p < 0) {
          p = static_cast<int>(row.size());
          row.emplace_back(J, static_cast<Scalar>(values[k]));
        } else {
          row[static_cast<size_t>(p)].second += static_cast<Scalar>(values[k]);
        }
      }
    }
    for (auto& e : row) pos[static_cast<size_t>(e.first)] = -1;
  };
  // The greedy second round is serial; the rows it asks about are ranked beforehand on all
  // threads, so that it seldom merges one itself.
  std::vector<Ranked<Scalar>> ranked(rankedPairing ? static_cast<size_t>(n1) : 0);
#pragma omp parallel if (rankedPairing && n1 > 65536)
  {
    std::vector<int> pos(static_cast<size_t>(n1), -1);
    std::vector<std::pair<int, Scalar>> row;
#pragma omp for schedule(static)
    for (int I = 0; I < static_cast<int>(ranked.size()); ++I) {
      mergeRow(I, pos, row);
      Ranked<Scalar>& r = ranked[static_cast<size_t>(I)];
      for (auto& [J, v] : row)
        if (J != I) r.add(J, -v);
    }
  }
  std::vector<int> pos(static_cast<size_t>(n1), -1);
  std::vector<std::pair<int, Scalar>> row;
  const auto merged = rowQuery<Scalar>([&](int I, auto&& f) {
    mergeRow(I, pos, row);
    for (auto& [J, v] : row) f(J, v);
  });
  const auto query = [&](int I, auto accept) {
    if (ranked.empty()) return merged(I, accept);
    const Ranked<Scalar>& r = ranked[static_cast<size_t>(I)];
    for (int k = 0; k < r.count; ++k)
      if (accept(r.J[k])) return Strongest<Scalar>{r.J[k], r.s[k], r.maxAll};
    return r.complete ? Strongest<Scalar>{-1, 0, r.maxAll} : merged(I, accept);
  };
  const int n2 = pairNodes<Scalar>(n1, query, agg2);
  ranked = {};
  if (n2 > ln * 0.85) return false;  // coarsening stalled: solve here
  // Node to aggregate serves the setup only; the cycle goes by the members of each aggregate.
  std::vector<int> agg(static_cast<size_t>(ln));
  for (int i = 0; i < ln; ++i) agg[static_cast<size_t>(i)] = agg2[static_cast<size_t>(agg1[static_cast<size_t>(i)])];
  agg1 = {};
  agg2 = {};
  start1 = {};
  members1 = {};
  pos = {};
  groupMembers(agg, n2, L.aggStart, L.aggMembers);
  Csr<Scalar> A2 = coarsen(L.A, values, agg, n2, L.aggStart, L.aggMembers);
  L.bc.resize(static_cast<size_t>(n2));
  L.xc.resize(static_cast<size_t>(n2));
  auto next = std::make_unique<Level>();
  next->A = std::move(A2);
  next->A.adopt();
  levels_.push_back(std::move(next));
  return true;
}

template <typename Scalar>
void AggregationAMG<Scalar>::cycle(size_t l, const Scalar* b, Scalar* x) const {
  const Level& L = *levels_[l];
  const int n = L.A.n;
  if (l + 1 == levels_.size()) {
    Eigen::VectorXd rhs(n);
    for (int i = 0; i < n; ++i) rhs[i] = static_cast<double>(b[i]);
    Eigen::VectorXd sol = coarsest_.solve(rhs);
    for (int i = 0; i < n; ++i) x[i] = static_cast<Scalar>(sol[i]);
    return;
  }
  const Scalar w = static_cast<Scalar>(kJacobiWeight);
  const Scalar* D = L.invDiag.data();
  Scalar* r = L.r.data();
  const bool par = n > 16384;
  const auto residual = [&] {
    withValues(L.A, [&](const auto* val) {
      MultigridKernels::residual(n, L.A.outer, L.A.inner, val, b, x, r, par);
    });
  };
  // Pre-smoothing from zero, then the residual.
  MultigridKernels::jacobiFromZero(n, w, D, b, x, par);
  residual();
  // Restrict, solve the coarse problem, interpolate.
  const int nc = static_cast<int>(L.bc.size());
  Scalar* bc = L.bc.data();
  Scalar* xc = L.xc.data();
#pragma omp parallel for schedule(static) if (nc > 16384)
  for (int I = 0; I < nc; ++I) {
    Scalar s = 0;
    for (int m = L.aggStart[static_cast<size_t>(I)]; m < L.aggStart[static_cast<size_t>(I) + 1]; ++m)
      s += r[L.aggMembers[static_cast<size_t>(m)]];
    bc[I] = s;
  }
  cycle(l + 1, bc, xc);
#pragma omp parallel for schedule(static) if (nc > 16384)
  for (int I = 0; I < nc; ++I)
    for (int m = L.aggStart[static_cast<size_t>(I)]; m < L.aggStart[static_cast<size_t>(I) + 1]; ++m)
      x[L.aggMembers[static_cast<size_t>(m)]] += xc[I];
  // Post-smoothing: x += w D^-1 (b - A x), through r to keep x's old values for the product.
  residual();
  MultigridKernels::jacobiCorrect(n, w, D, r, x, par);
}

template <typename Scalar>
void AggregationAMG<Scalar>::apply(const Scalar* b, Scalar* x) const {
  if (levels_.empty()) return;
  cycle(0, b, x);
}

template <typename Scalar>
int AggregationAMG<Scalar>::levels() const {
  return static_cast<int>(levels_.size());
}

template <typename Scalar>
std::vector<int> AggregationAMG<Scalar>::levelSizes() const {
  std::vector<int> s;
  for (auto& l : levels_) s.push_back(l->A.n);
  return s;
}

template <typename Scalar>
size_t AggregationAMG<Scalar>::memoryBytes() const {
  size_t b = 0;
  for (auto& l : levels_)
    b += l->A.bytes() + (l->invDiag.size() + l->r.size() + l->bc.size() + l->xc.size()) * sizeof(Scalar) +
         (l->aggStart.size() + l->aggMembers.size()) * sizeof(int);
  return b + static_cast<size_t>(coarsest_.matrixLLT().size()) * sizeof(double);
}

template class AggregationAMG<float>;
template class AggregationAMG<double>;

}  // namespace Merivane
