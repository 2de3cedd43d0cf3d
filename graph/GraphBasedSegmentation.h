#pragma once
// The user-facing random-walk segmentation of an image from a label map: narrows the problem
// to a box round the seeds, prepares working copies (crop, display-window clamp, optional
// smoothing), runs GraphLaplacianAlgorithm on them, maps the probabilities back to the full
// label map, draws the outline with the value 255 and turns probabilities into labels on
// request. Label value L is the object, L + 1 its background.
#include <Eigen/Core>
#include <memory>
#include <vector>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class GraphLaplacianAlgorithm;
class Mesh;
class SharedImage;
class SharedImageSet;

class GraphBasedSegmentation : public Algorithm {
 public:
  GraphBasedSegmentation(SharedImageSet* images, SharedImageSet* labels, SharedImageSet* priors = nullptr);
  ~GraphBasedSegmentation() override;

  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  OwningDataList takeOutput() override;
  virtual void prepareForComputation();

  void setSuperpixelsConfiguration(const Properties* properties);
  int currentObjectLabel(int index) const;
  void setCurrentObjectLabel(int label, int index);
  // Sets every outline value 255 of the focused label map back to 0.
  void clearResult();
  // Hands over the probability map of the last run; null when there is none.
  std::unique_ptr<SharedImageSet> probabilityImage();
  uint64_t memoryEstimation(int level) const;
  // Probabilities to labels inside the box (>= 0.5 is the object); outside the box too when
  // `clearOutside` is set.
  void convertToLabels(bool clearOutside);
  // The object as a mesh in world coordinates; null when there is no segmentation.
  std::unique_ptr<Mesh> extractSegmentation3D(double smoothness, double exportResolution, bool closeBorder);
  // The object's outlines as closed lists of world points sampled every `exportResolution`.
  std::vector<std::vector<Eigen::Vector3d>> extractSegmentation2D(double smoothness, double exportResolution,
                                                                  bool closeBorder);

  // Settings without a configuration key.
  bool autoCrop = true;
  bool clipToDisplayWindow = true;
  double boxMargin = 0.2;  // growth per side, as a fraction of the box extent
  int smoothing = 0;       // box filter size; 0 is off
  bool useSuperpixels = false;

  const Eigen::Vector3i& cropOffset() const { return cropOffset_; }
  const Eigen::Vector3i& cropSize() const { return cropSize_; }
  GraphLaplacianAlgorithm* innerAlgorithm() const { return algorithm_.get(); }
  const SharedImageSet* probability() const { return probability_.get(); }

  // Row of the solver table, 0..7; 0 and 1 are direct solvers.
  Parameter<int> solverId{"Solver ID", 4, this, {0, 7}};
  // Limit of the iterative solvers, at least 1.
  Parameter<int> solverIterations{"Solver Iterations", 200, this, ParameterRange::atLeast(1)};
  // Edge sharpness, 0..1e6: the widest intensity step of a level weighs exp(-adaptiveness).
  Parameter<double> adaptiveness{"Adaptiveness", 100.0, this, {0, 1e6}};
  // Relative residual at which iterative solvers stop, 1e-38..1; handed on as its base-10 log.
  Parameter<double> solverTolerance{"Solver Tolerance", 1e-5, this, {1e-38, 1}};
  // Pyramid levels requested, at least 1; small images get fewer.
  Parameter<int> numLevels{"Num Levels", 4, this, ParameterRange::atLeast(1)};
  // Finest level computed, counted from 1; above the levels made, the coarsest one is computed.
  Parameter<int> minLevel{"Min Level", 1, this, ParameterRange::atLeast(1)};
  // Pull towards the prior image, at least 0; divided by 10000 in the solve.
  Parameter<double> priorWeight{"Prior Weight", 0.0, this, ParameterRange::atLeast(0)};
  Parameter<bool> exportProbability{"Export Probability", false, this};  // takeOutput() gives the map
  Parameter<bool> verbose{"Verbose", true, this};                        // info lines of each step
  Parameter<bool> autoAccept{"Auto-Accept Segmentation", false, this};

 protected:
  enum class BoxDecision { Abort, NoCrop, Crop };
  BoxDecision computeBox(int index, bool& reuse);
  void clampToWindow(SharedImage& image, double window, double level) const;
  bool drawOutline(int index);
  int focus() const;

  SharedImageSet* images_;
  SharedImageSet* labels_;
  SharedImageSet* priors_;
  std::unique_ptr<SharedImageSet> probability_;
  std::unique_ptr<SharedImageSet> outputLabels_;
  std::vector<int> currentObjectLabels_;
  std::shared_ptr<SharedImage> workingImage_;
  std::shared_ptr<SharedImage> workingLabels_;
  std::shared_ptr<SharedImage> workingPrior_;
  Eigen::Vector3i cropOffset_ = Eigen::Vector3i::Zero();
  Eigen::Vector3i cropSize_ = Eigen::Vector3i::Zero();
  double displayWindow_ = 0.0;
  double displayLevel_ = 0.0;
  std::unique_ptr<GraphLaplacianAlgorithm> algorithm_;
  std::unique_ptr<Properties> superpixelsConfig_;
};

}  // namespace Merivane
