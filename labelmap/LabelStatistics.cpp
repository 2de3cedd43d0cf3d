#include "LabelStatistics.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <limits>
#include <map>

#include "ImageComponents.h"
#include "Progress.h"
#include "SharedImageSet.h"

namespace Merivane::Seg {

namespace {

constexpr size_t kBlock = 1 << 16;

// Running moments (Welford), merged with Chan's formula.
struct Acc {
  int64_t n = 0;
  double mean = 0, m2 = 0;
  double min = std::numeric_limits<double>::infinity();
  double max = -std::numeric_limits<double>::infinity();
  void add(double v) {
    ++n;
    const double d = v - mean;
    mean += d / static_cast<double>(n);
    m2 += d * (v - mean);
    min = std::min(min, v);
    max = std::max(max, v);
  }
  void merge(const Acc& o) {
    if (o.n == 0) return;
    if (n == 0) {
      *this = o;
      return;
    }
    const double total = static_cast<double>(n + o.n);
    const double d = o.mean - mean;
    mean += d * static_cast<double>(o.n) / total;
    m2 += o.m2 + d * d * static_cast<double>(n) * static_cast<double>(o.n) / total;
    n += o.n;
    min = std::min(min, o.min);
    max = std::max(max, o.max);
  }
};

// Reads value k of the image's first channel as a double, mapped as asked.
struct ValueReader {
  const MemImage* image;
  double slope = 1, intercept = 0;  // physical = stored * slope + intercept
  template <typename T>
  double at(size_t k) const {
    return static_cast<double>(static_cast<const T*>(image->data())[k * static_cast<size_t>(image->channels())]) * slope +
           intercept;
  }
};

LabelStatisticsMap measure(const MemImage& image, const MemImage* labels, const ValueReader& reader,
                           std::atomic<bool>& canceled, Progress::Task& task) {
  const size_t n = image.descriptor().pixelCount();
  const size_t blocks = (n + kBlock - 1) / kBlock;
  // Labels of a U8 map index an array; an image that is its own label map uses a sorted map.
  std::vector<std::map<int, Acc>> partial(blocks);
  dispatchPixelType(image.type(), [&](auto tag) {
    using T = decltype(tag);
    const unsigned char* lab = labels ? static_cast<const unsigned char*>(labels->data()) : nullptr;
    // Each block writes only its own entry of `partial`.
#pragma omp parallel for schedule(dynamic) if (blocks > 1)
    for (long long b = 0; b < static_cast<long long>(blocks); ++b) {
      if (canceled.load(std::memory_order_relaxed)) continue;
      const size_t begin = static_cast<size_t>(b) * kBlock, end = std::min(n, begin + kBlock);
      if (lab) {
        std::array<Acc, 256> acc{};
        for (size_t k = begin; k < end; ++k)
          if (lab[k]) acc[lab[k]].add(reader.at<T>(k));
        for (int l = 1; l < 256; ++l)
          if (acc[static_cast<size_t>(l)].n) partial[static_cast<size_t>(b)][l] = acc[static_cast<size_t>(l)];
      } else {
        auto& m = partial[static_cast<size_t>(b)];
        const T* p = static_cast<const T*>(image.data());
        for (size_t k = begin; k < end; ++k) {
          const double stored = static_cast<double>(p[k * static_cast<size_t>(image.channels())]);
          if (!std::isfinite(stored)) continue;
          const long label = std::lround(stored);
          if (label == 0 || label < std::numeric_limits<int>::min() || label > std::numeric_limits<int>::max()) continue;
          m[static_cast<int>(label)].add(reader.at<T>(k));
        }
      }
      task.incrementStep();
      if (task.wasCanceled()) canceled.store(true);
    }
  });
  std::map<int, Acc> total;
  for (const auto& m : partial)
    for (const auto& [label, acc] : m) total[label].merge(acc);
  LabelStatisticsMap out;
  for (const auto& [label, acc] : total) {
    LabelStatisticsRecord r;
    r.pixelCount = acc.n;
    if (acc.n > 0 && std::isfinite(acc.min)) {
      r.minimum = acc.min;
      r.maximum = acc.max;
      r.mean = acc.mean;
    }
    if (acc.n > 1 && std::isfinite(acc.m2)) r.standardDeviation = std::sqrt(std::max(0.0, acc.m2) / static_cast<double>(acc.n - 1));
    out.emplace(label, r);
  }
  return out;
}

}  // namespace

std::vector<LabelStatisticsMap> computeLabelStatistics(const SharedImageSet& image,
                                                       const std::vector<const SharedImageSet*>& labelMaps,
                                                       bool useRealWorldValues, int frame, Progress* progress) {
  std::vector<LabelStatisticsMap> result;
  const MemImage* img = image.mem(frame < 0 ? -1 : frame);
  if (!img) return result;
  ValueReader reader{img};
  reader.slope = 1.0 / img->scale();
  reader.intercept = -img->shift();
  if (useRealWorldValues) {
    if (const auto* rw = image.components().get<RealWorldMappingDataComponent>(); rw && !rw->getMappings().empty()) {
      reader.slope = rw->getMappings().front().slope;
      reader.intercept = rw->getMappings().front().intercept;
    }
  }
  const size_t blocks = (img->descriptor().pixelCount() + kBlock - 1) / kBlock;
  Progress::Task task(progress, static_cast<int>(blocks * std::max<size_t>(labelMaps.size(), 1)), "Computing label statistics");
  std::atomic<bool> canceled{false};
  for (const SharedImageSet* lm : labelMaps) {
    const MemImage* labels = lm ? lm->mem(-1) : nullptr;
    if (lm && (!labels || labels->type() != U8 || labels->dimensions() != img->dimensions() || labels->channels() != 1)) {
      result.emplace_back();
      continue;
    }
    result.push_back(measure(*img, labels, reader, canceled, task));
    if (canceled.load()) return {};
  }
  return result;
}

std::vector<LabelStatisticsMap> computeLabelStatisticsGPU(const SharedImageSet& image,
                                                          const std::vector<const SharedImageSet*>& labelMaps,
                                                          Progress* progress) {
  return computeLabelStatistics(image, labelMaps, false, -1, progress);
}

}  // namespace Merivane::Seg
