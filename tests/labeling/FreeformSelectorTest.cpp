// Seg::FreeformSelector on slice views over 2D images and volumes, the lookups under the
// cursor, and the polygon inside test that both selections rest on.
#include "FreeformSelector.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <random>

#include "GlFreeform.h"
#include "GlSliceRendererImage.h"
#include "GlView.h"
#include "GuiView.h"
#include "Mask.h"
#include "PolygonRegion.h"
#include "PositionLookups.h"
#include "Spline.h"
#include "GuiTestKit.h"
#include "TestSupport.h"

namespace Merivane::Seg {
namespace {

using GUI::InputEvent;

InputEvent event(InputEvent::Type type, const Eigen::Vector2d& pixel, int button = InputEvent::NoButton) {
  return TestKit::pointerEvent(type, pixel, button);
}

// Drags the left button round the square [lo, hi]^2 of viewport pixels in half-pixel steps.
void dragSquare(GUI::View& view, double lo, double hi) {
  std::vector<Eigen::Vector2d> path;
  for (double t = lo; t < hi; t += 0.5) path.emplace_back(t, lo);
  for (double t = lo; t < hi; t += 0.5) path.emplace_back(hi, t);
  for (double t = hi; t > lo; t -= 0.5) path.emplace_back(t, hi);
  for (double t = hi; t > lo; t -= 0.5) path.emplace_back(lo, t);
  view.dispatch(event(InputEvent::MouseButtonPress, path.front(), InputEvent::LeftButton));
  for (const auto& p : path) view.dispatch(event(InputEvent::MouseMove, p, InputEvent::LeftButton));
  view.dispatch(event(InputEvent::MouseButtonRelease, path.back(), InputEvent::LeftButton));
}

const TypedImage<unsigned char>& maskOf(const SharedImage& frame) {
  auto* m = dynamic_cast<ExplicitMask*>(frame.mask().get());
  EXPECT_NE(m, nullptr);
  return m->maskImageTyped();
}

// A 32 x 32 view of 1 mm pixels round the world origin; the images are centred there too, so
// with even sizes every voxel centre lies half-way between viewport pixel edges.
std::unique_ptr<GUI::View> sliceView(GlSliceView::Orientation o) {
  auto v = std::make_unique<GUI::View>(std::make_unique<GlSliceView>(o));
  v->view().resize(32, 32);
  v->sliceView()->setMmPerPixel(1.0);
  v->sliceView()->centerAt(Eigen::Vector3d::Zero());
  return v;
}

TEST(FreeformSelector, ASquareOnA2DImageSelectsExactlyThePixelsInside) {
  auto image = TestKit::makeImage<unsigned short>({16, 16, 1}, [](int x, int y, int) { return x + 16 * y; });
  auto view = sliceView(GlSliceView::Axial);
  FreeformSelector selector({view.get()});
  selector.setImageToBeSelected(image.get());
  selector.enable();
  int started = 0, finished = 0;
  selector.cuttingStarted.connect([&] { ++started; });
  selector.selectionFinished.connect([&] { ++finished; });
  // Pixel u shows x = u - 8.5 of the image: the square from 12 to 20 holds x and y 4..11.
  dragSquare(*view, 12, 20);
  EXPECT_EQ(started, 1);
  EXPECT_EQ(finished, 1);
  EXPECT_FALSE(selector.isCutting());
  EXPECT_EQ(selector.freeform().points().size(), 0u);
  ASSERT_NE(selector.selectedVolume(), nullptr);
  const auto& mask = maskOf(*selector.selectedVolume()->get());
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 16; ++x) {
      const bool inside = x >= 4 && x <= 11 && y >= 4 && y <= 11;
      EXPECT_EQ(mask.pointer()[y * 16 + x], inside ? 255 : 0) << x << "," << y;
    }
  // The selection is a copy: the image keeps its pixels and has no mask.
  EXPECT_EQ(image->get()->mask(), nullptr);
  EXPECT_EQ(static_cast<TypedImage<unsigned short>*>(selector.selectedVolume()->mem())->pointer()[17], 17);
  // The next outline drops the old selection at its first point.
  view->dispatch(event(InputEvent::MouseButtonPress, {3, 3}, InputEvent::LeftButton));
  EXPECT_EQ(selector.selectedVolume(), nullptr);
  EXPECT_TRUE(selector.isCutting());
}

class FreeformVolume : public testing::TestWithParam<GlSliceView::Orientation> {};

TEST_P(FreeformVolume, ASquareSelectsEveryVoxelThatTheViewShowsInsideThroughItsDepth) {
  auto image = TestKit::makeImage<unsigned char>({12, 10, 8}, [](int, int, int) { return 1; });
  auto view = sliceView(GetParam());
  FreeformSelector selector({view.get()});
  selector.setImageToBeSelected(image.get());
  selector.enable();
  dragSquare(*view, 13, 19);
  ASSERT_NE(selector.selectedVolume(), nullptr);
  const auto& mask = maskOf(*selector.selectedVolume()->get());
  const ViewState& vs = view->view().viewState();
  int inside = 0;
  for (int z = 0; z < 8; ++z)
    for (int y = 0; y < 10; ++y)
      for (int x = 0; x < 12; ++x) {
        const Eigen::Vector3d p = vs.project(image->get()->pixelToWorld(Eigen::Vector3d(x, y, z)));
        const bool in = p.x() > 13 && p.x() < 19 && p.y() > 13 && p.y() < 19;
        inside += in;
        ASSERT_EQ(mask.pointer()[mask.index(x, y, z)], in ? 255 : 0) << x << "," << y << "," << z;
      }
  // Six by six on the screen, through the whole depth of the view.
  const int depth = GetParam() == GlSliceView::Axial ? 8 : GetParam() == GlSliceView::Coronal ? 10 : 12;
  EXPECT_EQ(inside, 36 * depth);
}

INSTANTIATE_TEST_SUITE_P(Orientations, FreeformVolume,
                         testing::Values(GlSliceView::Axial, GlSliceView::Coronal, GlSliceView::Sagittal));

TEST(FreeformSelector, WithoutAnImageItLeavesEventsToTheView) {
  auto view = sliceView(GlSliceView::Axial);
  FreeformSelector selector({view.get()});
  selector.enable();
  int signalCount = 0;
  selector.cuttingStarted.connect([&] { ++signalCount; });
  bool crosshair = false;
  view->onCrosshair = [&](const Eigen::Vector3d&) { crosshair = true; };
  EXPECT_EQ(view->dispatch(event(InputEvent::MouseButtonPress, {5, 5}, InputEvent::LeftButton)),
            GUI::EventResult::Accepted);
  EXPECT_TRUE(crosshair);
  EXPECT_EQ(signalCount, 0);
  EXPECT_FALSE(selector.isCutting());
  selector.disable();
  EXPECT_TRUE(view->viewObjects().empty());
  EXPECT_FALSE(view->view().hasObject(&selector.freeform()));
}

TEST(FreeformSelector, AClickWithoutAnOutlineSelectsNothingAndLeavesTheImage) {
  auto image = TestKit::makeImage<unsigned short>({16, 16, 1}, [](int, int, int) { return 7; });
  auto view = sliceView(GlSliceView::Axial);
  FreeformSelector selector({view.get()});
  selector.setImageToBeSelected(image.get());
  selector.enable();
  int finished = 0;
  selector.selectionFinished.connect([&] { ++finished; });
  TestKit::LogCapture log;
  view->dispatch(event(InputEvent::MouseButtonPress, {5, 5}, InputEvent::LeftButton));
  view->dispatch(event(InputEvent::MouseButtonRelease, {5, 5}, InputEvent::LeftButton));
  EXPECT_EQ(finished, 1);
  EXPECT_EQ(selector.selectedVolume(), nullptr);
  EXPECT_EQ(image->get()->mask(), nullptr);
  EXPECT_EQ(log.count(3), 1);
}

TEST(PolygonRegion, EvenOddInsideAgreesWithABruteForceCrossingCount) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-20, 20);
  for (int round = 0; round < 20; ++round) {
    std::vector<Eigen::Vector2d> poly;
    for (int i = 0; i < 3 + round * 5; ++i) poly.emplace_back(u(rng), u(rng));  // self-crossing allowed
    const PolygonRegion region(poly);
    for (int k = 0; k < 400; ++k) {
      const Eigen::Vector2d p(u(rng), u(rng));
      bool in = false;
      for (size_t i = 0; i < poly.size(); ++i) {
        const auto &a = poly[i], &b = poly[(i + 1) % poly.size()];
        if ((a.y() > p.y()) != (b.y() > p.y()) && a.x() + (p.y() - a.y()) * (b.x() - a.x()) / (b.y() - a.y()) > p.x())
          in = !in;
      }
      ASSERT_EQ(region.contains(p), in) << round << " " << p.transpose();
    }
  }
  EXPECT_TRUE(PolygonRegion({{0, 0}, {1, 1}}).empty());
  EXPECT_FALSE(PolygonRegion({{0, 0}, {4, 0}, {0, 4}}).contains({5, 5}));
}

