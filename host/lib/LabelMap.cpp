#include "LabelMap.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <chrono>
#include <ctime>

#include "ImageComponents.h"
#include "ImageProcessing.h"
#include "SharedImageSet.h"

namespace Merivane::Seg {

LabelMapCompatibility isCompatibleLabelMap(const SharedImageSet& image, const SharedImageSet& labelMap,
                                           bool lenient) {
  using C = LabelMapCompatibility;
  if (!lenient && labelMap.modality() != Data::LABEL) return C::NotLabelModality;
  if (!lenient && labelMap.size() != image.size()) return C::FrameCountDiffers;
  const int n = std::min(image.size(), labelMap.size());
  for (int i = 0; i < n; ++i)
    if (labelMap.img(i)->type() != U8) return C::NotU8;
  for (int i = 0; i < n; ++i)
    if (labelMap.img(i)->channels() != 1) return C::NotOneChannel;
  for (int i = 0; i < n; ++i)
    if (!image.img(i)->compatible(*labelMap.img(i), true, false, true)) return C::GridDiffers;
  if (!lenient)
    for (int i = 0; i < n; ++i)
      if (image.img(i)->spacing() != labelMap.img(i)->spacing()) return C::SpacingDiffers;
  return C::Compatible;
}

std::unique_ptr<SharedImageSet> createCompatibleLabelMap(const SharedImageSet& image) {
  auto labelMap = std::make_unique<SharedImageSet>();
  ensureCompatibleLabelMap(image, *labelMap);
  return labelMap;
}

namespace {

std::string today() {
  std::time_t t = std::time(nullptr);
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[16];
  std::strftime(buf, sizeof buf, "%Y%m%d", &tm);
  return buf;
}

}  // namespace

void ensureCompatibleLabelMap(const SharedImageSet& image, SharedImageSet& labelMap) {
  // 1. Row order of 2D ultrasound frames.
  bool imageTopDown = false, labelTopDown = false;
  image.properties().param("topDown", imageTopDown);
  labelMap.properties().param("topDown", labelTopDown);
  const SharedImage* focus = image.get(-1);
  if (imageTopDown != labelTopDown && image.modality() == Data::ULTRASOUND && focus && focus->descriptor().is2D()) {
    for (int i = 0; i < labelMap.size(); ++i) {
      SharedImage* frame = labelMap.get(i);
      auto flipped = ImageProcessing::computeFlipped(*frame->mem(), 1);
      if (!flipped) continue;
      frame->update(*flipped);
      frame->setDirtyMem();
    }
  }
  labelMap.properties().setParam("topDown", imageTopDown);

  // 2. Frame count.
  while (labelMap.size() > image.size()) labelMap.remove(labelMap.size() - 1);
  for (int i = labelMap.size(); i < image.size(); ++i) {
    const ImageDescriptor& d = image.get(i)->descriptor();
    ImageDescriptor ld(U8, d.dimensions, 1);
    ld.spacing = d.spacing;
    ld.isMetric = d.isMetric;
    auto frame = std::make_shared<SharedImage>(ld);
    frame->setMatrix(image.get(i)->matrix());
    labelMap.add(std::move(frame));
  }

  // 3, 4. Modality, geometry.
  labelMap.setModality(Data::LABEL);
  for (int i = 0; i < labelMap.size(); ++i) {
    const SharedImage* src = image.get(i);
    SharedImage* dst = labelMap.get(i);
    dst->setSpacing(src->descriptor().spacing, src->descriptor().isMetric);
    dst->setMatrix(src->matrix());
  }

  // 5. Patient information follows the image.
  if (auto* info = image.components().get<ImageInfoDataComponent>()) {
    auto* target = labelMap.components().getOrCreate<ImageInfoDataComponent>();
    const std::string date = today();
    *target = *info;
    target->date = date;
  }
}

namespace {

struct WorldBox {
  std::array<double, 3> min, max;
};

WorldBox worldBox(const SharedImage& frame) {
  const Eigen::Vector3i d = frame.descriptor().dimensions;
  WorldBox box{};
  for (int corner = 0; corner < 8; ++corner) {
    const Eigen::Vector3d v((corner & 1) ? d[0] - 0.5 : -0.5, (corner & 2) ? d[1] - 0.5 : -0.5,
                            (corner & 4) ? d[2] - 0.5 : -0.5);
    const Eigen::Vector3d w = frame.pixelToWorld(v);
    for (int k = 0; k < 3; ++k) {
      box.min[k] = corner ? std::min(box.min[k], w[k]) : w[k];
      box.max[k] = corner ? std::max(box.max[k], w[k]) : w[k];
    }
  }
  return box;
}

std::string extent(const WorldBox& b) {
  std::ostringstream s;
  s.precision(4);
  s << "x " << b.min[0] << ".." << b.max[0] << ", y " << b.min[1] << ".." << b.max[1] << ", z " << b.min[2] << ".."
    << b.max[2] << " mm";
  return s.str();
}

}  // namespace

bool overlapsInWorld(const SharedImage& image, const SharedImage& labels) {
  const WorldBox a = worldBox(image), b = worldBox(labels);
  for (int k = 0; k < 3; ++k) {
    // Boxes that only touch share no voxel; a thousandth of a voxel absorbs rounding.
    const double slack = 1e-3 * std::max(a.max[k] - a.min[k], b.max[k] - b.min[k]) /
                         std::max(1, image.descriptor().dimensions[k]);
    if (std::min(a.max[k], b.max[k]) - std::max(a.min[k], b.min[k]) <= slack) return false;
  }
  return true;
}

std::string describeWorldExtents(const SharedImage& image, const SharedImage& labels) {
  return "label map spans " + extent(worldBox(labels)) + ", the image " + extent(worldBox(image));
}

}  // namespace Merivane::Seg
