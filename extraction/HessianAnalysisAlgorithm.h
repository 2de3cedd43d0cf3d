#pragma once
// The tubularity measure of HessianAnalysis as an algorithm on the first frame of a volume.
// Its result is one float frame with the input's matrix.
#include <memory>
#include <vector>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class SharedImage;
class SharedImageSet;

class HessianAnalysisAlgorithm : public Algorithm {
 public:
  explicit HessianAnalysisAlgorithm(SharedImage* image);
  ~HessianAnalysisAlgorithm() override;
  // Exactly one data item that is a 3D image set; its first frame is used.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  OwningDataList takeOutput() override;

  // Intensity window in original units; the clamp is skipped unless max > min.
  Parameter<double> minIntensity{"MinIntensity", 0.0, this};
  Parameter<double> maxIntensity{"MaxIntensity", 0.0, this};
  Parameter<double> alpha{"Alpha", 1.0, this};  // kept with the settings; the measure does not use it
  Parameter<double> beta{"Beta", 1.0, this};    // weight of the blob term
  Parameter<double> gamma{"Gamma", 1.0, this};  // weight of the structure term
  // Gaussian scales in millimetres, each > 0; empty: plain differences of the image.
  Parameter<std::vector<double>> scales{"Scales", {}, this};

 private:
  SharedImage* image_;
  std::unique_ptr<SharedImage> output_;
};

}  // namespace Merivane
