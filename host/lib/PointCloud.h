#pragma once
// Points with unit normals, as surface samples travel between algorithms. Points and normals
// are kept in world millimetres, like a PointSet's: setMatrix moves them from the cloud's
// own coordinates into the world once, the normals by the inverse transpose of the matrix's
// rotation part, and keeps the matrix for reference.
#include <Eigen/Core>
#include <vector>

#include "PointSet.h"

namespace Merivane {

class PointCloud : public PointSet {
 public:
  PointCloud() = default;
  // Normals pair with points by index; a list of another length is dropped.
  PointCloud(std::vector<Eigen::Vector3d> points, std::vector<Eigen::Vector3d> normals, std::string name = {});
  ~PointCloud() override;

  std::string describe() const override;

  std::vector<Eigen::Vector3d>& normals() { return normals_; }
  const std::vector<Eigen::Vector3d>& normals() const { return normals_; }
  bool hasNormals() const { return !normals_.empty(); }

  // Applies `m` to the points and normals (renormalised) and stores it as the cloud's matrix.
  void setMatrix(const mat4& m) override;

 private:
  std::vector<Eigen::Vector3d> normals_;
};

}  // namespace Merivane
