#include "ImageGradients.h"

#include <Eigen/Core>
#include <algorithm>
#include <cmath>
#include <cstddef>

#include "Image.h"

namespace Merivane::ImageProcessing {

namespace {

bool sameShape(const MemImage* in, const TypedImage<float>* g) {
  return g && g->dimensions() == in->dimensions() && g->channels() == 1;
}

// Central difference along a line of n samples spaced `stride` apart, one-sided at the ends.
template <typename T>
inline float derivative(const T* p, int i, int n, std::ptrdiff_t stride) {
  if (n < 2) return 0.0f;
  if (i == 0) return static_cast<float>(static_cast<double>(p[stride]) - static_cast<double>(p[0]));
  if (i == n - 1) return static_cast<float>(static_cast<double>(p[0]) - static_cast<double>(p[-stride]));
  return static_cast<float>(0.5 * (static_cast<double>(p[stride]) - static_cast<double>(p[-stride])));
}

template <typename T>
bool gradient(const TypedImage<T>* in, TypedImage<float>* gx, TypedImage<float>* gy, TypedImage<float>* gz) {
  if (!in || !sameShape(in, gx) || !sameShape(in, gy) || (gz && !sameShape(in, gz))) return false;
  const int w = in->width(), h = in->height(), s = in->slices(), c = in->channels();
  const std::ptrdiff_t sx = c, sy = sx * w, sz = sy * h;
  const T* src = in->pointer();
  // Each z writes only slice z of the outputs.
#pragma omp parallel for schedule(static) if (s >= 9)
  for (int z = 0; z < s; ++z) {
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        const T* p = src + z * sz + y * sy + x * sx;
        const size_t o = gx->index(x, y, z);
        gx->pointer()[o] = derivative(p, x, w, sx);
        gy->pointer()[o] = derivative(p, y, h, sy);
        if (gz) gz->pointer()[o] = derivative(p, z, s, sz);
      }
    }
  }
  return true;
}

// Bilinear (trilinear when z is used) read of a one-channel float image; outside reads clamp.
inline float sample(const TypedImage<float>& im, double x, double y, double z) {
  const int w = im.width(), h = im.height(), s = im.slices();
  x = std::clamp(x, 0.0, static_cast<double>(w - 1));
  y = std::clamp(y, 0.0, static_cast<double>(h - 1));
  z = std::clamp(z, 0.0, static_cast<double>(s - 1));
  const int x0 = static_cast<int>(x), y0 = static_cast<int>(y), z0 = static_cast<int>(z);
  const int x1 = std::min(x0 + 1, w - 1), y1 = std::min(y0 + 1, h - 1), z1 = std::min(z0 + 1, s - 1);
  const double fx = x - x0, fy = y - y0, fz = z - z0;
  auto v = [&](int xi, int yi, int zi) { return static_cast<double>(im.value(xi, yi, zi)); };
  const double a = (v(x0, y0, z0) * (1 - fx) + v(x1, y0, z0) * fx) * (1 - fy) +
                   (v(x0, y1, z0) * (1 - fx) + v(x1, y1, z0) * fx) * fy;
  if (fz == 0.0) return static_cast<float>(a);
  const double b = (v(x0, y0, z1) * (1 - fx) + v(x1, y0, z1) * fx) * (1 - fy) +
                   (v(x0, y1, z1) * (1 - fx) + v(x1, y1, z1) * fx) * fy;
  return static_cast<float>(a * (1 - fz) + b * fz);
}

// Offset of the parabola's vertex through (-1, a), (0, m), (1, b), within half a pixel.
inline double vertexOffset(double a, double m, double b) {
  const double den = a - 2.0 * m + b;
  if (den >= 0.0) return 0.0;
  return std::clamp(0.5 * (a - b) / den, -0.5, 0.5);
}

bool matches(const TypedImage<float>* m, const TypedImage<float>* g) {
  return m && g && g->dimensions() == m->dimensions() && g->channels() == 1 && m->channels() == 1;
}

}  // namespace

