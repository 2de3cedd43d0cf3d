#pragma once
// Per-label measurement of an intensity image under label maps: pixel count, minimum,
// maximum, mean and sample standard deviation of the image values under each label value.
// Label value 0 is background and not measured. Values are physical (stored / scale - shift),
// or the image's first real-world mapping applied to the stored values when asked for.
// Work is cut into fixed blocks of pixels merged in block order, so the result does not
// depend on the number of threads.
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

namespace Merivane {
class Progress;
class SharedImageSet;
}  // namespace Merivane

namespace Merivane::Seg {

struct LabelStatisticsRecord {
  int64_t pixelCount = 0;
  std::optional<double> minimum;
  std::optional<double> maximum;
  std::optional<double> mean;
  std::optional<double> standardDeviation;  // needs two pixels
};

using LabelStatisticsMap = std::unordered_map<int, LabelStatisticsRecord>;

// One map per entry of `labelMaps`; a null entry measures the image under its own values.
// Each label map's focus frame must have the dimensions of the image's focus frame; the image
// is read from its first channel. Returns an empty vector when canceled through `progress`.
std::vector<LabelStatisticsMap> computeLabelStatistics(const SharedImageSet& image,
                                                       const std::vector<const SharedImageSet*>& labelMaps,
                                                       bool useRealWorldValues, int frame = 0,
                                                       Progress* progress = nullptr);
// The graphics path of the host; here it runs the same computation on the processor.
std::vector<LabelStatisticsMap> computeLabelStatisticsGPU(const SharedImageSet& image,
                                                          const std::vector<const SharedImageSet*>& labelMaps,
                                                          Progress* progress = nullptr);

}  // namespace Merivane::Seg
