// Slice views on a CT-sized volume with a label overlay, as the window draws them: a slice
// change and a window/level drag each redraw the view and copy the pixels back for the widget.
// The volume and the label map are uploaded once; later draws upload nothing.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <random>

#include "GlContext.h"
#include "GlLabelRenderer.h"
#include "GlSliceRendererImage.h"
#include "GlView.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "SharedImage.h"
#include "SharedImageSet.h"

namespace {

using namespace Merivane;

struct Scene {
  Repository_MerivaneSeg repo;
  std::shared_ptr<SharedImage> ct, labels;
  std::unique_ptr<GlSliceRendererImage> image;
  std::unique_ptr<GlLabelRenderer> overlay;
  std::unique_ptr<GlSliceView> view;
  double firstDrawMs = 0;

  Scene() {
    Resource::addRepository(&repo);
    const Eigen::Vector3i d(512, 512, 300);
    auto img = std::shared_ptr<TypedImage<unsigned short>>(TypedImage<unsigned short>::zeros(d));
    auto lab = std::shared_ptr<TypedImage<unsigned char>>(TypedImage<unsigned char>::zeros(d));
    std::mt19937 rng(3);
    std::normal_distribution<float> noise(0, 20);
    unsigned short* p = img->pointer();
    unsigned char* l = lab->pointer();
    // A body ellipse of soft tissue with a few organs as spheres of their own values and labels.
    const Eigen::Vector3d organs[3] = {{200, 240, 150}, {320, 260, 140}, {256, 330, 180}};
    for (int z = 0; z < d[2]; ++z)
      for (int y = 0; y < d[1]; ++y)
        for (int x = 0; x < d[0]; ++x, ++p, ++l) {
          const double e = std::pow((x - 256) / 220.0, 2) + std::pow((y - 256) / 170.0, 2);
          float v = e < 1 ? 1040.f : 24.f;
          for (int o = 0; o < 3; ++o)
            if ((Eigen::Vector3d(x, y, z) - organs[o]).norm() < 40) {
              v = 1100.f + 30.f * o;
              *l = static_cast<unsigned char>(o + 1);
            }
          *p = static_cast<unsigned short>(std::max(0.f, v + noise(rng)));
        }
    ct = std::make_shared<SharedImage>(img);
    ct->setSpacing(Eigen::Vector3d(0.7, 0.7, 1.5));
    labels = std::make_shared<SharedImage>(lab);
    labels->setSpacing(Eigen::Vector3d(0.7, 0.7, 1.5));
    image = std::make_unique<GlSliceRendererImage>(ct.get());
    image->setWindowLevel(400, 1040);
    overlay = std::make_unique<GlLabelRenderer>(labels.get());
    overlay->setColors({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}});
    overlay->setOpacity(0.5);
    view = std::make_unique<GlSliceView>(GlSliceView::Axial);
    view->resize(512, 512);
    view->addObject(image.get());
    view->addObject(overlay.get());
    view->fit(image->bounds());
    view->setSliceStep(1.5);
    std::vector<unsigned char> rgba;
    const auto t0 = std::chrono::steady_clock::now();
    view->render(rgba);
    firstDrawMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  }
  ~Scene() { Resource::removeRepository(&repo); }
};

Scene* scene() {
  static Scene* s = GL::Context::available() ? new Scene : nullptr;
  return s;
}

void BM_SliceChange(benchmark::State& state) {
  Scene* s = scene();
  if (!s) {
    state.SkipWithError("no GL context");
    return;
  }
  std::vector<unsigned char> rgba;
  int step = 1;
  for (auto _ : state) {
    s->view->scroll(step);
    step = -step;
    s->view->render(rgba);
    benchmark::DoNotOptimize(rgba.data());
  }
  state.counters["first draw ms (uploads)"] = s->firstDrawMs;
}
BENCHMARK(BM_SliceChange)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_WindowLevelDrag(benchmark::State& state) {
  Scene* s = scene();
  if (!s) {
    state.SkipWithError("no GL context");
    return;
  }
  std::vector<unsigned char> rgba;
  double w = 400;
  for (auto _ : state) {
    w = w > 800 ? 300 : w + 7;
    s->image->setWindowLevel(w, 1040);
    s->view->render(rgba);
    benchmark::DoNotOptimize(rgba.data());
  }
}
BENCHMARK(BM_WindowLevelDrag)->Unit(benchmark::kMillisecond)->UseRealTime();

// An oblique plane samples across slices: the costliest texture access pattern.
void BM_ObliqueSliceChange(benchmark::State& state) {
  Scene* s = scene();
  if (!s) {
    state.SkipWithError("no GL context");
    return;
  }
  GlSliceView view(GlSliceView::Axial);
  view.resize(512, 512);
  view.addObject(s->image.get());
  view.addObject(s->overlay.get());
  view.setAxes(Eigen::Vector3d(1, 0, 0.4), Eigen::Vector3d(0, 1, 0.3));
  view.fit(s->image->bounds());
  std::vector<unsigned char> rgba;
  int step = 1;
  for (auto _ : state) {
    view.scroll(step);
    step = -step;
    view.render(rgba);
    benchmark::DoNotOptimize(rgba.data());
  }
}
BENCHMARK(BM_ObliqueSliceChange)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
