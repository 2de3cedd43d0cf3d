#pragma once
// A rectangle in world space: the part of a plane that a slice view shows. `xAxis` points to
// the right of the screen, `yAxis` down, and the normal (x cross y) away from the viewer.
#include <Eigen/Core>
#include <Eigen/Geometry>  // cross
#include <optional>

namespace Merivane {

struct Line3 {
  Eigen::Vector3d point = Eigen::Vector3d::Zero();
  Eigen::Vector3d direction = Eigen::Vector3d::UnitX();  // unit length
};

class Slice {
 public:
  Slice() = default;
  Slice(const Eigen::Vector3d& center, const Eigen::Vector3d& xAxis, const Eigen::Vector3d& yAxis, double width,
        double height);

  const Eigen::Vector3d& center() const { return center_; }
  const Eigen::Vector3d& xAxis() const { return xAxis_; }
  const Eigen::Vector3d& yAxis() const { return yAxis_; }
  Eigen::Vector3d normal() const { return xAxis_.cross(yAxis_); }
  double width() const { return width_; }
  double height() const { return height_; }

  void setCenter(const Eigen::Vector3d& c) { center_ = c; }
  // Orthonormalises the axes (y is made perpendicular to x).
  void setAxes(const Eigen::Vector3d& xAxis, const Eigen::Vector3d& yAxis);
  void setExtent(double width, double height) {
    width_ = width;
    height_ = height;
  }

  // Corners in the order top left, top right, bottom right, bottom left (screen terms).
  Eigen::Vector3d corner(int i) const;
  // Signed distance of a point from the plane, along the normal.
  double distance(const Eigen::Vector3d& p) const { return normal().dot(p - center_); }
  Eigen::Vector3d projectOnPlane(const Eigen::Vector3d& p) const { return p - distance(p) * normal(); }

  // The line where the two planes meet; empty for parallel planes. The extents play no part.
  std::optional<Line3> intersect(const Slice& other) const;
  // The point where a line crosses this plane; empty when the line runs parallel to it.
  std::optional<Eigen::Vector3d> intersect(const Line3& line) const;

 private:
  Eigen::Vector3d center_ = Eigen::Vector3d::Zero();
  Eigen::Vector3d xAxis_ = Eigen::Vector3d::UnitX();
  Eigen::Vector3d yAxis_ = Eigen::Vector3d::UnitY();
  double width_ = 1.0;
  double height_ = 1.0;
};

}  // namespace Merivane
