#pragma once
// A circle outline in world space: a centre, two unit axes spanning its plane and a radius in
// millimetres. It is drawn only in views that look at it face-on (its plane parallel to the
// screen), so that a circle placed in one slice view does not cut across the others.
#include <Eigen/Core>
#include <string>

#include "GlObject.h"

namespace Merivane {

class GlCircle : public GlObject {
 public:
  const Eigen::Vector3d& center() const { return center_; }
  void setCenter(const Eigen::Vector3d& center) { center_ = center; }
  // Axes are normalised; parallel or zero axes are refused and the old ones stay.
  void setAxes(const Eigen::Vector3d& xAxis, const Eigen::Vector3d& yAxis);
  const Eigen::Vector3d& xAxis() const { return xAxis_; }
  const Eigen::Vector3d& yAxis() const { return yAxis_; }
  double radius() const { return radius_; }
  void setRadius(double mm) { radius_ = mm; }
  float lineWidth() const { return lineWidth_; }
  void setLineWidth(float px) { lineWidth_ = px; }
  const Eigen::Vector4f& color() const { return color_; }
  void setColor(const Eigen::Vector4f& color) { color_ = color; }

  void draw(const GlView& view) override;
  std::string typeName() const override { return "GlCircle"; }

 private:
  Eigen::Vector3d center_ = Eigen::Vector3d::Zero();
  Eigen::Vector3d xAxis_ = Eigen::Vector3d::UnitX();
  Eigen::Vector3d yAxis_ = Eigen::Vector3d::UnitY();
  double radius_ = 5.0;
  float lineWidth_ = 2.0f;
  Eigen::Vector4f color_ = Eigen::Vector4f(1, 1, 0, 1);
};

}  // namespace Merivane
