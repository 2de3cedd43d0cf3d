#pragma once
// Fills the unlabelled frames between labelled ones of a label map by morphological shape
// interpolation. A volume is taken as frames along each of its three axes in turn, a stack of
// 2D frames as it is. Along an axis, a frame is labelled when its interior (outermost rows and
// columns left out) holds a label pixel; in a volume such a pixel also needs a labelled one of
// its four in-plane neighbours, so that stray pixels of a cut through another axis's work do
// not count. Each gap between two labelled frames is subdivided: "numInterpolationsPerStep"
// frames are placed in it, evenly spread, each label present on both sides interpolated on its
// own (a pixel claimed by several labels takes the highest), and the smaller gaps that remain
// are filled the same way until none is left. The axes' results are merged by taking the
// highest label per voxel. Gaps run in parallel; each gap is filled by one thread from fixed
// inputs, so the result does not depend on the thread count.
//
// Output: a new label set named "Interpolation" with the input's frames, matrix and data
// components; the input is not changed.
#include <memory>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class SharedImageSet;

class LabelMapInterpolationAlgorithm : public Algorithm {
 public:
  explicit LabelMapInterpolationAlgorithm(SharedImageSet* labels);
  ~LabelMapInterpolationAlgorithm() override;
  // One set of modality LABEL whose frames are U8 with at most one channel: either one 3D
  // frame, or at least two 2D frames.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  OwningDataList takeOutput() override;

  // New frames placed in a gap at each subdivision.
  Parameter<int> numInterpolationsPerStep{"numInterpolationsPerStep", 1, this, ParameterRange{1, 65535}};
  // Radius in pixels of each dilation step of the shape growth.
  Parameter<int> morphoKernelSize{"morphoKernelSize", 3, this, ParameterRange{1, 65534}};

 private:
  SharedImageSet* labels_;
  std::unique_ptr<SharedImageSet> output_;
};

}  // namespace Merivane
