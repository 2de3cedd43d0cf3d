// Seg::Brush driven by pointer events on real views over a small volume: where strokes land,
// what a hover does, paint in 2D, erasing, signalCount, and the event adapters under it. The
// painter's own passes are tested elsewhere; the CPU brush of LabelPainterReference.h gives
// the expected shapes.
#include "Brush.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QMouseEvent>
#include <QTest>
#include <string>
#include <tuple>

#include "GlCircle.h"
#include "GlLabelRenderer.h"
#include "GlView.h"
#include "GuiView.h"
#include "LabelPainter.h"
#include "LabelPainterReference.h"
#include "LambdaEventHandler.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "GuiTestKit.h"
#include "TestSupport.h"
#include "ViewWidget.h"

namespace Merivane::Seg {
namespace {

namespace Ref = Reference;
using Voxels = std::vector<uint8_t>;
using GUI::InputEvent;

constexpr double kRadius = 2.5;  // voxels of 1 mm

// A 16 x 16 x 6 volume of 1 mm voxels centred on the world origin, its label map with the
// labels 2, 5 and 9 in a diagonal pattern, and an axial view of 32 x 32 pixels of 1 mm on
// slice z = 3. Voxel (x, y) of that slice lies under viewport pixel (x + 8.5, y + 8.5).
// The painter's programs are found through the repository, so it must be there first.
struct Programs {
  Repository_MerivaneSeg repo;
  Programs() { Resource::addRepository(&repo); }
  ~Programs() { Resource::removeRepository(&repo); }
};

struct Scene {
  Programs programs;
  std::unique_ptr<SharedImageSet> image =
      TestKit::makeImage<unsigned short>({16, 16, 6}, [](int x, int y, int z) { return 100 + x + y + z; });
  std::unique_ptr<SharedImageSet> labels =
      TestKit::makeImage<unsigned char>({16, 16, 6}, [](int x, int y, int z) { return Voxels{2, 5, 9}[(x + y + z) % 3]; });
  GUI::View axial{std::make_unique<GlSliceView>(GlSliceView::Axial)};
  LabelPainter painter;

  Scene() {
    labels->setModality(Data::LABEL);
    painter.setCurrent(image.get(), labels.get());
    painter.setRadiusPixels(static_cast<float>(kRadius));
    painter.setLabel(3);
    GlSliceView& v = *axial.sliceView();
    v.resize(32, 32);
    v.setMmPerPixel(1.0);
    v.centerAt(image->get()->pixelToWorld(Eigen::Vector3d(7.5, 7.5, 3)));
  }

