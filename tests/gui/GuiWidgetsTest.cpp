// Views drawn through GL and shown in widgets, driven with QTest under the offscreen platform:
// what is drawn, where pointer events land, and the generated panel.
#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTest>
#include <QSignalSpy>
#include <QWheelEvent>
#include <thread>

#include "Algorithm.h"
#include "DataModel.h"
#include "DefaultAlgorithmController.h"
#include "GlSliceRendererImage.h"
#include "GuiView.h"
#include "Mesh.h"
#include "Parameter.h"
#include "Progress.h"
#include "SharedImage.h"
#include "GuiTestKit.h"
#include "TestSupport.h"
#include "ViewWidget.h"

namespace Merivane {
namespace {

QApplication& app() { return TestKit::qtApp(); }

// A U16 volume whose voxel (x, y, z) holds x + 10 y + 100 z.
std::shared_ptr<SharedImage> codedVolume(int w, int h, int d) {
  auto img = std::shared_ptr<TypedImage<unsigned short>>(TypedImage<unsigned short>::zeros(Eigen::Vector3i(w, h, d)));
  for (int z = 0; z < d; ++z)
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) img->setValue(static_cast<unsigned short>(x + 10 * y + 100 * z), x, y, z);
  return std::make_shared<SharedImage>(img);
}

TEST(SliceRendering, EachViewportPixelShowsTheVoxelUnderItsCentre) {
  MERIVANE_REQUIRE_GL();
  auto image = codedVolume(8, 6, 3);
  GlSliceRendererImage renderer(image.get());
  renderer.setWindowLevel(255, 127.5);  // stored values 0..255 map to grey 0..255
  GlSliceView view(GlSliceView::Axial);
  view.resize(8, 6);
  view.setMmPerPixel(1);
  // The middle slice (z = 1) lies at world z = 0; the volume's centre is the world origin.
  view.centerAt(image->pixelToWorld(Eigen::Vector3d(3.5, 2.5, 1)));
  view.addObject(&renderer);
  std::vector<unsigned char> rgba;
  ASSERT_TRUE(view.render(rgba));
  ASSERT_EQ(rgba.size(), 8u * 6u * 4u);
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 8; ++x) {
      const size_t i = (static_cast<size_t>(y) * 8 + x) * 4;
      EXPECT_NEAR(rgba[i], x + 10 * y + 100, 1) << "pixel " << x << "," << y;
      EXPECT_EQ(rgba[i], rgba[i + 1]);
      EXPECT_EQ(rgba[i + 3], 255);
    }
  // Scrolling one slice shows z = 2; outside the volume nothing is drawn.
  view.setSliceStep(1);
  view.scroll(1);
  ASSERT_TRUE(view.render(rgba));
  EXPECT_NEAR(rgba[(2 * 8 + 5) * 4], 5 + 20 + 200, 1);
  view.scroll(5);
  ASSERT_TRUE(view.render(rgba));
  EXPECT_EQ(rgba[(2 * 8 + 5) * 4], 0);
}

TEST(SliceRendering, WindowAndLevelClampAtTheirEnds) {
  MERIVANE_REQUIRE_GL();
  auto image = codedVolume(8, 6, 3);
  GlSliceRendererImage renderer(image.get());
  renderer.setWindowLevel(20, 110);  // 100 black, 120 white
  GlSliceView view(GlSliceView::Axial);
  view.resize(8, 6);
  view.setMmPerPixel(1);
  view.centerAt(Eigen::Vector3d::Zero());
  view.addObject(&renderer);
  std::vector<unsigned char> rgba;
  ASSERT_TRUE(view.render(rgba));
  EXPECT_EQ(rgba[0], 0);                           // 100: the lower end
  EXPECT_NEAR(rgba[(1 * 8 + 0) * 4], 128, 1);      // 110: the middle
  EXPECT_EQ(rgba[(2 * 8 + 0) * 4], 255);           // 120: the upper end
  EXPECT_EQ(rgba[(5 * 8 + 7) * 4], 255);           // 157: beyond it
}

