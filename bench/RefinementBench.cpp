// Label map refinement and the two host services under it, on a 256^3 label volume:
// dilation and erosion by a ball (MorphologicalOperationsAlgorithm's core), connected
// components (ConnectedComponentsAlgorithm), and LabelMapRefinement::dilate with its copy and
// merge. CPU only; OpenMP threads as the environment sets them.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>

#include "ConnectedComponentsAlgorithm.h"
#include "LabelMapRefinement.h"
#include "MorphologicalOperationsAlgorithm.h"
#include "SharedImageSet.h"

namespace {

using namespace Merivane;
using U8Image = TypedImage<unsigned char>;

constexpr int kSize = 256;

// Label 1 in a ball of radius 80 round the centre, with a bumpy surface, and label 2 in a
// smaller ball beside it: the shape of an organ map.
std::unique_ptr<U8Image> organs() {
  auto img = U8Image::zeros(Eigen::Vector3i::Constant(kSize));
  unsigned char* p = img->pointer();
  const double c = (kSize - 1) * 0.5;
  for (int z = 0; z < kSize; ++z)
    for (int y = 0; y < kSize; ++y)
      for (int x = 0; x < kSize; ++x, ++p) {
        const double r = std::sqrt((x - c) * (x - c) + (y - c) * (y - c) + (z - c) * (z - c));
        const double bump = 4 * std::sin(x * 0.2) * std::cos(y * 0.15);
        if (r < 80 + bump)
          *p = 1;
        else if (std::hypot(x - 220.0, y - 60.0) < 20 && z > 100 && z < 160)
          *p = 2;
      }
  return img;
}

// Independent voxels set with a probability: many small components and many runs, the hard
// case for labelling.
std::unique_ptr<U8Image> noise(double density) {
  auto img = U8Image::zeros(Eigen::Vector3i::Constant(kSize));
  std::mt19937 rng(7);
  std::bernoulli_distribution fg(density);
  for (size_t i = 0; i < img->descriptor().pixelCount(); ++i) img->pointer()[i] = fg(rng) ? 255 : 0;
  return img;
}

// state.range(0): radius in voxels; state.range(1): 0 dilation, 1 erosion.
void BM_Morphology256(benchmark::State& state) {
  const auto original = organs();
  auto work = original->cloneTyped();
  const auto op = state.range(1) == 0 ? Morphology::Dilation : Morphology::Erosion;
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(work->pointer(), original->pointer(), original->byteSize());
    state.ResumeTiming();
    if (!Morphology::apply(*work, op, static_cast<int>(state.range(0)))) state.SkipWithError("refused");
    benchmark::DoNotOptimize(work->pointer());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(original->descriptor().pixelCount()));
}
BENCHMARK(BM_Morphology256)
    ->Args({5, 0})
    ->Args({5, 1})
    ->Args({20, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// state.range(0): 0 the organ map, else the noise density in percent.
void BM_ConnectedComponents256(benchmark::State& state) {
  auto set = std::make_unique<SharedImageSet>(
      std::shared_ptr<Image>(state.range(0) == 0 ? organs() : noise(state.range(0) / 100.0)));
  for (auto _ : state) {
    ConnectedComponentsAlgorithm algorithm(set.get());
    algorithm.setNumComponents(1);
    algorithm.setLabelComponents(false);
    algorithm.compute();
    if (algorithm.status() != Algorithm::statusSuccess) state.SkipWithError("failed");
    benchmark::DoNotOptimize(algorithm.takeOutput());
  }
  state.SetItemsProcessed(state.iterations() * kSize * kSize * kSize);
}
BENCHMARK(BM_ConnectedComponents256)->Arg(0)->Arg(30)->Unit(benchmark::kMillisecond)->UseRealTime();

// LabelMapRefinement::dilate(state.range(0)) of label 1 with label 2 locked: the binary copy,
// the steps of at most 5 and the merge.
void BM_RefinementDilate256(benchmark::State& state) {
  const auto original = organs();
  auto labels = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(original->cloneTyped()));
  labels->setModality(Data::LABEL);
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(labels->mem()->data(), original->pointer(), original->byteSize());
    state.ResumeTiming();
    Seg::LabelMapRefinement refinement(nullptr, *labels);
    refinement.setAffectedLabel(1);
    refinement.lockLabel(2, true);
    refinement.dilate(static_cast<int>(state.range(0)));
    benchmark::DoNotOptimize(refinement.changedVoxels());
  }
}
BENCHMARK(BM_RefinementDilate256)->Arg(5)->Arg(12)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