  Voxels voxels() const {
    auto* m = static_cast<TypedImage<unsigned char>*>(labels->mem());
    return {m->pointer(), m->pointer() + m->descriptor().pixelCount()};
  }
  // The painter's voxel frame (centres at half-integers) of a world point.
  Eigen::Vector3d frame(const Eigen::Vector3d& world) const {
    return labels->get()->worldToPixel(world) + Eigen::Vector3d::Constant(0.5);
  }
  // Labels expected after `segments` (voxel frame) painted with 3, or erased; with `slice`
  // only the voxels of that z change. Voxels on the brush's rim take what was painted.
  Voxels expected(const Voxels& before, const Voxels& actual, const Ref::Stroke& stroke, bool erase,
                  std::optional<int> slice = std::nullopt) const {
    const auto inside = Ref::brush({16, 16, 6}, stroke);
    Voxels out = before;
    for (size_t i = 0; i < out.size(); ++i) {
      const int z = static_cast<int>(i / 256);
      if (slice && z != *slice) continue;
      if (inside[i] == Ref::Inside::Either) out[i] = actual[i];
      if (inside[i] == Ref::Inside::Yes) out[i] = erase ? 0 : 3;
    }
    return out;
  }
};

InputEvent event(InputEvent::Type type, const Eigen::Vector2d& pixel, int button = InputEvent::NoButton) {
  return TestKit::pointerEvent(type, pixel, button);
}

Ref::Stroke stroke(std::vector<std::pair<Eigen::Vector3d, Eigen::Vector3d>> segments) {
  Ref::Stroke s;
  s.segments = std::move(segments);
  s.radius = kRadius;
  return s;
}

class BrushEvents : public testing::Test {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
};

TEST_F(BrushEvents, APressWithoutAnEarlierMovePaintsOneBallAtThePressPosition) {
  Scene s;
  Brush brush({&s.axial}, s.painter);
  brush.setLinkViews(false);
  brush.enable();
  const Voxels before = s.voxels();
  const Eigen::Vector2d at(12.5, 14.5);  // voxel (4, 6, 3)
  EXPECT_EQ(s.axial.dispatch(event(InputEvent::MouseButtonPress, at, InputEvent::LeftButton)),
            GUI::EventResult::Accepted);
  const Voxels after = s.voxels();
  const Eigen::Vector3d c(4.5, 6.5, 3.5);
  EXPECT_LT((s.frame(s.axial.view().viewState().unproject(at)) - c).norm(), 1e-9);
  EXPECT_EQ(after, s.expected(before, after, stroke({{c, c}}), false));
  EXPECT_TRUE(brush.isPainting());
}

TEST_F(BrushEvents, AMoveWithoutButtonsLeavesTheLabelsAndMovesThePreview) {
  Scene s;
  Brush brush({&s.axial}, s.painter);
  brush.setShowCirclePreview(true);
  brush.enable();
  int signalCount = 0;
  brush.strokeStarted.connect([&] { ++signalCount; });
  brush.strokeFinished.connect([&] { ++signalCount; });
  const Voxels before = s.voxels();
  for (const Eigen::Vector2d& at : {Eigen::Vector2d(12.5, 14.5), Eigen::Vector2d(20.5, 10.5)}) {
    EXPECT_EQ(s.axial.dispatch(event(InputEvent::MouseMove, at)), GUI::EventResult::Accepted);
    EXPECT_EQ(s.voxels(), before);
    const Eigen::Vector3d world = s.axial.view().viewState().unproject(at);
    EXPECT_LT((brush.circle().center() - world).norm(), 1e-9);
    EXPECT_DOUBLE_EQ(brush.circle().radius(), kRadius);
    ASSERT_TRUE(brush.lastPosition());
    EXPECT_LT((*brush.lastPosition() - world).norm(), 1e-9);
    // The stencil that the isoline shows holds a dab at the pointer, and nothing else.
    ASSERT_NE(s.painter.stencil(), nullptr);
    EXPECT_EQ(brush.isolineRenderer().labelMap(), s.painter.stencil());
    auto* st = static_cast<TypedImage<unsigned char>*>(s.painter.stencil()->mem());
    const Eigen::Vector3d c = s.frame(world);
    const auto ball = Ref::brush({16, 16, 6}, stroke({{c, c}}));
    for (size_t i = 0; i < ball.size(); ++i) {
      if (ball[i] != Ref::Inside::Either) {
        ASSERT_EQ(st->pointer()[i], ball[i] == Ref::Inside::Yes ? 1 : 0) << i;
      }
    }
  }
  EXPECT_EQ(signalCount, 0);
  EXPECT_FALSE(brush.isPainting());
}

// (view: slice or 3D, paint in 2D, erase with the second button)
class BrushStroke : public BrushEvents, public testing::WithParamInterface<std::tuple<bool, bool, bool>> {};

TEST_P(BrushStroke, PaintsOrErasesTheCapsuleOfTheDragOnlyOnTheSliceWhenIn2DOnASliceView) {
  const auto [sliceView, in2D, erase] = GetParam();
  Scene s;
  Brush brush({&s.axial}, s.painter);
  brush.setLinkViews(false);
  brush.setPaintIn2D(in2D);
  brush.enable();
  GlVolumeView volume;
  volume.resize(32, 32);
  volume.setRotation(Eigen::AngleAxisd(0.3, Eigen::Vector3d(1, 2, 0).normalized()).toRotationMatrix());
  volume.setCenter(s.image->get()->pixelToWorld(Eigen::Vector3d(7, 7, 3)));
  const GlView& view = sliceView ? s.axial.view() : static_cast<const GlView&>(volume);
  auto send = [&](const InputEvent& e) {
    return sliceView ? s.axial.dispatch(e) : brush.viewObject().eventHandler()->handleInputEvent(e, volume);
  };
  const int button = erase ? InputEvent::MiddleButton : InputEvent::LeftButton;
  const Eigen::Vector2d a(13.5, 14.5), b(19.5, 17.5);
  const Voxels before = s.voxels();
  EXPECT_EQ(send(event(InputEvent::MouseButtonPress, a, button)), GUI::EventResult::Accepted);
  EXPECT_EQ(send(event(InputEvent::MouseMove, b, button)), GUI::EventResult::Accepted);
  EXPECT_EQ(send(event(InputEvent::MouseButtonRelease, b, button)), GUI::EventResult::Accepted);
  const Eigen::Vector3d fa = s.frame(view.viewState().unproject(a)), fb = s.frame(view.viewState().unproject(b));
  const Voxels after = s.voxels();
  const std::optional<int> slice = sliceView && in2D ? std::optional<int>(3) : std::nullopt;
  EXPECT_EQ(after, s.expected(before, after, stroke({{fa, fa}, {fa, fb}}), erase, slice));
  // Erasing leaves no label under the brush, whichever it was; a ball reaches other slices.
  size_t changedOff3 = 0;
  for (size_t i = 0; i < after.size(); ++i) changedOff3 += i / 256 != 3 && after[i] != before[i];
  EXPECT_EQ(changedOff3 == 0, slice.has_value());
}

INSTANTIATE_TEST_SUITE_P(ViewsModes, BrushStroke, testing::Combine(testing::Bool(), testing::Bool(), testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param) ? "Slice" : "Volume") +
                                  (std::get<1>(info.param) ? "In2D" : "In3D") +
                                  (std::get<2>(info.param) ? "Erase" : "Paint");
                         });

