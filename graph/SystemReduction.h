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

}  // namespace Merivane
