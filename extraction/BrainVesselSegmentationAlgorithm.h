#pragma once
// Vessels from the difference of two magnetic resonance volumes (with and without contrast,
// say) inside a brain mask.
//
//   1. The brain mask: thresholded at 0.5, closed with a ball of radius 9, its enclosed holes
//      filled (what remains outside is the background connected to the image border), on the
//      first volume's grid. Two label inputs are joined.
//   2. The positive part of A - B in original intensities, B resampled onto A's grid,
//      saturated to 8 bits.
//   3. Edge-preserving smoothing of that difference as a normalised texture would hold it
//      (values / 255): 50 steps of Perona-Malik diffusion at strength 0.5, then an unsharp
//      mask of amount 0.5 kept within the range of each voxel's neighbourhood.
//   4. Voxels at or above "Threshold" inside the mask become label 1 of a label map on A's
//      grid.
#include <memory>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class SharedImage;
class SharedImageSet;

class BrainVesselSegmentationAlgorithm : public Algorithm {
 public:
  BrainVesselSegmentationAlgorithm(const SharedImageSet* first, const SharedImageSet* second,
                                   const SharedImageSet* brainMask, const SharedImageSet* secondMask = nullptr);
  ~BrainVesselSegmentationAlgorithm() override;
  // Exactly two 3D image sets of modality MRI (first and second in list order) and one or two
  // label maps, nothing else.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  OwningDataList takeOutput() override;

  // Step 1 for one mask: a U8 0/1 frame on the grid and with the matrix of `reference`;
  // null for a frame without memory.
  std::unique_ptr<SharedImage> processBrainMask(const SharedImage& mask, const SharedImage& reference) const;

  // On the smoothed difference in [0, 1].
  Parameter<double> threshold{"Threshold", 0.45, this, ParameterRange{0.0, 1.0}};

 private:
  const SharedImageSet* first_;
  const SharedImageSet* second_;
  const SharedImageSet* mask_;
  const SharedImageSet* secondMask_;
  std::unique_ptr<SharedImageSet> output_;
};

}  // namespace Merivane
