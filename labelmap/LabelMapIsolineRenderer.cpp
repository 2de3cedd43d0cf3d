#include "LabelMapIsolineRenderer.h"

#include "GlLabelRenderer.h"
#include "LabelDataComponent.h"
#include "SharedImage.h"
#include "SharedImageSet.h"

namespace Merivane {

LabelMapIsolineRenderer::LabelMapIsolineRenderer(SharedImageSet* labelMap) : labelMap_(labelMap) {
  renderer_ = std::make_unique<GlIsolineRenderer>(labelMap_ ? labelMap_->get() : nullptr);
  if (!labelMap_) return;
  ldc_ = labelMap_->components().getOrCreate<LabelDataComponent>(labelMap_);
  if (ldc_->labelConfigs().empty()) ldc_->detectLabels(*labelMap_);
  renderer_->setColors(getColormapFromLDC(ldc_));
  ldc_->changed.connect(this, [this] { renderer_->setColors(getColormapFromLDC(ldc_)); });
  setStatus(statusSuccess);
}

LabelMapIsolineRenderer::~LabelMapIsolineRenderer() = default;

bool LabelMapIsolineRenderer::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 1) return false;
  SharedImageSet* set = data[0]->asImageSet();
  if (!set || set->size() != 1 || set->modality() != Data::LABEL || !set->get() ||
      set->get()->descriptor().pixelType != U8)
    return false;
  if (algorithm) *algorithm = new LabelMapIsolineRenderer(set);
  return true;
}

std::vector<Eigen::Vector4f> LabelMapIsolineRenderer::getColormapFromLDC(LabelDataComponent* ldc) {
  std::vector<Eigen::Vector4f> colors;
  if (!ldc) return colors;
  auto map = ldc->colormap2d();
  if (!map) return colors;
  for (int i = 0; i < map->width(); ++i) {
    Eigen::Vector4f c;
    for (int k = 0; k < 4; ++k) c[k] = map->value(i, 0, 0, k) / 255.0f;
    colors.push_back(c);
  }
  return colors;
}

}  // namespace Merivane
