#include "SegAlgorithmFactory.h"

#include "MakeCompatibleLabelMapAlgorithm.h"
#include "MarkAsLabelMapAlgorithm.h"
#include "WatershedSegmentationAlgorithm.h"

namespace Merivane {

SegAlgorithmFactory::SegAlgorithmFactory() : AlgorithmFactory("Seg", true) {
  // Rows in table order; a row stands here once its class exists.
  registerAlgorithm<MakeCompatibleLabelMapAlgorithm>("MakeCompatibleLabelMap",
                                                     "Segmentation;Make Compatible Label Map");
  registerAlgorithm<MarkAsLabelMapAlgorithm>("MarkAsLabelMap", "Segmentation;Mark as Label Map");
  registerAlgorithm<WatershedSegmentationAlgorithm>("WatershedSegmentation", "Segmentation;Watershed Segmentation");
}

}  // namespace Merivane
