// From a pointer event to the changed overlay: a brush drag on the axial view of a 512 x 512 x
// 300 CT-sized volume with its label overlay. Each step is one mouse move with the button held
// (the brush paints a segment into the label map on the GL side) and the view drawn and read
// back for the widget, as the window does on every move.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>

#include "Brush.h"
#include "GlContext.h"
#include "GlLabelRenderer.h"
#include "GlSliceRendererImage.h"
#include "GuiView.h"
#include "LabelPainter.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "SharedImage.h"
#include "SharedImageSet.h"

namespace {

using namespace Merivane;

void BM_BrushMoveToOverlay(benchmark::State& state) {
  if (!GL::Context::available()) {
    state.SkipWithError("no GL context");
    return;
  }
  Repository_MerivaneSeg repo;
  Resource::addRepository(&repo);
  const Eigen::Vector3i d(512, 512, 300);
  auto ct = TypedImage<unsigned short>::zeros(d);
  unsigned short* p = ct->pointer();
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x) *p++ = static_cast<unsigned short>(1000 + 300 * std::sin(x * 0.03 + z * 0.01));
  SharedImageSet image(std::shared_ptr<Image>(std::move(ct)));
  SharedImageSet labels(std::shared_ptr<Image>(TypedImage<unsigned char>::zeros(d)));
  labels.setModality(Data::LABEL);

  GUI::View view(std::make_unique<GlSliceView>(GlSliceView::Axial));
  view.view().resize(state.range(0), state.range(0));
  GlSliceRendererImage imageRenderer(image.get());
  GlLabelRenderer overlay(labels.get());
  overlay.setColors({{0, 0, 0}, {1, 0, 0}});
  overlay.setOpacity(0.5);
  view.view().addObject(&imageRenderer);
  view.view().addObject(&overlay);
  view.sliceView()->fit(imageRenderer.bounds());

  Seg::LabelPainter painter;
  painter.setCurrent(&image, &labels);
  Seg::Brush brush(std::vector<GUI::View*>{&view}, painter);
  brush.setLabel(1);
  brush.setRadiusMM(10);
  brush.setShowIsolinePreview(state.range(1) != 0);
  brush.enable();

  std::vector<unsigned char> rgba;
  GUI::InputEvent e;
  e.button = GUI::InputEvent::LeftButton;
  e.buttons = GUI::InputEvent::LeftButton;
  e.type = GUI::InputEvent::MouseButtonPress;
  const double w = state.range(0);
  e.position = {0.3 * w, 0.5 * w};
  view.dispatch(e);
  view.view().render(rgba);
  e.type = GUI::InputEvent::MouseMove;
  e.button = GUI::InputEvent::NoButton;
  double t = 0;
  for (auto _ : state) {
    // A sweep back and forth across the middle, two pixels a move.
    t += 2;
    const double x = 0.3 * w + std::fmod(t, 0.4 * w);
    e.position = {x, 0.5 * w + 10 * std::sin(t * 0.05)};
    view.dispatch(e);
    view.view().render(rgba);
    benchmark::DoNotOptimize(rgba.data());
  }
  e.type = GUI::InputEvent::MouseButtonRelease;
  e.buttons = GUI::InputEvent::NoButton;
  view.dispatch(e);
  brush.disable();
  Resource::removeRepository(&repo);
}
BENCHMARK(BM_BrushMoveToOverlay)->ArgNames({"view", "isoline"})->Args({512, 1})->Args({512, 0})->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(60);

}  // namespace

BENCHMARK_MAIN();
