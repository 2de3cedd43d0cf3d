#pragma once
// Shapes between two binary 2D masks by geodesic morphing (see MorphologicalInterpolation.h
// for the method). Inputs are one-frame label sets of depth 1 holding only 0 and 1, at least
// one 1 each, on the same grid. Outputs: the set "Interpolated" with "numInterpolations"
// frames from the first mask to the second, and with "outputDebug" the sets "Intersection",
// "Sequence Inter->1", "Sequence Inter->2" and "Sequence 1->2" in front of it.
#include <Eigen/Core>
#include <memory>

#include "Algorithm.h"
#include "EigenFwd.h"
#include "Parameter.h"

namespace Merivane {

class SharedImage;
class SharedImageSet;

class MorphologicalInterpolationAlgorithm : public Algorithm {
 public:
  // The two masks moved halfway towards each other, their AND, and the displacement from the
  // first mask's centre of mass to the second's in millimetres.
  struct InitialIntersection {
    std::shared_ptr<SharedImage> first, second, intersection;
    Vec3d displacement;
  };

  MorphologicalInterpolationAlgorithm(SharedImageSet* first, SharedImageSet* second);
  ~MorphologicalInterpolationAlgorithm() override;
  // Exactly two image sets of modality LABEL, each a single 2D image of depth 1.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  OwningDataList takeOutput() override;

  // A copy of `image` resampled onto `reference`'s grid after a translation of its matrix:
  // the content moves by -displacement (millimetres, in the image's own axes). The image's
  // matrix is left as it was.
  static std::shared_ptr<SharedImage> applyDisplacement(std::shared_ptr<SharedImage> image, Vec3d displacement,
                                                        SharedImageSet* reference);
  // Null members on masks that are not binary, empty or of different grids.
  InitialIntersection computeInitialIntersection(const SharedImage& first, const SharedImage& second) const;
  // The "Interpolated" set for two masks; null on bad masks.
  std::unique_ptr<SharedImageSet> interpolate(const SharedImage& first, const SharedImage& second);

  // Shapes produced between the two masks; below 1 nothing is computed.
  Parameter<int> numInterpolations{"numInterpolations", 1, this};
  // Radius in pixels of the disc of each dilation step.
  Parameter<int> morphoKernelSize{"morphoKernelSize", 3, this, ParameterRange{1, 65534}};
  Parameter<bool> outputDebug{"outputDebug", false, this};

 private:
  SharedImageSet* first_;
  SharedImageSet* second_;
  OwningDataList output_;
};

}  // namespace Merivane
