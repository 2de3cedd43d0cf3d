#include "GlCircle.h"

#include <Eigen/Geometry>
#include <cmath>
#include <numbers>
#include <vector>

#include "GlPrimitives.h"
#include "GlView.h"

namespace Merivane {

namespace {
constexpr int kSegments = 64;
}

void GlCircle::setAxes(const Eigen::Vector3d& xAxis, const Eigen::Vector3d& yAxis) {
  if (!xAxis.allFinite() || !yAxis.allFinite() || xAxis.cross(yAxis).norm() <= 1e-12 * xAxis.norm() * yAxis.norm())
    return;
  xAxis_ = xAxis.normalized();
  yAxis_ = yAxis.normalized();
}

void GlCircle::draw(const GlView& view) {
  if (!(radius_ > 0) || !center_.allFinite() || !std::isfinite(radius_)) return;
  // The third row of the view matrix is the viewing direction in world terms.
  const Eigen::Vector3d towardsViewer = view.viewState().view.block<1, 3>(2, 0).transpose();
  const Eigen::Vector3d normal = xAxis_.cross(yAxis_).normalized();
  if (std::abs(normal.dot(towardsViewer.normalized())) < 1.0 - 1e-6) return;
  std::vector<Eigen::Vector3f> loop;
  loop.reserve(kSegments);
  for (int i = 0; i < kSegments; ++i) {
    const double a = 2.0 * std::numbers::pi * i / kSegments;
    loop.push_back((center_ + radius_ * (std::cos(a) * xAxis_ + std::sin(a) * yAxis_)).cast<float>());
  }
  GL::drawLines(view, loop, color_, true, lineWidth_);
}

}  // namespace Merivane
