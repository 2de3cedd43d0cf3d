#pragma once
// Closed contours from the labels of a 2D label map: per frame and label, marching squares at
// 0 on a mask of the label's pixels (the curve runs through the centres of the outermost
// background pixels, and pixels touching at a corner share one curve), one closed spline per
// region through about one point in "skipFactor", stored as Seg::Contour objects in centred
// image coordinates in the map's Seg::ContoursStorageComponent. Optionally repaints each
// frame from all the contours stored on it. Labels are traced in parallel, each in its own
// bounding box; the order of the contours is frame, label, then region by lowest pixel,
// whatever the thread count. A cancelled run keeps the contours of the frames it finished.
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Algorithm.h"
#include "Contour.h"
#include "Parameter.h"

namespace Merivane {

class SharedImageSet;

class LabelMapToContoursAlgorithm : public Algorithm {
 public:
  explicit LabelMapToContoursAlgorithm(SharedImageSet* labelMap);
  ~LabelMapToContoursAlgorithm() override;
  // One set of modality LABEL, kindImage or kindImageSet.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  // The clone, when "createNewImage" made one.
  OwningDataList takeOutput() override;

  // Contours of frames first..last (inclusive) for the given labels (0 is skipped).
  std::vector<Seg::Contour> createContoursFromLabelMap(const SharedImageSet& labelMap, std::pair<int, int> frames,
                                                       const std::vector<unsigned char>& labelValues);
  // The contours of the last compute().
  std::vector<Seg::Contour> takeContours() { return std::move(contours_); }
  // Contours made in "annotationMode" (the host's annotation objects stand outside this library).
  const std::vector<Seg::Contour>& outputAnnotations() const { return annotations_; }
  // Paints each contour into frame `frame` of `labelMap`; later contours win.
  static bool mergeContoursAndApply(const std::vector<Seg::Contour*>& contours, SharedImageSet& labelMap, int frame);

  Parameter<int> skipFactor{"skipFactor", 1, this};  // keep every n-th point; below 2 means 1
  Parameter<std::vector<unsigned char>> labelValues{"labelValues", {}, this};
  Parameter<std::vector<std::string>> labelNames{"labelNames", {"New contour"}, this};
  Parameter<int> framesBegin{"framesBegin", -1, this};  // inclusive; -1: the selection
  Parameter<int> framesEnd{"framesEnd", -1, this};      // inclusive
  Parameter<bool> reapplySegmentation{"reapplySegmentation", true, this};
  Parameter<bool> createNewImage{"createNewImage", false, this};
  Parameter<bool> refine{"refine", false, this};
  Parameter<bool> annotationMode{"annotationMode", false, this};

 private:
  SharedImageSet* labelMap_;
  std::unique_ptr<SharedImageSet> clone_;
  std::vector<Seg::Contour> contours_;
  std::vector<Seg::Contour> annotations_;
};

}  // namespace Merivane
