#include "Spline.h"

#include <algorithm>
#include <cmath>

#include "PolygonRegion.h"
#include "SharedImage.h"

namespace Merivane {

namespace {
// Fine samples per segment for the arc-length table.
constexpr int kSamplesPerSegment = 16;
}  // namespace

Spline::Spline(std::vector<Eigen::Vector3d> points, bool closed) { setPoints(std::move(points), closed); }

void Spline::setPoints(std::vector<Eigen::Vector3d> points, bool closed) {
  // A closed input that repeats its first point would give a zero-length segment.
  if (closed && points.size() > 1 && (points.front() - points.back()).norm() == 0) points.pop_back();
  points_ = std::move(points);
  closed_ = closed;
  cumulative_.clear();
  samples_.clear();
}

Eigen::Vector3d Spline::evaluate(int segment, double t) const {
  // Centripetal Catmull-Rom (Barry-Goldman pyramid), which neither cusps nor self-intersects
  // within a segment.
  const int n = static_cast<int>(points_.size());
  auto at = [&](int i) -> const Eigen::Vector3d& {
    if (closed_) return points_[((i % n) + n) % n];
    return points_[std::clamp(i, 0, n - 1)];
  };
  const Eigen::Vector3d &p0 = at(segment - 1), &p1 = at(segment), &p2 = at(segment + 1), &p3 = at(segment + 2);
  auto knot = [](const Eigen::Vector3d& a, const Eigen::Vector3d& b) { return std::max(std::sqrt((b - a).norm()), 1e-9); };
  const double t0 = 0, t1 = t0 + knot(p0, p1), t2 = t1 + knot(p1, p2), t3 = t2 + knot(p2, p3);
  const double u = t1 + t * (t2 - t1);
  const Eigen::Vector3d a1 = (t1 - u) / (t1 - t0) * p0 + (u - t0) / (t1 - t0) * p1;
  const Eigen::Vector3d a2 = (t2 - u) / (t2 - t1) * p1 + (u - t1) / (t2 - t1) * p2;
  const Eigen::Vector3d a3 = (t3 - u) / (t3 - t2) * p2 + (u - t2) / (t3 - t2) * p3;
  const Eigen::Vector3d b1 = (t2 - u) / (t2 - t0) * a1 + (u - t0) / (t2 - t0) * a2;
  const Eigen::Vector3d b2 = (t3 - u) / (t3 - t1) * a2 + (u - t1) / (t3 - t1) * a3;
  return (t2 - u) / (t2 - t1) * b1 + (u - t1) / (t2 - t1) * b2;
}

void Spline::buildTable() const {
  if (!cumulative_.empty() || points_.size() < 2) return;
  const int n = static_cast<int>(points_.size());
  const int segments = closed_ ? n : n - 1;
  samples_.reserve(static_cast<size_t>(segments) * kSamplesPerSegment + 1);
  for (int s = 0; s < segments; ++s)
    for (int k = 0; k < kSamplesPerSegment; ++k) samples_.push_back(evaluate(s, static_cast<double>(k) / kSamplesPerSegment));
  samples_.push_back(closed_ ? points_.front() : points_.back());
  cumulative_.resize(samples_.size());
  cumulative_[0] = 0;
  for (size_t i = 1; i < samples_.size(); ++i) cumulative_[i] = cumulative_[i - 1] + (samples_[i] - samples_[i - 1]).norm();
}

double Spline::length() const {
  buildTable();
  return cumulative_.empty() ? 0.0 : cumulative_.back();
}

Eigen::Vector3d Spline::pointAtLength(double s) const {
  if (points_.empty()) return Eigen::Vector3d::Zero();
  const double total = length();
  if (total <= 0) return points_.front();
  if (closed_) {
    s = std::fmod(s, total);
    if (s < 0) s += total;
  } else {
    s = std::clamp(s, 0.0, total);
  }
  const auto it = std::upper_bound(cumulative_.begin(), cumulative_.end(), s);
  if (it == cumulative_.end()) return samples_.back();
  const size_t i = static_cast<size_t>(it - cumulative_.begin());
  const double a = cumulative_[i - 1], b = cumulative_[i];
  const double t = b > a ? (s - a) / (b - a) : 0.0;
  return samples_[i - 1] + t * (samples_[i] - samples_[i - 1]);
}

std::vector<Eigen::Vector3d> Spline::sampleByLength(int n) const {
  std::vector<Eigen::Vector3d> out;
  if (n <= 0 || points_.empty()) return out;
  const double total = length();
  const double step = closed_ ? total / n : (n > 1 ? total / (n - 1) : 0.0);
  out.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) out.push_back(pointAtLength(i * step));
  return out;
}

void Spline::getUniformSamples(int count, std::vector<Eigen::Vector3d>& out, double /*tolerance*/) const {
  out = sampleByLength(count);
}

Spline Spline::getApproximateClosedSpline(int skipFactor, bool refine) const {
  const int skip = std::max(skipFactor, 1);
  const int n = static_cast<int>(points_.size());
  // At least three points keep a closed curve from collapsing.
  const int keep = std::max(std::min(n, 3), (n + skip - 1) / skip);
  if (refine && n >= 2) {
    Spline closedSelf(points_, true);
    return Spline(closedSelf.sampleByLength(keep), true);
  }
  // Each kept point is the mean of the `skip` points round it: the staircase of traced pixel
  // outlines averages out instead of being interpolated.
  std::vector<Eigen::Vector3d> kept;
  kept.reserve(static_cast<size_t>(keep));
  const int half = skip / 2;
  for (int i = 0; i < keep; ++i) {
    const long centre = static_cast<long>(i) * n / keep;
    Eigen::Vector3d sum = Eigen::Vector3d::Zero();
    for (int k = -half; k < skip - half; ++k) sum += points_[static_cast<size_t>(((centre + k) % n + n) % n)];
    kept.push_back(sum / skip);
  }
  return Spline(std::move(kept), true);
}

std::vector<Eigen::Vector3d> Spline::polyline() const {
  if (points_.size() < 2) return points_;
  buildTable();
  std::vector<Eigen::Vector3d> out = samples_;
  if (closed_) out.pop_back();
  return out;
}

bool Spline::convertToLabelMap(SharedImage& labelMap, unsigned char inside) const {
  if (points_.size() < 3) return false;
  MemImage* mem = labelMap.mem();
  auto* typed = dynamic_cast<TypedImage<unsigned char>*>(mem);
  if (!typed || typed->descriptor().channels != 1) return false;
  std::vector<Eigen::Vector2d> outline;
  for (const Eigen::Vector3d& p : Spline(points_, true).polyline()) outline.push_back(labelMap.worldToPixel(p).head<2>());
  const PolygonRegion region(outline);
  const Eigen::Vector3i dims = typed->descriptor().dimensions;
  const size_t sliceSize = static_cast<size_t>(dims[0]) * static_cast<size_t>(dims[1]);
  unsigned char* data = typed->pointer();
  // Whole pixel indices are voxel centres.
  for (int y = 0; y < dims[1]; ++y)
    for (int x = 0; x < dims[0]; ++x) {
      const unsigned char v = region.contains(Eigen::Vector2d(x, y)) ? inside : 0;
      for (int z = 0; z < dims[2]; ++z) data[z * sliceSize + static_cast<size_t>(y) * dims[0] + x] = v;
    }
  labelMap.setDirtyMem();
  return true;
}

}  // namespace Merivane
