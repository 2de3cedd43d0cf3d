#include "SegAlgorithmFactory.h"

#include "CenterlineExtractionAlgorithm.h"
#include "ConvolutionalCRFAlgorithm.h"
#include "DoseComputationAlgorithm.h"
#include "GraphBasedSegmentation.h"
#include "HistogramIntensityClusteringAlgorithm.h"
#include "ContoursStorageComponent.h"
#include "DataComponent.h"
#include "FiducialExtractionAlgorithm.h"
#include "IntensityClusteringAlgorithm.h"
#include "InteractiveSegmentationAlgorithm.h"
#include "InteractiveSegmentationWatershedAlgorithm.h"
#include "LabelMapInterpolationAlgorithm.h"
#include "LabelMapIsolineRenderer.h"
#include "LabelMapToContoursAlgorithm.h"
#include "LabelStatisticsAlgorithm.h"
#include "LabelingAlgorithm.h"
#include "LineToIsosurfaceIntersectionAlgorithm.h"
#include "LabelToMeshAlgorithm.h"
#include "MakeCompatibleLabelMapAlgorithm.h"
#include "MarkAsLabelMapAlgorithm.h"
#include "SkinSegmentationAlgorithm.h"
#include "WatershedSegmentationAlgorithm.h"

namespace Merivane {

SegAlgorithmFactory::SegAlgorithmFactory() : AlgorithmFactory("Seg", true) {
  // Rows in table order; a row stands here once its class exists.
  registerAlgorithm<DoseComputationAlgorithm>("DoseComputation", "Segmentation;DoseComputation Algorithm",
                                              AlgorithmFactory::Descriptor::RequiresHost);
  registerAlgorithm<GraphBasedSegmentation>("GraphBasedSegmentation", "Segmentation;Graph-based Segmentation");
  registerAlgorithm<CenterlineExtractionAlgorithm>("CenterlineExtraction", "Segmentation;Centerline Extraction");
  registerAlgorithm<FiducialExtractionAlgorithm>("FiducialExtraction", "Segmentation;Fiducial Extraction");
  registerAlgorithm<HistogramIntensityClusteringAlgorithm>("HistogramIntensityClustering",
                                                         "Segmentation;Intensity Clustering (Histogram)");
  registerAlgorithm<IntensityClusteringAlgorithm>("IntensityClustering", "Segmentation;Intensity Clustering");
  registerAlgorithm<LabelToMeshAlgorithm>("LabelToMesh", "Segmentation;Extract Mesh");
  registerAlgorithm<InteractiveSegmentationAlgorithm>("InteractiveSegmentation", "Segmentation;Interactive Segmentation");
  registerAlgorithm<InteractiveSegmentationWatershedAlgorithm>("InteractiveSegmentationWatershed",
                                                               "Segmentation;Interactive Watershed Segmentation");
  registerAlgorithm<LabelingAlgorithm>("Labeling", "Segmentation;Labeling");
  registerAlgorithm<LabelStatisticsAlgorithm>("LabelStatistics", "Segmentation;Statistics");
  registerAlgorithm<MakeCompatibleLabelMapAlgorithm>("MakeCompatibleLabelMap",
                                                     "Segmentation;Make Compatible Label Map");
  registerAlgorithm<MarkAsLabelMapAlgorithm>("MarkAsLabelMap", "Segmentation;Mark as Label Map");
  registerAlgorithm<WatershedSegmentationAlgorithm>("WatershedSegmentation", "Segmentation;Watershed Segmentation");
  registerAlgorithm<LabelMapIsolineRenderer>("LabelMapIsolineRenderer", "Visualization;Show Label Map as Isolines");
  registerAlgorithm<LineToIsosurfaceIntersectionAlgorithm>("LineToIsosurfaceIntersection",
                                                           "Segmentation;Line To Isosurface Intersection");
  registerAlgorithm<LabelMapToContoursAlgorithm>("LabelMapToContours", "Segmentation;Label Map To Contours");
  registerAlgorithm<LabelMapInterpolationAlgorithm>("LabelMapInterpolation", "Segmentation;Segmentation Interpolation");
  registerAlgorithm<SkinSegmentationAlgorithm>("SkinSegmentation", "Segmentation;Extract Skin Surface");
  registerAlgorithm<ConvolutionalCRFAlgorithm>("ConvolutionalCRF", "Segmentation;Convolutional CRF");

  // The plug-in's one data component, restored by id when label maps are loaded.
  registeredContours_ = DataComponentFactory::get().registerComponent(
      "ContoursStorageComponent", [] { return std::make_unique<Seg::ContoursStorageComponent>(); });
}

SegAlgorithmFactory::~SegAlgorithmFactory() {
  if (registeredContours_) DataComponentFactory::get().unregisterComponent("ContoursStorageComponent");
}

}  // namespace Merivane
