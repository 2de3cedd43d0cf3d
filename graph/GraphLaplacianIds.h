#pragma once
// Named values of the integer settings "Solver ID" and "Graph Type". Properties store the
// integers, which are also the indices of the solver combo box; code switches on these names.

namespace Merivane {

// Iterative solvers (all but the two LLT ones) take the iteration limit and the tolerance.
enum class SolverId : unsigned short {
  LLTFloat = 0,             // "LLT-Float"
  LLTEigen = 1,             // "[Eigen] LLT (LGPL)"
  CG = 2,                   // "[Eigen] CG"
  BiCGStabFloat = 3,        // "BiCGSTAB-Float"
  BiCGStabEigen = 4,        // "[Eigen] BiCGSTAB", double precision; the default
  BiCGStabEigenFloat = 5,   // "[Eigen] BiCGSTAB-Float"
  BiCGStabViennaCPU = 6,    // "[Vienna] BiCGSTAB-CPU (LGPL)"
  BiCGStabViennaGPU = 7,    // "[Vienna] BiCGSTAB-GPU (LGPL)"
};

enum class GraphType : unsigned short {
  Image = 0,                   // GraphLaplacianImage
  Superpixels = 1,             // GraphLaplacianSuperpixels
  ImageAttenuation = 2,        // GraphLaplacianImageAttenuation
  SuperpixelsAttenuation = 3,  // GraphLaplacianSuperpixelsAttenuation
};

constexpr bool isSuperpixelGraph(GraphType t) {
  return t == GraphType::Superpixels || t == GraphType::SuperpixelsAttenuation;
}

}  // namespace Merivane
