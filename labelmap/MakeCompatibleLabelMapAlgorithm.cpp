#include "MakeCompatibleLabelMapAlgorithm.h"

#include <algorithm>
#include <cmath>

#include "LabelDataComponent.h"
#include "LabelMap.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "Seg.MakeCompatibleLabelMapAlgorithm";

// First channel, rounded and clamped to 0..255.
std::unique_ptr<TypedImage<unsigned char>> toLabelFrame(const MemImage& src) {
  ImageDescriptor d = src.descriptor();
  d.pixelType = U8;
  d.channels = 1;
  d.shift = 0.0;
  d.scale = 1.0;
  auto out = TypedImage<unsigned char>::create(d);
  unsigned char* o = out->pointer();
  const size_t n = d.pixelCount();
  const size_t c = static_cast<size_t>(src.channels());
  dispatchPixelType(src.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(src.data());
    for (size_t i = 0; i < n; ++i) {
      const double v = static_cast<double>(p[i * c]);
      o[i] = std::isfinite(v) ? static_cast<unsigned char>(std::clamp(std::lround(v), 0L, 255L)) : 0;
    }
  });
  return out;
}
}  // namespace

MakeCompatibleLabelMapAlgorithm::MakeCompatibleLabelMapAlgorithm(SharedImageSet* image, SharedImageSet* labelMap)
    : image_(image), labelMap_(labelMap) {}

bool MakeCompatibleLabelMapAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  auto images = data.getImages();
  if (images.empty() || images.size() > 2 || static_cast<int>(images.size()) != data.size()) return false;
  if (images[0]->size() == 0) return false;
  if (algorithm) *algorithm = new MakeCompatibleLabelMapAlgorithm(images[0], images.size() == 2 ? images[1] : nullptr);
  return true;
}

void MakeCompatibleLabelMapAlgorithm::compute() {
  output_.reset();
  if (!image_ || image_->size() == 0) {
    LOG_ERROR(kCategory, "No image given");
    setStatus(statusIncompleteInput);
    return;
  }
  if (!labelMap_) {
    output_ = Seg::createCompatibleLabelMap(*image_);
    output_->components().getOrCreate<LabelDataComponent>(output_.get());
    output_->setName(image_->name().empty() ? "Label Map" : image_->name() + " Label Map");
    setStatus(statusSuccess);
    return;
  }
  // Check everything before touching the label map.
  const int n = std::min(image_->size(), labelMap_->size());
  for (int i = 0; i < n; ++i) {
    if (image_->img(i)->dimensions() != labelMap_->img(i)->dimensions()) {
      const auto& a = image_->img(i)->dimensions();
      const auto& b = labelMap_->img(i)->dimensions();
      LOG_ERROR(kCategory, "Frame " << i << " of the label map is " << b[0] << "x" << b[1] << "x" << b[2]
                                    << " but the image is " << a[0] << "x" << a[1] << "x" << a[2]);
      setStatus(statusInvalidInput);
      return;
    }
  }
  for (int i = 0; i < labelMap_->size(); ++i) {
    SharedImage* frame = labelMap_->get(i);
    if (frame->descriptor().pixelType == U8 && frame->descriptor().channels == 1) continue;
    frame->update(*toLabelFrame(*frame->mem()));
    frame->setDirtyMem();
  }
  Seg::ensureCompatibleLabelMap(*image_, *labelMap_);
  labelMap_->components().getOrCreate<LabelDataComponent>(labelMap_)->detectLabels(*labelMap_);
  setStatus(statusSuccess);
  signalOutputChanged.emitSignal();
}

OwningDataList MakeCompatibleLabelMapAlgorithm::takeOutput() {
  OwningDataList out;
  if (output_) out.add(std::move(output_));
  return out;
}

}  // namespace Merivane