template <typename T>
bool computeGradient2D(const TypedImage<T>* in, TypedImage<float>* gx, TypedImage<float>* gy) {
  return gradient(in, gx, gy, nullptr);
}

template <typename T>
bool computeGradient3D(const TypedImage<T>* in, TypedImage<float>* gx, TypedImage<float>* gy, TypedImage<float>* gz) {
  if (!gz) return false;
  return gradient(in, gx, gy, gz);
}

template bool computeGradient2D<unsigned char>(const TypedImage<unsigned char>*, TypedImage<float>*,
                                               TypedImage<float>*);
template bool computeGradient2D<unsigned short>(const TypedImage<unsigned short>*, TypedImage<float>*,
                                                TypedImage<float>*);
template bool computeGradient2D<float>(const TypedImage<float>*, TypedImage<float>*, TypedImage<float>*);
template bool computeGradient3D<unsigned short>(const TypedImage<unsigned short>*, TypedImage<float>*,
                                                TypedImage<float>*, TypedImage<float>*);
template bool computeGradient3D<float>(const TypedImage<float>*, TypedImage<float>*, TypedImage<float>*,
                                       TypedImage<float>*);

bool computeSubpixelEdgeLocationAndOrientation2D(const TypedImage<float>* magnitude, const TypedImage<float>* gx,
                                                 const TypedImage<float>* gy, float threshold,
                                                 std::vector<std::pair<Vec2d, Vec2d>>& edges) {
  edges.clear();
  if (!matches(magnitude, gx) || !matches(magnitude, gy)) return false;
  const int w = magnitude->width(), h = magnitude->height();
  for (int y = 1; y < h - 1; ++y) {
    for (int x = 1; x < w - 1; ++x) {
      const float m = magnitude->value(x, y);
      if (!(m > threshold)) continue;
      const double ux = gx->value(x, y), uy = gy->value(x, y);
      const double len = std::hypot(ux, uy);
      if (!(len > 0.0)) continue;
      const double nx = ux / len, ny = uy / len;
      const double before = sample(*magnitude, x - nx, y - ny, 0.0);
      const double after = sample(*magnitude, x + nx, y + ny, 0.0);
      // Ties are broken one way so that a plateau two pixels wide gives one edge point.
      if (!(m >= before && m > after)) continue;
      const double t = vertexOffset(before, m, after);
      edges.emplace_back(Vec2d(x + t * nx, y + t * ny), Vec2d(nx, ny));
    }
  }
  return true;
}

bool computeSubpixelEdgeLocationAndOrientation3D(const TypedImage<float>* magnitude, const TypedImage<float>* gx,
                                                 const TypedImage<float>* gy, const TypedImage<float>* gz,
                                                 float threshold, std::vector<std::pair<Vec3d, Vec3d>>& edges) {
  edges.clear();
  if (!matches(magnitude, gx) || !matches(magnitude, gy) || !matches(magnitude, gz)) return false;
  const int w = magnitude->width(), h = magnitude->height(), s = magnitude->slices();
  for (int z = 1; z < s - 1; ++z) {
    for (int y = 1; y < h - 1; ++y) {
      for (int x = 1; x < w - 1; ++x) {
        const float m = magnitude->value(x, y, z);
        if (!(m > threshold)) continue;
        const Eigen::Vector3d u(gx->value(x, y, z), gy->value(x, y, z), gz->value(x, y, z));
        const double len = u.norm();
        if (!(len > 0.0)) continue;
        const Eigen::Vector3d n = u / len;
        const double before = sample(*magnitude, x - n.x(), y - n.y(), z - n.z());
        const double after = sample(*magnitude, x + n.x(), y + n.y(), z + n.z());
        if (!(m >= before && m > after)) continue;
        const double t = vertexOffset(before, m, after);
        edges.emplace_back(Vec3d(x + t * n.x(), y + t * n.y(), z + t * n.z()), Vec3d(n));
      }
    }
  }
  return true;
}

}  // namespace Merivane::ImageProcessing
