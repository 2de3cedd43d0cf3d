#include "ReplaceValuesAlgorithm.h"

#include <algorithm>
#include <limits>

#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane {

ReplaceValuesAlgorithm::ReplaceValuesAlgorithm(SharedImageSet* image) : image_(image) {}

bool ReplaceValuesAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  SharedImageSet* set = data.getImage();
  if (data.size() != 1 || !set || set->empty()) return false;
  if (algorithm) *algorithm = new ReplaceValuesAlgorithm(set);
  return true;
}

void ReplaceValuesAlgorithm::setReplaceValues(std::vector<std::pair<double, double>> oldToNew,
                                              std::optional<double> otherValue) {
  replace_ = std::move(oldToNew);
  other_ = otherValue;
}

void ReplaceValuesAlgorithm::compute() {
  if (!image_ || image_->empty()) {
    LOG_ERROR("ReplaceValuesAlgorithm", "No image to replace values in.");
    setStatus(statusInvalidInput);
    return;
  }
  for (int f = 0; f < image_->size(); ++f) {
    MemImage* mem = image_->mem(f);
    if (!mem) {
      LOG_ERROR("ReplaceValuesAlgorithm", "Frame " << f << " has no memory copy.");
      setStatus(statusError);
      return;
    }
    dispatchPixelType(mem->type(), [&](auto tag) {
      using T = decltype(tag);
      auto clampTo = [](double v) {
        return static_cast<T>(std::clamp<double>(v, static_cast<double>(std::numeric_limits<T>::lowest()),
                                                 static_cast<double>(std::numeric_limits<T>::max())));
      };
      T* p = static_cast<T*>(mem->data());
      const long n = static_cast<long>(mem->descriptor().elementCount());
#pragma omp parallel for schedule(static) if (n > (1 << 16))
      for (long i = 0; i < n; ++i) {
        const double v = static_cast<double>(p[i]);
        bool done = false;
        for (const auto& [from, to] : replace_)
          if (v == from) {
            p[i] = clampTo(to);
            done = true;
            break;
          }
        if (!done && other_) p[i] = clampTo(*other_);
      }
    });
    image_->get(f)->setDirtyMem();
  }
  setStatus(statusSuccess);
}

}  // namespace Merivane
