// Image expressions: the fused CPU pass against a hand-written loop over the same data, and
// the same expression through the GL path. The expression is the intensity-band labelling
// of the clustering code: labels = S + S * cast((A > S) && (A < S)).
#include <benchmark/benchmark.h>
#include <omp.h>

#include <random>

#include "GlContext.h"
#include "ImageMath.h"

namespace {

using namespace Merivane;
namespace IM = ImageMath;

constexpr float kLow = 200.f, kHigh = 600.f;

std::unique_ptr<TypedImage<float>> randomVolume(int n) {
  auto img = TypedImage<float>::zeros(Eigen::Vector3i(n, n, n), 1);
  std::mt19937 rng(42);
  std::uniform_real_distribution<float> dist(0.f, 1000.f);
  for (size_t i = 0; i < img->descriptor().elementCount(); ++i) img->pointer()[i] = dist(rng);
  return img;
}

void BM_FusedCpu(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  auto a = randomVolume(n);
  auto out = TypedImage<unsigned char>::zeros(Eigen::Vector3i(n, n, n), 1);
  for (auto _ : state) {
    auto in = IM::makeArray(*a);
    IM::makeArray(*out) = IM::Scalar<int>(1) + IM::Scalar<int>(2) * ((in > kLow) && (in < kHigh)).cast<int>();
    benchmark::DoNotOptimize(out->pointer());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n) * n * n);
}
BENCHMARK(BM_FusedCpu)->RangeMultiplier(2)->Range(32, 256)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same computation written by hand, with the same threads over slices.
void BM_HandLoop(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  auto a = randomVolume(n);
  auto out = TypedImage<unsigned char>::zeros(Eigen::Vector3i(n, n, n), 1);
  const size_t sliceSize = static_cast<size_t>(n) * static_cast<size_t>(n);
  for (auto _ : state) {
    const float* in = a->pointer();
    unsigned char* o = out->pointer();
#pragma omp parallel for schedule(static) if (n >= 9)
    for (int z = 0; z < n; ++z)
      for (size_t i = static_cast<size_t>(z) * sliceSize; i < static_cast<size_t>(z + 1) * sliceSize; ++i)
        o[i] = static_cast<unsigned char>(1 + 2 * (in[i] > kLow && in[i] < kHigh));
    benchmark::DoNotOptimize(out->pointer());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n) * n * n);
}
BENCHMARK(BM_HandLoop)->RangeMultiplier(2)->Range(32, 256)->Unit(benchmark::kMillisecond)->UseRealTime();

// The GL path with the operand already resident as a texture: one generated program, one
// draw per slice. With download: the result is read back into memory as well.
void glPass(benchmark::State& state, bool download) {
  GL::Context* context = GL::Context::instance();
  if (!context) {
    state.SkipWithError("no OpenGL context");
    return;
  }
  const int n = static_cast<int>(state.range(0));
  SharedImage a(std::shared_ptr<Image>(randomVolume(n)));
  SharedImage out(ImageDescriptor(U8, Eigen::Vector3i(n, n, n)));
  a.gl();
  out.gl();
  for (auto _ : state) {
    auto in = IM::makeArray(a);
    IM::makeArray(out) = IM::Scalar<int>(1) + IM::Scalar<int>(2) * ((in > kLow) && (in < kHigh)).cast<int>();
    if (download) benchmark::DoNotOptimize(out.mem());
    else context->finish();
  }
  if (!out.hasGl() && !download) state.SkipWithError("pass did not run on the GPU");
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n) * n * n);
  state.SetLabel(context->renderer());
}
void BM_GlPass(benchmark::State& state) { glPass(state, false); }
void BM_GlPassWithDownload(benchmark::State& state) { glPass(state, true); }
BENCHMARK(BM_GlPass)->RangeMultiplier(2)->Range(64, 256)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_GlPassWithDownload)->Arg(256)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
