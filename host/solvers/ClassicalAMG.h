#pragma once
// Classical algebraic multigrid as a preconditioner for symmetric M-matrices such as graph
// Laplacians with Dirichlet nodes, where the weights jump over many orders of magnitude.
//
// Each level splits its rows into coarse and fine ones along strong couplings (a coupling is
// strong when its weight is at least `strengthThreshold` of the row's largest), interpolates
// every fine row from its strong coarse neighbours, reaching through strong fine neighbours to
// the coarse rows they share, and keeps the largest `maxInterpolation` weights of a row. The
// coarse matrix is the Galerkin product R A P with R = P^T. One damped Jacobi step smooths
// before and after the coarse correction (so the cycle is symmetric), and a dense Cholesky
// factorisation solves the coarsest level.
//
// Interpolation that follows the strong couplings keeps regions cut off by weak edges apart:
// on random-walk systems of noisy images it needs a tenth of the iterations of pairwise
// aggregation, for three times its setup and memory. Setup and cycle run on all threads;
// neither the hierarchy nor a cycle's result depends on their number.
#include <cstddef>
#include <memory>
#include <vector>

namespace Merivane {

template <typename Scalar>
class ClassicalAMG {
 public:
  ClassicalAMG();
  ~ClassicalAMG();
  ClassicalAMG(const ClassicalAMG&) = delete;
  ClassicalAMG& operator=(const ClassicalAMG&) = delete;

  double strengthThreshold = 0.5;
  int maxInterpolation = 2;

  // A symmetric compressed matrix, read as rows (CSR). The arrays are borrowed and must outlive
  // the preconditioner's use.
  void setupSingle(int n, const int* outer, const int* inner, const float* values);
  // Re-targets the hierarchy at a finest matrix that differs from the one it was set up on in a
  // few rows (a re-solve after a stroke of new seeds). `newRowOfOld[i]` is the new row of old row
  // i, or -1 where the row is gone. Fine rows whose couplings changed are interpolated afresh
  // over the old split, and on every level the rows whose Galerkin sums change are summed again. False, with the hierarchy unchanged, when more than a twentieth of the rows
  // changed: then it must be set up afresh.
  bool rebindFinest(int n, const int* outer, const int* inner, const float* values,
                    const std::vector<int>& newRowOfOld);
  // x = one V-cycle applied to b.
  void apply(const Scalar* b, Scalar* x) const;

  // What a hierarchy of an n-row system takes, about: classical coarse levels of random-walk
  // systems hold about twice the finest level's entries, and interpolation and restriction.
  static size_t expectedBytes(size_t n) { return n * 220; }

  int levels() const;
  std::vector<int> levelSizes() const;  // finest first
  size_t memoryBytes() const;
  // Stored entries of all levels over those of the finest.
  double operatorComplexity() const;

 private:
  struct Level;
  struct Coarsest;
  void cycle(size_t level, const Scalar* b, Scalar* x) const;
  void setInverseDiagonal(size_t level);
  void factorCoarsest(int limit);
  std::vector<std::unique_ptr<Level>> levels_;
  std::unique_ptr<Coarsest> coarsest_;
  // Of each finest row, for re-targeting: its entry count (to see which rows changed) and
  // whether it is coarse.
  std::vector<int> finestLengths_;
  std::vector<char> finestCoarse_;
};

extern template class ClassicalAMG<float>;
extern template class ClassicalAMG<double>;

}  // namespace Merivane
