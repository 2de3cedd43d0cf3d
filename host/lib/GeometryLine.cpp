#include "GeometryLine.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Merivane::Geometry {

namespace {

// The parameter interval [t0, t1] of p + t d inside the box, clipped to [tmin, tmax]; false
// when it is empty.
bool clip(const Eigen::Vector3d& lo, const Eigen::Vector3d& hi, const Eigen::Vector3d& p, const Eigen::Vector3d& d,
          double tmin, double tmax, double& t0) {
  if (!p.allFinite() || !d.allFinite() || d.isZero(0.0)) return false;
  double a = tmin, b = tmax;
  for (int k = 0; k < 3; ++k) {
    if (d[k] == 0.0) {
      if (p[k] < lo[k] || p[k] > hi[k]) return false;
      continue;
    }
    double u = (lo[k] - p[k]) / d[k], v = (hi[k] - p[k]) / d[k];
    if (u > v) std::swap(u, v);
    a = std::max(a, u);
    b = std::min(b, v);
    if (a > b) return false;
  }
  t0 = a;
  return std::isfinite(a);
}

}  // namespace

LineBase::~LineBase() = default;

double Line::length() const { return std::numeric_limits<double>::infinity(); }

std::optional<Eigen::Vector3d> intersection(const Eigen::Vector3d& lo, const Eigen::Vector3d& hi, const Line& line) {
  const double inf = std::numeric_limits<double>::infinity();
  double t = 0.0;
  if (!clip(lo, hi, line.point(), line.direction(), -inf, inf, t)) return std::nullopt;
  return Eigen::Vector3d(line.point() + t * line.direction());
}

std::optional<Eigen::Vector3d> intersection(const Eigen::Vector3d& lo, const Eigen::Vector3d& hi,
                                            const LineSegment& segment) {
  double t = 0.0;
  if (!clip(lo, hi, segment.start(), segment.direction(), 0.0, 1.0, t)) return std::nullopt;
  return Eigen::Vector3d(segment.start() + t * segment.direction());
}

}  // namespace Merivane::Geometry
