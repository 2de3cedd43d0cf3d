#include "Slice.h"

#include <Eigen/Geometry>
#include <cmath>

namespace Merivane {

namespace {
constexpr double kParallel = 1e-9;
}

Slice::Slice(const Eigen::Vector3d& center, const Eigen::Vector3d& xAxis, const Eigen::Vector3d& yAxis, double width,
             double height)
    : center_(center), width_(width), height_(height) {
  setAxes(xAxis, yAxis);
}

void Slice::setAxes(const Eigen::Vector3d& xAxis, const Eigen::Vector3d& yAxis) {
  const Eigen::Vector3d x = xAxis.normalized();
  const Eigen::Vector3d y = (yAxis - yAxis.dot(x) * x).normalized();
  if (!x.allFinite() || !y.allFinite()) return;
  xAxis_ = x;
  yAxis_ = y;
}

Eigen::Vector3d Slice::corner(int i) const {
  const double sx = (i == 1 || i == 2) ? 0.5 : -0.5;
  const double sy = (i >= 2) ? 0.5 : -0.5;
  return center_ + sx * width_ * xAxis_ + sy * height_ * yAxis_;
}

std::optional<Line3> Slice::intersect(const Slice& other) const {
  const Eigen::Vector3d n1 = normal(), n2 = other.normal();
  const Eigen::Vector3d d = n1.cross(n2);
  const double len2 = d.squaredNorm();
  if (len2 < kParallel) return std::nullopt;
  // The point of the line closest to the origin solves n1.p = h1, n2.p = h2, d.p = 0.
  const double h1 = n1.dot(center_), h2 = other.normal().dot(other.center());
  const Eigen::Vector3d p = (h1 * n2.cross(d) + h2 * d.cross(n1)) / len2;
  return Line3{p, d / std::sqrt(len2)};
}

std::optional<Eigen::Vector3d> Slice::intersect(const Line3& line) const {
  const Eigen::Vector3d n = normal();
  const double denom = n.dot(line.direction);
  if (std::abs(denom) < kParallel) return std::nullopt;
  const double t = n.dot(center_ - line.point) / denom;
  return line.point + t * line.direction;
}

}  // namespace Merivane
