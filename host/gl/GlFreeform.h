#pragma once
// A curve drawn by hand: the points a user gave, shown as a spline through them (closed by
// default, so the outline shows what a selection would hold).
#include <Eigen/Core>
#include <string>
#include <vector>

#include "GlObject.h"
#include "Spline.h"

namespace Merivane {

class GlFreeform : public GlObject {
 public:
  const Spline& spline() const { return spline_; }
  const std::vector<Eigen::Vector3d>& points() const { return spline_.points(); }
  void addPoint(const Eigen::Vector3d& world);
  void setPoints(std::vector<Eigen::Vector3d> points) { spline_.setPoints(std::move(points), closed_); }
  void clear() { spline_.setPoints({}, closed_); }
  bool closed() const { return closed_; }
  void setClosed(bool closed);
  float lineWidth() const { return lineWidth_; }
  void setLineWidth(float px) { lineWidth_ = px; }
  const Eigen::Vector4f& color() const { return color_; }
  void setColor(const Eigen::Vector4f& color) { color_ = color; }

  void draw(const GlView& view) override;
  std::string typeName() const override { return "GlFreeform"; }

 private:
  Spline spline_;
  bool closed_ = true;
  float lineWidth_ = 2.0f;
  Eigen::Vector4f color_ = Eigen::Vector4f(1, 0.6f, 0, 1);
};

}  // namespace Merivane
