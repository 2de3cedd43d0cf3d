#pragma once
// The paint, run and accept workflow with the marker watershed in place of the random walk:
// the seeds flood the image's quantised intensities, and the region of the object label L
// becomes a hard 0/1 "probability" over the seeds' box, so that the outline, the accept, the
// statistics and the exports work as after a random-walk run. No solver runs, so the solver
// settings, the run lock and the warm start play no part.
#include "InteractiveSegmentationAlgorithm.h"

namespace Merivane {

class InteractiveSegmentationWatershedAlgorithm : public InteractiveSegmentationAlgorithm {
 public:
  InteractiveSegmentationWatershedAlgorithm(SharedImageSet& image, SharedImageSet* labels,
                                            SharedImageSet* priors = nullptr);
  ~InteractiveSegmentationWatershedAlgorithm() override;

  // The lists of InteractiveSegmentationAlgorithm.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  // Refused like the random-walk run (label map of another grid or type, status 2); a label
  // map without any marker is the watershed's own error (status 2). A map of object seeds
  // alone floods everything with the object.
  void compute() override;
};

}  // namespace Merivane
