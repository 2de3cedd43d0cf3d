// Hessian tubularity at four scales, fast marching over a whole volume, the skin of a body
// phantom, the dose's five kernel convolutions, and fiducial extraction in a CT-like volume
// with spherical markers.
//
//   ExtractionBench [benchmark flags]           the timed cases, sizes swept
//   ExtractionBench --march-raw=DIR --size=N    marches DIR/speed.raw (N^3 float32, x fastest)
//                                               once from the centre voxel, writes DIR/ours.raw
//                                               (float32 arrival times, unreached +inf) and
//                                               prints {"seconds": ...} for the call alone;
//                                               bench/extraction_vs_peers.py uses it
#include <benchmark/benchmark.h>

#include <Eigen/Geometry>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "FftConvolution.h"
#include "FiducialExtractionAlgorithm.h"
#include "HessianAnalysis.h"
#include "LevelSet.h"
#include "SharedImageSet.h"
#include "SkinSegmentationAlgorithm.h"

namespace Merivane {
namespace {

// Tubes of widths 1 to 4 voxels along the three axes and a diagonal, on a low ramp with a
// fixed hashed noise: the same volume on every run.
std::unique_ptr<TypedImage<float>> tubePhantom(int n) {
  auto img = TypedImage<float>::zeros(Eigen::Vector3i(n, n, n));
  const double c = n / 2.0;
  for (int z = 0; z < n; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        unsigned h = static_cast<unsigned>(x) * 73856093u ^ static_cast<unsigned>(y) * 19349663u ^
                     static_cast<unsigned>(z) * 83492791u;
        h ^= h >> 13;
        h *= 0x5bd1e995u;
        double v = 10.0 * x / n + (h % 1000) / 200.0;
        const double r1 = std::hypot(y - 0.3 * n, z - 0.3 * n), r2 = std::hypot(x - 0.7 * n, z - 0.4 * n);
        const double r3 = std::hypot(x - 0.5 * n, y - 0.7 * n);
        const double d = (Eigen::Vector3d(x, y, z) - Eigen::Vector3d(c, c, c)).cross(Eigen::Vector3d(1, 1, 1).normalized()).norm();
        v += 100 * std::exp(-r1 * r1 / 2.0) + 100 * std::exp(-r2 * r2 / 8.0) + 100 * std::exp(-r3 * r3 / 18.0) +
             100 * std::exp(-d * d / 32.0);
        img->setValue(static_cast<float>(v), x, y, z);
      }
  return img;
}

std::vector<float> speedPhantom(int n) {
  std::vector<float> s(static_cast<size_t>(n) * n * n);
  size_t i = 0;
  for (int z = 0; z < n; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x)
        s[i++] = static_cast<float>(0.6 + 0.4 * std::sin(0.11 * x) * std::cos(0.07 * y + 0.05 * z));
  return s;
}

// An n x n x (n * 300 / 512) U16 volume of 0.5 mm voxels: an elliptic body of 1000 with
// Gaussian noise (sigma 15) in air stored as 0, and 20 * n / 512 (at least 2) bright balls of
// 6 mm (3000) inside the body at fixed random positions.
std::unique_ptr<SharedImageSet> markerPhantom(int n) {
  const int slices = std::max(16, n * 300 / 512);
  auto img = TypedImage<unsigned short>::zeros(Eigen::Vector3i(n, n, slices));
  std::mt19937 rng(7);
  std::normal_distribution<double> noise(0.0, 15.0);
  const double c = 0.5 * n, ax = 0.42 * n, ay = 0.32 * n;
  for (int z = 0; z < slices; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        const double e = std::pow((x - c) / ax, 2) + std::pow((y - c) / ay, 2);
        if (e <= 1.0) img->setValue(static_cast<unsigned short>(std::clamp(1000.0 + noise(rng), 1.0, 65535.0)), x, y, z);
      }
  const int markers = std::max(2, 20 * n / 512);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  const double r = 6.0;  // voxels
  for (int m = 0; m < markers; ++m) {
    const double a = 2 * M_PI * unit(rng), t = 0.75 * std::sqrt(unit(rng));
    const Eigen::Vector3d centre(c + (ax - 2 * r) * t * std::cos(a), c + (ay - 2 * r) * t * std::sin(a),
                                 r + 2 + (slices - 2 * r - 4) * unit(rng));
    for (int z = std::max(0, int(centre[2] - r - 1)); z <= std::min(slices - 1, int(centre[2] + r + 1)); ++z)
      for (int y = int(centre[1] - r - 1); y <= int(centre[1] + r + 1); ++y)
        for (int x = int(centre[0] - r - 1); x <= int(centre[0] + r + 1); ++x)
          if ((Eigen::Vector3d(x, y, z) - centre).norm() <= r) img->setValue(3000, x, y, z);
  }
  img->setSpacing(Eigen::Vector3d::Constant(0.5));
  return std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(img)));
}

