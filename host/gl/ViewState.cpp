#include "ViewState.h"

#include <Eigen/Geometry>
#include <Eigen/LU>

namespace Merivane {

Eigen::Vector3d ViewState::project(const Eigen::Vector3d& world) const {
  const Eigen::Vector4d clip = projection * view * world.homogeneous();
  const Eigen::Vector3d ndc = clip.head<3>() / clip[3];
  return {(ndc.x() + 1.0) * 0.5 * viewportWidth, (1.0 - ndc.y()) * 0.5 * viewportHeight, (ndc.z() + 1.0) * 0.5};
}

Eigen::Vector3d ViewState::unproject(const Eigen::Vector2d& pixel, double depth) const {
  const Eigen::Vector4d ndc(pixel.x() / viewportWidth * 2.0 - 1.0, 1.0 - pixel.y() / viewportHeight * 2.0,
                            depth * 2.0 - 1.0, 1.0);
  const Eigen::Vector4d world = (projection * view).inverse() * ndc;
  return world.head<3>() / world[3];
}

Eigen::Vector2d ViewState::mmPerPixel() const {
  const Eigen::Vector3d o = unproject({0, 0}), x = unproject({1, 0}), y = unproject({0, 1});
  return {(x - o).norm(), (y - o).norm()};
}

}  // namespace Merivane
