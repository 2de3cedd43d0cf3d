// Interpolation between annotated slices: LabelMapInterpolationAlgorithm on a size^3 label map
// of four blobs (labels 1..4, wavy radii, seeded places) annotated on every 8th slice along z,
// the other slices empty. Sizes 64 to 256; items are voxels.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "LabelMapInterpolationAlgorithm.h"
#include "SharedImageSet.h"

using namespace Merivane;

namespace {

constexpr unsigned kSeed = 20261207;
constexpr int kLabels = 4;

std::unique_ptr<SharedImageSet> annotatedPhantom(int size) {
  std::mt19937 rng(kSeed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  struct Blob { double cx, cy, cz, r; };
  std::vector<Blob> blobs;
  for (int k = 0; k < kLabels; ++k)
    blobs.push_back({0.25 + 0.5 * u(rng), 0.25 + 0.5 * u(rng), 0.25 + 0.5 * u(rng), 0.12 + 0.1 * u(rng)});
  auto img = TypedImage<unsigned char>::zeros(Eigen::Vector3i(size, size, size));
  unsigned char* p = img->pointer();
#pragma omp parallel for schedule(static)
  for (int z = 0; z < size; z += 8)
    for (int y = 0; y < size; ++y)
      for (int x = 0; x < size; ++x)
        for (int k = 0; k < kLabels; ++k) {
          const Blob& b = blobs[k];
          const double dx = x / double(size) - b.cx, dy = y / double(size) - b.cy, dz = z / double(size) - b.cz;
          const double a = std::atan2(dy, dx), d = std::sqrt(dx * dx + dy * dy + dz * dz);
          if (d <= b.r * (1.0 + 0.15 * std::sin(3 * a) * std::cos(9 * dz)))
            p[(static_cast<size_t>(z) * size + y) * size + x] = static_cast<unsigned char>(k + 1);
        }
  auto set = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(img)));
  set->setModality(Data::LABEL);
  return set;
}

void BM_LabelMapInterpolation(benchmark::State& state) {
  const int size = static_cast<int>(state.range(0));
  auto labels = annotatedPhantom(size);
  for (auto _ : state) {
    LabelMapInterpolationAlgorithm alg(labels.get());
    alg.compute();
    if (alg.status() != Algorithm::statusSuccess) state.SkipWithError("interpolation failed");
    auto out = alg.takeOutput();
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations() * int64_t(size) * size * size);
}
BENCHMARK(BM_LabelMapInterpolation)->RangeMultiplier(2)->Range(64, 256)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
