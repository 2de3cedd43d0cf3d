#pragma once
// The camera of a view: projection and view matrices and the viewport, with the mapping
// between world positions and viewport pixels. Viewport pixels count from the top left
// corner, as the widget's do; depth runs from 0 (near) to 1 (far).
#include <Eigen/Core>

namespace Merivane {

struct ViewState {
  Eigen::Matrix4d projection = Eigen::Matrix4d::Identity();
  Eigen::Matrix4d view = Eigen::Matrix4d::Identity();
  int viewportWidth = 1;
  int viewportHeight = 1;

  // World position to (pixel x, pixel y, depth).
  Eigen::Vector3d project(const Eigen::Vector3d& world) const;
  // Viewport pixel and depth to world position.
  Eigen::Vector3d unproject(const Eigen::Vector2d& pixel, double depth = 0.5) const;
  // The homogeneous form of project(): world (x, y, z, 1) to (pixel x, pixel y, depth, 1)
  // times w.
  Eigen::Matrix4d worldToViewportMatrix() const;
  // World millimetres covered by one viewport pixel at `world` (x and y of the screen).
  Eigen::Vector2d mmPerPixel() const;
};

}  // namespace Merivane
