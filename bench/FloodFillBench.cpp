// The labeling tool's 3D flood fill on a CT-sized label map: a large ellipsoidal region
// riddled with a regular pattern of other labels, so that runs are short and rows many.
// The phantom is analytic (no random numbers) so that bench/floodfill_vs_skimage.py builds
// the same volume in numpy. Reports voxels filled per second and the filled count.
#include <benchmark/benchmark.h>

#include <omp.h>

#include <vector>

#include "FloodFill.h"

namespace {

using namespace Merivane;

// 1 inside the ellipsoid, 0 outside, 2 on the obstacle lattice inside it.
std::vector<uint8_t> phantom(const Eigen::Vector3i& n) {
  std::vector<uint8_t> v(static_cast<size_t>(n.prod()));
  const Eigen::Vector3d c = (n.cast<double>() - Eigen::Vector3d::Ones()) * 0.5;
  const Eigen::Vector3d r = n.cast<double>() * 0.48;
  size_t i = 0;
  for (int z = 0; z < n[2]; ++z)
    for (int y = 0; y < n[1]; ++y)
      for (int x = 0; x < n[0]; ++x, ++i) {
        const double dx = (x - c[0]) / r[0], dy = (y - c[1]) / r[1], dz = (z - c[2]) / r[2];
        const bool inside = dx * dx + dy * dy + dz * dz <= 1.0;
        const bool obstacle = (x * 7 + y * 13 + z * 5) % 17 == 0;
        v[i] = inside ? (obstacle ? 2 : 1) : 0;
      }
  return v;
}

void BM_FloodFill(benchmark::State& state) {
  const Eigen::Vector3i n(static_cast<int>(state.range(0)), static_cast<int>(state.range(0)),
                          static_cast<int>(state.range(1)));
  const int threads = static_cast<int>(state.range(2));
  const std::vector<uint8_t> source = phantom(n);
  std::vector<uint8_t> labels;
  const Eigen::Vector3i seed = n / 2 + Eigen::Vector3i(1, 0, 0);
  Seg::FloodFillOptions options;
  options.slabs = threads;
  omp_set_num_threads(threads);
  int64_t filled = 0;
  for (auto _ : state) {
    state.PauseTiming();
    labels = source;
    state.ResumeTiming();
    filled = Seg::floodFill(labels.data(), n, seed, 5, options).filled;
    benchmark::DoNotOptimize(labels.data());
  }
  state.counters["filled"] = static_cast<double>(filled);
  state.SetItemsProcessed(state.iterations() * filled);
}
BENCHMARK(BM_FloodFill)
    ->ArgNames({"xy", "z", "threads"})
    ->Args({128, 75, 1})
    ->Args({256, 150, 1})
    ->Args({512, 300, 1})
    ->Args({512, 300, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
