#pragma once
// The phantom the interactive segmentation tests share, and measures on its results.
#include <Eigen/Core>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "InteractiveSegmentationAlgorithm.h"
#include "SharedImageSet.h"

namespace Merivane::InteractiveTestKit {

inline constexpr int N = 48;
inline const Eigen::Vector3d kCentre(23.5, 23.5, 23.5);

using Labels = TypedImage<unsigned char>;

// A bright ball of radius 11 in the middle of a 48³ noisy volume, optionally with a dimmer
// bump of radius 5 on its +x side (not part of the object), and painted seeds: three short
// object strokes through the centre, background rings of radius 17 round the ball on three
// planes, left open where they would cross the bump.
struct Phantom {
  std::unique_ptr<SharedImageSet> image, labels;
  std::vector<unsigned char> truth;  // the ball
  std::vector<unsigned char> bump;   // the bump outside the ball

  explicit Phantom(bool withBump = true) {
    std::mt19937 rng(11);
    std::normal_distribution<float> noise(0.0f, 0.12f);
    const Eigen::Vector3i dims(N, N, N);
    auto img = TypedImage<float>::zeros(dims, 1);
    auto lab = Labels::zeros(dims, 1);
    truth.resize(size_t(N) * N * N);
    bump.resize(truth.size());
    const Eigen::Vector3d bumpCentre = kCentre + Eigen::Vector3d(13, 0, 0);
    for (int z = 0; z < N; ++z)
      for (int y = 0; y < N; ++y)
        for (int x = 0; x < N; ++x) {
          const Eigen::Vector3d p(x, y, z), d = p - kCentre;
          const bool inBall = d.norm() < 11.0, inBump = withBump && !inBall && (p - bumpCentre).norm() < 5.0;
          img->setValue((inBall ? 1.0f : inBump ? 0.55f : 0.0f) + noise(rng), x, y, z);
          truth[index(x, y, z)] = inBall;
          bump[index(x, y, z)] = inBump;
          const Eigen::Vector3d a = d.cwiseAbs();
          const bool stroke = (a[1] < 1 && a[2] < 1 && a[0] < 6) || (a[0] < 1 && a[2] < 1 && a[1] < 6) ||
                              (a[0] < 1 && a[1] < 1 && a[2] < 6);
          if (stroke) lab->setValue(1, x, y, z);
          auto ring = [&](double u, double v, double w) { return a[static_cast<int>(w)] < 1 &&
                                                                 std::abs(std::hypot(u, v) - 17.0) < 0.8; };
          const bool open = d[0] > 0.85 * 17.0;
          if (!open && (ring(d[0], d[1], 2) || ring(d[0], d[2], 1) || ring(d[1], d[2], 0))) lab->setValue(2, x, y, z);
        }
    image = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(img)));
    labels = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(lab)));
    labels->setModality(Data::LABEL);
  }
  static size_t index(int x, int y, int z) { return (size_t(z) * N + y) * N + x; }
  Labels& map() const { return *static_cast<Labels*>(labels->mem()); }
};

inline double dice(const Labels& labels, const std::vector<unsigned char>& truth, int object) {
  const unsigned char* l = labels.pointer();
  size_t both = 0, a = 0, b = 0;
  for (size_t i = 0; i < truth.size(); ++i) {
    const bool seg = l[i] == object;
    both += seg && truth[i];
    a += seg;
    b += truth[i];
  }
  return 2.0 * both / double(a + b);
}

// Fraction of the marked voxels whose probability is at least 0.5.
inline double objectShare(const InteractiveSegmentationAlgorithm& a, const std::vector<unsigned char>& where) {
  const float* p = static_cast<const TypedImage<float>*>(a.probability()->mem(0))->pointer();
  size_t in = 0, n = 0;
  for (size_t i = 0; i < where.size(); ++i)
    if (where[i]) {
      ++n;
      in += p[i] >= 0.5f;
    }
  return double(in) / double(n);
}

inline int total(const std::vector<int>& v) {
  int s = 0;
  for (int x : v) s += x;
  return s;
}

// Paints a ball of radius 1.5 with `value` in the bump, within the x extent of the seeds (so
// that the seeds' box stays): the correction stroke.
inline std::vector<unsigned char> paintBumpStroke(Labels& map, int value) {
  std::vector<unsigned char> stroke(size_t(N) * N * N);
  const Eigen::Vector3d c = kCentre + Eigen::Vector3d(12, 0, 0);
  for (int z = 0; z < N; ++z)
    for (int y = 0; y < N; ++y)
      for (int x = 0; x < N; ++x)
        if ((Eigen::Vector3d(x, y, z) - c).norm() <= 1.5) {
          map.setValue(static_cast<unsigned char>(value), x, y, z);
          stroke[Phantom::index(x, y, z)] = 1;
        }
  return stroke;
}


}  // namespace Merivane::InteractiveTestKit
