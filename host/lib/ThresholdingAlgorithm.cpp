#include "ThresholdingAlgorithm.h"

#include "Image.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "ThresholdingAlgorithm";
}

ThresholdingAlgorithm::ThresholdingAlgorithm(SharedImageSet* image) : image_(image) {}
ThresholdingAlgorithm::~ThresholdingAlgorithm() = default;

bool ThresholdingAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  SharedImageSet* set = data.size() == 1 && data[0] ? data[0]->asImageSet() : nullptr;
  if (!set || set->empty()) return false;
  if (algorithm) *algorithm = new ThresholdingAlgorithm(set);
  return true;
}

void ThresholdingAlgorithm::compute() {
  setStatus(statusUnknown);
  output_.reset();
  if (mode != Lower && mode != Interval) {
    LOG_ERROR(kCategory, "Unknown thresholding mode " << mode.value() << ".");
    setStatus(statusInvalidInput);
    return;
  }
  const double lo = lowerThreshold, hi = upperThreshold;
  const bool interval = mode == Interval, inside = insideInterval;
  std::vector<std::shared_ptr<SharedImage>> frames;
  for (int f = 0; f < image_->size(); ++f) {
    const MemImage* mem = image_->mem(f);
    if (!mem || mem->type() == F16) {
      LOG_ERROR(kCategory, "Frame " << f << " has no memory copy of a known pixel type.");
      setStatus(statusInvalidInput);
      return;
    }
    ImageDescriptor d(U8, mem->dimensions(), 1);
    d.spacing = mem->spacing();
    d.isMetric = mem->isMetric();
    auto mask = TypedImage<unsigned char>::create(d);
    unsigned char* o = mask->pointer();
    const long n = static_cast<long>(d.pixelCount());
    const int c = mem->channels();
    const double shift = mem->shift(), scale = mem->scale();
    dispatchPixelType(mem->type(), [&](auto tag) {
      using T = decltype(tag);
      const T* p = static_cast<const T*>(mem->data());
#pragma omp parallel for schedule(static) if (n > (1 << 16))
      for (long i = 0; i < n; ++i) {
        const double v = static_cast<double>(p[i * c]) / scale - shift;
        const bool hit = interval ? ((v >= lo && v < hi) == inside) : v >= lo;
        o[i] = hit ? 1 : 0;
      }
    });
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(mask)));
    frame->setMatrix(image_->get(f)->matrix());
    frames.push_back(std::move(frame));
  }
  if (createNew) {
    output_ = std::make_unique<SharedImageSet>();
    output_->add(frames);
    output_->setName(image_->name().empty() ? "Mask" : image_->name() + " mask");
  } else {
    for (int f = 0; f < image_->size(); ++f) image_->replace(f, frames[static_cast<size_t>(f)]);
  }
  setStatus(statusSuccess);
}

OwningDataList ThresholdingAlgorithm::takeOutput() {
  OwningDataList out;
  if (output_) out.add(std::move(output_));
  return out;
}

}  // namespace Merivane
