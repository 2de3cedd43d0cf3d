#include "PointSet.h"

#include <algorithm>

namespace Merivane {

PointSet::PointSet(std::vector<Eigen::Vector3d> points, std::string name) : points_(std::move(points)) {
  setName(std::move(name));
}

PointSet::~PointSet() = default;

Geometry::AlignedBox PointSet::bounds() const {
  Geometry::AlignedBox box;
  if (points_.empty()) return box;
  for (int k = 0; k < 3; ++k) box.min[k] = box.max[k] = points_.front()[k];
  for (const auto& p : points_)
    for (int k = 0; k < 3; ++k) {
      box.min[k] = std::min(box.min[k], p[k]);
      box.max[k] = std::max(box.max[k], p[k]);
    }
  return box;
}

std::string PointSet::describe() const {
  return "point set '" + name() + "' of " + std::to_string(points_.size()) + " points";
}

}  // namespace Merivane
