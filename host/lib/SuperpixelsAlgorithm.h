#pragma once
// Superpixels (supervoxels in a volume) by local k-means in intensity and position:
//  1. seeds on a regular grid of about the requested count, each moved to the lowest gradient
//     of its 3x3(x3) neighbourhood so that no seed starts on an edge;
//  2. per iteration, every pixel joins the nearest centre among those whose search window
//     (one grid step either side of the centre, per axis) holds it, then centres move to the
//     mean of their pixels;
//  3. connectivity: each connected piece of a label becomes a superpixel of its own, and pieces
//     below a quarter of the mean size join the adjacent superpixel of the closest mean.
// Distance: the squared offset in grid steps plus (adaptiveness * intensity difference / sigma)^2,
// with sigma the image's standard deviation (mean over channels), so that an intensity change
// of sigma / adaptiveness weighs as much as one grid step. Spacing plays no part.
//
// The assignment is decided per pixel and sums are reduced over fixed slabs of rows, in
// order, so that labels do not depend on the thread count. Superpixel i is the one whose
// first pixel in scan order comes i-th, unless "Random indices" shuffles them (fixed seed).
#include <Eigen/Core>
#include <memory>
#include <vector>

#include "Algorithm.h"
#include "Image.h"
#include "Parameter.h"

namespace Merivane {

class SharedImage;

struct Superpixel {
  Eigen::Vector3d center = Eigen::Vector3d::Zero();  // mean position, centred image space in mm
  std::vector<float> features;                       // mean stored value per channel
  int64_t size = 0;                                  // pixels
};

namespace Superpixels {

struct Settings {
  int count = 5000;
  double adaptiveness = 2.5;
  int iterations = 5;
  bool randomIndices = false;
};

struct Result {
  std::unique_ptr<TypedImage<int>> map;  // superpixel index per pixel, same grid and spacing
  std::vector<Superpixel> superpixels;
};

// Any pixel type but F16 and any channel count; a null map for an empty or unreadable image.
Result compute(const MemImage& image, const Settings& settings);

}  // namespace Superpixels

class SuperpixelsAlgorithm : public Algorithm {
 public:
  explicit SuperpixelsAlgorithm(SharedImage* image);
  ~SuperpixelsAlgorithm() override;
  // One image set with a frame in memory.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  // The index image (I32, one channel, the image's grid and matrix) in a set named "Superpixels".
  OwningDataList takeOutput() override;
  // The records of the last compute, index for index with the map.
  const std::vector<Superpixel>& superpixels() const { return superpixels_; }

  Parameter<bool> randomIndices{"Random indices", false, this};  // shuffle the indices (for display)
  Parameter<bool> verbose{"Verbose", false, this};               // info line with count and time
  Parameter<int> numberOfSuperpixels{"Number of superpixels", 5000, this, ParameterRange::atLeast(1)};
  // Weight of intensity against position, 0..1000: 0 gives a plain grid of compact cells.
  Parameter<double> adaptiveness{"Adaptiveness", 2.5, this, {0, 1000}};
  // k-means rounds, 0..100; 0 still assigns every pixel once.
  Parameter<int> numberOfIterations{"Number of iterations", 5, this, {0, 100}};

 private:
  SharedImage* image_;
  std::unique_ptr<SharedImage> output_;
  std::vector<Superpixel> superpixels_;
};

}  // namespace Merivane
