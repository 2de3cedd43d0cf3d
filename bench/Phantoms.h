#pragma once
// Noisy two-region phantoms with two seed blobs, reproducible from a fixed seed.
#include <cmath>
#include <memory>
#include <random>

#include "SharedImage.h"

namespace Merivane::Bench {

struct Phantom {
  std::shared_ptr<SharedImage> image;   // F32: a ball (or disc) of 1 in 0, plus Gaussian noise
  std::shared_ptr<SharedImage> seeds;   // U8: 1 inside near the centre, 2 in a corner region
  std::shared_ptr<SharedImage> truth;   // U8: 1 inside the ball
};

// A ball (disc) of 1 in 0 with Gaussian noise; object seeds in a blob at the centre, background
// seeds in blobs near the corners. bench/rw_vs_skimage.py builds the same volume in numpy.
inline Phantom makePhantom(int size, int slices, float noise = 0.2f, unsigned seed = 42) {
  const Eigen::Vector3i dims(size, size, slices);
  auto img = TypedImage<float>::zeros(dims, 1);
  auto lab = TypedImage<unsigned char>::zeros(dims, 1);
  auto truth = TypedImage<unsigned char>::zeros(dims, 1);
  std::mt19937 rng(seed);
  std::normal_distribution<float> gauss(0.0f, noise);
  const double c = (size - 1) * 0.5, cz = (slices - 1) * 0.5, r = size * 0.3;
  const double blob = std::max(2.0, size / 16.0);
  const int lo = size / 8, hi = size - 1 - size / 8;
  const int zlo = slices > 1 ? slices / 8 : 0, zhi = slices > 1 ? slices - 1 - slices / 8 : 0;
  for (int z = 0; z < slices; ++z)
    for (int y = 0; y < size; ++y)
      for (int x = 0; x < size; ++x) {
        const double dz = slices > 1 ? z - cz : 0.0;
        const double d = std::sqrt((x - c) * (x - c) + (y - c) * (y - c) + dz * dz);
        const bool inside = d < r;
        img->setValue((inside ? 1.0f : 0.0f) + gauss(rng), x, y, z);
        truth->setValue(inside ? 1 : 0, x, y, z);
        if (d < blob) lab->setValue(1, x, y, z);
        for (int kz : {zlo, zhi})
          for (int ky : {lo, hi})
            for (int kx : {lo, hi}) {
              const double e = std::sqrt(double(x - kx) * (x - kx) + double(y - ky) * (y - ky) +
                                         (slices > 1 ? double(z - kz) * (z - kz) : 0.0));
              if (e < blob) lab->setValue(2, x, y, z);
            }
      }
  Phantom p;
  p.image = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(img)));
  p.seeds = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(lab)));
  p.truth = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(truth)));
  return p;
}

}  // namespace Merivane::Bench
