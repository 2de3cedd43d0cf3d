#pragma once
// Resampling of every frame of an image set, in one of two forms:
// - to a coarser grid: setTargetMinSpacing(s) raises each axis's spacing to at least s over the
//   same extent and centre (axes already that coarse stay as they are);
// - onto the grid of a reference set: every frame takes the size, spacing and matrix of the
//   reference's focus frame, sampled in world coordinates; voxels that fall outside the input
//   become 0.
// Label maps are sampled at the nearest voxel; other images by "Interpolation Mode". Integer
// types round to the nearest value and saturate.
#include <memory>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class SharedImageSet;

class ImageResamplingAlgorithm : public Algorithm {
 public:
  explicit ImageResamplingAlgorithm(SharedImageSet* input, SharedImageSet* reference = nullptr);
  ~ImageResamplingAlgorithm() override;
  // One non-empty image set, or two: the input and the reference whose grid it takes.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  // False, with nothing changed, for a spacing that is not a positive finite number, or in the
  // reference form.
  bool setTargetMinSpacing(double spacing);

  void compute() override;
  // The resampled set when "Create New Image" is on; nothing otherwise.
  OwningDataList takeOutput() override;

  // On: a new set; off: the input's frames are replaced.
  Parameter<bool> createNewImage{"Create New Image", true, this};
  // 0 nearest voxel, 1 trilinear.
  Parameter<int> interpolationMode{"Interpolation Mode", 1, this, ParameterRange{0, 1}};
  // How values of a coarser target combine: 0 and 1 both take the interpolated sample at the
  // target voxel's centre (no averaging), the only reduction this host offers.
  Parameter<int> reductionMode{"Reduction Mode", 1, this, ParameterRange{0, 1}};

 private:
  SharedImageSet* input_;
  SharedImageSet* reference_;
  double targetMinSpacing_ = 0.0;
  std::unique_ptr<SharedImageSet> output_;
};

}  // namespace Merivane