void BM_FiducialExtraction(benchmark::State& state) {
  auto volume = markerPhantom(static_cast<int>(state.range(0)));
  size_t found = 0;
  for (auto _ : state) {
    FiducialExtractionAlgorithm algorithm(volume->get(0), FiducialExtractionAlgorithm::Mode3D);
    algorithm.compute();
    found = algorithm.fiducials().size();
    benchmark::DoNotOptimize(found);
  }
  state.counters["fiducials"] = static_cast<double>(found);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(volume->mem(0)->descriptor().pixelCount()));
}
BENCHMARK(BM_FiducialExtraction)->Arg(128)->Arg(512)->Unit(benchmark::kMillisecond);

void BM_HessianTubularityFourScales(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  auto image = tubePhantom(n);
  auto out = TypedImage<float>::zeros(image->dimensions());
  HessianTubularityMeasure measure;
  measure.scales = {1.0, 2.0, 3.0, 4.0};
  for (auto _ : state) {
    measure.computeMeasure(*image, *out);
    benchmark::DoNotOptimize(out->pointer());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n) * n * n);
}
BENCHMARK(BM_HessianTubularityFourScales)->RangeMultiplier(2)->Range(32, 128)->Unit(benchmark::kMillisecond);

void BM_FastMarchingWholeVolume(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::vector<float> speed = speedPhantom(n), times(speed.size());
  int size[3] = {n, n, n};
  const Eigen::Vector3d seed(n / 2, n / 2, n / 2), noTarget(-1, -1, -1);
  for (auto _ : state) {
    LevelSet::FastMarching3D<float>(times.data(), size, {seed}, speed.data(), noTarget, -1.0f, nullptr);
    benchmark::DoNotOptimize(times.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n) * n * n);
}
BENCHMARK(BM_FastMarchingWholeVolume)->RangeMultiplier(2)->Range(64, 256)->Unit(benchmark::kMillisecond);

// A CT body: an elliptic cylinder of soft tissue through every slice in air, with lungs (two
// balls at -700), a spine of bone and hashed noise.
std::unique_ptr<SharedImageSet> bodyPhantom(int n) {
  auto img = TypedImage<short>::create(Eigen::Vector3i(n, n, n), 1);
  short* p = img->pointer();
  const double c = n / 2.0;
#pragma omp parallel for schedule(static)
  for (int z = 0; z < n; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        const double ex = (x - c) / (0.42 * n), ey = (y - c) / (0.30 * n);
        double v = -1000.0;
        if (ex * ex + ey * ey <= 1.0) {
          v = 40.0;
          const double lx = std::abs(x - c) - 0.18 * n, ly = y - c, lz = z - c;
          if (lx * lx + ly * ly + lz * lz * 0.2 <= 0.02 * n * n) v = -700.0;
          if (std::abs(x - c) < 0.04 * n && y - c > 0.15 * n && y - c < 0.24 * n) v = 700.0;
        }
        const unsigned h = static_cast<unsigned>(x) * 73856093u ^ static_cast<unsigned>(y) * 19349663u ^
                           static_cast<unsigned>(z) * 83492791u;
        p[(static_cast<size_t>(z) * n + y) * n + x] = static_cast<short>(v + static_cast<int>(h % 41u) - 20);
      }
  auto set = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(img)));
  set->setModality(Data::CT);
  return set;
}

