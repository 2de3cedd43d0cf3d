#include "PolygonRegion.h"

#include <algorithm>
#include <cmath>

namespace Merivane {

namespace {
// Above this many bands the polygon is tall for its edge count; one band per edge is enough.
constexpr double kMaxBandsPerEdge = 4.0;
}  // namespace

PolygonRegion::PolygonRegion(const std::vector<Eigen::Vector2d>& points) {
  if (points.size() < 3) return;
  for (const auto& p : points)
    if (!p.allFinite()) return;
  min_ = max_ = points.front();
  for (const auto& p : points) {
    min_ = min_.cwiseMin(p);
    max_ = max_.cwiseMax(p);
  }
  for (size_t i = 0; i < points.size(); ++i) {
    const Eigen::Vector2d& a = points[i];
    const Eigen::Vector2d& b = points[(i + 1) % points.size()];
    if (a.y() != b.y()) edges_.push_back({a, b});  // horizontal edges never cross a ray along x
  }
  if (edges_.empty()) return;
  const double height = max_.y() - min_.y();
  const double bandCount = std::clamp(std::ceil(height) + 1.0, 1.0, kMaxBandsPerEdge * edges_.size() + 1.0);
  bandHeight_ = std::max(height / std::max(bandCount - 1.0, 1.0), 1e-12);
  bands_.resize(static_cast<size_t>(bandCount));
  for (int e = 0; e < static_cast<int>(edges_.size()); ++e) {
    const double lo = std::min(edges_[e].a.y(), edges_[e].b.y()), hi = std::max(edges_[e].a.y(), edges_[e].b.y());
    const auto b0 = static_cast<size_t>(std::clamp((lo - min_.y()) / bandHeight_, 0.0, bandCount - 1));
    const auto b1 = static_cast<size_t>(std::clamp((hi - min_.y()) / bandHeight_, 0.0, bandCount - 1));
    for (size_t b = b0; b <= b1; ++b) bands_[b].push_back(e);
  }
}

bool PolygonRegion::contains(const Eigen::Vector2d& p) const {
  if (edges_.empty() || !p.allFinite()) return false;
  if (p.x() < min_.x() || p.x() > max_.x() || p.y() < min_.y() || p.y() > max_.y()) return false;
  const auto band = static_cast<size_t>(std::clamp((p.y() - min_.y()) / bandHeight_, 0.0, bands_.size() - 1.0));
  bool inside = false;
  for (int e : bands_[band]) {
    const Eigen::Vector2d &a = edges_[e].a, &b = edges_[e].b;
    // Half-open in y, so a ray through a shared vertex counts it once.
    if ((a.y() > p.y()) == (b.y() > p.y())) continue;
    const double x = a.x() + (p.y() - a.y()) * (b.x() - a.x()) / (b.y() - a.y());
    if (x > p.x()) inside = !inside;
  }
  return inside;
}

}  // namespace Merivane
