#include "SegmentationSteps.h"

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace Merivane::Seg::internal {

namespace {

const unsigned char* sameSize(const TypedImage<unsigned char>* previous, const TypedImage<unsigned char>& labels) {
  if (!previous || previous->descriptor().elementCount() != labels.descriptor().elementCount()) return nullptr;
  return previous->pointer();
}

}  // namespace

SeedBox seedBox(const TypedImage<unsigned char>& labels, const TypedImage<unsigned char>* previous, int L,
                double margin) {
  SeedBox box;
  const Eigen::Vector3i d = labels.dimensions();
  const unsigned char* prev = sameSize(previous, labels);
  Eigen::Vector3i lo(d[0], d[1], d[2]), hi(-1, -1, -1);
  int64_t objects = 0, backgrounds = 0;
  const unsigned char* l = labels.pointer();
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x) {
        const size_t i = (static_cast<size_t>(z) * d[1] + y) * d[0] + x;
        const bool seed = l[i] == L || l[i] == L + 1;
        if (!seed && !(prev && prev[i] != L)) continue;
        const Eigen::Vector3i v(x, y, z);
        lo = lo.cwiseMin(v);
        hi = hi.cwiseMax(v);
        (l[i] == L ? objects : backgrounds) += 1;
      }
  box.anySeeds = objects + backgrounds > 0;
  if (backgrounds == 0) return box;

  for (int k = 0; k < 3; ++k) {
    const int newMin = std::max(static_cast<int>(lo[k] - (hi[k] - lo[k]) * margin + 0.5), 0);
    const int newMax = std::min(static_cast<int>(hi[k] + (hi[k] - newMin) * margin + 0.5), d[k] - 1);
    box.offset[k] = newMin;
    box.size[k] = newMax - newMin + 1;
  }
  box.crop = (box.size[0] == 1) + (box.size[1] == 1) + (box.size[2] == 1) < 2;
  return box;
}

bool drawOutline(const TypedImage<float>& probability, TypedImage<unsigned char>& labels, const Eigen::Vector3i& o,
                 const Eigen::Vector3i& s) {
  const Eigen::Vector3i d = labels.dimensions();
  const float t = 0.5f;
  // Every thread may set the flag, none clears it.
  std::atomic<bool> border{false};
  const float* p = probability.pointer();
  unsigned char* l = labels.pointer();
  const int64_t W = d[0], WH = int64_t(d[0]) * d[1];
  // Each z writes only slice z of the labels; neighbours are read from the probabilities.
#pragma omp parallel for schedule(static)
  for (int z = o[2]; z < o[2] + s[2]; ++z)
    for (int y = o[1]; y < o[1] + s[1]; ++y)
      for (int x = o[0]; x < o[0] + s[0]; ++x) {
        const int64_t i = x + W * y + WH * z;
        if (p[i] < t) {
          if (l[i] > 254) l[i] = 0;
          continue;
        }
        const bool outside = (x > 0 && p[i - 1] < t) || (x < d[0] - 1 && p[i + 1] < t) ||
                             (y > 0 && p[i - W] < t) || (y < d[1] - 1 && p[i + W] < t) ||
                             (z > 0 && p[i - WH] < t) || (z < d[2] - 1 && p[i + WH] < t);
        const bool onBorder = x == 0 || x == d[0] - 1 || y == 0 || y == d[1] - 1 ||
                              (d[2] != 1 && (z == 0 || z == d[2] - 1));
        if (onBorder) {
          border.store(true, std::memory_order_relaxed);
          l[i] = 255;
          continue;
        }
        if (l[i] > 254) l[i] = 0;
        if (outside) l[i] = 255;
      }
  return border.load();
}

void convertToLabels(const TypedImage<float>& probability, TypedImage<unsigned char>& labels,
                     const TypedImage<unsigned char>* previous, int L, const Eigen::Vector3i& o,
                     const Eigen::Vector3i& s, bool clearOutside) {
  const unsigned char* prev = sameSize(previous, labels);
  const Eigen::Vector3i d = labels.dimensions();
  const float* pr = probability.pointer();
  unsigned char* l = labels.pointer();
#pragma omp parallel for schedule(static)
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x) {
        const size_t k = (static_cast<size_t>(z) * d[1] + y) * d[0] + x;
        const bool inside = x >= o[0] && x < o[0] + s[0] && y >= o[1] && y < o[1] + s[1] && z >= o[2] &&
                            z < o[2] + s[2];
        if (!inside && !clearOutside) continue;
        if (prev && prev[k] != L)
          l[k] = prev[k];
        else if (inside)
          l[k] = static_cast<unsigned char>(pr[k] >= 0.5f ? L : L + 1);
        else
          l[k] = static_cast<unsigned char>(L + 1);
      }
}

}  // namespace Merivane::Seg::internal
