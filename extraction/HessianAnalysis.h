#pragma once
// A per-voxel measure of the eigenvalues of an image's Hessian matrix.
//
// Passes: a float copy of the frame, clamped to [minIntensity, maxIntensity] when that window
// is not empty, converted to original intensities; then, for every interior voxel, the six
// second derivatives, the eigenvalues of the symmetric 3 x 3 matrix in closed form (Smith's
// trigonometric solution, in double), ordered by absolute value, and combineEigenvalues()
// stored as float. The outermost layer of voxels stays 0.
//
// Without scales the derivatives are the plain central differences of the image, each
// weighted by 1 / (2 s) for both of its axes (s the spacing). With scales (millimetres), each
// scale smooths the image with a separable Gaussian (float FIR, edge voxel repeated) and takes
// the Hessian of the smoothed image by central differences, normalised by sigma^2 (Lindeberg)
// so that responses of different scales compare; the result is the largest response over
// the scales. Slices run in parallel and every voxel is computed alone, so the result does
// not depend on the number of threads.
#include <memory>
#include <vector>

#include "Image.h"

namespace Merivane {

class SharedImage;

class HessianAnalysis {
 public:
  HessianAnalysis() = default;
  virtual ~HessianAnalysis();

  // The voxel's result from its eigenvalues, |l1| <= |l2| <= |l3|.
  virtual double combineEigenvalues(double l1, double l2, double l3) const = 0;

  // A new float frame with the input's matrix, owned by the caller; null for a frame without
  // memory or one that is not 3D.
  std::unique_ptr<SharedImage> compute(const SharedImage& image) const;
  // Steps after the intensity preparation, on channel 0 of a float volume, into `out` (a
  // float volume of the same size, overwritten). False if the sizes or types do not fit.
  bool computeMeasure(const TypedImage<float>& image, TypedImage<float>& out) const;

  double minIntensity = 0.0;
  double maxIntensity = 0.0;
  // Gaussian scales in millimetres; empty for the single pass of plain differences.
  std::vector<double> scales;

 protected:
  // Set by measures that are 0 whenever the largest eigenvalue is positive: the call is then
  // skipped.
  bool zeroForPositiveLargest_ = false;
};

// Bright tubes on a dark background: 0 when l3 > 0; otherwise, with Ra = |l2| / |l3|,
// Rb = |l1| / |l2| and S2 = l1^2 + l2^2 + l3^2,
//     exp(-beta^2 Rb^2) * (1 - Ra) * (1 - exp(-gamma^2 S2)).
// alpha is kept with the settings and not used. A zero l2 makes Rb infinite (the first
// factor 0 unless beta is 0); a zero l3 (a flat voxel) gives 0.
class HessianTubularityMeasure : public HessianAnalysis {
 public:
  HessianTubularityMeasure(double alpha = 1.0, double beta = 1.0, double gamma = 1.0);
  double combineEigenvalues(double l1, double l2, double l3) const override;

  double alpha;
  double beta;
  double gamma;
};

}  // namespace Merivane
