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

Eigen::Matrix4d ViewState::worldToViewportMatrix() const {
  // NDC to viewport: x from [-1, 1] to [0, width], y flipped to count from the top, z to [0, 1].
  Eigen::Matrix4d viewport = Eigen::Matrix4d::Identity();
  viewport(0, 0) = 0.5 * viewportWidth;
  viewport(0, 3) = 0.5 * viewportWidth;
  viewport(1, 1) = -0.5 * viewportHeight;
  viewport(1, 3) = 0.5 * viewportHeight;
  viewport(2, 2) = 0.5;
  viewport(2, 3) = 0.5;
  return viewport * projection * view;
}

Eigen::Vector2d ViewState::mmPerPixel() const {
  const Eigen::Vector3d o = unproject({0, 0}), x = unproject({1, 0}), y = unproject({0, 1});
  return {(x - o).norm(), (y - o).norm()};
}

}  // namespace Merivane
