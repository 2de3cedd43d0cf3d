#pragma once
// Geometric annotations as view objects: a ball (a sphere in 3D, its cross-section on slices),
// a point, and a polyline or closed curve through points. World millimetres throughout.
#include <string>
#include <vector>

#include <Eigen/Core>

#include "GlObject.h"

namespace Merivane {

class GlBall : public GlObject {
 public:
  GlBall(const Eigen::Vector3d& center = Eigen::Vector3d::Zero(), double radius = 2.0) : center(center), radius(radius) {}
  Eigen::Vector3d center;
  double radius;
  Eigen::Vector4f color = Eigen::Vector4f(1, 0.6f, 0, 1);
  void draw(const GlView& view) override;
  Geometry::AlignedBox bounds() const override;
  std::string typeName() const override { return "GlBall"; }
};

// A point: a small cross on slices it lies on (within half a slice step), a dot in 3D.
class GlPoint : public GlObject {
 public:
  explicit GlPoint(const Eigen::Vector3d& position = Eigen::Vector3d::Zero()) : position(position) {}
  Eigen::Vector3d position;
  Eigen::Vector4f color = Eigen::Vector4f(0, 1, 0, 1);
  double sizePx = 6.0;
  void draw(const GlView& view) override;
  Geometry::AlignedBox bounds() const override;
  std::string typeName() const override { return "GlPoint"; }
};

// Straight segments through the points; closed joins the last to the first.
class GlPolyLine : public GlObject {
 public:
  std::vector<Eigen::Vector3d> points;
  bool closed = false;
  Eigen::Vector4f color = Eigen::Vector4f(1, 1, 0, 1);
  float lineWidthPx = 2.0f;
  void draw(const GlView& view) override;
  Geometry::AlignedBox bounds() const override;
  std::string typeName() const override { return "GlPolyLine"; }
};

// A straight segment between two points, such as a drawn diameter.
class GlLine : public GlPolyLine {
 public:
  GlLine(const Eigen::Vector3d& from = Eigen::Vector3d::Zero(), const Eigen::Vector3d& to = Eigen::Vector3d::Zero()) {
    points = {from, to};
  }
  std::string typeName() const override { return "GlLine"; }
};

// A smooth curve through the points (Catmull-Rom, drawn as a fine polyline).
class GlSpline : public GlPolyLine {
 public:
  int samplesPerSegment = 12;
  void draw(const GlView& view) override;
  std::string typeName() const override { return "GlSpline"; }
  // The drawn curve, `samplesPerSegment` points per segment.
  std::vector<Eigen::Vector3d> sampled() const;
};

}  // namespace Merivane
