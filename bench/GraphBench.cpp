// Graph build and solve per solver id on noisy two-region phantoms (2D 512x512, 3D 64^3 and
// 128^3) with two seed blobs. Reports iterations, final residual and peak memory as counters.
// Superpixels of a volume, and the driver's random walk on the pixel graph against the
// superpixel graph of the same volume (time, and the Dice of the two results).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <map>
#include <vector>

#include "BenchSupport.h"
#include "GraphBasedSegmentation.h"
#include "GraphLaplacianAlgorithm.h"
#include "GraphLaplacianImage.h"
#include "GraphLaplacianSuperpixels.h"
#include "Log.h"
#include "Phantoms.h"
#include "SharedImageSet.h"
#include "SuperpixelsAlgorithm.h"

using namespace Merivane;

namespace {

void BM_GraphSolve(benchmark::State& state) {
  const int size = static_cast<int>(state.range(0));
  const int slices = static_cast<int>(state.range(1));
  const int solver = static_cast<int>(state.range(2));
  Log::g_globalLevel = Log::Warning;
  Bench::Phantom p = Bench::makePhantom(size, slices);
  const double baseline = Bench::currentMemoryMiB();
  Bench::resetPeakMemory();
  int iterations = 0;
  double residual = 0.0;
  for (auto _ : state) {
    GraphLaplacianAlgorithm a(*p.image, *p.seeds);
    Properties props;
    props.setParam("Verbose", false);
    props.setParam("Solver ID", solver);
    props.setParam("Solver Iterations", 1000);
    props.setParam("Solver Tolerance (Log)", -4);
    a.configure(&props);
    a.graph().generateGraph(*p.image, *p.seeds);
    Eigen::VectorXf x = a.solveLaplace(nullptr);
    benchmark::DoNotOptimize(x.data());
    iterations = a.lastIterations();
    residual = a.lastResidual();
  }
  const double voxels = double(size) * size * slices;
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * voxels));
  state.counters["iterations"] = iterations;
  state.counters["residual"] = residual;
  state.counters["peakMiB"] = Bench::peakMemoryMiB() - baseline;
}

void solverArgs(benchmark::internal::Benchmark* b) {
  for (int id = 0; id < 8; ++id) b->Args({512, 1, id});
  for (int id = 0; id < 8; ++id) b->Args({64, 64, id});
  // Direct solvers are out of their depth on two million unknowns.
  for (int id = 2; id < 8; ++id) b->Args({128, 128, id});
}

// The user-facing algorithm with its defaults (4 levels, crop box, solver 4) on a volume with
// two seed blobs (the object's centre and one corner), accepted into labels.
void BM_GraphBasedSegmentation(benchmark::State& state) {
  const int size = static_cast<int>(state.range(0));
  Log::g_globalLevel = Log::Warning;
  Bench::Phantom p = Bench::makePhantom(size, size);
  // Keep one background blob: the box then spans from a corner to the centre.
  auto* seeds = static_cast<TypedImage<unsigned char>*>(p.seeds->mem());
  unsigned char* s = seeds->pointer();
  const int lo = size / 8;
  for (int z = 0; z < size; ++z)
    for (int y = 0; y < size; ++y)
      for (int x = 0; x < size; ++x) {
        unsigned char& v = s[(static_cast<size_t>(z) * size + y) * size + x];
        const bool nearFirstCorner = std::abs(x - lo) + std::abs(y - lo) + std::abs(z - lo) < size / 4;
        if (v == 2 && !nearFirstCorner) v = 0;
      }
  const double baseline = Bench::currentMemoryMiB();
  Bench::resetPeakMemory();
  for (auto _ : state) {
    state.PauseTiming();
    SharedImageSet image(std::shared_ptr<Image>(p.image->mem()->clone()));
    SharedImageSet labels(std::shared_ptr<Image>(p.seeds->mem()->clone()));
    labels.setModality(Data::LABEL);
    state.ResumeTiming();
    GraphBasedSegmentation seg(&image, &labels);
    seg.verbose = false;
    seg.autoAccept = true;
    seg.compute();
    benchmark::DoNotOptimize(labels.mem()->data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * double(size) * size * size));
  state.counters["peakMiB"] = Bench::peakMemoryMiB() - baseline;
}

// Superpixels of the phantom volume alone, 5000 requested, default settings.
void BM_Superpixels(benchmark::State& state) {
  const int size = static_cast<int>(state.range(0));
  Log::g_globalLevel = Log::Warning;
  Bench::Phantom p = Bench::makePhantom(size, size);
  size_t count = 0;
  for (auto _ : state) {
    Superpixels::Result r = Superpixels::compute(*p.image->mem(), {5000, 2.5, 5, false});
    count = r.superpixels.size();
    benchmark::DoNotOptimize(r.map.get());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * double(size) * size * size));
  state.counters["superpixels"] = static_cast<double>(count);
}

// The whole random walk of the driver on one level, on the pixel graph (type 0) or on the
// superpixel graph (type 1, 5000 superpixels), with the Dice of the superpixel result against
// the pixel one when both are run at the same size (the pixel run comes first).
void BM_RandomWalkGraphType(benchmark::State& state) {
  const int size = static_cast<int>(state.range(0));
  const int type = static_cast<int>(state.range(1));
  Log::g_globalLevel = Log::Warning;
  Bench::Phantom p = Bench::makePhantom(size, size);
  static std::map<int, std::vector<unsigned char>> pixelResult;
  std::vector<unsigned char> mask;
  for (auto _ : state) {
    GraphLaplacianAlgorithm a(*p.image, *p.seeds);
    Properties props;
    props.setParam("Verbose", false);
    props.setParam("Graph Type", type);
    props.setParam("Solver Iterations", 1000);
    props.setParam("Solver Tolerance (Log)", -4);
    props.setParam("Superpixels Number", 5000);
    a.configure(&props);
    a.compute();
    auto out = a.takeOutput().extractFirstImage();
    if (!out) {
      state.SkipWithError("no result");
      return;
    }
    const float* v = static_cast<const float*>(out->get(0)->mem()->data());
    const size_t n = out->get(0)->descriptor().pixelCount();
    mask.resize(n);
    for (size_t i = 0; i < n; ++i) mask[i] = v[i] >= 0.5f;
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * double(size) * size * size));
  if (type == 0) pixelResult[size] = mask;
  if (type == 1 && pixelResult.count(size)) {
    const auto& ref = pixelResult[size];
    size_t both = 0, a = 0, b = 0;
    for (size_t i = 0; i < mask.size(); ++i) {
      both += mask[i] && ref[i];
      a += mask[i];
      b += ref[i];
    }
    state.counters["diceVsPixels"] = 2.0 * double(both) / double(a + b);
  }
}

}  // namespace

BENCHMARK(BM_Superpixels)->Arg(64)->Arg(256)->ArgName("size")->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_RandomWalkGraphType)
    ->Args({64, 0})->Args({64, 1})->Args({256, 0})->Args({256, 1})
    ->ArgNames({"size", "graphType"})->Unit(benchmark::kMillisecond)->Iterations(1);

BENCHMARK(BM_GraphBasedSegmentation)->Arg(128)->Arg(256)->ArgName("size")->Unit(benchmark::kMillisecond)->Iterations(1);

BENCHMARK(BM_GraphSolve)->Apply(solverArgs)->ArgNames({"size", "slices", "solver"})->Unit(benchmark::kMillisecond)->Iterations(1);

BENCHMARK_MAIN();
