#include "LabelingAlgorithm.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

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
  setLabelMap(labelMap);
}

void LabelingAlgorithm::setLabelMap(SharedImageSet* labelMap) {
  labelMap_ = labelMap;
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

std::vector<std::vector<double>> LabelingAlgorithm::statistics(const SharedImage& labelFrame,
                                                                const std::vector<int>& labels,
                                                                int imageFrame) const {
  const SharedImage* frame = image_ ? image_->get(imageFrame) : nullptr;
  const MemImage* img = frame ? frame->mem() : nullptr;
  const auto* lab = dynamic_cast<const TypedImage<uint8_t>*>(labelFrame.mem());
  if (!img || !lab || lab->channels() != 1 || img->dimensions() != lab->dimensions()) return {};
  struct Sums {
    int64_t count = 0;
    double mean = 0.0, m2 = 0.0, min = 0.0, max = 0.0;  // running mean and squared deviations
  };
  // One slot per label value; labels outside 0..255 stay empty.
  std::vector<Sums> sums(256);
  const uint8_t* l = lab->pointer();
  const size_t n = lab->descriptor().pixelCount();
  const int channels = img->channels();
  const ImageDescriptor& d = img->descriptor();
  dispatchPixelType(img->type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(img->data());
    // Serial and in voxel order, so that the sums do not depend on the thread count.
    for (size_t i = 0; i < n; ++i) {
      Sums& s = sums[l[i]];
      const double v = d.toPhysical(static_cast<double>(p[i * static_cast<size_t>(channels)]));
      if (s.count == 0) s.min = s.max = v;
      s.min = std::min(s.min, v);
      s.max = std::max(s.max, v);
      ++s.count;
      const double delta = v - s.mean;
      s.mean += delta / static_cast<double>(s.count);
      s.m2 += delta * (v - s.mean);
    }
  });
  const Eigen::Vector3d sp = frame->descriptor().spacing;
  const double pixelSize = sp[0] * sp[1] * sp[2];
  std::vector<std::vector<double>> out;
  for (int label : labels) {
    if (label < 0 || label > 255 || sums[static_cast<size_t>(label)].count == 0) {
      out.push_back({0.0, 0.0, 0.0, 0.0, 0.0});
      continue;
    }
    const Sums& s = sums[static_cast<size_t>(label)];
    const double count = static_cast<double>(s.count);
    const double variance = s.count > 1 ? s.m2 / (count - 1) : 0.0;
    out.push_back({count * pixelSize, s.mean, std::sqrt(variance), s.min, s.max});
  }
  return out;
}

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
