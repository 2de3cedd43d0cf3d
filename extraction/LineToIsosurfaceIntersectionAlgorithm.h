#pragma once
// Walks along a line through a volume in steps of one pixel and reports where the intensity
// first crosses a threshold for "minConsecutiveVoxels" steps in a row: for example where a
// ray from inside the body meets air. The result is the last point before that run.
//
// The line is kept in pixel coordinates. A start outside the volume moves to where the line
// enters it. A line whose start already meets the condition finds nothing.
#include <Eigen/Core>
#include <array>
#include <memory>
#include <optional>
#include <utility>

#include "Algorithm.h"
#include "Parameter.h"
#include "PropertiesCodec.h"

namespace Merivane {

class SharedImageSet;
namespace Geometry {
class LineBase;
}

namespace LineToIsosurface {
// AboveThenBelow: a step meets the condition when its value is below "threshold";
// BelowThenAbove: when it is above.
enum ThresholdingMode : int { AboveThenBelow = 0, BelowThenAbove = 1 };
}  // namespace LineToIsosurface

namespace PropertiesDetail {
template <>
struct EnumText<LineToIsosurface::ThresholdingMode> {
  static constexpr std::array<std::pair<LineToIsosurface::ThresholdingMode, const char*>, 2> entries{
      {{LineToIsosurface::AboveThenBelow, "AboveThenBelow"}, {LineToIsosurface::BelowThenAbove, "BelowThenAbove"}}};
};
}  // namespace PropertiesDetail

class LineToIsosurfaceIntersectionAlgorithm : public Algorithm {
 public:
  using ThresholdingMode = LineToIsosurface::ThresholdingMode;
  static constexpr ThresholdingMode AboveThenBelow = LineToIsosurface::AboveThenBelow;
  static constexpr ThresholdingMode BelowThenAbove = LineToIsosurface::BelowThenAbove;

  explicit LineToIsosurfaceIntersectionAlgorithm(SharedImageSet& image);
  ~LineToIsosurfaceIntersectionAlgorithm() override;

  // One CT image set, a volume set tried before a volume. A point set of at least two points
  // may follow: its first two points, in world coordinates, become the line.
  static bool createCompatible(const DataList& data, Algorithm** out = nullptr);

  void setLineInPixelCoordinates(const Geometry::LineBase& line);
  // Maps the line into the focused frame's pixel coordinates.
  void setLineInWorldCoordinates(const Geometry::LineBase& line);

  void compute() override;
  // The intersection in world coordinates as the point set "Intersection"; empty without one.
  OwningDataList takeOutput() override;

  std::optional<Eigen::Vector3d> getIntersectionInPixelCoordinates() const { return intersection_; }
  std::optional<Eigen::Vector3d> getIntersectionInWorldCoordinates() const;
  // (z, atan2(y, x)) of the world point.
  std::optional<std::pair<double, double>> getIntersectionCylindricalCoordinates() const;

  Parameter<unsigned int> minConsecutiveVoxels{"minConsecutiveVoxels", 1u, this, ParameterRange::atLeast(1)};
  Parameter<double> threshold{"threshold", -950.0, this};  // original intensity units
  Parameter<ThresholdingMode> thresholdingMode{"thresholdingMode", AboveThenBelow, this};

 private:
  SharedImageSet* image_;
  std::unique_ptr<Geometry::LineBase> line_;
  std::optional<Eigen::Vector3d> intersection_;
};

}  // namespace Merivane
