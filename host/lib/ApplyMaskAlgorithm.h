#pragma once
// Sets to 0 every voxel of an image whose voxel in a mask of the same grid is 0, frame by
// frame (a one-frame mask serves every frame). Optionally crops the result to the box of the
// mask's non-zero voxels.
#include <memory>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class SharedImageSet;

class ApplyMaskAlgorithm : public Algorithm {
 public:
  ApplyMaskAlgorithm(SharedImageSet* image, SharedImageSet* mask);
  ~ApplyMaskAlgorithm() override;
  // Two non-empty image sets: the image, then the mask (one channel, same dimensions).
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  OwningDataList takeOutput() override;

  Parameter<bool> cropAutomatically{"Crop automatically", false, this};
  // On: a new set; off: the image is changed in place (cropping replaces its frames).
  Parameter<bool> createNewImage{"Create new image", true, this};

 private:
  SharedImageSet* image_;
  SharedImageSet* mask_;
  std::unique_ptr<SharedImageSet> output_;
};

}  // namespace Merivane
