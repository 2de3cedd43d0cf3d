#pragma once
// The outer body surface of a CT or MR volume, without seeds.
//
// Passes: threshold the focus image (CT: -400; MR: two thirds of the mean stored value, in
// original units; or "threshold" when set), keep the largest connected object, close it with
// a ball of "closingKernelSize", and fill every pocket of background that does not reach a
// side of the image. Faces across the slice-stacking axis do not count as sides, so a
// channel that runs through every slice (an airway, a bowel loop cut at both ends) is filled.
// Optionally the work runs on a padded copy ("padding") or at a coarser spacing
// ("resampleSpacing"; the label map returns to the input's grid at the end).
// The result is a label map with the one label 1, "Skin", and with
// "applySubvoxelRefinement" also a point cloud "Subvoxel Segmentation" of surface points
// between voxels with their normals, found on the label map's gradient.
//
// Image matting is not part of this build: a positive "mattingKernelSize" leaves the label
// map binary and says so in one log line.
#include <memory>
#include <optional>

#include "Algorithm.h"
#include "ImageProcessing.h"
#include "Parameter.h"

namespace Merivane {

class PointCloud;
class SharedImageSet;

namespace PropertiesDetail {
template <>
struct EnumText<ImageProcessing::PaddingMode> {
  static constexpr std::array<std::pair<ImageProcessing::PaddingMode, const char*>, 3> entries{
      {{ImageProcessing::Zero, "Zero"}, {ImageProcessing::Clamp, "Clamp"}, {ImageProcessing::Extend, "Extend"}}};
};
}  // namespace PropertiesDetail

class SkinSegmentationAlgorithm : public Algorithm {
 public:
  explicit SkinSegmentationAlgorithm(SharedImageSet* image);
  ~SkinSegmentationAlgorithm() override;
  // Exactly one volume set of modality CT or MR.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  // The surface points of the current label map; does nothing without one.
  void refineSubvoxel();
  // The label map, then the point cloud when there is one.
  OwningDataList takeOutput() override;

  // The threshold of the last compute(), in original units.
  double usedThreshold() const { return usedThreshold_; }

  // Original intensity units; empty derives it from the image.
  Parameter<std::optional<double>> threshold{"threshold", std::nullopt, this};
  // Millimetres; above 0 the work runs with at least this spacing on every axis.
  Parameter<double> resampleSpacing{"resampleSpacing", 0.0, this, ParameterRange{0.0, 1e6}};
  Parameter<bool> padding{"padding", false, this};
  // Voxels added on each side of x and y, and of z for a volume of two slices or more.
  Parameter<int> paddingSize{"paddingSize", 2, this, ParameterRange{0, 4096}};
  Parameter<ImageProcessing::PaddingMode> paddingMode{"paddingMode", ImageProcessing::Extend, this};
  // Radius of the closing in voxels; 0 switches it off.
  Parameter<int> closingKernelSize{"closingKernelSize", 3, this, ParameterRange{0, 65534}};
  // 0 switches matting off.
  Parameter<int> mattingKernelSize{"mattingKernelSize", 11, this, ParameterRange{0, 65534}};
  Parameter<bool> applySubvoxelRefinement{"applySubvoxelRefinement", false, this};
  // Smallest gradient magnitude of an edge point, in label units per voxel.
  Parameter<double> subvoxelRefinementContrast{"subvoxelRefinementContrast", 0.1, this, ParameterRange{0.0, 1e6}};

 private:
  bool run();

  SharedImageSet* image_;
  std::unique_ptr<SharedImageSet> labels_;
  std::unique_ptr<PointCloud> pointCloud_;
  double usedThreshold_ = 0.0;
};

}  // namespace Merivane