TEST_F(BrushEvents, SignalsComeStartedPaintedFinishedAndTheViewDoesNotNavigate) {
  Scene s;
  Brush brush({&s.axial}, s.painter);
  brush.setLinkViews(false);
  std::string log;
  brush.strokeStarted.connect([&] { log += 'S'; });
  brush.painted.connect([&](bool paint) { log += paint ? 'P' : 'E'; });
  brush.strokeFinished.connect([&] { log += 'F'; });
  bool crosshair = false;
  s.axial.onCrosshair = [&](const Eigen::Vector3d&) { crosshair = true; };
  const Eigen::Vector3d centre = s.axial.sliceView()->slice().slice().center();

  // Disabled, the view navigates as usual.
  s.axial.dispatch(event(InputEvent::MouseButtonPress, {16, 16}, InputEvent::LeftButton));
  s.axial.dispatch(event(InputEvent::MouseButtonRelease, {16, 16}, InputEvent::LeftButton));
  EXPECT_TRUE(crosshair);
  crosshair = false;

  brush.enable();
  s.axial.dispatch(event(InputEvent::MouseMove, {10, 10}));
  s.axial.dispatch(event(InputEvent::MouseButtonPress, {12, 12}, InputEvent::LeftButton));
  s.axial.dispatch(event(InputEvent::MouseMove, {14, 12}, InputEvent::LeftButton));
  s.axial.dispatch(event(InputEvent::MouseMove, {16, 12}, InputEvent::LeftButton));
  s.axial.dispatch(event(InputEvent::MouseButtonRelease, {16, 12}, InputEvent::LeftButton));
  s.axial.dispatch(event(InputEvent::MouseMove, {18, 12}));
  // The middle button pans when no one takes it; under the brush it erases.
  s.axial.dispatch(event(InputEvent::MouseButtonPress, {18, 12}, InputEvent::MiddleButton));
  s.axial.dispatch(event(InputEvent::MouseMove, {25, 20}, InputEvent::MiddleButton));
  s.axial.dispatch(event(InputEvent::MouseButtonRelease, {25, 20}, InputEvent::MiddleButton));
  EXPECT_EQ(log, "SPPPFSEEF");
  EXPECT_FALSE(crosshair);
  EXPECT_EQ(s.axial.sliceView()->slice().slice().center(), centre);
}

TEST_F(BrushEvents, DisablingMidStrokeDropsTheLastPositionSoTheNextPressIsANewDab) {
  Scene s;
  Brush brush({&s.axial}, s.painter);
  brush.setLinkViews(false);
  std::string log;
  brush.strokeStarted.connect([&] { log += 'S'; });
  brush.painted.connect([&](bool) { log += 'P'; });
  brush.strokeFinished.connect([&] { log += 'F'; });
  brush.enable();
  const Voxels before = s.voxels();
  const Eigen::Vector2d a(10.5, 10.5), b(12.5, 10.5), c(22.5, 20.5);
  s.axial.dispatch(event(InputEvent::MouseButtonPress, a, InputEvent::LeftButton));
  s.axial.dispatch(event(InputEvent::MouseMove, b, InputEvent::LeftButton));
  brush.disable();
  EXPECT_FALSE(brush.lastPosition());
  EXPECT_FALSE(s.axial.view().hasObject(&brush.isolineRenderer()));
  brush.enable();
  s.axial.dispatch(event(InputEvent::MouseButtonPress, c, InputEvent::LeftButton));
  s.axial.dispatch(event(InputEvent::MouseButtonRelease, c, InputEvent::LeftButton));
  const ViewState& vs = s.axial.view().viewState();
  const Eigen::Vector3d fa = s.frame(vs.unproject(a)), fb = s.frame(vs.unproject(b)), fc = s.frame(vs.unproject(c));
  const Voxels after = s.voxels();
  EXPECT_EQ(after, s.expected(before, after, stroke({{fa, fb}, {fc, fc}}), false));
  EXPECT_EQ(log, "SPPPF");
}

