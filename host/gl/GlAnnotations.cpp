#include "GlAnnotations.h"

#include <cmath>

#include "GlPrimitives.h"
#include "GlView.h"

namespace Merivane {

namespace {

constexpr double kPi = 3.14159265358979323846;

Geometry::AlignedBox boxOf(const std::vector<Eigen::Vector3d>& points, double margin) {
  Geometry::AlignedBox box;
  if (points.empty()) return box;
  Eigen::Vector3d lo = points.front(), hi = points.front();
  for (const auto& p : points) {
    lo = lo.cwiseMin(p);
    hi = hi.cwiseMax(p);
  }
  for (size_t i = 0; i < 3; ++i) {
    box.min[i] = lo[static_cast<int>(i)] - margin;
    box.max[i] = hi[static_cast<int>(i)] + margin;
  }
  return box;
}

// A circle of radius r round c in the plane of axes a and b.
std::vector<Eigen::Vector3f> circle(const Eigen::Vector3d& c, const Eigen::Vector3d& a, const Eigen::Vector3d& b,
                                    double r, int n = 48) {
  std::vector<Eigen::Vector3f> pts;
  for (int i = 0; i < n; ++i) {
    const double t = 2 * kPi * i / n;
    pts.push_back((c + r * (std::cos(t) * a + std::sin(t) * b)).cast<float>());
  }
  return pts;
}

}  // namespace

void GlBall::draw(const GlView& view) {
  if (!center.allFinite() || !(radius > 0)) return;
  if (auto* sv = dynamic_cast<const GlSliceView*>(&view)) {
    // The cross-section with the plane, when the plane cuts the ball.
    const Slice& s = sv->slice().slice();
    const double d = s.distance(center);
    if (std::abs(d) >= radius) return;
    const double r = std::sqrt(radius * radius - d * d);
    GL::drawLines(view, circle(s.projectOnPlane(center), s.xAxis(), s.yAxis(), r), color, true, 2.0f);
    return;
  }
  // A UV sphere.
  const int nu = 24, nv = 12;
  std::vector<Eigen::Vector3f> tris, normals;
  auto at = [&](int i, int j) {
    const double u = 2 * kPi * i / nu, v = kPi * j / nv;
    return Eigen::Vector3d(std::cos(u) * std::sin(v), std::sin(u) * std::sin(v), std::cos(v));
  };
  for (int i = 0; i < nu; ++i)
    for (int j = 0; j < nv; ++j) {
      const Eigen::Vector3d q[4] = {at(i, j), at(i + 1, j), at(i + 1, j + 1), at(i, j + 1)};
      for (int k : {0, 1, 2, 0, 2, 3}) {
        tris.push_back((center + radius * q[k]).cast<float>());
        normals.push_back(q[k].cast<float>());
      }
    }
  GL::drawTriangles(view, tris, normals, color);
}

Geometry::AlignedBox GlBall::bounds() const { return boxOf({center}, radius); }

void GlPoint::draw(const GlView& view) {
  if (!position.allFinite()) return;
  Eigen::Vector3d a = Eigen::Vector3d::UnitX(), b = Eigen::Vector3d::UnitY();
  double mm = view.viewState().mmPerPixel().x();
  if (auto* sv = dynamic_cast<const GlSliceView*>(&view)) {
    const Slice& s = sv->slice().slice();
    if (std::abs(s.distance(position)) > 0.5 * sv->sliceStep()) return;
    a = s.xAxis();
    b = s.yAxis();
    mm = sv->mmPerPixel();
  } else {
    const Eigen::Matrix4d& v = view.viewState().view;
    a = v.block<1, 3>(0, 0).transpose();
    b = v.block<1, 3>(1, 0).transpose();
  }
  const double h = 0.5 * sizePx * mm;
  const Eigen::Vector3d p = position;
  GL::drawSegments(view, {(p - h * a).cast<float>(), (p + h * a).cast<float>(), (p - h * b).cast<float>(),
                          (p + h * b).cast<float>()},
                   color, 2.0f);
}

Geometry::AlignedBox GlPoint::bounds() const { return boxOf({position}, 0); }

void GlPolyLine::draw(const GlView& view) {
  if (points.size() < 2) return;
  std::vector<Eigen::Vector3f> pts;
  for (const auto& p : points)
    if (p.allFinite()) pts.push_back(p.cast<float>());
  GL::drawLines(view, pts, color, closed, lineWidthPx);
}

Geometry::AlignedBox GlPolyLine::bounds() const { return boxOf(points, 0); }

std::vector<Eigen::Vector3d> GlSpline::sampled() const {
  const int n = static_cast<int>(points.size());
  if (n < 3) return points;
  std::vector<Eigen::Vector3d> out;
  const int segments = closed ? n : n - 1;
  auto P = [&](int i) {
    if (closed) return points[static_cast<size_t>((i % n + n) % n)];
    return points[static_cast<size_t>(std::clamp(i, 0, n - 1))];
  };
  const int m = std::max(1, samplesPerSegment);
  for (int s = 0; s < segments; ++s) {
    const Eigen::Vector3d p0 = P(s - 1), p1 = P(s), p2 = P(s + 1), p3 = P(s + 2);
    for (int k = 0; k < m; ++k) {
      const double t = static_cast<double>(k) / m, t2 = t * t, t3 = t2 * t;
      out.push_back(0.5 * ((2 * p1) + (-p0 + p2) * t + (2 * p0 - 5 * p1 + 4 * p2 - p3) * t2 +
                           (-p0 + 3 * p1 - 3 * p2 + p3) * t3));
    }
  }
  if (!closed) out.push_back(points.back());
  return out;
}

void GlSpline::draw(const GlView& view) {
  const auto curve = sampled();
  if (curve.size() < 2) return;
  std::vector<Eigen::Vector3f> pts;
  for (const auto& p : curve) pts.push_back(p.cast<float>());
  GL::drawLines(view, pts, color, closed, lineWidthPx);
}

}  // namespace Merivane
