#include "PointCloud.h"

#include <Eigen/LU>
#include <memory>

namespace Merivane {

PointCloud::PointCloud(std::vector<Eigen::Vector3d> points, std::vector<Eigen::Vector3d> normals, std::string name)
    : PointSet(std::move(points), std::move(name)), normals_(std::move(normals)) {
  if (normals_.size() != this->points().size()) normals_.clear();
}

PointCloud::~PointCloud() = default;

std::string PointCloud::describe() const {
  return "point cloud '" + name() + "' of " + std::to_string(points().size()) + " points" +
         (hasNormals() ? " with normals" : "");
}

void PointCloud::setMatrix(const mat4& m) {
  const Eigen::Matrix3d r = m.topLeftCorner<3, 3>();
  const Eigen::Matrix3d n = r.inverse().transpose();
  const bool invertible = std::abs(r.determinant()) > 1e-300;
  for (Eigen::Vector3d& p : points()) p = r * p + m.topRightCorner<3, 1>();
  if (invertible)
    for (Eigen::Vector3d& v : normals_) v = (n * v).normalized();
  matrix_ = std::make_shared<mat4>(m);
}

}  // namespace Merivane
