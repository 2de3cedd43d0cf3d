#pragma once
// Replaces pixel values in place, in every frame of one image set: each listed old value by
// its new one, and, when a default is set, every other value by the default. Values compare
// as stored; channel 0 and further channels alike. Runs on the CPU (the texture path of the
// host is not needed here, so setForceCPU only records the wish).
#include <optional>
#include <utility>
#include <vector>

#include "Algorithm.h"

namespace Merivane {

class SharedImageSet;

class ReplaceValuesAlgorithm : public Algorithm {
 public:
  explicit ReplaceValuesAlgorithm(SharedImageSet* image);
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void setReplaceValues(std::vector<std::pair<double, double>> oldToNew, std::optional<double> otherValue = {});
  void setForceCPU(bool on) { forceCPU_ = on; }
  void compute() override;

 private:
  SharedImageSet* image_;
  std::vector<std::pair<double, double>> replace_;
  std::optional<double> other_;
  bool forceCPU_ = true;
};

}  // namespace Merivane
