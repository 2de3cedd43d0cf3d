#pragma once
// Finds small bright circular or spherical markers in a 16-bit volume and reports their world
// centres and radii.
//
// Stage 1 proposes candidates slice by slice: a ring-shaped matched filter correlates the
// normalised gradient with outward radial unit vectors on a ring of the expected diameter,
// and rewards flatness off the ring; every second pixel of every second row is scored, and a
// greedy suppression keeps the local best down to a fraction of the slice's best score. In
// 3D every "sliceStep"-th slice is scanned and the union is suppressed once more in 3D.
// Stage 2 confirms each candidate: sub-pixel edge points in a region round it whose
// orientation points inwards, a random-sample circle (2D) or sphere (3D) fit, and a test of
// how many directions round the fitted centre the inliers cover.
//
// Only two orientations are served: image z along world z (axial slices), and image z along
// world -y with x along world -z (slices of constant image y).
#include <Eigen/Core>
#include <atomic>
#include <memory>
#include <vector>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class SharedImage;
template <typename T>
class TypedImage;

class FiducialExtractionAlgorithm : public Algorithm {
 public:
  struct Fiducial {
    Vec3d centre = Vec3d::Zero();  // world, millimetres
    double radius = 0.0;           // millimetres
  };
  enum Mode : int { Mode2D = 0, Mode3D = 1 };

  FiducialExtractionAlgorithm(SharedImage const* image, Mode mode);
  ~FiducialExtractionAlgorithm() override;

  // One data item: a 3D image set with a first frame held in memory as unsigned 16-bit.
  static bool createCompatible(const DataList& data, Algorithm** out = nullptr);

  void compute() override;
  // The fiducial centres as the point set "Fiducials", their radii beside them, in the
  // order the panel shows them: by z, descending, with overlapping neighbours thinned out.
  OwningDataList takeOutput() override;

  // Safe from another thread; holds until the next compute().
  void abort() { abort_.store(true, std::memory_order_relaxed); }

  // Ignored when v is the present value or lies outside [0, 1].
  void setMinContrast(double v);
  void setMode(Mode m);
  Mode mode() const { return static_cast<Mode>(modeKey.value()); }

  // Reads every key, then emits signalParametersChanged once.
  void configure(const Properties* properties) override;

  const std::vector<Fiducial>& fiducials() const { return fiducials_; }

  // Candidates of one slice in volume pixel coordinates, best first; `scores` may be null.
  void detectFiducials2D(int slice, std::vector<Vec3d>& positions, std::vector<double>* scores);
  // Candidates of the volume in volume pixel coordinates, best first.
  void detectFiducials3D(std::vector<Vec3d>& positions);
  // Confirm candidates and append what survives to the result list.
  void computeFiducial2D(const Vec3d& point, double roiSize);
  void computeFiducial3D(const Vec3d& point, double roiSize);

  // A copy of slice `slice` in slice coordinates, or null for an unsupported orientation or a
  // slice outside the volume. `size` is the volume's size, `axes` the slice mapping (signed
  // axis codes, negative for a reversed axis) and `spacing` that of the slice's two in-plane
  // axes and its normal.
  std::unique_ptr<TypedImage<unsigned short>> getSliceImage(int slice, Vec3i& size, Vec3i& axes, Vec3d& spacing);
  static Vec3d slice2vol(const Vec3d& p, const Vec3i& axes, const Vec3i& size);

  // Random-sample consensus fits with 70 rounds and a fixed seed. A negative `diameter` leaves
  // the radius free. `centreAndRadius` receives the centre and, last, the radius. Return the
  // best fit's residual (infinity when no round found inliers), or -1 when a fit failed.
  static double fitCircleToPointCloud(const std::vector<Vec2d>& points, Vec3d& centreAndRadius,
                                      std::vector<Vec2d>& inliers, double inlierThreshold, double diameter);
  static double fitSphereToPointCloud(const std::vector<Vec3d>& points, Eigen::Vector4d& centreAndRadius,
                                      std::vector<Vec3d>& inliers, double inlierThreshold, double diameter);

  Parameter<int> modeKey{"mode", Mode3D, this, ParameterRange{0, 1}};
  Parameter<int> slice{"slice", -1, this};  // 2D mode and "sliceSphere"
  Parameter<int> sliceStep{"sliceStep", 2, this, ParameterRange{1, 1000}};
  Parameter<Vec3d> point{"point", Vec3d::Zero(), this};  // world position of a click
  // Minimum gradient magnitude, relative to the slice's largest in detection and to the
  // volume's value range in confirmation.
  Parameter<double> contrast{"contrast", 0.1, this, ParameterRange{0.0, 1.0}};
  Parameter<double> roiSize{"roiSize", 10.0, this, ParameterRange{1.0, 10000.0}};   // millimetres
  Parameter<double> diameter{"diameter", 6.0, this, ParameterRange{1.0, 100.0}};   // millimetres
  Parameter<bool> fixedDiameter{"fixedDiameter", true, this};
  Parameter<bool> globalDetection{"globalDetection", true, this};  // else "point" is the candidate
  Parameter<double> minCoverage{"minCoverage", 0.8, this, ParameterRange{0.0, 1.0}};
  Parameter<double> scoreThreshold{"scoreThreshold", 0.75, this, ParameterRange{0.0, 1.0}};
  Parameter<bool> sliceSphere{"sliceSphere", false, this};  // 3D: candidates of "slice" only

  Signal<> signalParametersChanged;

 private:
  // The smallest and largest value of the volume in original units, for the confirmation's
  // float scale.
  void measureValueRange();

  SharedImage const* image_;
  std::vector<Fiducial> fiducials_;
  std::atomic<bool> abort_{false};
  double valueLow_ = 0.0, valueSpan_ = 1.0;
};

}  // namespace Merivane
