#pragma once
// Gaussian smoothing of an unsigned integer texture (R8UI, R16UI, ...) as three separable
// passes along x, y and z (z only for volumes), limited to a sub-volume: only the voxels of
// that box are written in the output. Intermediate results keep the texture's format and
// round at each pass; they live in scratch textures as large as the largest box seen (grown
// by the kernel), so the cost follows the box, not the image. Lives on the GL thread.
#include <memory>
#include <vector>

#include "GlImage.h"

namespace Merivane {

class GlSmoothingFilter {
 public:
  // kernelSize is the number of taps (odd; even sizes grow by one); sigma <= 0 derives it
  // from the size as 0.3 * ((size - 1) / 2 - 1) + 0.8.
  GlSmoothingFilter(int kernelSize = 9, double sigma = -1.0);
  ~GlSmoothingFilter();
  GlSmoothingFilter(const GlSmoothingFilter&) = delete;
  GlSmoothingFilter& operator=(const GlSmoothingFilter&) = delete;

  void setKernelSize(int kernelSize, double sigma = -1.0);
  // The normalised Gaussian taps for a kernel size and sigma, by the rules above (at most 63).
  static std::vector<float> gaussianWeights(int kernelSize, double sigma = -1.0);
  int kernelSize() const { return static_cast<int>(weights_.size()); }
  const std::vector<float>& weights() const { return weights_; }
  // The box to write; an empty box (the default) means the whole image.
  void setSubVolume(const GL::Cuboid& box) { box_ = box; }

  // Smooths `input` into `output` (same dimensions and format, not the same texture).
  bool compute(const GlImage& input, GlImage& output);

 private:
  std::vector<float> weights_;
  GL::Cuboid box_;
  std::unique_ptr<GlImage> temp_[2];
  struct Programs;
  std::unique_ptr<Programs> programs_;
};

}  // namespace Merivane
