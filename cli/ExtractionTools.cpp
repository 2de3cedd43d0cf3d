#include "ExtractionTools.h"

#include "AlgorithmFactory.h"
#include "BrainVesselSegmentationAlgorithm.h"
#include "FactoryRegistry.h"
#include "HessianAnalysisAlgorithm.h"

namespace Merivane::Cli {

namespace {

class ExtractionToolsFactory : public AlgorithmFactory {
 public:
  ExtractionToolsFactory() : AlgorithmFactory("Seg", true) {
    registerAlgorithm<HessianAnalysisAlgorithm>("HessianAnalysis", "Tools;Hessian Analysis");
    registerAlgorithm<BrainVesselSegmentationAlgorithm>("BrainVesselSegmentation", "Tools;Brain Vessel Segmentation");
  }
};

}  // namespace

void registerExtractionTools() {
  // Lives until the program ends, after every use of the registry.
  static ExtractionToolsFactory factory;
  FactoryRegistry::get().addAlgorithmFactory(&factory);
}

}  // namespace Merivane::Cli
