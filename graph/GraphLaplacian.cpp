#include "GraphLaplacian.h"

#include <cmath>

namespace Merivane {

GraphLaplacian::~GraphLaplacian() = default;

float GraphLaplacian::computeEdgeWeight(float gradient, float beta, float offset, float epsilon) {
  return std::exp(-(std::fabs(gradient) - offset) * beta) + epsilon;
}

float GraphLaplacian::computeBeta(float dmin, float dmax) const {
  const float a = static_cast<float>(adaptiveness.value());
  const float range = dmax - dmin;
  return range > 1e-5f ? a / range : a / 1e-5f;
}

unsigned char GraphLaplacian::decide(float value) const {
  const unsigned short label = activeLabel.value();
  return static_cast<unsigned char>(value > 0.5f ? label : label + 1);
}

void GraphLaplacian::fillLaplacianDiagonal() {
  // Every column has room reserved for its diagonal, so the insertion never moves data. The
  // diagonal goes in at its sorted position among the column's entries.
  const int n = static_cast<int>(laplacian_.cols());
#pragma omp parallel for schedule(static) if (n > 65536)
  for (int i = 0; i < n; ++i) {
    float sum = 0.0f;
    for (SparseMatrixF::InnerIterator it(laplacian_, i); it; ++it) sum += it.value();
    // A column without entries gets -0.0f, the negation of an empty sum.
    laplacian_.insert(i, i) = -sum;
  }
}

}  // namespace Merivane
