#pragma once
// The superpixel graph: one node per superpixel of the image (SuperpixelsAlgorithm), edges
// between superpixels that touch along x, y or z, weighted by the mean L1 difference of their
// mean features. Node k is superpixel k, so the node lists hold superpixel indices. The system
// is bounded by "Superpixels Number" instead of the pixel count.
#include <memory>
#include <unordered_map>
#include <vector>

#include "GraphLaplacian.h"

namespace Merivane {

struct Superpixel;
template <typename T>
class TypedImage;

class GraphLaplacianSuperpixels : public GraphLaplacian {
 public:
  GraphLaplacianSuperpixels();
  ~GraphLaplacianSuperpixels() override;

  void generateGraph(SharedImage& image, SharedImage& labels) override;
  // Each pixel gets its superpixel's value (float target) or label (U8 target).
  void generateImageFromVector(const Eigen::VectorXf& values, SharedImage& target) const override;
  // Per free superpixel, the value of its last pixel in scan order.
  Eigen::VectorXf generateVectorFromImage(const SharedImage& source) const override;

  // A superpixel is a seed when it holds a label of 1..254: the largest one it holds decides,
  // and any label but the active one is background.
  void generateSeeds(TypedImage<unsigned char>* labels);

  const TypedImage<int>* superpixelMap() const { return superpixelMap_.get(); }
  const std::vector<Superpixel>& superpixels() const { return superpixels_; }
  // Position in the unknowns of a free superpixel, -1 for a seed.
  int unknownOfSuperpixel(int superpixel) const;

  Parameter<int> superpixelsNumber{"Superpixels Number", 5000, this, ParameterRange::atLeast(1)};
  // Weight of intensity against position in the superpixel computation, 0..1000.
  Parameter<double> superpixelsAdaptiveness{"Superpixels Adaptiveness", 2.5, this, {0, 1000}};
  Parameter<int> superpixelsIterations{"Superpixels Iterations", 5, this, {0, 100}};

 protected:
  // Runs the superpixel computation on `image`; false (with the error logged) when it gave no map,
  // in which case the graph is left empty.
  bool computeSuperpixels(SharedImage& image, SharedImage& labels);
  // Sorted neighbours of every superpixel.
  std::vector<std::vector<int>> neighbourSets() const;
  // Lays out the Laplacian over the superpixels with -weight(i, j) for every neighbour pair
  // and the diagonal, compressed.
  template <typename WeightFn>
  void insertEdges(const std::vector<std::vector<int>>& neighbours, WeightFn weight);
  void clearGraph();

  std::shared_ptr<TypedImage<int>> superpixelMap_;
  std::vector<Superpixel> superpixels_;
  std::unordered_map<int, int> unknownOfSuperpixel_;
};

// The superpixel graph with the depth attenuation of the features and a penalty on edges by
// how horizontal the step between the two centres is.
class GraphLaplacianSuperpixelsAttenuation : public GraphLaplacianSuperpixels {
 public:
  void generateGraph(SharedImage& image, SharedImage& labels) override;

  // Rate of the attenuation along the rows, per image height.
  Parameter<double> verticalPenalty{"Vertical penalty", 2.0, this};
  // Added to the difference of a purely horizontal neighbour, less as the step turns vertical.
  Parameter<double> horizontalPenalty{"Horizontal penalty", 0.04, this};
};

}  // namespace Merivane
