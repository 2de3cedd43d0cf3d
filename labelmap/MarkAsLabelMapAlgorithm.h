#pragma once
#include <vector>

#include "Algorithm.h"

namespace Merivane {

class SharedImageSet;

// Turns one-byte images into label maps in place: modality LABEL, signed bytes reinterpreted
// as unsigned, the former modality remembered and a label entry for every value present.
class MarkAsLabelMapAlgorithm : public Algorithm {
 public:
  explicit MarkAsLabelMapAlgorithm(std::vector<SharedImageSet*> images);
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);
  void compute() override;

 private:
  std::vector<SharedImageSet*> images_;
};

}  // namespace Merivane