TEST_F(BrushEvents, LinkedViewsMoveToThePaintedVoxel) {
  Scene s;
  GUI::View coronal{std::make_unique<GlSliceView>(GlSliceView::Coronal)};
  coronal.view().resize(32, 32);
  coronal.sliceView()->centerAt(Eigen::Vector3d(0, -6.5, 0));
  Brush brush({&s.axial, &coronal}, s.painter);
  brush.enable();
  EXPECT_TRUE(coronal.view().hasObject(&brush.isolineRenderer()));
  s.axial.dispatch(event(InputEvent::MouseButtonPress, {18.5, 20.5}, InputEvent::LeftButton));  // voxel (10, 12, 3)
  const Eigen::Vector3d voxel = s.image->get()->pixelToWorld(Eigen::Vector3d(10, 12, 3));
  EXPECT_NEAR(coronal.sliceView()->slice().slice().distance(voxel), 0.0, 1e-9);
  brush.disable();
  EXPECT_FALSE(coronal.view().hasObject(&brush.isolineRenderer()));
  EXPECT_TRUE(coronal.viewObjects().empty());
}

TEST_F(BrushEvents, ThePreviewsDrawTheCircleAndTheStrokeOutlineInThePreviewColour) {
  Scene s;
  GlSliceView& v = *s.axial.sliceView();
  v.resize(64, 64);
  v.setMmPerPixel(0.25);  // the 2.5 mm circle is 10 pixels wide
  Brush brush({&s.axial}, s.painter);
  brush.setPreviewColor(Eigen::Vector4d(1, 0, 0, 1));
  brush.setShowCirclePreview(true);
  brush.setShowIsolinePreview(false);
  brush.enable();
  s.axial.dispatch(event(InputEvent::MouseMove, {32, 32}));
  std::vector<unsigned char> rgba;
  ASSERT_TRUE(v.render(rgba));
  auto red = [&](int x, int y) {
    const size_t i = (static_cast<size_t>(y) * 64 + x) * 4;
    return rgba[i] > 200 && rgba[i + 1] < 50;
  };
  auto redWithin = [&](int x0, int y0, int r) {
    for (int y = y0 - r; y <= y0 + r; ++y)
      for (int x = x0 - r; x <= x0 + r; ++x)
        if (red(x, y)) return true;
    return false;
  };
  EXPECT_TRUE(redWithin(42, 32, 1));
  EXPECT_TRUE(redWithin(32, 22, 1));
  EXPECT_FALSE(redWithin(32, 32, 3));
  EXPECT_FALSE(redWithin(5, 5, 3));

  // The outline of the previewed dab (2.5 voxels, 10 pixels) instead of the circle.
  brush.setShowCirclePreview(false);
  brush.setShowIsolinePreview(true);
  s.axial.dispatch(event(InputEvent::MouseMove, {32, 32}));
  ASSERT_TRUE(v.render(rgba));
  EXPECT_TRUE(redWithin(42, 32, 3));
  EXPECT_FALSE(redWithin(32, 32, 2));
  EXPECT_FALSE(redWithin(5, 5, 3));
}

