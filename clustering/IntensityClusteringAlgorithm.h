#pragma once
// Labels every voxel by the nearest of given Gaussian intensity clusters, nearest by the
// squared distance to the mean in units of the standard deviation, and refits the clusters'
// means and standard deviations to their voxels for a number of rounds; optionally after an
// edge-preserving guided filter. With a mask, only voxels at the mask's largest value are
// labelled, from 1; without one, labels count from 0. NaN voxels get the first cluster's label
// and take no part in the statistics.
//
// Images of integer pixels up to 16 bits (unfiltered) are clustered through their histogram:
// a voxel's label depends only on its value, so each round assigns and refits per distinct
// value, and one pass over the voxels writes the labels at the end. Other images run per
// voxel, with sums gathered in fixed blocks so that results do not depend on the thread count.
#include <memory>
#include <utility>
#include <vector>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class MemImage;
class SharedImage;

class IntensityClusteringAlgorithm : public Algorithm {
 public:
  struct GaussianCluster {
    double mean = 0.0;
    double std = 1.0;
  };

  IntensityClusteringAlgorithm(SharedImage* image, SharedImage* mask = nullptr);
  ~IntensityClusteringAlgorithm() override;
  // One non-empty image set, or two of equal size whose first frames are compatible (pixel
  // type aside), the second U8 (the mask).
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  // Replaces the clusters by (mean, std) pairs.
  void setClusters(const std::vector<std::pair<double, double>>& clusters);
  void setFilterParam(int size, double epsilon);
  // The clusters after the last compute().
  const std::vector<GaussianCluster>& clusters() const { return result_; }

  void compute() override;
  // The label map as a one-frame set of modality LABEL.
  OwningDataList takeOutput() override;
  // The label image, given up with `transferOwnership` (the caller then deletes it).
  SharedImage* retrieveResult(bool transferOwnership);

  // The clustering on plain data: `values` (stored values, v = stored / scale - shift) of
  // type T, `mask` null or one byte per voxel where only `maskValue` counts, labels from
  // `base`. Updates `clusters` after each round; false for an unsupported T.
  static bool cluster(const MemImage& values, const unsigned char* mask, unsigned char maskValue,
                      unsigned char base, int iterations, std::vector<GaussianCluster>& clusters,
                      unsigned char* labels);

  Parameter<std::vector<double>> clustersMeans{"clustersMeans", {}, this};
  Parameter<std::vector<double>> clustersStd{"clustersStd", {}, this};
  Parameter<int> filterSize{"FilterSize", 0, this, ParameterRange::atLeast(0)};  // guided filter box; 0: off
  Parameter<double> filterEpsilon{"FilterEpsilon", 0.01, this, {0.001, 10.0}};  // on intensities mapped to [0, 1]
  Parameter<int> nbIterations{"NbIterations", 1, this, ParameterRange::atLeast(1)};

 private:
  void run();

  SharedImage* image_;
  SharedImage* mask_;
  std::unique_ptr<SharedImage> labels_;
  std::vector<GaussianCluster> result_;
};

}  // namespace Merivane
