#pragma once
// Algebraic multigrid by pairwise aggregation, as a preconditioner for conjugate gradients on
// symmetric M-matrices such as graph Laplacians with Dirichlet nodes. Each level pairs every
// node with its strongest free neighbour twice (aggregates of up to four nodes), the coarse
// matrix is the Galerkin product with piecewise-constant interpolation, smoothing is one
// damped Jacobi step before and after the coarse correction, and the coarsest level is solved
// by a dense Cholesky factorisation. Strong-neighbour aggregation follows the large weights,
// so it copes with coefficients that jump over many orders of magnitude.
//
// It fits Eigen's preconditioner interface (compute / solve), and results do not depend on
// the number of threads.
#include <Eigen/Dense>
#include <Eigen/SparseCore>
#include <memory>
#include <type_traits>
#include <vector>

namespace Merivane {

template <typename Scalar>
class AggregationAMG {
 public:
  using Vector = Eigen::Matrix<Scalar, Eigen::Dynamic, 1>;
  using StorageIndex = int;
  enum { ColsAtCompileTime = Eigen::Dynamic, MaxColsAtCompileTime = Eigen::Dynamic };

  AggregationAMG();
  ~AggregationAMG();
  AggregationAMG(AggregationAMG&&) noexcept;
  AggregationAMG& operator=(AggregationAMG&&) noexcept;

  // The matrix must be compressed and symmetric; its arrays are read as rows (CSR) and must
  // outlive the preconditioner's use. A single-precision matrix serves a double hierarchy as
  // it is, read converted.
  template <typename MatrixType>
  AggregationAMG& compute(const MatrixType& A) {
    const auto* values = A.valuePtr();
    if constexpr (std::is_same_v<std::remove_const_t<std::remove_pointer_t<decltype(values)>>, Scalar>)
      setup(static_cast<int>(A.rows()), A.outerIndexPtr(), A.innerIndexPtr(), values);
    else
      setupSingle(static_cast<int>(A.rows()), A.outerIndexPtr(), A.innerIndexPtr(), values);
    return *this;
  }
  template <typename MatrixType>
  AggregationAMG& analyzePattern(const MatrixType&) {
    return *this;
  }
  template <typename MatrixType>
  AggregationAMG& factorize(const MatrixType& A) {
    return compute(A);
  }
  // One V-cycle applied to b, evaluated straight into the vector it is assigned to.
  template <typename Rhs>
  Eigen::Solve<AggregationAMG, Rhs> solve(const Eigen::MatrixBase<Rhs>& b) const {
    return Eigen::Solve<AggregationAMG, Rhs>(*this, b.derived());
  }
  template <typename Rhs, typename Dest>
  void _solve_impl(const Rhs& b, Dest& x) const {
    const Eigen::Ref<const Vector> in(b);  // copies only what is not a plain vector already
    x.resize(b.rows());
    apply(in.data(), x.data());
  }
  Eigen::ComputationInfo info() const { return Eigen::Success; }
  Eigen::Index rows() const { return size_; }
  Eigen::Index cols() const { return size_; }

  // The second pairing round ranks every row's strongest neighbours beforehand on all threads;
  // off, it merges each row it asks about instead. Both give the same hierarchy; tests compare.
  bool rankedPairing = true;

  void setup(int n, const int* outer, const int* inner, const Scalar* values);
  // The same for single-precision values, which the finest level keeps reading as they are.
  void setupSingle(int n, const int* outer, const int* inner, const float* values);
  void apply(const Scalar* b, Scalar* x) const;

  // Re-targets a hierarchy at a finest matrix that differs from the one it was set up on in a
  // few rows: a re-solve after a stroke of new seeds, which removes some unknowns and may add
  // others. The coarse levels stay as they were; the finest level takes the new matrix (single
  // precision, borrowed as by setupSingle). `newRowOfOld[i]` is the new row of old row i, or -1
  // where the row is gone. Rows new to the system join the aggregate of their strongest
  // neighbour, and the coarse rows of the aggregates that changed are summed again. False when
  // the change is too large for the old coarse levels to serve; the hierarchy may then be
  // half changed and must be set up afresh.
  bool rebindFinest(int n, const int* outer, const int* inner, const float* values,
                    const std::vector<int>& newRowOfOld);

  int levels() const;
  // Rows of each level, finest first.
  std::vector<int> levelSizes() const;
  // Bytes held by the coarse levels and work vectors.
  size_t memoryBytes() const;

 private:
  struct Level;
  // The finest level borrows `values`, or `single` when a double hierarchy reads floats.
  void build(int n, const int* outer, const int* inner, const Scalar* values, const float* single);
  template <typename V>
  bool coarsenLevel(Level& L, const V* values);
  void factorCoarsest();
  template <typename V>
  bool resumLevel(size_t c, const int* outer, const int* inner, const V* values, const std::vector<int>& aggOf,
                  const std::vector<char>& touched);
  void cycle(size_t level, const Scalar* b, Scalar* x) const;
  std::vector<std::unique_ptr<Level>> levels_;
  Eigen::Index size_ = 0;
  Eigen::LLT<Eigen::MatrixXd> coarsest_;
};

extern template class AggregationAMG<float>;
extern template class AggregationAMG<double>;

}  // namespace Merivane
