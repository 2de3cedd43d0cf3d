#include "VolumeFreeformCroppingAlgorithm.h"

#include <Eigen/Geometry>

#include "Log.h"
#include "Mask.h"
#include "PolygonRegion.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "VolumeFreeformCroppingAlgorithm";
}

VolumeFreeformCroppingAlgorithm::VolumeFreeformCroppingAlgorithm(SharedImageSet* image) : image_(image) {}

void VolumeFreeformCroppingAlgorithm::setOutline(std::vector<Eigen::Vector2d> polygon,
                                                 const Eigen::Matrix4d& worldToViewport) {
  polygon_ = std::move(polygon);
  worldToViewport_ = worldToViewport;
}

std::unique_ptr<ExplicitMask> VolumeFreeformCroppingAlgorithm::selectionMask(const SharedImage& image) const {
  const PolygonRegion region(polygon_);
  if (region.empty()) return nullptr;
  const Eigen::Vector3i dims = image.descriptor().dimensions;
  auto mask = std::make_unique<ExplicitMask>(dims);
  unsigned char* out = mask->maskImageTyped().pointer();
  // Voxel to viewport in one matrix: pixel index -> world -> (x w, y w, depth w, w).
  Eigen::Matrix4d pixelToWorld = Eigen::Matrix4d::Identity();
  const Eigen::Vector3d origin = image.pixelToWorld(Eigen::Vector3d::Zero());
  for (int i = 0; i < 3; ++i) pixelToWorld.block<3, 1>(0, i) = image.pixelToWorld(Eigen::Vector3d::Unit(i)) - origin;
  pixelToWorld.block<3, 1>(0, 3) = origin;
  const Eigen::Matrix4d m = worldToViewport_ * pixelToWorld;
  // Each z writes only its own slice of the mask.
#pragma omp parallel for schedule(static) if (dims[2] >= 9)
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) {
        const Eigen::Vector4d h = m * Eigen::Vector4d(x, y, z, 1.0);
        const bool in = h[3] != 0 && region.contains(h.head<2>() / h[3]);
        out[(static_cast<size_t>(z) * dims[1] + y) * dims[0] + x] = in ? 255 : 0;
      }
  return mask;
}

bool VolumeFreeformCroppingAlgorithm::addSelectionMask(SharedImage& image) const {
  std::unique_ptr<ExplicitMask> mask = selectionMask(image);
  if (!mask) return false;
  image.setMask(std::shared_ptr<Mask>(std::move(mask)));
  return true;
}

void VolumeFreeformCroppingAlgorithm::compute() {
  if (!image_ || image_->empty()) {
    LOG_ERROR(kCategory, "No image to select from.");
    setStatus(statusInvalidInput);
    return;
  }
  if (PolygonRegion(polygon_).empty()) {
    LOG_ERROR(kCategory, "The outline needs at least three distinct points, not " << polygon_.size());
    setStatus(statusInvalidInput);
    return;
  }
  for (int f = 0; f < image_->size(); ++f) addSelectionMask(*image_->get(f));
  setStatus(statusSuccess);
}

}  // namespace Merivane
