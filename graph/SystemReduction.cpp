#include "SystemReduction.h"

#include <Eigen/SparseCore>
#include <algorithm>

namespace Merivane {

using SparseMatrixF = Eigen::SparseMatrix<float, Eigen::ColMajor, int>;

ReducedSystem reduceSystem(const SparseMatrixF& L, const std::vector<uint64_t>& seedIndices,
                           const std::vector<uint64_t>& unknownIndices, const std::vector<float>& seedValues) {
  const Eigen::Index n = L.cols();
  const Eigen::Index nU = static_cast<Eigen::Index>(unknownIndices.size());
  const Eigen::Index nS = static_cast<Eigen::Index>(seedIndices.size());
  ReducedSystem sys;
  sys.A.resize(nU, nU);
  sys.b = Eigen::VectorXf::Zero(nU);
  if (nU == 0) return sys;

  // place >= 0: position among the unknowns; place < 0: seed number -place - 1.
  std::vector<int> place(static_cast<size_t>(n));
#pragma omp parallel for schedule(static) if (nU > 65536)
  for (Eigen::Index k = 0; k < nU; ++k) place[unknownIndices[static_cast<size_t>(k)]] = static_cast<int>(k);
#pragma omp parallel for schedule(static) if (nS > 65536)
  for (Eigen::Index s = 0; s < nS; ++s) place[seedIndices[static_cast<size_t>(s)]] = -static_cast<int>(s) - 1;

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
      } else {
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

}  // namespace Merivane
