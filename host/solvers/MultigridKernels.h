#pragma once
// The smoothing steps the V-cycles of both multigrids share, over the rows of a CSR matrix
// whose values may be of another precision than the vectors. `parallel` spreads the rows over
// the threads; each row is computed alike either way.
namespace Merivane::MultigridKernels {

// r = b - A x.
template <typename S, typename V>
void residual(int n, const int* outer, const int* inner, const V* values, const S* b, const S* x, S* r,
              bool parallel) {
#pragma omp parallel for schedule(static) if (parallel)
  for (int i = 0; i < n; ++i) {
    S s = b[i];
    for (int k = outer[i]; k < outer[i + 1]; ++k) s -= static_cast<S>(values[k]) * x[inner[k]];
    r[i] = s;
  }
}

// x = w D^-1 b: one damped Jacobi step from zero.
template <typename S>
void jacobiFromZero(int n, S w, const S* invDiag, const S* b, S* x, bool parallel) {
#pragma omp parallel for schedule(static) if (parallel)
  for (int i = 0; i < n; ++i) x[i] = w * invDiag[i] * b[i];
}

// x += w D^-1 r, with r the residual of x.
template <typename S>
void jacobiCorrect(int n, S w, const S* invDiag, const S* r, S* x, bool parallel) {
#pragma omp parallel for schedule(static) if (parallel)
  for (int i = 0; i < n; ++i) x[i] += w * invDiag[i] * r[i];
}

}  // namespace Merivane::MultigridKernels
