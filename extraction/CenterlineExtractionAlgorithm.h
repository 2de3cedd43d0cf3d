#pragma once
// The centreline of a bright (or dark) tubular structure between points marked on a volume.
//
// computeProbability: a float copy of the first frame, cropped round the points' bounding box
// (grown by "Cropping Margin" times its size per axis), resampled isotropically to "Working
// Resolution", windowed to ["Minimum LUT", "Maximum LUT"] (negated for dark structures) and
// turned into a speed map by CenterlineExtraction::speedFromWindow: the "Probability Map".
// compute: for each pair of consecutive points, last pair first, fast marching from the
// earlier point until the later one is reached (the "Action Map" is that of the pair (0, 1)),
// the discrete descent back, all paths joined without their first voxel, and "Centerline
// Samples" points spaced evenly along an open spline through the joined path.
//
// "computeMode": 0 probability map only, 1 also the action maps, anything else everything.
#include <Eigen/Core>
#include <memory>
#include <vector>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class SharedImage;

class CenterlineExtractionAlgorithm : public Algorithm {
 public:
  explicit CenterlineExtractionAlgorithm(SharedImage* image);
  ~CenterlineExtractionAlgorithm() override;
  // Exactly one 3D image set (its first frame is used), optionally followed by one point set
  // whose points become the initial points.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  // World coordinates; empties the result samples.
  void setInitPoints(const std::vector<Eigen::Vector3d>& points);
  const std::vector<Eigen::Vector3d>& initPoints() const { return initPoints_; }
  // The evenly spaced centreline points of the last compute(), world coordinates.
  const std::vector<Eigen::Vector3d>& resultSamples() const { return samples_; }

  // Needs at least two initial points inside the image: otherwise a status and one error
  // line, and no results.
  void compute() override;
  // The speed map alone; does nothing without an image.
  void computeProbability();
  // Hand the image to the caller, leaving null behind.
  std::unique_ptr<SharedImage> retrieveProbability();
  std::unique_ptr<SharedImage> retrieveActionMap();
  // The samples as a point set "Centerline" (when there are any), then "Probability Map" and
  // "Action Map" where they exist.
  OwningDataList takeOutput() override;

  Parameter<bool> bright{"Bright", true, this};
  Parameter<float> minimumLut{"Minimum LUT", 0.0f, this};
  Parameter<float> maximumLut{"Maximum LUT", 2000.0f, this};
  Parameter<int> computeMode{"computeMode", -1, this};
  // Lowest speed, the floor of the probability map; in (0, 1].
  Parameter<float> isotropicConstant{"Isotropic Constant", 0.05f, this, ParameterRange{1e-6, 1.0}};
  // Isotropic spacing of the working image in millimetres.
  Parameter<double> workingResolution{"Working Resolution", 0.5, this, ParameterRange{1e-3, 1e3}};
  // Crop margin as a fraction of the points' bounding box; negative: no cropping.
  Parameter<double> croppingMargin{"Cropping Margin", 1.0, this};
  Parameter<int> centerlineSamples{"Centerline Samples", 20, this, ParameterRange{2, 1e6}};

 private:
  SharedImage* image_;
  std::vector<Eigen::Vector3d> initPoints_;
  std::vector<Eigen::Vector3d> samples_;
  std::unique_ptr<SharedImage> probability_;
  std::unique_ptr<SharedImage> actionMap_;
};

}  // namespace Merivane
