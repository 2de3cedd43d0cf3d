#pragma once
#include "Algorithm.h"

namespace Merivane {

class SharedImageSet;

// With one image: a new, empty label map that fits it. With an image and a label map: the
// label map is brought into line with the image in place (one U8 channel, frame count,
// spacing, matrix, modality), provided its frames have the image's dimensions.
class MakeCompatibleLabelMapAlgorithm : public Algorithm {
 public:
  MakeCompatibleLabelMapAlgorithm(SharedImageSet* image, SharedImageSet* labelMap);
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);
  void compute() override;
  OwningDataList takeOutput() override;

 private:
  SharedImageSet* image_;
  SharedImageSet* labelMap_;
  std::unique_ptr<SharedImageSet> output_;
};

}  // namespace Merivane
