// Annotations: the model's ownership and signals, what a ball and a point look like on a
// slice, moving them with their default manipulator, curves through their points, and tilting
// a slice view into an oblique plane.
#include <gtest/gtest.h>

#include "AnnotationModel.h"
#include "GlAnnotations.h"
#include "GuiView.h"
#include "Mesh.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

GUI::InputEvent mouse(GUI::InputEvent::Type type, double x, double y, int button = GUI::InputEvent::LeftButton,
                      int modifiers = 0) {
  GUI::InputEvent e;
  e.type = type;
  e.button = type == GUI::InputEvent::MouseMove ? 0 : button;
  e.buttons = type == GUI::InputEvent::MouseButtonRelease ? 0 : button;
  e.modifiers = modifiers;
  e.position = {x, y};
  return e;
}

TEST(AnnotationModel, OwnsAnnotationsAndDropsThoseOfARemovedItem) {
  AnnotationModel model;
  Mesh owner;
  std::vector<std::string> events;
  model.annotationAdded.connect([&](InteractiveObject* a) { events.push_back("+" + a->name()); });
  model.annotationAboutToBeRemoved.connect([&](InteractiveObject* a) { events.push_back("-" + a->name()); });
  model.add(std::make_unique<GlBall>(), "ball", &owner);
  model.add(std::make_unique<GlPolyLine>(), "line");
  EXPECT_EQ(model.add(std::unique_ptr<GlObject>(), "nothing"), nullptr);
  EXPECT_NE(model.find("ball")->eventHandler(), nullptr);  // balls can be moved
  EXPECT_EQ(model.find("line")->eventHandler(), nullptr);
  EXPECT_EQ(model.annotations(&owner).size(), 1u);
  model.removeAll(&owner);
  EXPECT_EQ(model.annotations().size(), 1u);
  EXPECT_FALSE(model.remove(nullptr));
  model.clear();
  EXPECT_EQ(events, (std::vector<std::string>{"+ball", "+line", "-ball", "-line"}));
}

TEST(GlBallOnASlice, DrawsTheCrossSectionOfTheSphereWithThePlane) {
  MERIVANE_REQUIRE_GL();
  GlSliceView view(GlSliceView::Axial);
  view.resize(64, 64);
  view.setMmPerPixel(0.5);
  view.centerAt(Eigen::Vector3d::Zero());
  GlBall ball(Eigen::Vector3d(0, 0, 3), 5);  // the plane z = 0 cuts a circle of radius 4 mm
  ball.color = Eigen::Vector4f(0, 1, 0, 1);
  view.addObject(&ball);
  std::vector<unsigned char> rgba;
  ASSERT_TRUE(view.render(rgba));
  auto green = [&](int x, int y) { return rgba[(static_cast<size_t>(y) * 64 + x) * 4 + 1] > 100; };
  // 4 mm is 8 pixels from the centre pixel (32, 32) along the screen's axes.
  bool onCircle = false;
  for (int dx = -1; dx <= 1; ++dx) onCircle |= green(32 + 8 + dx, 32);
  EXPECT_TRUE(onCircle);
  EXPECT_FALSE(green(32, 32));
  EXPECT_FALSE(green(32 + 14, 32));
  // A plane that misses the ball shows nothing.
  view.centerAt(Eigen::Vector3d(0, 0, 9));
  ASSERT_TRUE(view.render(rgba));
  for (size_t i = 1; i < rgba.size(); i += 4) ASSERT_LT(rgba[i], 100);
}

TEST(DefaultManipulator, ALeftDragThatStartsOnAPointMovesItWithinThePlane) {
  AnnotationModel model;
  GUI::View view(std::make_unique<GlSliceView>(GlSliceView::Coronal));
  view.view().resize(100, 100);
  view.sliceView()->centerAt(Eigen::Vector3d(10, 20, 30));
  auto* a = model.add(std::make_unique<GlPoint>(Eigen::Vector3d(10, 20, 30)), "p");
  view.addViewObject(a);
  int changes = 0;
  model.annotationChanged.connect([&](InteractiveObject*) { ++changes; });
  std::optional<Eigen::Vector3d> crosshair;
  view.onCrosshair = [&](const Eigen::Vector3d& p) { crosshair = p; };

  const Eigen::Vector3d start = view.view().viewState().project(Eigen::Vector3d(10, 20, 30));
  EXPECT_EQ(view.dispatch(mouse(GUI::InputEvent::MouseButtonPress, start.x() + 2, start.y() - 1)),
            GUI::EventResult::Accepted);
  view.dispatch(mouse(GUI::InputEvent::MouseMove, start.x() + 12, start.y() + 19));
  view.dispatch(mouse(GUI::InputEvent::MouseButtonRelease, start.x() + 12, start.y() + 19));
  const Eigen::Vector3d& p = static_cast<GlPoint*>(a->object())->position;
  const Eigen::Vector3d expected =
      Eigen::Vector3d(10, 20, 30) + 10 * view.sliceView()->pixelIncrementX() + 20 * view.sliceView()->pixelIncrementY();
  EXPECT_LT((p - expected).norm(), 1e-6);
  EXPECT_GT(changes, 0);
  EXPECT_FALSE(crosshair);  // the drag was the point's, not the view's

  // A press away from the point is the view's.
  view.dispatch(mouse(GUI::InputEvent::MouseButtonPress, 5, 5));
  EXPECT_TRUE(crosshair);
}

TEST(GlSpline, TheCurvePassesThroughItsPointsAndClosesWhenAsked) {
  GlSpline s;
  s.points = {{0, 0, 0}, {10, 0, 0}, {10, 10, 0}, {0, 10, 5}};
  s.samplesPerSegment = 8;
  auto open = s.sampled();
  ASSERT_EQ(open.size(), 3u * 8u + 1u);
  for (size_t i = 0; i < s.points.size(); ++i) EXPECT_LT((open[i * 8] - s.points[i]).norm(), 1e-12);
  s.closed = true;
  auto closed = s.sampled();
  ASSERT_EQ(closed.size(), 4u * 8u);
  EXPECT_LT((closed[3 * 8] - s.points[3]).norm(), 1e-12);
}

TEST(ObliqueSlices, AltDragTiltsThePlaneAndKeepsItsAxesOrthonormal) {
  GUI::View view(std::make_unique<GlSliceView>(GlSliceView::Axial));
  view.view().resize(200, 200);
  const Eigen::Vector3d before = view.sliceView()->slice().slice().normal();
  view.dispatch(mouse(GUI::InputEvent::MouseButtonPress, 100, 100, GUI::InputEvent::LeftButton, GUI::InputEvent::Alt));
  view.dispatch(mouse(GUI::InputEvent::MouseMove, 160, 100, GUI::InputEvent::LeftButton, GUI::InputEvent::Alt));
  view.dispatch(mouse(GUI::InputEvent::MouseButtonRelease, 160, 100));
  const Slice& s = view.sliceView()->slice().slice();
  EXPECT_EQ(view.sliceView()->orientation(), GlSliceView::Oblique);
  // 60 pixels of a quarter turn per 300: 18 degrees about the screen's vertical.
  EXPECT_NEAR(std::acos(std::clamp(s.normal().dot(before), -1.0, 1.0)), 0.1 * 3.14159265358979, 1e-6);
  EXPECT_NEAR(s.normal().dot(s.yAxis()), 0.0, 1e-12);
  EXPECT_NEAR(s.xAxis().dot(s.yAxis()), 0.0, 1e-12);
  EXPECT_NEAR(s.xAxis().norm(), 1.0, 1e-12);
}

}  // namespace
}  // namespace Merivane
