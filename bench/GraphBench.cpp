// Graph build and solve per solver id on noisy two-region phantoms (2D 512x512, 3D 64^3 and
// 128^3) with two seed blobs. Reports iterations, final residual and peak memory as counters.
#include <benchmark/benchmark.h>

#include "BenchSupport.h"
#include "GraphLaplacianAlgorithm.h"
#include "GraphLaplacianImage.h"
#include "Log.h"
#include "Phantoms.h"

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

}  // namespace

BENCHMARK(BM_GraphSolve)->Apply(solverArgs)->ArgNames({"size", "slices", "solver"})->Unit(benchmark::kMillisecond)->Iterations(1);

BENCHMARK_MAIN();
