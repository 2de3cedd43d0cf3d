// Watershed::run on a noisy cell phantom: jittered grid points, one cell per point with its own
// grey value, bright walls of about two voxels between the cells, uniform noise on top, and a
// 3x3x3 marker in the middle of every cell (343 markers, labels 1..253 reused).
//
//   WatershedBench [benchmark flags]          the benchmark, sizes 64 to 256
//   WatershedBench --write-input=DIR [--size=N]
//                                             writes DIR/source.raw and DIR/markers.raw (N^3 bytes)
//   WatershedBench --flood-raw=DIR [--size=N] floods those files once, writes DIR/ours.raw and
//                                             prints {"seconds": s, "maxrss_kb": k}
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Watershed.h"

using namespace Merivane;
using U8Image = TypedImage<unsigned char>;

namespace {

constexpr int kGrid = 7;  // points per axis
constexpr uint64_t kSeed = 20240611;

uint64_t mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

struct Phantom {
  std::unique_ptr<U8Image> source;
  std::unique_ptr<U8Image> markers;
};

Phantom makePhantom(int n) {
  const double cell = static_cast<double>(n) / kGrid;
  std::mt19937 rng(kSeed);
  std::uniform_real_distribution<double> jitter(-0.2 * cell, 0.2 * cell);
  std::vector<Eigen::Vector3d> points;
  for (int k = 0; k < kGrid; ++k)
    for (int j = 0; j < kGrid; ++j)
      for (int i = 0; i < kGrid; ++i)
        points.emplace_back((i + 0.5) * cell + jitter(rng), (j + 0.5) * cell + jitter(rng),
                            (k + 0.5) * cell + jitter(rng));

  Phantom p{U8Image::zeros({n, n, n}, 1), U8Image::zeros({n, n, n}, 1)};
  unsigned char* src = p.source->pointer();
  // Every voxel depends on its coordinates only, so the phantom does not depend on threads.
#pragma omp parallel for schedule(static)
  for (int z = 0; z < n; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        const Eigen::Vector3d v(x + 0.5, y + 0.5, z + 0.5);
        const Eigen::Vector3i g = (v / cell).cast<int>().cwiseMin(kGrid - 1);
        double d1 = 1e30, d2 = 1e30;
        int nearest = 0;
        for (int dk = -1; dk <= 1; ++dk)
          for (int dj = -1; dj <= 1; ++dj)
            for (int di = -1; di <= 1; ++di) {
              const Eigen::Vector3i q = g + Eigen::Vector3i(di, dj, dk);
              if ((q.array() < 0).any() || (q.array() >= kGrid).any()) continue;
              const int id = (q[2] * kGrid + q[1]) * kGrid + q[0];
              const double d = (points[static_cast<size_t>(id)] - v).norm();
              if (d < d1) {
                d2 = d1;
                d1 = d;
                nearest = id;
              } else if (d < d2) {
                d2 = d;
              }
            }
        const int base = d2 - d1 < 2.0 ? 190 : 40 + static_cast<int>(mix(static_cast<uint64_t>(nearest)) % 60);
        const uint64_t h = mix(kSeed ^ ((static_cast<uint64_t>(z) * n + y) * n + x));
        const int value = base + static_cast<int>(h % 25) - 12;
        src[(static_cast<size_t>(z) * n + y) * n + x] = static_cast<unsigned char>(std::clamp(value, 0, 255));
      }
  for (size_t i = 0; i < points.size(); ++i) {
    const Eigen::Vector3i c = points[i].cast<int>();
    for (int dz = -1; dz <= 1; ++dz)
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx)
          p.markers->setValue(static_cast<unsigned char>(i % 253 + 1), c[0] + dx, c[1] + dy, c[2] + dz);
  }
  return p;
}

const Phantom& phantom(int n) {
  static std::map<int, Phantom> cache;
  auto it = cache.find(n);
  if (it == cache.end()) it = cache.emplace(n, makePhantom(n)).first;
  return it->second;
}

void BM_WatershedRun(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const Phantom& p = phantom(n);
  auto seeds = p.markers->cloneTyped();
  const size_t bytes = p.markers->byteSize();
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(seeds->pointer(), p.markers->pointer(), bytes);
    state.ResumeTiming();
    const bool done = Watershed::run(*p.source, *seeds, nullptr, Eigen::Vector3i::Zero(), Eigen::Vector3i::Zero());
    benchmark::DoNotOptimize(done);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n) * n * n);
}
BENCHMARK(BM_WatershedRun)->RangeMultiplier(2)->Range(64, 256)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_QuantizeFloat(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const Phantom& p = phantom(n);
  auto image = TypedImage<float>::zeros({n, n, n}, 1);
  for (size_t i = 0; i < image->descriptor().pixelCount(); ++i)
    image->pointer()[i] = p.source->pointer()[i] * 4.0f - 100;
  for (auto _ : state) benchmark::DoNotOptimize(Watershed::quantizeAndBakeWindowLevel(*image, 900, 300));
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n) * n * n);
}
BENCHMARK(BM_QuantizeFloat)->Arg(256)->Unit(benchmark::kMillisecond)->UseRealTime();

bool writeRaw(const std::string& path, const U8Image& img) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(img.pointer()), static_cast<std::streamsize>(img.byteSize()));
  return static_cast<bool>(out);
}

bool readRaw(const std::string& path, U8Image& img) {
  std::ifstream in(path, std::ios::binary);
  in.read(reinterpret_cast<char*>(img.pointer()), static_cast<std::streamsize>(img.byteSize()));
  return in.gcount() == static_cast<std::streamsize>(img.byteSize());
}

std::string option(int argc, char** argv, const std::string& name) {
  const std::string prefix = "--" + name + "=";
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], prefix.c_str(), prefix.size()) == 0) return argv[i] + prefix.size();
  return {};
}

int writeInput(const std::string& dir, int n) {
  const Phantom p = makePhantom(n);
  if (!writeRaw(dir + "/source.raw", *p.source) || !writeRaw(dir + "/markers.raw", *p.markers)) {
    std::fprintf(stderr, "%s: cannot write the input files\n", dir.c_str());
    return 1;
  }
  return 0;
}

int floodRaw(const std::string& dir, int n) {
  U8Image source({n, n, n}, 1, nullptr, MemImage::Ownership::Owned, false);
  U8Image seeds({n, n, n}, 1, nullptr, MemImage::Ownership::Owned, false);
  if (!readRaw(dir + "/source.raw", source) || !readRaw(dir + "/markers.raw", seeds)) {
    std::fprintf(stderr, "%s: source.raw or markers.raw missing or short\n", dir.c_str());
    return 1;
  }
  const auto t0 = std::chrono::steady_clock::now();
  Watershed::run(source, seeds, nullptr, Eigen::Vector3i::Zero(), Eigen::Vector3i::Zero());
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  if (!writeRaw(dir + "/ours.raw", seeds)) return 1;
  std::printf("{\"seconds\": %.6f, \"maxrss_kb\": %ld}\n", seconds, usage.ru_maxrss);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string size = option(argc, argv, "size");
  const int n = size.empty() ? 256 : std::stoi(size);
  if (const std::string dir = option(argc, argv, "write-input"); !dir.empty()) return writeInput(dir, n);
  if (const std::string dir = option(argc, argv, "flood-raw"); !dir.empty()) return floodRaw(dir, n);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
