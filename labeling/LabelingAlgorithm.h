#pragma once
// The data of the labeling tool: an image set and the label map painted on it, which the
// tool's panel and manipulator work on. compute() does nothing.
//
// A label map given at construction is made to hold real label values: a frame whose
// stored-to-original mapping is not the identity is rewritten in place (each voxel rounded to
// the nearest label, the mapping reset) and the set is marked as a label map.
#include <map>

#include "Algorithm.h"

namespace Merivane {

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
