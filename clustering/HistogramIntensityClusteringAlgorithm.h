#pragma once
// Intensity clusters from the minima of an image's smoothed histogram, without seeds: the
// histogram (all mass outside [minValHisto, maxValHisto] folded onto the two boundary bins)
// is smoothed by a moving average, interpolated by a spline through every smoothRadius-th
// bin, and scanned for valleys whose peak-to-valley ratio exceeds minMaxRatio once the
// cluster in progress holds clusterSizeRatio of the voxels. The result is a label map that
// gives each voxel the rank of its intensity range, counted from 0; voxels on a boundary
// between two ranges keep 0.
#include <memory>
#include <vector>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class MemImage;
class SharedImageSet;

class HistogramIntensityClusteringAlgorithm : public Algorithm {
 public:
  // An intensity range with the spline mass in it; the fourth field is not used.
  struct Cluster {
    double lower = 0.0;
    double upper = 0.0;
    double mass = 0.0;
    double unused = 0.0;
  };

  explicit HistogramIntensityClusteringAlgorithm(SharedImageSet& image);
  ~HistogramIntensityClusteringAlgorithm() override;
  // Exactly one image set of one frame.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  // With debugOutput, "Histogram", "Histogram smooth" and "Histogram spline" (where present)
  // before the label map.
  OwningDataList takeOutput() override;

  // The numerical steps on plain arrays, in the order compute() runs them.
  // Folds all mass below bin lo onto lo and above bin hi onto hi (bins clamped to the array).
  static void foldRange(std::vector<float>& h, int lo, int hi);
  // Mean over i - r .. i + r within the array; values below zeroBelow become 0.
  static std::vector<double> smooth(const std::vector<float>& h, int r, double zeroBelow);
  // The spline through (i, s[i]) for i = 0, r, 2r, ..., sampled at every bin.
  static std::vector<double> spline(const std::vector<double>& s, int r);
  // Clusters closed at the valleys of y; minClusterMass is V * clusterSizeRatio. Bin m maps
  // to the intensity (m / n) * (dMax - c) + c; the first cluster starts at c - 1 and the last
  // ends at b. Empty when no valley splits y.
  static std::vector<Cluster> findClusters(const std::vector<double>& y, double minClusterMass, double minMaxRatio,
                                           double c, double dMax, double b);

  const std::vector<Cluster>& clusters() const { return clusters_; }
  // Cluster indices by mass, largest first.
  const std::vector<int>& clustersByMass() const { return byMass_; }

  Parameter<bool> debugOutput{"debugOutput", false, this};
  Parameter<double> minValHisto{"minValHisto", 0.0, this};  // original intensity; default: image minimum
  Parameter<double> maxValHisto{"maxValHisto", 0.0, this};  // original intensity; default: image maximum
  // Half width of the moving average and spacing of the spline knots, in bins.
  Parameter<int> smoothRadius{"smoothRadius", 5, this, ParameterRange::atLeast(1)};
  // Divides the finest bucket count of the histogram.
  Parameter<int> underSamplingSkip{"underSamplingSkip", 10, this, ParameterRange::atLeast(1)};
  // Smallest cluster, as a fraction of the voxel count.
  Parameter<double> clusterSizeRatio{"clusterSizeRatio", 0.001, this, ParameterRange::atLeast(0)};
  // Smoothed bins below this fraction of the voxel count count as empty.
  Parameter<double> binSizeRatio{"binSizeRatio", 1e-05, this, ParameterRange::atLeast(0)};
  // Smallest ratio of peak to valley that splits.
  Parameter<double> minMaxRatio{"minMaxRatio", 1.3, this};

 private:
  void run();
  void label(const MemImage& frame);

  SharedImageSet* image_;
  std::vector<Cluster> clusters_;
  std::vector<int> byMass_;
  std::unique_ptr<SharedImageSet> histogram_, smooth_, spline_, labels_;
};

}  // namespace Merivane
