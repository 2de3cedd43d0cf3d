#pragma once
// Selects the part of an image that lies under an outline drawn on a view: the voxels whose
// centres project into a closed polygon in the view's pixels. The selection therefore runs
// through the whole depth of the view, as a prism for an orthographic view (a cone for a
// perspective one). compute() sets the selection as the mask of every frame of the image;
// addSelectionMask does it for one frame.
#include <Eigen/Core>
#include <memory>
#include <vector>

#include "Algorithm.h"

namespace Merivane {

class ExplicitMask;
class SharedImage;
class SharedImageSet;

class VolumeFreeformCroppingAlgorithm : public Algorithm {
 public:
  explicit VolumeFreeformCroppingAlgorithm(SharedImageSet* image);

  // The outline in viewport pixels, closed from the last point to the first, and the
  // homogeneous map from world positions to (pixel x, pixel y, depth, w) of the same view.
  void setOutline(std::vector<Eigen::Vector2d> polygon, const Eigen::Matrix4d& worldToViewport);

  // The voxels of `image` inside the outline as a U8 mask (255 inside), set on the image with
  // SharedImage::setMask. False, and the image's mask unchanged, for an outline of fewer than
  // three points.
  bool addSelectionMask(SharedImage& image) const;
  std::unique_ptr<ExplicitMask> selectionMask(const SharedImage& image) const;

  void compute() override;

 private:
  SharedImageSet* image_;
  std::vector<Eigen::Vector2d> polygon_;
  Eigen::Matrix4d worldToViewport_ = Eigen::Matrix4d::Identity();
};

}  // namespace Merivane
