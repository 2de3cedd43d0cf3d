#pragma once
// A seeded two-label random walk posed on a weighted graph: the Laplacian over all nodes,
// and the nodes fixed at 1 (the active label) or 0 (active label + 1). Subclasses build the
// graph from their data; the solve lives in GraphLaplacianAlgorithm::solveLaplace.
#include <Eigen/SparseCore>
#include <cstdint>
#include <vector>

#include "Configurable.h"
#include "Parameter.h"

namespace Merivane {

class SharedImage;

class GraphLaplacian : public Configurable {
 public:
  using SparseMatrixF = Eigen::SparseMatrix<float, Eigen::ColMajor, int>;

  GraphLaplacian() = default;
  ~GraphLaplacian() override;

  virtual void generateGraph(SharedImage& image, SharedImage& labels) = 0;
  // Writes a solution over the unknowns, with the seed values, into an image.
  virtual void generateImageFromVector(const Eigen::VectorXf& values, SharedImage& target) const = 0;
  // One value of `source` per unknown node.
  virtual Eigen::VectorXf generateVectorFromImage(const SharedImage& source) const = 0;

  // exp(-(|gradient| - offset) * beta) + epsilon, in single precision.
  static float computeEdgeWeight(float gradient, float beta, float offset, float epsilon);
  // beta from the range of edge differences found in this graph.
  float computeBeta(float dmin, float dmax) const;
  // The label of a value: active label above 0.5, active label + 1 otherwise (0.5 and NaN too).
  unsigned char decide(float value) const;

  const SparseMatrixF& laplacian() const { return laplacian_; }
  const std::vector<float>& seedValues() const { return seedValues_; }
  const std::vector<uint64_t>& seedIndices() const { return seedIndices_; }
  const std::vector<uint64_t>& unknownIndices() const { return unknownIndices_; }
  SharedImage* image() const { return image_; }
  SharedImage* labels() const { return labels_; }

  // Object label, 1..253: its seeds are fixed at 1, those of label + 1 at 0 (255 is the outline).
  Parameter<unsigned short> activeLabel{"Active Label", 1, this, {1, 253}};
  // Edge sharpness, 0..1e6: the widest intensity step weighs exp(-adaptiveness). Far above,
  // adaptiveness / 1e-5 leaves single precision and a constant image's weights turn NaN.
  Parameter<double> adaptiveness{"Adaptiveness", 100.0, this, {0, 1e6}};

 protected:
  friend class GraphLaplacianAlgorithm;  // lends the Laplacian's storage to the reduced system

  // Negated column sums on the diagonal; called once after all off-diagonal entries are in.
  void fillLaplacianDiagonal();

  SharedImage* image_ = nullptr;
  SharedImage* labels_ = nullptr;
  SparseMatrixF laplacian_;
  std::vector<float> seedValues_;
  std::vector<uint64_t> seedIndices_;
  std::vector<uint64_t> unknownIndices_;
};

}  // namespace Merivane