// Records what reaches it, and takes events when told to.
class RecordingHandler : public GUI::ViewObject::EventHandler {
 public:
  GUI::EventResult handleInputEvent(const GUI::InputEvent& e, const GlView& view) override {
    events.push_back(e);
    worlds.push_back(view.viewState().unproject(e.position, 0.5));
    return accept ? GUI::EventResult::Accepted : GUI::EventResult::Ignored;
  }
  bool accept = true;
  std::vector<GUI::InputEvent> events;
  std::vector<Eigen::Vector3d> worlds;
};

class Nothing : public GlObject {
 public:
  void draw(const GlView&) override {}
  std::string typeName() const override { return "Nothing"; }
};

struct ViewFixture {
  bool appReady = (app(), true);
  GUI::View view{std::make_unique<GlSliceView>(GlSliceView::Coronal)};
  GUI::ViewWidget widget{&view};
  Nothing nothing;
  RecordingHandler handler;
  GUI::TypedViewObject<Nothing> object{nothing, &handler};
  ViewFixture() {
    widget.resize(200, 100);
    view.view().resize(200, 100);
    view.addViewObject(&object);
  }
};

TEST(ViewEvents, APressReachesTheHandlerWithTheWorldPositionUnderThePointer) {
  ViewFixture f;
  std::optional<Eigen::Vector3d> crosshair;
  f.view.onCrosshair = [&](const Eigen::Vector3d& p) { crosshair = p; };
  QTest::mousePress(&f.widget, Qt::LeftButton, Qt::NoModifier, QPoint(30, 70));
  ASSERT_EQ(f.handler.events.size(), 1u);
  EXPECT_EQ(f.handler.events[0].type, GUI::InputEvent::MouseButtonPress);
  EXPECT_EQ(f.handler.events[0].button, GUI::InputEvent::LeftButton);
  EXPECT_EQ(f.handler.events[0].position, Eigen::Vector2d(30, 70));
  const GlSliceView& sv = *f.view.sliceView();
  const Eigen::Vector3d expected = sv.slice().slice().corner(0) + 30.0 * sv.pixelIncrementX() + 70.0 * sv.pixelIncrementY();
  EXPECT_LT((f.handler.worlds[0] - expected).norm(), 1e-6);
  // Taken by the handler: the view's own navigation did not see it.
  EXPECT_FALSE(crosshair);

  f.handler.accept = false;
  QTest::mouseRelease(&f.widget, Qt::LeftButton, Qt::NoModifier, QPoint(30, 70));
  QTest::mousePress(&f.widget, Qt::LeftButton, Qt::NoModifier, QPoint(150, 20));
  ASSERT_TRUE(crosshair);
  EXPECT_LT((*crosshair - f.view.view().viewState().unproject({150, 20})).norm(), 1e-6);
}

TEST(ViewEvents, TheWheelScrollsOneSliceStepPerNotchWhenNoHandlerTakesIt) {
  ViewFixture f;
  f.handler.accept = false;
  GlSliceView& sv = *f.view.sliceView();
  sv.setSliceStep(2.5);
  const Eigen::Vector3d before = sv.slice().slice().center();
  QWheelEvent wheel(QPointF(50, 50), QPointF(50, 50), QPoint(), QPoint(0, 240), Qt::NoButton, Qt::NoModifier,
                    Qt::NoScrollPhase, false);
  QApplication::sendEvent(&f.widget, &wheel);
  EXPECT_LT((sv.slice().slice().center() - (before + 5.0 * sv.slice().slice().normal())).norm(), 1e-9);
  ASSERT_EQ(f.handler.events.size(), 1u);
  EXPECT_EQ(f.handler.events[0].type, GUI::InputEvent::Wheel);
  EXPECT_EQ(f.handler.events[0].wheelSteps, 2);
}

TEST(ViewEvents, AHandlerRemovedWhileDispatchingIsNotAskedAgain) {
  ViewFixture f;
  f.handler.accept = false;
  f.view.removeViewObject(&f.object);
  QTest::mousePress(&f.widget, Qt::LeftButton, Qt::NoModifier, QPoint(5, 5));
  EXPECT_TRUE(f.handler.events.empty());
  EXPECT_FALSE(f.view.view().hasObject(&f.nothing));
}

