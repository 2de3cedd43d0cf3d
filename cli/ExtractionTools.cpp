#include "ExtractionTools.h"

#include "AlgorithmFactory.h"
#include "BrainVesselSegmentationAlgorithm.h"
#include "FactoryRegistry.h"
#include "GraphLaplacianAlgorithm.h"
#include "HessianAnalysisAlgorithm.h"
#include "MorphologicalInterpolationAlgorithm.h"

namespace Merivane::Cli {

namespace {

class ExtractionToolsFactory : public AlgorithmFactory {
 public:
  ExtractionToolsFactory() : AlgorithmFactory("Seg", true) {
    registerAlgorithm<HessianAnalysisAlgorithm>("HessianAnalysis", "Tools;Hessian Analysis");
    registerAlgorithm<BrainVesselSegmentationAlgorithm>("BrainVesselSegmentation", "Tools;Brain Vessel Segmentation");
    // The random walk over the pyramid without the crop and outline of GraphBasedSegmentation:
    // the way to its graph types (1 and 3 are the superpixel graphs) from the command line.
    registerAlgorithm<GraphLaplacianAlgorithm>("GraphLaplacian", "Tools;Random Walk");
    registerAlgorithm<MorphologicalInterpolationAlgorithm>("MorphologicalInterpolation",
                                                           "Tools;Morphological Interpolation");
  }
};

}  // namespace

void registerExtractionTools() {
  // Lives until the program ends, after every use of the registry.
  static ExtractionToolsFactory factory;
  FactoryRegistry::get().addAlgorithmFactory(&factory);
}

}  // namespace Merivane::Cli
