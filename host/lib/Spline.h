#pragma once
// A curve through control points: Catmull-Rom (centripetal) between them, closed or open,
// with arc length tabulated on a fine sampling so that points can be asked by length.
#include <Eigen/Core>
#include <vector>

namespace Merivane {

class SharedImage;

class Spline {
 public:
  Spline() = default;
  explicit Spline(std::vector<Eigen::Vector3d> points, bool closed = true);

  void setPoints(std::vector<Eigen::Vector3d> points, bool closed = true);
  const std::vector<Eigen::Vector3d>& points() const { return points_; }
  bool closed() const { return closed_; }
  int numberOfPoints() const { return static_cast<int>(points_.size()); }

  // Total arc length (0 with fewer than two points).
  double length() const;
  // The point at arc length `s` from the first control point, s taken modulo length() for a
  // closed curve and clamped for an open one.
  Eigen::Vector3d pointAtLength(double s) const;
  // `n` points evenly spaced in arc length, starting at the first control point.
  std::vector<Eigen::Vector3d> sampleByLength(int n) const;
  // `count` points evenly spaced in arc length from the first control point to the last (to
  // the first again for a closed curve), into `out`. Arc length comes from the fine table,
  // whose chords lie within `tolerance` of the curve for any tolerance the callers use; the
  // argument keeps the host's signature.
  void getUniformSamples(int count, std::vector<Eigen::Vector3d>& out, double tolerance) const;
  // A closed spline through about one point in `skipFactor` of this one's points (values
  // below 2 keep all), each the mean of the `skipFactor` points round it. `refine` instead
  // re-places the kept points evenly by arc length on this curve.
  Spline getApproximateClosedSpline(int skipFactor, bool refine = false) const;
  // The curve as a fine polyline through all control points (the control points themselves
  // with fewer than two); a closed curve does not repeat its first point at the end.
  std::vector<Eigen::Vector3d> polyline() const;

  // Fills the closed curve into a U8 one-channel image: each voxel whose centre, in the
  // image's pixel coordinates, lies inside the curve's outline on the x-y plane gets `inside`,
  // every other voxel 0; all slices alike. False, with the image untouched, for fewer than
  // three points or an image that is not U8 with one channel in memory.
  bool convertToLabelMap(SharedImage& labelMap, unsigned char inside = 255) const;

 private:
  void buildTable() const;
  Eigen::Vector3d evaluate(int segment, double t) const;

  std::vector<Eigen::Vector3d> points_;
  bool closed_ = true;
  // Cumulative lengths of the fine sampling, built on first use.
  mutable std::vector<double> cumulative_;
  mutable std::vector<Eigen::Vector3d> samples_;
};

}  // namespace Merivane
