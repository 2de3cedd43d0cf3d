#pragma once
// Small images for the watershed tests.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "Watershed.h"

namespace Merivane::TestKit {

using U8Image = TypedImage<unsigned char>;

inline std::unique_ptr<U8Image> filled(const Eigen::Vector3i& dims, int channels = 1, unsigned char value = 0) {
  auto img = U8Image::zeros(dims, channels);
  img->fill(value);
  return img;
}

// Few grey levels, so that many steps share a priority and the queue order matters.
inline std::unique_ptr<U8Image> noise(const Eigen::Vector3i& dims, unsigned seed, int channels = 1) {
  auto img = U8Image::zeros(dims, channels);
  std::mt19937 rng(seed);
  for (size_t i = 0; i < img->descriptor().elementCount(); ++i) img->pointer()[i] = rng() % 8 * 30;
  return img;
}

// About `share` of the voxels hold labels 1..labels, about 3% hold 254 or 255.
inline std::unique_ptr<U8Image> randomSeeds(const Eigen::Vector3i& dims, unsigned seed, double share = 0.02,
                                            int labels = 4) {
  auto img = U8Image::zeros(dims, 1);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0, 1);
  for (size_t i = 0; i < img->descriptor().pixelCount(); ++i) {
    const double r = u(rng);
    img->pointer()[i] = r < share ? 1 + rng() % labels : r > 0.97 ? 254 + rng() % 2 : 0;
  }
  return img;
}

inline std::vector<unsigned char> bytes(const U8Image& img) {
  return {img.pointer(), img.pointer() + img.descriptor().elementCount()};
}

// The flooded copy of `seeds`.
inline std::vector<unsigned char> flooded(const U8Image& source, const U8Image& seeds,
                                          Eigen::Vector3i lo = Eigen::Vector3i::Zero(),
                                          Eigen::Vector3i hi = Eigen::Vector3i::Zero()) {
  auto result = seeds.cloneTyped();
  EXPECT_TRUE(Watershed::run(source, *result, nullptr, lo, hi));
  return bytes(*result);
}

}  // namespace Merivane::TestKit
