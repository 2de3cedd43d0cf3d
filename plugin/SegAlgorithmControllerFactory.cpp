#include "SegAlgorithmControllerFactory.h"

#include "CenterlineExtractionAlgorithm.h"
#include "CenterlineExtractionController.h"
#include "ConvolutionalCRFAlgorithm.h"
#include "DefaultAlgorithmController.h"
#include "LabelMapInterpolationAlgorithm.h"
#include "MorphologicalInterpolationAlgorithm.h"
#include "DoseComputationAlgorithm.h"
#include "FiducialExtractionAlgorithm.h"
#include "FiducialExtractionController.h"
#include "GraphBasedSegmentation.h"
#include "HessianAnalysisAlgorithm.h"
#include "HistogramIntensityClusteringAlgorithm.h"
#include "IntensityClusteringAlgorithm.h"
#include "GraphBasedSegmentationController.h"
#include "InteractiveSegmentationAlgorithm.h"
#include "InteractiveSegmentationController.h"
#include "LabelMapIsolineRenderer.h"
#include "LabelMapIsolineRendererController.h"
#include "LabelMapToContoursAlgorithm.h"
#include "LabelStatisticsAlgorithm.h"
#include "LabelStatisticsController.h"
#include "LabelToMeshAlgorithm.h"
#include "LabelingAlgorithm.h"
#include "LabelingController.h"
#include "LineToIsosurfaceIntersectionAlgorithm.h"
#include "LineToIsosurfaceIntersectionController.h"
#include "MarkAsLabelMapAlgorithm.h"
#include "SkinSegmentationAlgorithm.h"
#include "WatershedSegmentationAlgorithm.h"

namespace Merivane {

SegAlgorithmControllerFactory::SegAlgorithmControllerFactory() : AlgorithmControllerFactory("Seg", false) {}

namespace {

template <typename T>
bool is(Algorithm* a) {
  return dynamic_cast<T*>(a) != nullptr;
}

}  // namespace

AlgorithmController* SegAlgorithmControllerFactory::create(Algorithm* algorithm) const {
  if (!algorithm) return nullptr;
  // Rows in table order; the first class that matches wins. Rows whose algorithm or panel
  // does not exist yet are left out, and the host then offers its generated panel.
  // Both interactive segmentations derive from the graph-based one and stand before it; the
  // watershed variant derives from the random-walk one and gets the same panel.
  if (auto* centerline = dynamic_cast<CenterlineExtractionAlgorithm*>(algorithm))
    return new CenterlineExtractionController(centerline);
  if (is<DoseComputationAlgorithm>(algorithm)) return new DefaultAlgorithmController(algorithm, "", false, false);
  if (auto* fiducials = dynamic_cast<FiducialExtractionAlgorithm*>(algorithm))
    return new FiducialExtractionController(fiducials);
  if (is<HessianAnalysisAlgorithm>(algorithm)) return new DefaultAlgorithmController(algorithm, "", false, false);
  if (is<HistogramIntensityClusteringAlgorithm>(algorithm))
    return new DefaultAlgorithmController(algorithm, "", false, false);
  if (is<IntensityClusteringAlgorithm>(algorithm)) return new DefaultAlgorithmController(algorithm, "", false, false);
  if (auto* interactive = dynamic_cast<InteractiveSegmentationAlgorithm*>(algorithm))
    return new InteractiveSegmentationController(interactive);
  if (auto* labeling = dynamic_cast<LabelingAlgorithm*>(algorithm)) return new LabelingController(labeling);
  if (is<LabelToMeshAlgorithm>(algorithm)) return new DefaultAlgorithmController(algorithm, "", true, false);
  if (auto* statistics = dynamic_cast<LabelStatisticsAlgorithm*>(algorithm))
    return new LabelStatisticsController(statistics);
  if (is<MarkAsLabelMapAlgorithm>(algorithm)) return new DefaultAlgorithmController(algorithm, "", true, true);
  if (is<WatershedSegmentationAlgorithm>(algorithm)) return new DefaultAlgorithmController(algorithm, "", false, true);
  if (is<SkinSegmentationAlgorithm>(algorithm)) return new DefaultAlgorithmController(algorithm, "", false, false);
  if (auto* isolines = dynamic_cast<LabelMapIsolineRenderer*>(algorithm))
    return new LabelMapIsolineRendererController(isolines);
  if (auto* line = dynamic_cast<LineToIsosurfaceIntersectionAlgorithm*>(algorithm))
    return new LineToIsosurfaceIntersectionController(line);
  if (is<MorphologicalInterpolationAlgorithm>(algorithm))
    return new DefaultAlgorithmController(algorithm, "", false, false);
  if (is<LabelMapInterpolationAlgorithm>(algorithm)) return new DefaultAlgorithmController(algorithm, "", false, false);
  if (auto* graph = dynamic_cast<GraphBasedSegmentation*>(algorithm))
    return new GraphBasedSegmentationController(graph);
  if (is<LabelMapToContoursAlgorithm>(algorithm)) return new DefaultAlgorithmController(algorithm, "", false, false);
  if (is<ConvolutionalCRFAlgorithm>(algorithm)) return new DefaultAlgorithmController(algorithm, "", true, false);
  return nullptr;
}

}  // namespace Merivane
