#include "MarkAsLabelMapAlgorithm.h"

#include <cstring>

#include "LabelDataComponent.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "Seg.MarkAsLabelMapAlgorithm";

bool accepts(const SharedImageSet* set) {
  if (!set || set->size() == 0 || set->modality() == Data::LABEL) return false;
  for (int i = 0; i < set->size(); ++i)
    if (set->img(i)->typeSize() != 1) return false;
  return true;
}
}  // namespace

MarkAsLabelMapAlgorithm::MarkAsLabelMapAlgorithm(std::vector<SharedImageSet*> images) : images_(std::move(images)) {}

bool MarkAsLabelMapAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  auto images = data.getImages();
  if (images.empty() || static_cast<int>(images.size()) != data.size()) return false;
  for (SharedImageSet* s : images)
    if (!accepts(s)) return false;
  if (algorithm) *algorithm = new MarkAsLabelMapAlgorithm(std::move(images));
  return true;
}

void MarkAsLabelMapAlgorithm::compute() {
  for (SharedImageSet* s : images_) {
    if (!accepts(s)) {
      LOG_ERROR(kCategory, "Input " << (s ? s->describe() : "null") << " is not a one-byte image");
      setStatus(statusInvalidInput);
      return;
    }
  }
  for (SharedImageSet* s : images_) {
    for (int i = 0; i < s->size(); ++i) {
      SharedImage* frame = s->get(i);
      if (frame->descriptor().pixelType == U8) continue;
      // Same bytes, read unsigned: -1 becomes 255.
      const MemImage& src = *frame->mem();
      ImageDescriptor d = src.descriptor();
      d.pixelType = U8;
      auto u8 = TypedImage<unsigned char>::create(d);
      std::memcpy(u8->pointer(), src.data(), d.byteSize());
      frame->update(*u8);
      frame->setDirtyMem();
    }
    auto* labels = s->components().getOrCreate<LabelDataComponent>(s);
    labels->setSourceModality(s->modality());
    s->setModality(Data::LABEL);
    labels->detectLabels(*s);
  }
  setStatus(statusSuccess);
  signalOutputChanged.emitSignal();
}

}  // namespace Merivane
