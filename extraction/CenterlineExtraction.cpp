#include "CenterlineExtraction.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "ImageProcessing.h"
#include "LevelSet.h"

namespace Merivane::CenterlineExtraction {

const float kRidgeKernel[27] = {
    0.25f, 0.5f, 0.25f, 0.5f, 1.0f,   0.5f, 0.25f, 0.5f, 0.25f,  //
    0.5f,  1.0f, 0.5f,  1.0f, -14.0f, 1.0f, 0.5f,  1.0f, 0.5f,   //
    0.25f, 0.5f, 0.25f, 0.5f, 1.0f,   0.5f, 0.25f, 0.5f, 0.25f,
};

std::unique_ptr<TypedImage<float>> speedFromWindow(const TypedImage<float>& window, float floor) {
  ImageDescriptor d = window.descriptor();
  d.channels = 1;
  d.shift = 0.0;
  d.scale = 1.0;
  auto out = TypedImage<float>::create(d);
  if (!Filters::convolve3x3x3(window, *out, kRidgeKernel)) return nullptr;
  float lo = 0.0f, hi = 0.0f;
  out->getRange(lo, hi);
  float* p = out->pointer();
  const long n = static_cast<long>(d.pixelCount());
  const double range = static_cast<double>(hi) - static_cast<double>(lo);
#pragma omp parallel for schedule(static) if (n > (1 << 16))
  for (long i = 0; i < n; ++i) {
    const double v = range > 0.0 ? (static_cast<double>(hi) - p[i]) / range : 1.0;
    p[i] = static_cast<float>(std::max(std::min(v, 1.0), static_cast<double>(floor)));
  }
  return out;
}

bool minimalPath(const TypedImage<float>& speed, const Eigen::Vector3d& seed, const Eigen::Vector3d& target,
                 std::vector<float>& times, std::vector<Eigen::Vector3d>* path) {
  int size[3] = {speed.width(), speed.height(), speed.slices()};
  times.assign(speed.pointer(), speed.pointer() + speed.descriptor().pixelCount());
  LevelSet::FastMarching3D<float>(times.data(), size, {seed}, const_cast<float*>(speed.pointer()), target, -1.0f,
                                  nullptr);
  float largest = -1.0f;
  for (float t : times)
    if (t <= std::numeric_limits<float>::max()) largest = std::max(largest, t);
  if (largest < 0.0f) return false;
  const float raised = 1.001f * largest;
  for (float& t : times)
    if (!(t <= std::numeric_limits<float>::max())) t = raised;
  if (path) LevelSet::TracePath3DDiscrete<float>(times.data(), size, seed, target, *path);
  return true;
}

}  // namespace Merivane::CenterlineExtraction
