#pragma once
// The engine of the paint, run and accept workflow: the random-walk segmentation of
// graph/ run on seeds painted into a label map (L the object, L + 1 its background, 0 free,
// 255 the drawn outline), with fixed solver settings so that a run stays interactive, one run
// at a time, statistics of the result, and seeds made from other sources: a drawn 2D contour,
// a drawn 3D diameter, an existing surface or a binary map (a narrow band round its border),
// and the prediction of a machine-learning model where the host offers one.
//
// Between runs the inner algorithm is kept while the seeds' box is unchanged, and it keeps its
// result: a re-run after a correction stroke starts every level's solve from the previous
// solution, node by node, and needs fewer iterations than a cold one.
#include <mutex>
#include <string>
#include <vector>

#include "GraphBasedSegmentation.h"
#include "Progress.h"

namespace Merivane {

class LabelingAlgorithm;

class InteractiveSegmentationAlgorithm : public GraphBasedSegmentation {
 public:
  // `labels` may be null: then the algorithm has no label map until setLabels or createLabels.
  InteractiveSegmentationAlgorithm(SharedImageSet& image, SharedImageSet* labels, SharedImageSet* priors = nullptr);
  ~InteractiveSegmentationAlgorithm() override;

  // Images only: one non-empty set (no label map yet), or two sets of equal size whose second
  // holds, frame by frame, one channel of U8 on the first's grid.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  // One locked run of the graph segmentation with the solver settings forced to BiCGSTAB
  // (id 4), tolerance 1e-5, 1000 iterations for a 2D image and 500 otherwise, and the crop on.
  // Refused, with one error line and the label map untouched: a label map that is not U8 with
  // one channel or not on the image's grid (status 2), one without both seed labels (status 3).
  // A label map without a free voxel gives the inverted map as probability and status 1.
  void compute() override;
  void prepareForComputation() override;

  SharedImageSet* image() const { return images_; }
  SharedImageSet* labels() const { return labels_; }
  // Whether a label map came with the image (it is then the caller's, already among its data).
  bool labelsGiven() const { return labelsGiven_; }
  // Works on another label map from now on (null: none); the state of earlier runs goes.
  void setLabels(SharedImageSet* labels);
  // A zeroed label map on the image's grid, owned by this algorithm, which now works on it.
  SharedImageSet* createLabels();

  // The object label L of the frame in focus; its background is L + 1.
  int objectLabel() const { return currentObjectLabel(focus()); }
  void setObjectLabel(int label) { setCurrentObjectLabel(label, focus()); }

  // Per entry of {L, L + 1}: size (mm² or mm³, pixel count times the three spacings), mean,
  // standard deviation, minimum and maximum of the image under it. For the label map in focus
  // after a successful run, the labels are those that accepting would give. Empty for null.
  std::vector<std::vector<double>> getStatistics(SharedImage* labelMap);

  // Whether the last run left a result that an accept turns into labels.
  bool hasSegmentationToAccept() const;
  // Probabilities to labels: L in the object, L + 1 elsewhere in the box and outside it
  // (labels of earlier accepted objects stay).
  void acceptSegmentation();
  // Accepts, frees the background (L + 1 becomes 0) and moves on to the object label L + 1
  // with background L + 2. Returns the new object label, or 0 (with one error line) when
  // there was nothing to accept or no label is left.
  int acceptSegmentationAndContinue();
  // A copy of the label set, named "Labels", for the data model; null without labels.
  std::unique_ptr<SharedImageSet> exportLabelMap() const;

  // Whether the host has a factory row "ML.MachineLearningModel".
  bool isPredictionAvailable() const;
  // Seeds from that model's prediction on the image: the region above `threshold`, eroded by
  // `inMargin` and dilated by `outMargin` pixels of the label map. False when no prediction
  // came out; the label map is then unchanged.
  bool initFromPrediction(const std::string& configPath, int inMargin, int outMargin, float threshold);
  // Seeds from a surface in world coordinates (closed first on a copy when it has holes): the
  // band of `bandWidth` mm round it stays free, L inside, L + 1 outside. False for a null mesh,
  // no label map or a mesh that covers no voxel.
  bool initFromSegmentation(Mesh* mesh, double bandWidth);
  // L where the binary map's object, eroded by `inSize` voxels, lies and L + 1 outside its
  // dilation by `outSize`, inside the dilation's box on the label map in focus; the band keeps
  // its values. The map may have any grid: it is sampled through world coordinates.
  void convertBinaryMapToNarrowBandLabels(SharedImageSet* binaryMap, int inSize, int outSize,
                                          Progress::Task* task = nullptr);
  // The closed curve through `points` (world) filled into the 2D label image `labelSlice`,
  // which is cleared: L inside, L + 1 outside, a free band of about `width` mm between.
  void convertContourToLabels2D(const std::vector<Eigen::Vector3d>& points, SharedImage* labelSlice, double width);
  // Seeds of the diameter between two world points in a 3D label map (cleared first): a thin
  // ellipsoid of L along it inside a shell of L + 1. Nothing for another number of points or
  // a map of one slice.
  void convertDiameterToLabels3D(const std::vector<Eigen::Vector3d>& points, SharedImage* labelMap);

  // Whether the last run started from the previous run's solution, and its solver iterations
  // per pyramid level, coarse to fine.
  bool lastRunWarmStarted() const { return lastWarmStarted_; }
  const std::vector<int>& lastLevelIterations() const { return lastLevelIterations_; }

  LabelingAlgorithm* labeling() const { return labeling_.get(); }

 protected:
  // The lists both interactive segmentations accept; `labels` is null for an image alone.
  static bool compatibleInputs(const DataList& data, SharedImageSet*& image, SharedImageSet*& labels);
  // The checks that compute() makes before touching anything; false after one error line.
  bool checkInputs(int index);

 private:
  bool labelsGiven_;
  std::unique_ptr<SharedImageSet> ownedLabels_;
  std::unique_ptr<LabelingAlgorithm> labeling_;
  std::mutex computeMutex_;
  bool lastWarmStarted_ = false;
  std::vector<int> lastLevelIterations_;
};

}  // namespace Merivane