void BM_SkinSegmentation(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  auto ct = bodyPhantom(n);
  for (auto _ : state) {
    SkinSegmentationAlgorithm skin(ct.get());
    skin.mattingKernelSize = 0;
    skin.compute();
    benchmark::DoNotOptimize(skin.takeOutput());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n) * n * n);
}
BENCHMARK(BM_SkinSegmentation)->RangeMultiplier(2)->Range(64, 256)->Unit(benchmark::kMillisecond);

// The source transformed once, then five 31^3 kernels: the convolutions of a dose run.
void BM_DoseFiveKernelConvolutions(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0)), k = 31;
  std::vector<float> volume(static_cast<size_t>(n) * n * n), out(volume.size());
  for (size_t i = 0; i < volume.size(); ++i) volume[i] = static_cast<float>((i * 2654435761u) % 1000u);
  std::vector<std::vector<float>> kernels(5, std::vector<float>(static_cast<size_t>(k) * k * k));
  for (int c = 0; c < 5; ++c)
    for (size_t i = 0; i < kernels[static_cast<size_t>(c)].size(); ++i)
      kernels[static_cast<size_t>(c)][i] = 1.0f / static_cast<float>(1 + (i + static_cast<size_t>(c)) % 97u);
  for (auto _ : state) {
    Dose::FftConvolver conv(Eigen::Vector3i(n, n, n), Eigen::Vector3i(k, k, k));
    conv.setVolume(volume.data());
    for (const auto& kernel : kernels) conv.convolve(kernel.data(), Eigen::Vector3i(k, k, k), out.data());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * 5 * static_cast<int64_t>(n) * n * n);
}
BENCHMARK(BM_DoseFiveKernelConvolutions)->RangeMultiplier(2)->Range(64, 256)->Unit(benchmark::kMillisecond);

std::string option(int argc, char** argv, const std::string& name) {
  const std::string prefix = "--" + name + "=";
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], prefix.c_str(), prefix.size()) == 0) return argv[i] + prefix.size();
  return {};
}

int marchRaw(const std::string& dir, int n) {
  std::vector<float> speed(static_cast<size_t>(n) * n * n), times(speed.size());
  std::ifstream in(dir + "/speed.raw", std::ios::binary);
  if (!in.read(reinterpret_cast<char*>(speed.data()), static_cast<std::streamsize>(speed.size() * sizeof(float)))) {
    std::fprintf(stderr, "%s/speed.raw: missing or shorter than %d^3 floats\n", dir.c_str(), n);
    return 1;
  }
  int size[3] = {n, n, n};
  const auto start = std::chrono::steady_clock::now();
  LevelSet::FastMarching3D<float>(times.data(), size, {Eigen::Vector3d(n / 2, n / 2, n / 2)}, speed.data(),
                                  Eigen::Vector3d(-1, -1, -1), -1.0f, nullptr);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::ofstream out(dir + "/ours.raw", std::ios::binary);
  out.write(reinterpret_cast<const char*>(times.data()), static_cast<std::streamsize>(times.size() * sizeof(float)));
  if (!out) return 1;
  std::printf("{\"seconds\": %.6f}\n", seconds);
  return 0;
}

}  // namespace
}  // namespace Merivane

int main(int argc, char** argv) {
  const std::string size = Merivane::option(argc, argv, "size");
  const int n = size.empty() ? 256 : std::stoi(size);
  if (const std::string dir = Merivane::option(argc, argv, "march-raw"); !dir.empty()) return Merivane::marchRaw(dir, n);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
