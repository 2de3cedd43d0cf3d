#include "SystemReduction.h"

#include <Eigen/SparseCore>
#include <algorithm>
#include <limits>

namespace Merivane {

using SparseMatrixF = Eigen::SparseMatrix<float, Eigen::ColMajor, int>;

namespace {

constexpr int kNeither = std::numeric_limits<int>::min();

// Where each node goes: >= 0 its position among the unknowns, kNeither for a node in neither
// list (left out of the system), otherwise seed number -place - 1.
std::vector<int> nodePlaces(Eigen::Index n, const std::vector<uint64_t>& seedIndices,
                            const std::vector<uint64_t>& unknownIndices) {
  const auto nU = static_cast<Eigen::Index>(unknownIndices.size());
  const auto nS = static_cast<Eigen::Index>(seedIndices.size());
  std::vector<int> place(static_cast<size_t>(n), kNeither);
#pragma omp parallel for schedule(static) if (nU > 65536)
  for (Eigen::Index k = 0; k < nU; ++k) place[unknownIndices[static_cast<size_t>(k)]] = static_cast<int>(k);
#pragma omp parallel for schedule(static) if (nS > 65536)
  for (Eigen::Index s = 0; s < nS; ++s) place[seedIndices[static_cast<size_t>(s)]] = -static_cast<int>(s) - 1;
  return place;
}

}  // namespace

ReducedSystem reduceSystem(const SparseMatrixF& L, const std::vector<uint64_t>& seedIndices,
                           const std::vector<uint64_t>& unknownIndices, const std::vector<float>& seedValues) {
  const Eigen::Index n = L.cols();
  const Eigen::Index nU = static_cast<Eigen::Index>(unknownIndices.size());
  ReducedSystem sys;
  sys.A.resize(nU, nU);
  sys.b = Eigen::VectorXf::Zero(nU);
  if (nU == 0) return sys;

  const std::vector<int> place = nodePlaces(n, seedIndices, unknownIndices);

  const int* outer = L.outerIndexPtr();
  const int* inner = L.innerIndexPtr();
  const float* values = L.valuePtr();
  const int* nnzPerCol = L.isCompressed() ? nullptr : L.innerNonZeroPtr();
  auto colEnd = [&](Eigen::Index c) { return nnzPerCol ? outer[c] + nnzPerCol[c] : outer[c + 1]; };

  // Count, prefix, fill.
  std::vector<int> counts(static_cast<size_t>(nU) + 1, 0);
#pragma omp parallel for schedule(static) if (nU > 65536)
  for (Eigen::Index k = 0; k < nU; ++k) {
    const Eigen::Index c = static_cast<Eigen::Index>(unknownIndices[static_cast<size_t>(k)]);
    int m = 0;
    for (int j = outer[c]; j < colEnd(c); ++j) m += place[static_cast<size_t>(inner[j])] >= 0;
    counts[static_cast<size_t>(k) + 1] = m;
  }
  for (size_t k = 1; k < counts.size(); ++k) counts[k] += counts[k - 1];
  sys.A.resizeNonZeros(counts.back());
  std::copy(counts.begin(), counts.end(), sys.A.outerIndexPtr());
  int* aInner = sys.A.innerIndexPtr();
  float* aValues = sys.A.valuePtr();
  float* b = sys.b.data();
#pragma omp parallel for schedule(static) if (nU > 65536)
  for (Eigen::Index k = 0; k < nU; ++k) {
    const Eigen::Index c = static_cast<Eigen::Index>(unknownIndices[static_cast<size_t>(k)]);
    int dst = counts[static_cast<size_t>(k)];
    float rhs = 0.0f;
    for (int j = outer[c]; j < colEnd(c); ++j) {
      const int p = place[static_cast<size_t>(inner[j])];
      if (p >= 0) {
        aInner[dst] = p;
        aValues[dst] = values[j];
        ++dst;
      } else if (p != kNeither) {
        // L is symmetric: L(c, seed) is stored in column c at the seed's row.
        rhs += values[j] * seedValues[static_cast<size_t>(-p - 1)];
      }
    }
    b[k] = -rhs;
  }
  return sys;
}

ReducedSystem reduceSystemByProducts(const SparseMatrixF& L, const std::vector<uint64_t>& seedIndices,
                                     const std::vector<uint64_t>& unknownIndices,
                                     const std::vector<float>& seedValues) {
  const Eigen::Index n = L.cols();
  const Eigen::Index nU = static_cast<Eigen::Index>(unknownIndices.size());
  const Eigen::Index nS = static_cast<Eigen::Index>(seedIndices.size());
  auto selection = [n](const std::vector<uint64_t>& idx) {
    SparseMatrixF P(n, static_cast<Eigen::Index>(idx.size()));
    std::vector<Eigen::Triplet<float>> t;
    for (size_t k = 0; k < idx.size(); ++k)
      t.emplace_back(static_cast<int>(idx[k]), static_cast<int>(k), 1.0f);
    P.setFromTriplets(t.begin(), t.end());
    return P;
  };
  SparseMatrixF PU = selection(unknownIndices), PS = selection(seedIndices);
  ReducedSystem sys;
  sys.A = SparseMatrixF(PU.transpose()) * L * PU;
  SparseMatrixF B = SparseMatrixF(PU.transpose()) * L * PS;
  Eigen::SparseVector<float> m(nS);
  m.reserve(nS);
  for (Eigen::Index s = 0; s < nS; ++s) m.insert(s) = seedValues[static_cast<size_t>(s)];
  sys.b = -Eigen::VectorXf(B * m);
  if (sys.b.size() != nU) sys.b = Eigen::VectorXf::Zero(nU);
  return sys;
}

void addToDiagonal(SparseMatrixF& A, float value) {
  A.makeCompressed();
  const int n = static_cast<int>(A.cols());
  const int* outer = A.outerIndexPtr();
  const int* inner = A.innerIndexPtr();
  float* values = A.valuePtr();
  // Graph systems always store their diagonal; a missing entry is inserted afterwards.
  std::vector<int> missing;
#pragma omp parallel for schedule(static) if (n > 65536)
  for (int c = 0; c < n; ++c) {
    const int* first = inner + outer[c];
    const int* last = inner + outer[c + 1];
    const int* hit = std::lower_bound(first, last, c);
    if (hit != last && *hit == c) {
      values[hit - inner] += value;
    } else {
#pragma omp critical(addToDiagonalMissing)
      missing.push_back(c);
    }
  }
  for (int c : missing) A.coeffRef(c, c) += value;
  if (!missing.empty()) A.makeCompressed();
}

bool listsFit(const SparseMatrixF& L, const std::vector<uint64_t>& seedIndices,
              const std::vector<uint64_t>& unknownIndices) {
  const Eigen::Index n = L.cols();
  if (L.rows() != n || static_cast<Eigen::Index>(seedIndices.size() + unknownIndices.size()) != n) return false;
  std::vector<char> seen(static_cast<size_t>(n), 0);
  uint64_t previous = 0;
  for (size_t k = 0; k < unknownIndices.size(); ++k) {
    const uint64_t i = unknownIndices[k];
    if (i >= static_cast<uint64_t>(n) || (k > 0 && i <= previous)) return false;
    seen[i] = 1;
    previous = i;
  }
  for (const uint64_t i : seedIndices) {
    if (i >= static_cast<uint64_t>(n) || seen[i]) return false;
    seen[i] = 1;
  }
  return true;
}

bool BorrowedSystem::canBorrow(const SparseMatrixF& L) {
  if (!L.isCompressed()) return false;
  const int n = static_cast<int>(L.cols());
  const int* outer = L.outerIndexPtr();
  const int* inner = L.innerIndexPtr();
  bool sorted = true;
#pragma omp parallel for schedule(static) reduction(&& : sorted) if (n > 65536)
  for (int c = 0; c < n; ++c)
    for (int j = outer[c] + 1; j < outer[c + 1]; ++j) sorted = sorted && inner[j - 1] < inner[j];
  return sorted;
}

BorrowedSystem::BorrowedSystem(SparseMatrixF& L, const std::vector<uint64_t>& seedIndices,
                               const std::vector<uint64_t>& unknownIndices, const std::vector<float>& seedValues)
    : L_(&L), unknown_(unknownIndices) {
  const int n = static_cast<int>(L.cols());
  const int nU = static_cast<int>(unknownIndices.size());
  A.resize(nU, nU);
  b = Eigen::VectorXf::Zero(nU);

  // Everything is allocated before the first entry moves, so that nothing can fail halfway.
  const std::vector<int> place = nodePlaces(n, seedIndices, unknownIndices);
  const int* outer = L.outerIndexPtr();
  int* inner = L.innerIndexPtr();
  float* values = L.valuePtr();
  size_t saved = 0;
#pragma omp parallel for schedule(static) reduction(+ : saved) if (n > 65536)
  for (int c = 0; c < n; ++c) {
    if (place[static_cast<size_t>(c)] < 0) {  // a seed's column, or one in neither list
      saved += static_cast<size_t>(outer[c + 1] - outer[c]);
    } else {
      for (int j = outer[c]; j < outer[c + 1]; ++j) saved += place[static_cast<size_t>(inner[j])] < 0;
    }
  }
  savedRows_.reserve(saved);
  savedValues_.reserve(saved);

  // One pass in storage order. Column k of A is column unknownIndices[k] of L less its seed
  // rows, so A's entries never run ahead of L's: each is written at or before the place it is
  // read from, and after everything before that place has been read.
  int* aOuter = A.outerIndexPtr();
  int dst = 0;
  int k = 0;
  for (int c = 0; c < n; ++c) {
    if (k == nU || unknownIndices[static_cast<size_t>(k)] != static_cast<uint64_t>(c)) {
      for (int j = outer[c]; j < outer[c + 1]; ++j) {
        savedRows_.push_back(inner[j]);
        savedValues_.push_back(values[j]);
      }
      continue;
    }
    aOuter[k] = dst;
    float rhs = 0.0f;
    for (int j = outer[c]; j < outer[c + 1]; ++j) {
      const int row = inner[j];
      const float v = values[j];
      const int p = place[static_cast<size_t>(row)];
      if (p >= 0) {
        inner[dst] = p;
        values[dst] = v;
        ++dst;
      } else {
        savedRows_.push_back(row);
        savedValues_.push_back(v);
        // L is symmetric: L(c, seed) is stored in column c at the seed's row.
        if (p != kNeither) rhs += v * seedValues[static_cast<size_t>(-p - 1)];
      }
    }
    b[k] = -rhs;
    ++k;
  }
  aOuter[nU] = dst;
  A.data().swap(L.data());
  A.data().resize(dst);
}

void BorrowedSystem::addToDiagonal(float value) {
  if (!L_) {
    Merivane::addToDiagonal(A, value);
    return;
  }
  const int nU = static_cast<int>(A.cols());
  const int* outer = A.outerIndexPtr();
  const int* inner = A.innerIndexPtr();
  bool complete = true;
#pragma omp parallel for schedule(static) reduction(&& : complete) if (nU > 65536)
  for (int c = 0; c < nU; ++c) {
    const int* hit = std::lower_bound(inner + outer[c], inner + outer[c + 1], c);
    complete = complete && hit != inner + outer[c + 1] && *hit == c;
  }
  if (!complete) {
    SparseMatrixF own = A;
    giveBack();
    A.swap(own);
    Merivane::addToDiagonal(A, value);
    return;
  }
  // The Laplacian's own diagonal is kept from the first change on.
  const bool first = diagonal_.empty();
  if (first) diagonal_.resize(static_cast<size_t>(nU));
  float* values = A.valuePtr();
#pragma omp parallel for schedule(static) if (nU > 65536)
  for (int c = 0; c < nU; ++c) {
    const auto j = std::lower_bound(inner + outer[c], inner + outer[c + 1], c) - inner;
    if (first) diagonal_[static_cast<size_t>(c)] = values[j];
    values[j] += value;
  }
}

BorrowedSystem::~BorrowedSystem() { giveBack(); }

void BorrowedSystem::giveBack() {
  if (!L_) return;
  SparseMatrixF& L = *L_;
  L_ = nullptr;
  const int n = static_cast<int>(L.cols());
  const int nU = static_cast<int>(A.cols());
  const int* aOuter = A.outerIndexPtr();
  int* inner = A.innerIndexPtr();
  float* values = A.valuePtr();
  if (!diagonal_.empty()) {
    for (int c = 0; c < nU; ++c) {
      const auto j = std::lower_bound(inner + aOuter[c], inner + aOuter[c + 1], c) - inner;
      values[j] = diagonal_[static_cast<size_t>(c)];
    }
  }
  // The first pass backwards: every column is merged, from its last row down, out of A's
  // column (rows mapped back) and the side list, and written at its old place, which lies at
  // or after everything still to be read.
  const int* outer = L.outerIndexPtr();
  A.data().resize(outer[n]);
  inner = A.innerIndexPtr();
  values = A.valuePtr();
  auto s = static_cast<ptrdiff_t>(savedRows_.size()) - 1;
  int k = nU - 1;
  for (int c = n - 1; c >= 0; --c) {
    const bool unknown = k >= 0 && unknown_[static_cast<size_t>(k)] == static_cast<uint64_t>(c);
    int a = unknown ? aOuter[k + 1] - 1 : -1;
    const int aBegin = unknown ? aOuter[k] : 0;
    int savedLeft = outer[c + 1] - outer[c] - (unknown ? aOuter[k + 1] - aOuter[k] : 0);
    for (int w = outer[c + 1] - 1; w >= outer[c]; --w) {
      const int aRow = a >= aBegin ? static_cast<int>(unknown_[static_cast<size_t>(inner[a])]) : -1;
      if (savedLeft > 0 && savedRows_[static_cast<size_t>(s)] > aRow) {
        inner[w] = savedRows_[static_cast<size_t>(s)];
        values[w] = savedValues_[static_cast<size_t>(s)];
        --s;
        --savedLeft;
      } else {
        const float v = values[a];
        inner[w] = aRow;
        values[w] = v;
        --a;
      }
    }
    if (unknown) --k;
  }
  // A keeps its outer index but no entries now; it is replaced or destroyed next.
  L.data().swap(A.data());
  savedRows_ = {};
  savedValues_ = {};
  diagonal_ = {};
}

}  // namespace Merivane