TEST(LambdaEventHandler, LeftSetsTheFirstButtonMiddleTheSecondAndOnlyPointerEventsCount) {
  GlSliceView view;
  view.resize(20, 20);
  std::vector<std::pair<bool, bool>> calls;
  LambdaEventHandler handler([&](bool a, bool b, const Eigen::Vector3d& w, const GlView& v) {
    calls.emplace_back(a, b);
    EXPECT_LT((w - v.viewState().unproject({3, 4}, 0.5)).norm(), 1e-9);
    return GUI::EventResult::Accepted;
  });
  const Eigen::Vector2d at(3, 4);
  handler.handleInputEvent(event(InputEvent::MouseButtonPress, at, InputEvent::LeftButton), view);
  handler.handleInputEvent(event(InputEvent::MouseButtonPress, at, InputEvent::MiddleButton), view);
  handler.handleInputEvent(event(InputEvent::MouseButtonPress, at, InputEvent::RightButton), view);
  handler.handleInputEvent(event(InputEvent::MouseMove, at), view);
  handler.handleInputEvent(event(InputEvent::MouseButtonRelease, at, InputEvent::LeftButton), view);
  InputEvent wheel = event(InputEvent::Wheel, at);
  EXPECT_EQ(handler.handleInputEvent(wheel, view), GUI::EventResult::Ignored);
  handler.reset();
  handler.handleInputEvent(event(InputEvent::MouseMove, at), view);
  const std::vector<std::pair<bool, bool>> expected{{true, false}, {true, true}, {true, true},
                                                    {true, true},  {false, true}, {false, false}};
  EXPECT_EQ(calls, expected);
  LambdaEventHandler empty;
  EXPECT_EQ(empty.handleInputEvent(event(InputEvent::MouseMove, at), view), GUI::EventResult::Ignored);
}

QApplication& app() {
  static int argc = 1;
  static char name[] = "LabelingToolsTests";
  static char* argv[] = {name, nullptr};
  static QApplication* a = new QApplication(argc, argv);
  return *a;
}

TEST(LambdaManipulator, TracksButtonsFromQtMouseEvents) {
  app();
  GlSliceView view;
  view.resize(20, 20);
  std::vector<std::pair<bool, bool>> calls;
  LambdaManipulator m([&](bool a, bool b, const Eigen::Vector3d&, const GlView&) {
    calls.emplace_back(a, b);
    return true;
  });
  QMouseEvent press(QEvent::MouseButtonPress, QPointF(3, 4), Qt::MiddleButton, Qt::MiddleButton, Qt::NoModifier);
  QMouseEvent move(QEvent::MouseMove, QPointF(5, 4), Qt::NoButton, Qt::MiddleButton, Qt::NoModifier);
  QMouseEvent release(QEvent::MouseButtonRelease, QPointF(5, 4), Qt::MiddleButton, Qt::NoButton, Qt::NoModifier);
  QEvent other(QEvent::Enter);
  EXPECT_TRUE(m.sceneEvent(&press, view));
  EXPECT_TRUE(m.sceneEvent(&move, view));
  EXPECT_TRUE(m.sceneEvent(&release, view));
  EXPECT_FALSE(m.sceneEvent(&other, view));
  EXPECT_FALSE(m.sceneEvent(nullptr, view));
  const std::vector<std::pair<bool, bool>> expected{{false, true}, {false, true}, {false, false}};
  EXPECT_EQ(calls, expected);
}

TEST_F(BrushEvents, QtMouseDragOnAViewWidgetPaintsUnderThePointer) {
  app();
  Scene s;
  GUI::ViewWidget widget(&s.axial);
  widget.resize(64, 64);
  s.axial.view().resize(64, 64);
  s.axial.sliceView()->setMmPerPixel(0.5);
  s.axial.sliceView()->centerAt(s.image->get()->pixelToWorld(Eigen::Vector3d(7.5, 7.5, 3)));
  Brush brush({&s.axial}, s.painter);
  brush.setLinkViews(false);
  brush.setPaintIn2D(true);
  brush.enable();
  int strokes = 0;
  brush.strokeFinished.connect([&] { ++strokes; });
  const Voxels before = s.voxels();
  auto move = [&](QPoint at, Qt::MouseButtons held) {
    QMouseEvent e(QEvent::MouseMove, at, Qt::NoButton, held, Qt::NoModifier);
    QApplication::sendEvent(&widget, &e);
  };
  move(QPoint(10, 40), Qt::NoButton);
  QTest::mousePress(&widget, Qt::LeftButton, Qt::NoModifier, QPoint(20, 40));
  move(QPoint(40, 40), Qt::LeftButton);
  QTest::mouseRelease(&widget, Qt::LeftButton, Qt::NoModifier, QPoint(40, 40));
  EXPECT_EQ(strokes, 1);
  const ViewState& vs = s.axial.view().viewState();
  const Eigen::Vector3d a = s.frame(vs.unproject({20, 40})), b = s.frame(vs.unproject({40, 40}));
  const Voxels after = s.voxels();
  EXPECT_EQ(after, s.expected(before, after, stroke({{a, a}, {a, b}}), false, 3));
  EXPECT_NE(after, before);
}

}  // namespace
}  // namespace Merivane::Seg