TEST(PositionLookups, ThreeOrthogonalSliceViewsMeetAtTheirCommonPoint) {
  const Eigen::Vector3d p(3.5, -2, 7.25);
  auto axial = sliceView(GlSliceView::Axial), coronal = sliceView(GlSliceView::Coronal);
  auto sagittal = sliceView(GlSliceView::Sagittal), second = sliceView(GlSliceView::Axial);
  for (auto* v : {axial.get(), coronal.get(), sagittal.get()}) v->sliceView()->moveTo(p);
  DisplayWidgetMultiAdapter adapter({axial.get(), coronal.get(), sagittal.get()});
  const auto hit = getIntersection(adapter);
  ASSERT_TRUE(hit);
  EXPECT_LT((*hit - p).norm(), 1e-9);
  EXPECT_FALSE(getIntersection(DisplayWidgetMultiAdapter({axial.get(), coronal.get()})));
  EXPECT_FALSE(getIntersection(DisplayWidgetMultiAdapter({axial.get(), second.get(), coronal.get()})));
}

TEST(PositionLookups, ValueAtIsTheVoxelUnderThePointAndEmptyOutside) {
  auto labels = TestKit::makeImage<unsigned char>({4, 3, 2}, [](int x, int y, int z) { return 1 + x + 4 * y + 12 * z; });
  auto view = sliceView(GlSliceView::Axial);
  const SharedImage* img = labels->get();
  const GlView& v = view->view();
  for (int z = 0; z < 2; ++z)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 4; ++x) {
        const Eigen::Vector3d corner = img->pixelToWorld(Eigen::Vector3d(x - 0.45, y + 0.45, z + 0.3));
        EXPECT_EQ(getValueAt(img, v, corner), 1 + x + 4 * y + 12 * z);
      }
  for (const Eigen::Vector3d& outside : {Eigen::Vector3d(-0.6, 1, 0), Eigen::Vector3d(3.6, 1, 0), Eigen::Vector3d(1, 1, -0.7)})
    EXPECT_FALSE(getValueAt(img, v, img->pixelToWorld(outside))) << outside.transpose();
  EXPECT_FALSE(getValueAt(nullptr, v, Eigen::Vector3d::Zero()));
  auto wide = TestKit::makeImage<unsigned short>({4, 3, 2}, [](int, int, int) { return 1; });
  EXPECT_FALSE(getValueAt(wide->get(), v, Eigen::Vector3d::Zero()));
}

