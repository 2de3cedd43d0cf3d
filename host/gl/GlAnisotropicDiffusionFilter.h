#pragma once
// Edge-preserving denoising of a one-channel texture: explicit Perona-Malik diffusion with a
// regularised edge map (Catte, Lions, Morel and Coll 1992), then a light unsharp mask.
//
//   1. The input is smoothed by a separable Gaussian of the smoothing kernel size, and the
//      gradient magnitude s of the smoothed image is taken by central differences, per unit
//      of the smallest voxel edge.
//   2. Each voxel gets the conductance g = exp(-s^2 / k^2), with k^2 = 2 c^2 mean(s^2) over
//      the whole image and c the contrast: the edge scale follows the image, so the same
//      contrast suits CT numbers and normalised floats alike. A flat image gets g = 1.
//   3. `iterations` explicit steps u += dt sum_n w_n (g_c + g_n) / 2 (u_n - u_c) over the
//      face neighbours, with w_n = (smallest spacing / spacing_n)^2, dt = 1 / (2 sum w + 1)
//      and no flux across the image border. The conductances are those of the input (they
//      are not re-estimated per step), which keeps a step at 7 fetches per voxel.
//   4. Unsharp mask u + a (u - G u) with a small Gaussian G, clamped to the minimum and
//      maximum of the same neighbourhood so that it sharpens ramps without halos.
//
// Every step is a convex combination or a clamp, so the result never leaves the input's
// range; a constant image stays constant and zero iterations copy the input. Values are
// taken as stored (shift and scale do not matter: the edge scale is relative). The work runs
// in float textures over the whole image; scratch textures live only during compute().
// Lives on the GL thread.
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Merivane {

class GlImage;

namespace GL {
class ImageProgram;
}

class GlAnisotropicDiffusionFilter {
 public:
  static constexpr int kMaxSmoothingKernelSize = 63;
  static constexpr int kMaxSharpenKernelSize = 9;
  static constexpr int kMaxIterations = 1000;

  GlAnisotropicDiffusionFilter();
  ~GlAnisotropicDiffusionFilter();
  GlAnisotropicDiffusionFilter(const GlAnisotropicDiffusionFilter&) = delete;
  GlAnisotropicDiffusionFilter& operator=(const GlAnisotropicDiffusionFilter&) = delete;

  // Setters refuse values outside their range with one warning and keep the old value.
  // Taps of the Gaussian before the gradient, 1 to 63 (even sizes grow by one; 1 is none).
  bool setSmoothingKernelSize(int size);
  int smoothingKernelSize() const { return static_cast<int>(smoothingWeights_.size()); }
  bool setIterations(int iterations);  // 0 to 1000; 0 copies the input
  int iterations() const { return iterations_; }
  bool setContrast(double contrast);  // edge scale relative to the RMS gradient, > 0
  double contrast() const { return contrast_; }
  // Taps of the unsharp Gaussian (1 to 9, odd) and its amount (>= 0; 0 or size 1: none).
  bool setSharpenKernelSize(int size, double amount);
  int sharpenKernelSize() const { return static_cast<int>(sharpenWeights_.size()); }
  double sharpenAmount() const { return sharpenAmount_; }
  const std::vector<float>& smoothingWeights() const { return smoothingWeights_; }
  const std::vector<float>& sharpenWeights() const { return sharpenWeights_; }

  // Filters `input` into `output`: both one channel, same dimensions, different textures;
  // any texture formats (integer results are rounded and clamped to the output's type).
  // Spacing comes from the input's descriptor. False, with output untouched or partly
  // written, when a texture is unusable or a program does not compile (logged).
  bool compute(const GlImage& input, GlImage& output);
  // k^2 of the last compute (0 for a flat image or zero iterations).
  double lastEdgeScaleSquared() const { return lastK2_; }

 private:
  GL::ImageProgram* program(const std::string& key, const std::string& source);
  bool run(const GlImage& input, GlImage& output);

  std::vector<float> smoothingWeights_;
  std::vector<float> sharpenWeights_;
  int iterations_ = 50;
  double contrast_ = 0.6;
  double sharpenAmount_ = 0.0;
  double lastK2_ = 0.0;
  std::map<std::string, std::unique_ptr<GL::ImageProgram>> programs_;
};

}  // namespace Merivane
