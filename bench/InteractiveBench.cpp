// The paint-run-accept cycle's runs: the first run on painted seeds, and a re-run after a small
// correction stroke, which starts from the previous solution. On a 256^3 phantom and on the
// demo brain's ventricles (skipped when the demo data is not installed). The argument is the
// finest level computed: 2 is the panel's default ("Resolution" 3 of 4), 1 full resolution.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>

#include "ImageIO.h"
#include "InteractiveSegmentationAlgorithm.h"
#include "Phantoms.h"
#include "Properties.h"
#include "SharedImageSet.h"

namespace Merivane {
namespace {

using U8Image = TypedImage<unsigned char>;

struct Case {
  std::unique_ptr<SharedImageSet> image, labels;
  Eigen::Vector3i strokeAt;  // a background stroke is painted along x from here
};

Case phantom() {
  Bench::Phantom p = Bench::makePhantom(256, 256);
  Case c;
  c.image = std::make_unique<SharedImageSet>(p.image);
  c.labels = std::make_unique<SharedImageSet>(p.seeds);
  c.labels->setModality(Data::LABEL);
  c.strokeAt = Eigen::Vector3i(200, 128, 128);  // outside the ball (radius 77 round 127.5)
  return c;
}

Case brain() {
  Case c;
  const std::string image = "/usr/share/mricron/templates/ch2.nii.gz";
  const std::string seeds = std::string(MERIVANE_SOURCE_DIR) + "/data/demo/ch2_ventricle_seeds.nii.gz";
  if (!std::filesystem::exists(image) || !std::filesystem::exists(seeds)) return c;
  c.image = IO::readImage(image);
  c.labels = IO::readImage(seeds);
  if (c.labels) c.labels->setModality(Data::LABEL);
  c.strokeAt = Eigen::Vector3i(67, 106, 95);  // inside the seeds' box, beside the ventricles
  return c;
}

void run(benchmark::State& state, Case c) {
  if (!c.image || !c.labels) {
    state.SkipWithError("demo data not installed");
    return;
  }
  InteractiveSegmentationAlgorithm algorithm(*c.image, c.labels.get());
  Properties p;
  p.setParam("Min Level", static_cast<int>(state.range(0)));
  p.setParam("Verbose", std::getenv("BENCH_VERBOSE") != nullptr);
  algorithm.configure(&p);
  const bool rerun = state.range(1) != 0;
  auto* labels = dynamic_cast<U8Image*>(c.labels->mem(0));
  const std::vector<unsigned char> seeds(labels->pointer(), labels->pointer() + labels->descriptor().pixelCount());
  int stroke = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::copy(seeds.begin(), seeds.end(), labels->pointer());
    c.labels->get(0)->setDirtyMem();
    if (rerun) {
      // The first run, then a correction stroke of background seeds at a new place.
      algorithm.compute();
      for (int i = 0; i < 12; ++i) labels->setValue(2, c.strokeAt[0] + i, c.strokeAt[1] + stroke % 5, c.strokeAt[2]);
      c.labels->get(0)->setDirtyMem();
      ++stroke;
    } else {
      algorithm.setLabels(c.labels.get());  // forgets the previous solution
    }
    state.ResumeTiming();
    algorithm.compute();
    if (algorithm.status() != Algorithm::statusSuccess) state.SkipWithError("run failed");
  }
  int total = 0;
  for (int it : algorithm.lastLevelIterations()) total += it;
  state.counters["iterations"] = total;
  state.counters["warm"] = algorithm.lastRunWarmStarted();
}

void BM_InteractivePhantom256(benchmark::State& state) { run(state, phantom()); }
void BM_InteractiveBrain(benchmark::State& state) { run(state, brain()); }

BENCHMARK(BM_InteractivePhantom256)->ArgNames({"minLevel", "rerun"})->Args({2, 0})->Args({2, 1})->Args({1, 0})->Args({1, 1})
    ->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_InteractiveBrain)->ArgNames({"minLevel", "rerun"})->Args({2, 0})->Args({2, 1})->Args({1, 0})->Args({1, 1})
    ->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace
}  // namespace Merivane

BENCHMARK_MAIN();
