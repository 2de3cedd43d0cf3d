#pragma once
// A named list of points in world millimetres: the form in which point-based annotations
// (a drawn line's points, an extracted centreline's samples) travel in data lists and files.
#include <Eigen/Core>
#include <vector>

#include "Data.h"

namespace Merivane {

class PointSet : public Data {
 public:
  PointSet() = default;
  explicit PointSet(std::vector<Eigen::Vector3d> points, std::string name = {});
  ~PointSet() override;

  Kind kind() const override { return kindPointSet; }
  Geometry::AlignedBox bounds() const override;
  std::string describe() const override;

  std::vector<Eigen::Vector3d>& points() { return points_; }
  const std::vector<Eigen::Vector3d>& points() const { return points_; }

 private:
  std::vector<Eigen::Vector3d> points_;
};

}  // namespace Merivane
