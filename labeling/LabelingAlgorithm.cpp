#include "LabelingAlgorithm.h"

#include <algorithm>
#include <cmath>

#include "Image.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.LabelingAlgorithm";

// Rewrites a frame stored with a shift and scale as plain labels: v / scale - shift, rounded.
void toPlainLabels(SharedImage& frame) {
  MemImage* mem = frame.mem();
  if (!mem || mem->type() != U8) {
    LOG_WARN(kCategory, "label frame is not U8 in memory; left as it is");
    return;
  }
  const double scale = mem->scale(), shift = mem->shift();
  if (scale == 1.0 && shift == 0.0) return;
  auto* p = static_cast<uint8_t*>(mem->data());
  const size_t n = mem->descriptor().pixelCount() * static_cast<size_t>(mem->channels());
  uint8_t table[256];
  for (int v = 0; v < 256; ++v) {
    const double label = std::trunc(v / scale - shift + 0.5);
    table[v] = static_cast<uint8_t>(std::clamp(label, 0.0, 255.0));
  }
  for (size_t i = 0; i < n; ++i) p[i] = table[p[i]];
  frame.setShiftScale(0.0, 1.0);
  frame.setDirtyMem();
}

}  // namespace

LabelingAlgorithm::LabelingAlgorithm(SharedImageSet* image, SharedImageSet* labelMap,
                                     const std::map<int, int>* associations)
    : image_(image), labelMap_(labelMap) {
  if (associations) {
    associations_ = *associations;
    hasAssociations_ = true;
  }
  if (!labelMap_) return;
  bool converted = false;
  for (int i = 0; i < labelMap_->size(); ++i) {
    SharedImage* frame = labelMap_->get(i);
    if (!frame) continue;
    const ImageDescriptor& d = frame->descriptor();
    if (d.scale == 1.0 && d.shift == 0.0) continue;
    toPlainLabels(*frame);
    converted = true;
  }
  if (converted) labelMap_->setModality(Data::LABEL);
}

LabelingAlgorithm::~LabelingAlgorithm() = default;

bool LabelingAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  const auto sets = data.getImages();
  if (static_cast<int>(sets.size()) != data.size()) return false;
  if (sets.size() == 1) {
    if (sets[0]->empty()) return false;
    if (algorithm) *algorithm = new LabelingAlgorithm(sets[0]);
    return true;
  }
  if (sets.size() != 2) return false;
  SharedImageSet* image = sets[0];
  SharedImageSet* labels = sets[1];
  if (image->empty() || image->size() != labels->size() || labels->modality() != Data::LABEL) return false;
  for (int i = 0; i < image->size(); ++i) {
    const Image* a = image->img(i);
    const Image* b = labels->img(i);
    if (!a || !b || b->type() != U8 || !a->compatible(*b, true, false, true)) return false;
  }
  if (algorithm) *algorithm = new LabelingAlgorithm(image, labels);
  return true;
}

}  // namespace Merivane
