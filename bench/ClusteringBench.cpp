// Clustering and refinement: three-mode histogram clustering and four-cluster intensity
// clustering of a synthetic volume (sizes swept up to 256^3), and the CRF on a 256^2 frame with
// three labels and ten iterations. Fixed seeds; voxels per second reported.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <random>

#include "ConvolutionalCRFAlgorithm.h"
#include "HistogramIntensityClusteringAlgorithm.h"
#include "IntensityClusteringAlgorithm.h"
#include "Log.h"
#include "SharedImageSet.h"

using namespace Merivane;

namespace {

// Blocks of `modes` intensity levels (U16) with Gaussian noise of sigma 40, blocks of 16^3.
std::unique_ptr<SharedImageSet> modesVolume(int n, int modes) {
  auto img = TypedImage<unsigned short>::create(Eigen::Vector3i(n, n, n), 1);
  std::mt19937 rng(7);
  std::normal_distribution<double> noise(0.0, 40.0);
  for (int z = 0; z < n; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        const int k = ((x / 16) * 7 + (y / 16) * 3 + (z / 16)) % modes;
        img->setValue(static_cast<unsigned short>(std::clamp(1000.0 + 800.0 * k + noise(rng), 0.0, 65535.0)), x, y, z);
      }
  return std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(img)));
}

void BM_HistogramClustering3(benchmark::State& state) {
  Log::g_globalLevel = Log::Error;
  const int n = static_cast<int>(state.range(0));
  auto image = modesVolume(n, 3);
  for (auto _ : state) {
    HistogramIntensityClusteringAlgorithm algo(*image);
    algo.compute();
    if (algo.status() != 0) state.SkipWithError("no clusters");
    benchmark::DoNotOptimize(algo.takeOutput());
  }
  state.SetItemsProcessed(state.iterations() * int64_t(n) * n * n);
}
BENCHMARK(BM_HistogramClustering3)->RangeMultiplier(2)->Range(64, 256)->Unit(benchmark::kMillisecond);

void BM_IntensityClustering4(benchmark::State& state) {
  Log::g_globalLevel = Log::Error;
  const int n = static_cast<int>(state.range(0));
  auto image = modesVolume(n, 4);
  for (auto _ : state) {
    IntensityClusteringAlgorithm algo(image->get(0));
    algo.setClusters({{800, 300}, {1700, 300}, {2600, 300}, {3300, 300}});
    algo.nbIterations = 20;
    algo.compute();
    if (algo.status() != 0) state.SkipWithError("failed");
    benchmark::DoNotOptimize(algo.takeOutput());
  }
  state.SetItemsProcessed(state.iterations() * int64_t(n) * n * n);
}
BENCHMARK(BM_IntensityClustering4)->RangeMultiplier(2)->Range(64, 256)->Unit(benchmark::kMillisecond);

// The same on float voxels: the per-voxel path.
void BM_IntensityClustering4Float(benchmark::State& state) {
  Log::g_globalLevel = Log::Error;
  const int n = static_cast<int>(state.range(0));
  auto u16 = modesVolume(n, 4);
  auto f = TypedImage<float>::create(Eigen::Vector3i(n, n, n), 1);
  const auto* src = static_cast<const TypedImage<unsigned short>*>(u16->mem(0));
  for (size_t i = 0; i < f->descriptor().elementCount(); ++i) f->pointer()[i] = src->pointer()[i] + 0.5f;
  SharedImage image(std::shared_ptr<Image>(std::move(f)));
  for (auto _ : state) {
    IntensityClusteringAlgorithm algo(&image);
    algo.setClusters({{800, 300}, {1700, 300}, {2600, 300}, {3300, 300}});
    algo.nbIterations = 20;
    algo.compute();
    benchmark::DoNotOptimize(algo.takeOutput());
  }
  state.SetItemsProcessed(state.iterations() * int64_t(n) * n * n);
}
BENCHMARK(BM_IntensityClustering4Float)->RangeMultiplier(2)->Range(64, 256)->Unit(benchmark::kMillisecond);

void BM_ConvolutionalCRF(benchmark::State& state) {
  Log::g_globalLevel = Log::Error;
  const int n = static_cast<int>(state.range(0));
  auto img = TypedImage<float>::create(Eigen::Vector3i(n, n, 1), 1);
  auto lab = TypedImage<unsigned char>::create(Eigen::Vector3i(n, n, 1), 1);
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const int k = (x * 3) / n;
      img->setValue(static_cast<float>(k) + 0.2f * u(rng), x, y);
      lab->setValue(static_cast<unsigned char>(u(rng) < 0.1f ? (k + 1) % 3 : k), x, y);
    }
  SharedImageSet image(std::shared_ptr<Image>(std::move(img)));
  SharedImageSet labels(std::shared_ptr<Image>(std::move(lab)));
  labels.setModality(Data::LABEL);
  for (auto _ : state) {
    ConvolutionalCRFAlgorithm algo(&image, &labels);
    algo.maxNumIter = 10;
    algo.convergenceThreshold = 0.0f;  // all ten iterations
    algo.compute();
    if (algo.status() != 0) state.SkipWithError("failed");
    benchmark::DoNotOptimize(algo.takeOutput());
  }
  state.SetItemsProcessed(state.iterations() * int64_t(n) * n);
}
BENCHMARK(BM_ConvolutionalCRF)->RangeMultiplier(2)->Range(64, 256)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