TEST(PositionLookups, InA3DViewTheValueIsTakenJustBehindTheSurfaceShown) {
  MERIVANE_REQUIRE_GL();
  // Labels code z; the image is drawn on the plane z = 3 and looked at from +z.
  auto labels = TestKit::makeImage<unsigned char>({8, 8, 6}, [](int, int, int z) { return 10 + z; });
  auto image = TestKit::makeImage<unsigned short>({8, 8, 6}, [](int, int, int) { return 500; });
  auto axial = sliceView(GlSliceView::Axial);
  const SharedImage* img = labels->get();
  axial->sliceView()->moveTo(img->pixelToWorld(Eigen::Vector3d(3, 3, 3)));
  GlSliceRendererImage renderer(image->get());
  renderer.setPlane(&axial->sliceView()->slice());
  GlVolumeView volume;
  volume.resize(32, 32);
  volume.setRotation(Eigen::Matrix3d::Identity());
  volume.setCenter(Eigen::Vector3d::Zero());
  volume.addObject(&renderer);
  const Eigen::Vector3d front = img->pixelToWorld(Eigen::Vector3d(3, 4, 5));
  // Nothing drawn yet: no surface, no value.
  EXPECT_FALSE(getPixelCoordinatesAt(img, volume, front).allFinite());
  EXPECT_FALSE(getValueAt(img, volume, front));
  std::vector<unsigned char> rgba;
  ASSERT_TRUE(volume.render(rgba));
  const Eigen::Vector3d p = getPixelCoordinatesAt(img, volume, front);
  EXPECT_NEAR(p.z(), 2.5, 1e-3);  // one millimetre behind z = 3, plus the half
  EXPECT_EQ(getValueAt(img, volume, front), 12);
  // Far to the side of the drawn plane there is no hit within reach.
  EXPECT_FALSE(getValueAt(img, volume, img->pixelToWorld(Eigen::Vector3d(30, 3, 5))));
  // A slice view needs no rendering: the voxel at the point itself.
  EXPECT_EQ(getValueAt(img, axial->view(), front), 15);
}

}  // namespace
}  // namespace Merivane::Seg
