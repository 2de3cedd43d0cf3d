// Label painting: one pointer step of the brush on a CT-sized label map, end to end (all
// passes, the changed box read back into the memory copy). The label map stays resident on
// the GL side between steps, as in an interactive session.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>

#include "GlAnisotropicDiffusionFilter.h"
#include "GlContext.h"
#include "GlImage.h"
#include "ImageComponents.h"
#include "LabelPainter.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "ThresholdTool.h"
#include "SharedImageSet.h"

namespace {

using namespace Merivane;

struct Session {
  Repository_MerivaneSeg repo;
  std::unique_ptr<SharedImageSet> image, labels;
  std::unique_ptr<Seg::LabelPainter> painter;
  Eigen::Vector3i dims;

  explicit Session(const Eigen::Vector3i& d) : dims(d) {
    Resource::addRepository(&repo);
    auto img = TypedImage<unsigned short>::zeros(d);
    // A smooth phantom, so the adaptive brush has something to look at.
    unsigned short* p = img->pointer();
    for (int z = 0; z < d[2]; ++z)
      for (int y = 0; y < d[1]; ++y)
        for (int x = 0; x < d[0]; ++x)
          *p++ = static_cast<unsigned short>(1000 + 400 * std::sin(x * 0.05) * std::cos(y * 0.04) + z);
    image = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(img)));
    auto* display = image->components().getOrCreate<DisplayOptions2d>();
    display->window = 800;
    display->level = 1000;
    labels = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(TypedImage<unsigned char>::zeros(d)));
    labels->setModality(Data::LABEL);
    painter = std::make_unique<Seg::LabelPainter>();
    painter->setCurrent(image.get(), labels.get());
    // Both copies current before the first step, as after loading.
    image->gl();
    labels->gl();
    labels->mem();
  }
  ~Session() {
    painter.reset();
    Resource::removeRepository(&repo);
  }
  Eigen::Vector3d world(double x, double y, double z) const { return labels->get()->pixelToWorld({x, y, z}); }
};

// state.range(0): radius in voxels; state.range(1): adaptiveness in percent.
void BM_BrushStep3D(benchmark::State& state) {
  if (!GL::Context::available()) {
    state.SkipWithError("no OpenGL context");
    return;
  }
  Session s({512, 512, 300});
  s.painter->setRadiusPixels(static_cast<float>(state.range(0)));
  s.painter->setAdaptiveness(static_cast<float>(state.range(1)) / 100.0f);
  // A pointer drags 2 voxels per step along a circle in slice 150.
  int step = 0;
  auto point = [&](int k) { return s.world(256 + 120 * std::cos(k * 0.016), 256 + 120 * std::sin(k * 0.016), 150); };
  for (auto _ : state) {
    const bool ok = s.painter->paint(point(step), point(step + 1));
    if (!ok) state.SkipWithError("paint failed");
    ++step;
  }
  // End to end: the memory copy is current after every step.
  if (!s.labels->get()->hasMem()) state.SkipWithError("memory copy went stale");
  state.counters["steps/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_BrushStep3D)
    ->ArgsProduct({{2, 5, 10, 20}, {0}})
    ->Args({10, 50})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The same step in a 512 x 512 frame.
void BM_BrushStep2D(benchmark::State& state) {
  if (!GL::Context::available()) {
    state.SkipWithError("no OpenGL context");
    return;
  }
  Session s({512, 512, 1});
  s.painter->setRadiusPixels(static_cast<float>(state.range(0)));
  int step = 0;
  auto point = [&](int k) { return s.world(256 + 120 * std::cos(k * 0.016), 256 + 120 * std::sin(k * 0.016), 0); };
  for (auto _ : state) {
    if (!s.painter->paint(point(step), point(step + 1))) state.SkipWithError("paint failed");
    ++step;
  }
}
BENCHMARK(BM_BrushStep2D)->Arg(10)->Arg(40)->Unit(benchmark::kMillisecond)->UseRealTime();

// Denoising of the input for filter input, configured as the painter does: runs once per
// focus change. state.range(0): slices (1 is a 512 x 512 frame); state.range(1): iterations.
void BM_FilterInput(benchmark::State& state) {
  if (!GL::Context::available()) {
    state.SkipWithError("no OpenGL context");
    return;
  }
  Session s({512, 512, static_cast<int>(state.range(0))});
  GlAnisotropicDiffusionFilter filter;
  filter.setSmoothingKernelSize(32);
  filter.setIterations(static_cast<int>(state.range(1)));
  filter.setContrast(0.6);
  filter.setSharpenKernelSize(3, 0.5);
  GlImage* input = s.image->gl();
  GlImage output(input->descriptor(), input->internalFormat());
  for (auto _ : state) {
    if (!filter.compute(*input, output)) state.SkipWithError("filter failed");
    GL::Context::instance()->finish();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.dims.prod()));
}
BENCHMARK(BM_FilterInput)
    ->Args({1, 50})
    ->Args({300, 0})
    ->Args({300, 50})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);
BENCHMARK(BM_FilterInput)->Args({1, 0})->Args({1, 50})->Unit(benchmark::kMillisecond)->UseRealTime();

// Threshold tool: one apply of a range into the label map, on the GL side (the texture stays
// resident; with state.range(1) the memory copy is read back as well, as a save would).
// state.range(0): slices of 512 x 512.
void BM_ThresholdApply(benchmark::State& state) {
  if (!GL::Context::available()) {
    state.SkipWithError("no OpenGL context");
    return;
  }
  Session s({512, 512, static_cast<int>(state.range(0))});
  Seg::ThresholdTool tool;
  tool.setTargetLabelMap(s.image.get(), s.labels.get());
  tool.setRangeOriginal(900, 1100);
  int label = 1;
  for (auto _ : state) {
    tool.setActiveLabel(static_cast<unsigned char>(label));
    label = label % 250 + 1;
    if (tool.apply(-1) != 1) state.SkipWithError("apply failed");
    if (state.range(1)) s.labels->mem();
    GL::Context::instance()->finish();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.dims.prod()));
}
BENCHMARK(BM_ThresholdApply)
    ->ArgsProduct({{1, 300}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
