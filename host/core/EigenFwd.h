#pragma once
// Forward declarations of the fixed Eigen vectors and matrices used in interfaces, so that
// headers can name them without pulling in <Eigen/Core>. The option values match Eigen's
// defaults for these shapes, so the aliases are the very same types as Eigen::Vector3d etc.
namespace Eigen {
template <typename Scalar, int Rows, int Cols, int Options, int MaxRows, int MaxCols>
class Matrix;
}

namespace Merivane {
using vec2 = Eigen::Matrix<double, 2, 1, 0, 2, 1>;
using vec3 = Eigen::Matrix<double, 3, 1, 0, 3, 1>;
using vec4 = Eigen::Matrix<double, 4, 1, 0, 4, 1>;
using vec2i = Eigen::Matrix<int, 2, 1, 0, 2, 1>;
using vec3i = Eigen::Matrix<int, 3, 1, 0, 3, 1>;
using vec3f = Eigen::Matrix<float, 3, 1, 0, 3, 1>;
using vec4f = Eigen::Matrix<float, 4, 1, 0, 4, 1>;
using mat3 = Eigen::Matrix<double, 3, 3, 0, 3, 3>;
using mat4 = Eigen::Matrix<double, 4, 4, 0, 4, 4>;
using Vec2d = vec2;
using Vec3d = vec3;
using Vec3i = vec3i;
}  // namespace Merivane
