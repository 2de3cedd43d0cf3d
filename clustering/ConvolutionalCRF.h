#pragma once
// Mean-field inference of a conditional random field whose pairwise term is limited to a
// window round each pixel, on plain float arrays (row-major, channels innermost, x fastest).
// Kernels are built once per frame on a grid reduced by box averaging; each iteration passes
// messages on that grid, upsamples them (bilinear, trilinear in volumes) and applies softmax
// and the convergence test at full resolution. Kernels are exponential decays of the
// unsquared distance in space and in feature values.
#include <cstddef>
#include <functional>
#include <vector>

namespace Merivane::Seg::internal {

struct CrfSettings {
  int radius = 5;
  int downsampling = 2;
  float adaptiveness = 0.5f;
  float smoothWeight = 0.05f;
  float appearanceSigma = 0.25f;
  float smoothnessSigma = 1.0f;
  int maxNumIter = 10;
  float convergenceThreshold = 0.001f;  // percentage of pixels that may still change
};

struct CrfGrid {
  int w = 1, h = 1, d = 1;
  size_t count() const { return static_cast<size_t>(w) * static_cast<size_t>(h) * static_cast<size_t>(d); }
};

class ConvolutionalCRF {
 public:
  enum class Stop { MaxIterations, Converged, Canceled };

  ConvolutionalCRF(const CrfGrid& grid, int featureChannels, int classes, const CrfSettings& settings);

  // Reduced grid and window sizes for a frame.
  static CrfGrid reducedGrid(const CrfGrid& grid, int factor);
  // Number of kernel weights a frame needs (reduced pixels times window offsets).
  static double kernelCount(const CrfGrid& grid, const CrfSettings& settings);
  // Compatibility: 0 on the diagonal, 1 elsewhere (C x C, row-major).
  static std::vector<float> defaultCompatibility(int classes);
  // Box reduction by `factor` (depth 1 stays 1); padded cells repeat the nearest real cell.
  static std::vector<float> reduce(const std::vector<float>& in, const CrfGrid& grid, int channels, int factor);
  static void softmax(float* out, const float* in, int classes);

  void setCompatibility(std::vector<float> m) { compat_ = std::move(m); }
  // Builds the kernels from the features (featureChannels per pixel).
  void buildKernels(const std::vector<float>& features);
  // Runs the iterations from softmax(unary); `q` receives the probabilities. `canceled`
  // is asked before each iteration. `iterations` receives the number run.
  Stop run(const std::vector<float>& unary, std::vector<float>& q, const std::function<bool()>& canceled,
           int* iterations = nullptr) const;

  const std::vector<float>& kernels() const { return kernels_; }

 private:
  CrfGrid grid_, reduced_;
  int F_, C_;
  CrfSettings s_;
  int kx_, ky_, kz_;
  std::vector<float> spatial_;
  std::vector<float> kernels_;
  std::vector<float> compat_;
};

}  // namespace Merivane::Seg::internal
