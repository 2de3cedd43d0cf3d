#pragma once
// Dose by tissue-dependent kernel superposition. The CT is split into five tissue classes by
// intensity (air, lung, fat, tissue, bone); the source volume is convolved with one kernel per
// class, each convolution kept only where its tissue lies, and the masked results summed,
// each weighted by scaleFactor.
//
// Kernels are MetaImage files in "kernelsDirectory", one per class, found by name: the first
// file (in name order) that begins with the class's name and ends with ".mhd". A kernel has
// one channel and odd sizes. The convolution is done by FFT on the processor, the source's
// spectrum computed once for all five kernels (see Dose::FftConvolver); its values are stored
// in the source's pixel type, as an image of the source's kind would hold them, before masking.
#include <memory>
#include <string>
#include <vector>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class SharedImageSet;

class DoseComputationAlgorithm : public Algorithm {
 public:
  // One tissue class: CT values v with lowerThreshold <= v < upperThreshold.
  struct Convolution {
    std::string name;
    double lowerThreshold = 0.0;
    double upperThreshold = 0.0;
  };

  DoseComputationAlgorithm(SharedImageSet* ct, SharedImageSet* source);
  ~DoseComputationAlgorithm() override;
  // Exactly one volume of modality CT and exactly one of modality NM.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  // One full path per record of `convolutions`, in its order; empty (with one error line)
  // when a record has no kernel file.
  std::vector<std::string> kernelPaths() const;

  void compute() override;
  // The dose volume, float, modality NM, on the source's grid.
  OwningDataList takeOutput() override;

  std::vector<Convolution> convolutions;
  // Weight of each masked result in the sum.
  double scaleFactor = 1.0;

  Parameter<std::string> kernelsDirectory{"kernelsDirectory", "", this};

 private:
  SharedImageSet* ctImage_;
  SharedImageSet* sourceImage_;
  std::unique_ptr<SharedImageSet> result_;
};

}  // namespace Merivane
