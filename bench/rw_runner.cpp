// One full-resolution random-walk segmentation on raw files, timed, for bench/rw_vs_skimage.py.
//   rw_runner W H D image.f32 seeds.u8 out.f32 SOLVER ITERATIONS TOLERANCE_LOG
// Prints one line of key=value pairs: seconds, iterations, residual, peak_mib. With RW_VERBOSE
// set in the environment, the algorithm logs its steps and their times as well.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "BenchSupport.h"
#include "GraphLaplacianAlgorithm.h"
#include "Log.h"
#include "SharedImageSet.h"

using namespace Merivane;

template <typename T>
static bool readRaw(const char* path, T* data, size_t n) {
  std::ifstream in(path, std::ios::binary);
  return in.read(reinterpret_cast<char*>(data), static_cast<std::streamsize>(n * sizeof(T))).good();
}

int main(int argc, char** argv) {
  if (argc != 10) {
    std::fprintf(stderr, "usage: rw_runner W H D image.f32 seeds.u8 out.f32 SOLVER ITERATIONS TOLERANCE_LOG\n");
    return 2;
  }
  const Eigen::Vector3i dims(std::atoi(argv[1]), std::atoi(argv[2]), std::atoi(argv[3]));
  const size_t n = size_t(dims[0]) * dims[1] * dims[2];
  auto image = TypedImage<float>::zeros(dims, 1);
  auto seeds = TypedImage<unsigned char>::zeros(dims, 1);
  if (!readRaw(argv[4], image->pointer(), n) || !readRaw(argv[5], seeds->pointer(), n)) {
    std::fprintf(stderr, "rw_runner: cannot read the input files\n");
    return 1;
  }
  SharedImage img(std::shared_ptr<Image>(std::move(image)));
  SharedImage lab(std::shared_ptr<Image>(std::move(seeds)));
  Log::g_globalLevel = std::getenv("RW_VERBOSE") ? Log::Info : Log::Warning;
  Bench::resetPeakMemory();
  const auto start = std::chrono::steady_clock::now();
  GraphLaplacianAlgorithm a(img, lab);
  Properties p;
  p.setParam("Verbose", std::getenv("RW_VERBOSE") != nullptr);
  p.setParam("Solver ID", std::atoi(argv[7]));
  p.setParam("Solver Iterations", std::atoi(argv[8]));
  p.setParam("Solver Tolerance (Log)", std::atoi(argv[9]));
  // Pyramid experiments: RW_LEVELS levels, RW_REUSE=0 to start each level from scratch.
  if (const char* lv = std::getenv("RW_LEVELS")) p.setParam("Num Levels", std::atoi(lv));
  if (const char* ru = std::getenv("RW_REUSE")) p.setParam("Re-Use Solution", std::atoi(ru) != 0);
  a.configure(&p);
  a.compute();
  auto out = a.takeOutput().extractFirstImage();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!out) {
    std::fprintf(stderr, "rw_runner: no result\n");
    return 1;
  }
  std::ofstream o(argv[6], std::ios::binary);
  o.write(static_cast<const char*>(out->mem()->data()), static_cast<std::streamsize>(n * sizeof(float)));
  std::printf("seconds=%.3f iterations=%d residual=%.3g peak_mib=%.1f\n", seconds, a.lastIterations(),
              a.lastResidual(), Bench::peakMemoryMiB());
  return 0;
}
