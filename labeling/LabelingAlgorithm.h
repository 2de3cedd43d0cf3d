#pragma once
// The data of the labeling tool: an image set and the label map painted on it, which the
// tool's panel and manipulator work on. compute() does nothing.
//
// A label map given at construction is made to hold real label values: a frame whose
// stored-to-original mapping is not the identity is rewritten in place (each voxel rounded to
// the nearest label, the mapping reset) and the set is marked as a label map.
#include <map>
#include <vector>

#include "Algorithm.h"

namespace Merivane {

class SharedImage;
class SharedImageSet;

class LabelingAlgorithm : public Algorithm {
 public:
  LabelingAlgorithm(SharedImageSet* image, SharedImageSet* labelMap = nullptr,
                    const std::map<int, int>* associations = nullptr);
  ~LabelingAlgorithm() override;

  // One non-empty image set; or two of equal size, the second a LABEL set of U8 frames each
  // compatible with the first's frame (pixel type and channels aside).
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);
  void compute() override {}

  SharedImageSet* image() const { return image_; }
  SharedImageSet* labelMap() const { return labelMap_; }
  // Replaces the label map worked on (null: none), converted like one given at construction.
  void setLabelMap(SharedImageSet* labelMap);

  // Measures the image's frame `imageFrame` (-1: the focus) under each of `labels` in
  // `labelFrame`, which must have that frame's dimensions: one list per label of size (pixel
  // count times the product of the three spacings, mm² or mm³), mean, sample standard
  // deviation, minimum and maximum of channel 0 in physical values (stored / scale - shift).
  // A label without pixels gives zeros; the deviation of one pixel is 0. Empty when the frames
  // do not fit.
  std::vector<std::vector<double>> statistics(const SharedImage& labelFrame, const std::vector<int>& labels,
                                              int imageFrame = -1) const;
  // Image frame to label frame, when the caller gave such a map.
  const std::map<int, int>& associations() const { return associations_; }
  bool hasAssociations() const { return hasAssociations_; }

 private:
  SharedImageSet* image_;
  SharedImageSet* labelMap_;
  std::map<int, int> associations_;
  bool hasAssociations_ = false;
};

}  // namespace Merivane
