#pragma once
// Straight lines in three dimensions: the unbounded line through a point and the segment
// between two end points, and where either enters an axis-aligned box.
#include <Eigen/Core>
#include <memory>
#include <optional>

namespace Merivane::Geometry {

class LineBase {
 public:
  virtual ~LineBase();
  virtual std::unique_ptr<LineBase> clone() const = 0;
  // The start of a segment, the given point of a line.
  virtual Eigen::Vector3d point() const = 0;
  // Not normalised: a segment's direction runs from its start to its end.
  virtual Eigen::Vector3d direction() const = 0;
  // The segment's length; infinity for a line.
  virtual double length() const = 0;
};

class Line : public LineBase {
 public:
  Line(const Eigen::Vector3d& point, const Eigen::Vector3d& direction) : point_(point), direction_(direction) {}
  std::unique_ptr<LineBase> clone() const override { return std::make_unique<Line>(*this); }
  Eigen::Vector3d point() const override { return point_; }
  Eigen::Vector3d direction() const override { return direction_; }
  double length() const override;

 private:
  Eigen::Vector3d point_, direction_;
};

class LineSegment : public LineBase {
 public:
  LineSegment(const Eigen::Vector3d& start, const Eigen::Vector3d& end) : start_(start), end_(end) {}
  std::unique_ptr<LineBase> clone() const override { return std::make_unique<LineSegment>(*this); }
  Eigen::Vector3d point() const override { return start_; }
  Eigen::Vector3d direction() const override { return end_ - start_; }
  double length() const override { return (end_ - start_).norm(); }
  const Eigen::Vector3d& start() const { return start_; }
  const Eigen::Vector3d& end() const { return end_; }

 private:
  Eigen::Vector3d start_, end_;
};

// The point at which the line, walked along its direction, enters the closed box [lo, hi]:
// the first point of the line inside the box. Nothing when it misses the box or has no
// direction.
std::optional<Eigen::Vector3d> intersection(const Eigen::Vector3d& lo, const Eigen::Vector3d& hi, const Line& line);
// The same for the part of the segment between its ends.
std::optional<Eigen::Vector3d> intersection(const Eigen::Vector3d& lo, const Eigen::Vector3d& hi,
                                            const LineSegment& segment);

}  // namespace Merivane::Geometry
