#pragma once
// The random-walk system over the free nodes. With U the free and S the seed nodes of the
// Laplacian L and m the seed values:  A = L[U, U],  b = -L[U, S] m.
#include <Eigen/SparseCore>
#include <cstdint>
#include <vector>

namespace Merivane {

struct ReducedSystem {
  Eigen::SparseMatrix<float, Eigen::ColMajor, int> A;
  Eigen::VectorXf b;
};

// Whether the node lists fit L: L square, and the lists together naming every node once, the
// unknowns in ascending order. The reductions below assume it.
bool listsFit(const Eigen::SparseMatrix<float, Eigen::ColMajor, int>& L, const std::vector<uint64_t>& seedIndices,
              const std::vector<uint64_t>& unknownIndices);

// One parallel pass over the columns of L: a node map sends each row to its place among the
// unknowns (order kept, since both lists ascend) or to its seed value.
ReducedSystem reduceSystem(const Eigen::SparseMatrix<float, Eigen::ColMajor, int>& L,
                           const std::vector<uint64_t>& seedIndices, const std::vector<uint64_t>& unknownIndices,
                           const std::vector<float>& seedValues);

// The same through selection matrices and sparse products; slower, kept as the reference.
ReducedSystem reduceSystemByProducts(const Eigen::SparseMatrix<float, Eigen::ColMajor, int>& L,
                                     const std::vector<uint64_t>& seedIndices,
                                     const std::vector<uint64_t>& unknownIndices,
                                     const std::vector<float>& seedValues);

// Adds `value` to every diagonal entry, inserting those that are missing.
void addToDiagonal(Eigen::SparseMatrix<float, Eigen::ColMajor, int>& A, float value);

// The reduced system built inside the Laplacian's own entry storage, which it borrows for its
// lifetime, so that a solve holds one matrix instead of two. The Laplacian keeps its shape and
// outer index meanwhile, but none of its entries; they come back bit for bit when this object
// is destroyed. The entries in seed rows and columns wait in a side list (a few per seed).
// Needs lists that fit (listsFit) and a compressed Laplacian with ascending rows in every
// column (canBorrow).
class BorrowedSystem {
 public:
  using SparseMatrixF = Eigen::SparseMatrix<float, Eigen::ColMajor, int>;

  static bool canBorrow(const SparseMatrixF& L);

  BorrowedSystem(SparseMatrixF& L, const std::vector<uint64_t>& seedIndices,
                 const std::vector<uint64_t>& unknownIndices, const std::vector<float>& seedValues);
  ~BorrowedSystem();
  BorrowedSystem(const BorrowedSystem&) = delete;
  BorrowedSystem& operator=(const BorrowedSystem&) = delete;

  // Adds `value` to every diagonal entry of A; the Laplacian's diagonal comes back unchanged.
  // Should an entry be missing, A first becomes a copy of its own and the Laplacian is given
  // back at once.
  void addToDiagonal(float value);

  SparseMatrixF A;
  Eigen::VectorXf b;

 private:
  void giveBack();

  SparseMatrixF* L_;  // null once given back
  const std::vector<uint64_t>& unknown_;
  std::vector<int> savedRows_;  // entries in a seed row or column, in storage order
  std::vector<float> savedValues_;
  std::vector<float> diagonal_;  // A's diagonal before addToDiagonal, when it was called
};

}  // namespace Merivane