// Parameters of every kind the panel knows, and an output whose size follows "Count".
class PanelProbe : public Algorithm {
 public:
  Parameter<int> count{"Count", 3, this, ParameterRange{0, 10}};
  Parameter<double> gain{"Gain", 1.5, this};
  Parameter<bool> flag{"Flag", false, this};
  Parameter<std::string> note{"Note", "x", this};
  std::atomic<bool> block{false};
  void compute() override {
    Progress::Task task(progress_, 10, "Probing");
    while (block && !task.wasCanceled()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (task.wasCanceled()) {
      setStatus(statusCanceled);
      return;
    }
    auto mesh = std::make_unique<Mesh>();
    mesh->vertices.resize(static_cast<size_t>(count.value()));
    out_.add(std::move(mesh));
    setStatus(statusSuccess);
  }
  OwningDataList takeOutput() override { return std::move(out_); }
  OwningDataList out_;
};

TEST(GeneratedPanel, OneEditorPerParameterThatWritesTheParameter) {
  app();
  PanelProbe probe;
  DefaultAlgorithmController panel(&probe, "Probe");
  panel.init();
  auto* count = panel.findChild<QSpinBox*>("Count");
  auto* gain = panel.findChild<QDoubleSpinBox*>("Gain");
  auto* flag = panel.findChild<QCheckBox*>("Flag");
  auto* note = panel.findChild<QLineEdit*>("Note");
  ASSERT_TRUE(count && gain && flag && note);
  EXPECT_EQ(count->maximum(), 10);  // the declared range
  EXPECT_TRUE(count->toolTip().contains("Count"));
  count->setValue(7);
  gain->setValue(0.25);
  flag->setChecked(true);
  note->setText("hello");
  emit note->editingFinished();
  EXPECT_EQ(probe.count.value(), 7);
  EXPECT_DOUBLE_EQ(probe.gain.value(), 0.25);
  EXPECT_TRUE(probe.flag.value());
  EXPECT_EQ(probe.note.value(), "hello");
  // And back: a change of the algorithm shows in the panel.
  probe.count = 2;
  panel.onAlgorithmParametersChanged();
  EXPECT_EQ(count->value(), 2);
}

TEST(GeneratedPanel, ComputeRunsOffTheInterfaceThreadAndMovesTheOutputIntoTheDataModel) {
  app();
  PanelProbe probe;
  DataModel model;
  DefaultAlgorithmController panel(&probe, "Probe");
  panel.init();
  panel.setDataModel(&model);
  QSignalSpy finished(&panel, &DefaultAlgorithmController::computeFinished);
  QTest::mouseClick(panel.findChild<QPushButton*>(), Qt::LeftButton);  // the first button is Compute
  ASSERT_TRUE(finished.wait(5000));
  EXPECT_EQ(finished.at(0).at(0).toInt(), 0);
  ASSERT_EQ(model.size(), 1);
  EXPECT_EQ(model.at(0)->asMesh()->vertices.size(), 3u);
}

TEST(GeneratedPanel, CancelStopsTheRunAndNothingReachesTheModel) {
  app();
  PanelProbe probe;
  probe.block = true;
  DataModel model;
  DefaultAlgorithmController panel(&probe, "Probe");
  panel.init();
  panel.setDataModel(&model);
  QSignalSpy finished(&panel, &DefaultAlgorithmController::computeFinished);
  panel.onCompute();
  EXPECT_TRUE(panel.isComputing());
  panel.cancelAndWait();
  QApplication::processEvents();
  if (finished.isEmpty()) {
    ASSERT_TRUE(finished.wait(5000));
  }
  EXPECT_EQ(finished.at(0).at(0).toInt(), Algorithm::statusCanceled);
  EXPECT_EQ(model.size(), 0);
}

}  // namespace
}  // namespace Merivane
