#include "ImageComponents.h"

#include <omp.h>

#include <Eigen/Core>
#include <algorithm>
#include <cmath>
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

HistogramDataComponent& HistogramDataComponent::of(SharedImageSet& set) {
  auto* h = set.components().getOrCreate<HistogramDataComponent>(&set);
  h->owner_ = &set;
  return *h;
}

std::pair<double, double> HistogramDataComponent::minmax() const {
  if (!owner_ || owner_->size() == 0) return {0.0, 0.0};
  return minmaxOriginal(owner_->resolve(-1));
}

int HistogramDataComponent::maxNumBuckets(int frame) const {
  const MemImage* m = owner_ ? owner_->mem(frame) : nullptr;
  if (!m) return 0;
  int buckets = 0;
  dispatchPixelType(m->type(), [&](auto tag) {
    using T = decltype(tag);
    if constexpr (std::is_floating_point_v<T>) {
      buckets = 4096;
    } else if (auto* t = dynamic_cast<const TypedImage<T>*>(m)) {
      T a{}, b{};
      if (t->getRange(a, b)) {
        const double span = static_cast<double>(b) - static_cast<double>(a) + 1.0;
        buckets = static_cast<int>(std::min(span, 65536.0));
      }
    }
  });
  return buckets;
}

namespace {
// Per-thread counts merged in thread order; the counts are integers, so the sum does not
// depend on the thread count.
template <typename T>
std::vector<double> countBuckets(const T* data, size_t n, double shift, double scale, int buckets, double lo,
                                 double hi) {
  const double perValue = buckets / (hi - lo);
  const int threads = n < 65536 ? 1 : omp_get_max_threads();
  std::vector<std::vector<uint64_t>> partial(static_cast<size_t>(threads), std::vector<uint64_t>(buckets, 0));
#pragma omp parallel num_threads(threads)
  {
    std::vector<uint64_t>& mine = partial[static_cast<size_t>(omp_get_thread_num())];
#pragma omp for schedule(static)
    for (ptrdiff_t i = 0; i < static_cast<ptrdiff_t>(n); ++i) {
      const double v = static_cast<double>(data[i]) / scale - shift;
      if (!(v >= lo && v <= hi)) continue;  // also NaN
      const int b = std::min(static_cast<int>((v - lo) * perValue), buckets - 1);
      ++mine[static_cast<size_t>(b)];
    }
  }
  std::vector<double> out(static_cast<size_t>(buckets), 0.0);
  for (const auto& p : partial)
    for (int b = 0; b < buckets; ++b) out[static_cast<size_t>(b)] += static_cast<double>(p[static_cast<size_t>(b)]);
  return out;
}
}  // namespace

std::vector<double> HistogramDataComponent::derivedHistogram(int frame, int numBuckets, const Vec2d& range) const {
  const MemImage* m = owner_ ? owner_->mem(frame) : nullptr;
  const double lo = range[0], hi = range[1];
  if (!m || numBuckets < 1 || !std::isfinite(lo) || !std::isfinite(hi) || !(hi > lo)) return {};
  std::vector<double> out;
  dispatchPixelType(m->type(), [&](auto tag) {
    using T = decltype(tag);
    if (auto* t = dynamic_cast<const TypedImage<T>*>(m))
      out = countBuckets(t->pointer(), m->descriptor().elementCount(), m->shift(), m->scale(), numBuckets, lo, hi);
  });
  return out;
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
