#include "GlFreeform.h"

#include "GlPrimitives.h"

namespace Merivane {

void GlFreeform::addPoint(const Eigen::Vector3d& world) {
  if (!world.allFinite()) return;
  std::vector<Eigen::Vector3d> points = spline_.points();
  // Repeated points (a press without a move) add nothing to the outline.
  if (!points.empty() && points.back() == world) return;
  points.push_back(world);
  spline_.setPoints(std::move(points), closed_);
}

void GlFreeform::setClosed(bool closed) {
  closed_ = closed;
  spline_.setPoints(spline_.points(), closed_);
}

void GlFreeform::draw(const GlView& view) {
  if (spline_.numberOfPoints() < 2) return;
  std::vector<Eigen::Vector3f> line;
  for (const Eigen::Vector3d& p : spline_.polyline()) line.push_back(p.cast<float>());
  GL::drawLines(view, line, color_, closed_, lineWidth_);
}

}  // namespace Merivane
