#pragma once
// The pixel graph: one node per pixel or voxel (node x + W * y + W * H * z), four neighbours
// in 2D and six in 3D, edge weights from the L1 difference of the channels as stored.
#include "GraphLaplacian.h"

namespace Merivane {

class MemImage;
template <typename T>
class TypedImage;

class GraphLaplacianImage : public GraphLaplacian {
 public:
  GraphLaplacianImage() = default;

  void generateGraph(SharedImage& image, SharedImage& labels) override;
  void generateImageFromVector(const Eigen::VectorXf& values, SharedImage& target) const override;
  Eigen::VectorXf generateVectorFromImage(const SharedImage& source) const override;

  virtual void generateGraph2D(SharedImage* image);
  virtual void generateGraph3D(SharedImage* image);
  void generateSeeds(TypedImage<unsigned char>* labels);

  // Unlabelled nodes on the image border become background seeds.
  Parameter<bool> imageEdgesAsBackground{"Image Edges as Background", false, this};

 protected:
  // Node count for an image, clamped below 2^31 with a warning.
  int64_t prepareNodeCount(const MemImage& image);
  // Lays out a grid Laplacian: one column per node with its neighbours in ascending row order
  // and a slot for the diagonal. `weight(i, j)` gives the weight of the edge between node i
  // and its neighbour j; the diagonal is filled afterwards.
  template <typename WeightFn>
  void buildGrid(int W, int H, int D, WeightFn weight);
};

// The 2D pixel graph with intensities attenuated along the rows and a penalty on horizontal
// edges; volumes use the plain pixel graph.
class GraphLaplacianImageAttenuation : public GraphLaplacianImage {
 public:
  void generateGraph2D(SharedImage* image) override;

  // Added to the intensity difference of every horizontal edge, in intensity units.
  Parameter<double> horizontalPenalty{"Horizontal penalty", 0.04, this};
  // Rate of the attenuation along the rows, per image height.
  Parameter<double> verticalPenalty{"Vertical penalty", 2.0, this};
};

}  // namespace Merivane
