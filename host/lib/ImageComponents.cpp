#include "ImageComponents.h"

#include <algorithm>
#include <limits>

#include "Properties.h"
#include "SharedImageSet.h"

namespace Merivane {

std::pair<double, double> HistogramDataComponent::minmaxOriginal(int frame) const {
  const MemImage* m = owner_ ? owner_->mem(frame) : nullptr;
  if (!m) return {0.0, 0.0};
  double lo = 0, hi = 0;
  dispatchPixelType(m->type(), [&](auto tag) {
    using T = decltype(tag);
    if (auto* t = dynamic_cast<const TypedImage<T>*>(m)) {
      T a{}, b{};
      if (t->getRange(a, b)) {
        lo = m->descriptor().toPhysical(static_cast<double>(a));
        hi = m->descriptor().toPhysical(static_cast<double>(b));
      }
    }
  });
  if (lo > hi) std::swap(lo, hi);  // a negative scale turns the order round
  return {lo, hi};
}

std::pair<double, double> HistogramDataComponent::minmaxOriginal() const {
  if (!owner_ || owner_->size() == 0) return {0.0, 0.0};
  double lo = std::numeric_limits<double>::max(), hi = std::numeric_limits<double>::lowest();
  for (int i = 0; i < owner_->size(); ++i) {
    auto [a, b] = minmaxOriginal(i);
    lo = std::min(lo, a);
    hi = std::max(hi, b);
  }
  return {lo, hi};
}

void ImageInfoDataComponent::configure(const Properties* p) {
  if (!p) return;
  p->param("patientName", patientName);
  p->param("patientId", patientId);
  p->param("patientBirthDate", patientBirthDate);
  p->param("studyDescription", studyDescription);
  p->param("seriesDescription", seriesDescription);
  p->param("institution", institution);
  p->param("date", date);
}

void ImageInfoDataComponent::configuration(Properties* p) const {
  if (!p) return;
  p->setParam("patientName", patientName);
  p->setParam("patientId", patientId);
  p->setParam("patientBirthDate", patientBirthDate);
  p->setParam("studyDescription", studyDescription);
  p->setParam("seriesDescription", seriesDescription);
  p->setParam("institution", institution);
  p->setParam("date", date);
}

}  // namespace Merivane
