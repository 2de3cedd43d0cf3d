#pragma once
// Helpers shared by the tests: log capture and small images.
#include <Eigen/Core>
#include <memory>
#include <string>
#include <vector>

#include "SharedImageSet.h"

namespace Merivane::TestKit {

// Collects log lines while it lives and keeps them off stderr.
class LogCapture {
 public:
  struct Line {
    int level;
    std::string category;
    std::string message;
  };
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<Line>& lines() const { return lines_; }
  int count(int level) const;
  int count(int level, const std::string& category) const;
  bool contains(const std::string& text) const;
  void clear() { lines_.clear(); }

 private:
  std::vector<Line> lines_;
  int sinkId_;
  bool stderrWas_;
  int levelWas_;
};

// A one-frame set of the given type and size, filled with f(x, y, z) in channel 0.
template <typename T, typename F>
std::unique_ptr<SharedImageSet> makeImage(const Eigen::Vector3i& dims, F f, int channels = 1) {
  auto img = TypedImage<T>::zeros(dims, channels);
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) img->setValue(static_cast<T>(f(x, y, z)), x, y, z, 0);
  return std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(img)));
}

std::unique_ptr<SharedImageSet> makeSet(PixelType type, const Eigen::Vector3i& dims, int frames = 1, int channels = 1);

// True when an OpenGL context can be made; defined in TestSupportGl, which GPU tests link.
bool glContextAvailable();

// A fixed pseudo-random value in [-1, 1] per voxel, the same on every run and machine.
inline double hashNoise(int x, int y, int z) {
  unsigned h = static_cast<unsigned>(x) * 73856093u ^ static_cast<unsigned>(y) * 19349663u ^
               static_cast<unsigned>(z) * 83492791u;
  h ^= h >> 13;
  h *= 0x5bd1e995u;
  h ^= h >> 15;
  return (h % 20001u) / 10000.0 - 1.0;
}


}  // namespace Merivane::TestKit

// GPU tests skip with a message where no context can be made, instead of failing.
#define MERIVANE_REQUIRE_GL()                                                      \
  do {                                                                             \
    if (!::Merivane::TestKit::glContextAvailable())                                \
      GTEST_SKIP() << "no OpenGL 4.5 context through EGL on this machine";         \
  } while (0)
