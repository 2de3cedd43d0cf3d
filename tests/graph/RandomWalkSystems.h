#pragma once
// Random-walk systems as the solvers meet them, for the multigrid tests.
#include <Eigen/SparseCore>
#include <cmath>
#include <random>

#include "GraphLaplacianImage.h"
#include "SharedImageSet.h"
#include "SystemReduction.h"

namespace Merivane::Testing {

// The random-walk system of a noisy volume with a few seeds: weights over many orders of
// magnitude, rows of seven entries and fewer. With `levels` grey values only, many weights are
// equal, and ties decide the coarsening.
inline Eigen::SparseMatrix<float, Eigen::ColMajor, int> randomWalkSystem(const Eigen::Vector3i& dims, unsigned seed,
                                                                         int levels = 0, double adaptiveness = 30.0) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  auto img = TypedImage<float>::zeros(dims, 1);
  auto lab = TypedImage<unsigned char>::zeros(dims, 1);
  for (size_t i = 0; i < img->descriptor().elementCount(); ++i) {
    const float v = u(rng);
    img->pointer()[i] = levels > 0 ? std::floor(v * static_cast<float>(levels)) : v;
    const float r = u(rng);
    lab->pointer()[i] = r < 0.02f ? 1 : (r < 0.04f ? 2 : 0);
  }
  SharedImage image(std::shared_ptr<Image>(std::move(img)));
  SharedImage labels(std::shared_ptr<Image>(std::move(lab)));
  GraphLaplacianImage g;
  g.adaptiveness = adaptiveness;
  g.generateGraph(image, labels);
  auto sys = reduceSystem(g.laplacian(), g.seedIndices(), g.unknownIndices(), g.seedValues());
  sys.A.makeCompressed();
  return sys.A;
}

}  // namespace Merivane::Testing
