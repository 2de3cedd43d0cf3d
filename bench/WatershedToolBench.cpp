// The live watershed on a 512 x 512 x 300 volume: from a stroke (a few seed voxels written and
// the seed map's change signal) to the first result on screen, which is the reduced quick
// look, and to the full-resolution result. The source is prepared once before timing, as it
// is in use (it stays cached between strokes).
#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include <chrono>

#include "GuiView.h"
#include "Phantoms.h"
#include "SharedImageSet.h"
#include "WatershedTool.h"

namespace Merivane {
namespace {

QCoreApplication& app() {
  static int argc = 1;
  static char name[] = "bench";
  static char* argv[] = {name, nullptr};
  static QCoreApplication* a = new QCoreApplication(argc, argv);
  return *a;
}

void BM_WatershedToolStrokeToResult(benchmark::State& state) {
  app();
  const bool full = state.range(0) != 0;
  Bench::Phantom p = Bench::makePhantom(512, 300);
  SharedImageSet image(p.image);
  SharedImageSet seeds(p.seeds);
  seeds.setModality(Data::LABEL);
  DisplayWidgetMultiAdapter views;
  Seg::WatershedTool tool(image, seeds, views);
  bool quick = false, complete = false;
  SignalReceiver receiver;
  tool.resultShown.connect(&receiver, [&](bool isFull) { (isFull ? complete : quick) = true; });
  const auto waitFor = [&](const bool& flag) {
    while (!flag) app().processEvents(QEventLoop::AllEvents, 1);
  };
  tool.enable();
  tool.startComputation();  // source prepared and cached
  waitFor(complete);
  int stroke = 0;
  auto* s = static_cast<TypedImage<unsigned char>*>(seeds.mem(0));
  for (auto _ : state) {
    quick = complete = false;
    // A short stroke of background seeds at a new place each time.
    for (int i = 0; i < 20; ++i) s->setValue(2, 100 + i, 100 + (stroke % 50), 150);
    ++stroke;
    const auto t0 = std::chrono::steady_clock::now();
    seeds.contentChanged.emitSignal(0);
    if (full)
      waitFor(complete);
    else
      while (!quick && !complete) app().processEvents(QEventLoop::AllEvents, 1);
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    tool.abortComputation(true);
    app().processEvents();
  }
}
BENCHMARK(BM_WatershedToolStrokeToResult)->ArgNames({"full"})->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
}  // namespace Merivane

BENCHMARK_MAIN();
