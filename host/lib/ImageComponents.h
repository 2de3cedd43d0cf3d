#pragma once
// Components that image sets carry besides their labels.
#include <string>
#include <utility>
#include <vector>

#include "DataComponent.h"
#include "EigenFwd.h"

namespace Merivane {

class SharedImageSet;

// Value ranges and histograms of a set's frames, in original (physical) values.
class HistogramDataComponent : public DataComponent<HistogramDataComponent> {
 public:
  explicit HistogramDataComponent(const SharedImageSet* owner = nullptr) : owner_(owner) {}
  std::string id() const override { return "HistogramDataComponent"; }
  bool operator==(const HistogramDataComponent&) const { return true; }
  // The set's component, created on first use; a copy carried over by a clone of another set
  // is pointed at this one.
  static HistogramDataComponent& of(SharedImageSet& set);

  // Minimum and maximum of one frame, or of all frames, after shift and scale.
  std::pair<double, double> minmaxOriginal(int frame) const;
  std::pair<double, double> minmaxOriginal() const;
  // The range the histograms span: that of the frame in focus, after shift and scale.
  std::pair<double, double> minmax() const;
  // The finest useful bucket count of a frame: one bucket per stored value for integer
  // pixels (the stored range plus one, at most 65536), 4096 for floating-point pixels;
  // 0 for a missing frame.
  int maxNumBuckets(int frame) const;
  // Counts of the frame's elements (all channels) in `numBuckets` equal buckets over
  // [range[0], range[1]] of original values; the upper end falls into the last bucket, values
  // outside the range and NaN into none. Empty for a missing frame, numBuckets < 1 or a range
  // that is empty or not finite.
  std::vector<double> derivedHistogram(int frame, int numBuckets, const Vec2d& range) const;

 private:
  const SharedImageSet* owner_;
};

// Patient and study text fields.
class ImageInfoDataComponent : public DataComponent<ImageInfoDataComponent> {
 public:
  std::string id() const override { return "ImageInfoDataComponent"; }
  void configure(const Properties* properties) override;
  void configuration(Properties* properties) const override;
  bool operator==(const ImageInfoDataComponent&) const = default;

  std::string patientName;
  std::string patientId;
  std::string patientBirthDate;
  std::string studyDescription;
  std::string seriesDescription;
  std::string institution;
  std::string date;  // "%Y%m%d"
};

// Mappings from stored values to physical quantities.
class RealWorldMappingDataComponent : public DataComponent<RealWorldMappingDataComponent> {
 public:
  struct Mapping {
    std::string unit;
    double intercept = 0.0;
    double slope = 1.0;
    bool operator==(const Mapping&) const = default;
    double apply(double stored) const { return stored * slope + intercept; }
  };
  std::string id() const override { return "RealWorldMappingDataComponent"; }
  bool operator==(const RealWorldMappingDataComponent&) const = default;
  const std::vector<Mapping>& getMappings() const { return mappings_; }
  void setMappings(std::vector<Mapping> mappings) { mappings_ = std::move(mappings); }

 private:
  std::vector<Mapping> mappings_;
};

class DisplayOptions2d : public DataComponent<DisplayOptions2d> {
 public:
  std::string id() const override { return "DisplayOptions2d"; }
  bool operator==(const DisplayOptions2d&) const = default;
  double window = 0.0;
  double level = 0.0;
  double opacity = 1.0;
  bool visible = true;
};

class DisplayOptions3d : public DataComponent<DisplayOptions3d> {
 public:
  std::string id() const override { return "DisplayOptions3d"; }
  bool operator==(const DisplayOptions3d&) const = default;
  double window = 0.0;
  double level = 0.0;
  double opacity = 1.0;
  bool visible = true;
};

}  // namespace Merivane
