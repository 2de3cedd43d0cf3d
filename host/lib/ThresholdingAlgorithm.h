#pragma once
// A binary mask of an image by thresholds on its original values (stored / scale - shift),
// channel 0 of every frame: U8, 1 where the test holds and 0 elsewhere, with the frame's grid
// and matrix.
//   "mode" 0: value >= "lowerThreshold";
//   "mode" 4: the interval lowerThreshold <= value < upperThreshold, half open so that
//             adjacent intervals share no value; "insideInterval" off selects its complement.
#include <memory>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class SharedImageSet;

class ThresholdingAlgorithm : public Algorithm {
 public:
  enum Mode : int { Lower = 0, Interval = 4 };

  explicit ThresholdingAlgorithm(SharedImageSet* image);
  ~ThresholdingAlgorithm() override;
  // One non-empty image set.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  OwningDataList takeOutput() override;

  // On: a new set; off: the input's frames are replaced by the masks.
  Parameter<bool> createNew{"createNew", true, this};
  Parameter<int> mode{"mode", 0, this};
  Parameter<bool> insideInterval{"insideInterval", true, this};
  Parameter<double> lowerThreshold{"lowerThreshold", 0.0, this};
  Parameter<double> upperThreshold{"upperThreshold", 0.0, this};

 private:
  SharedImageSet* image_;
  std::unique_ptr<SharedImageSet> output_;
};

}  // namespace Merivane
