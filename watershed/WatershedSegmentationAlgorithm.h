#pragma once
#include <memory>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class SharedImageSet;

// Batch watershed: the focused frame of the image, quantised through its window and level,
// is flooded from the seeds in the focused frame of the label map. The result replaces that
// frame in place, or goes into a new label map ("Create New Labels").
class WatershedSegmentationAlgorithm : public Algorithm {
 public:
  WatershedSegmentationAlgorithm(SharedImageSet* image, SharedImageSet* labelMap);
  ~WatershedSegmentationAlgorithm() override;
  // Exactly two image sets of the same length, frame by frame of equal dimensions and spacing,
  // the second one all U8.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);
  void compute() override;
  OwningDataList takeOutput() override;

  Parameter<bool> createNewLabels{"Create New Labels", false, this};  // false: update the seeds in place

 private:
  void computeFocused();

  SharedImageSet* image_;
  SharedImageSet* labelMap_;
  std::unique_ptr<SharedImageSet> output_;
};

}  // namespace Merivane
