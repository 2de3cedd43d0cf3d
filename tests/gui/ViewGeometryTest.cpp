// Geometry of views without GL: planes and their intersections, the camera's mapping between
// pixels and world positions, and the navigation that moves it.
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <random>

#include "DataModel.h"
#include "GlView.h"
#include "Mesh.h"
#include "Slice.h"

namespace Merivane {
namespace {

constexpr double kTol = 1e-9;

TEST(Slice, ThreeOrthogonalPlanesMeetAtTheirCommonPoint) {
  const Eigen::Vector3d p(12.5, -3, 40);
  Slice axial(p + Eigen::Vector3d(5, 7, 0), Eigen::Vector3d::UnitX(), Eigen::Vector3d::UnitY(), 10, 10);
  Slice coronal(p + Eigen::Vector3d(-2, 0, 9), Eigen::Vector3d::UnitX(), -Eigen::Vector3d::UnitZ(), 10, 10);
  Slice sagittal(p + Eigen::Vector3d(0, 4, 1), Eigen::Vector3d::UnitY(), -Eigen::Vector3d::UnitZ(), 10, 10);
  auto line = axial.intersect(coronal);
  ASSERT_TRUE(line);
  auto point = sagittal.intersect(*line);
  ASSERT_TRUE(point);
  EXPECT_LT((*point - p).norm(), kTol);
}

TEST(Slice, ParallelPlanesAndParallelLinesDoNotMeet) {
  Slice a(Eigen::Vector3d::Zero(), Eigen::Vector3d::UnitX(), Eigen::Vector3d::UnitY(), 1, 1);
  Slice b(Eigen::Vector3d(0, 0, 5), Eigen::Vector3d::UnitY(), Eigen::Vector3d::UnitX(), 1, 1);
  EXPECT_FALSE(a.intersect(b));
  EXPECT_FALSE(a.intersect(Line3{Eigen::Vector3d(0, 0, 1), Eigen::Vector3d::UnitX()}));
}

TEST(Slice, RandomObliquePlanesMeetInAPointOnAllThree) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-1, 1);
  for (int trial = 0; trial < 50; ++trial) {
    Slice s[3];
    for (auto& slice : s) {
      slice = Slice(Eigen::Vector3d(u(rng), u(rng), u(rng)) * 50, Eigen::Vector3d(u(rng), u(rng), u(rng)),
                    Eigen::Vector3d(u(rng), u(rng), u(rng)), 1, 1);
    }
    auto line = s[0].intersect(s[1]);
    if (!line) continue;
    auto p = s[2].intersect(*line);
    if (!p) continue;
    for (const auto& slice : s) EXPECT_NEAR(slice.distance(*p), 0.0, 1e-6);
  }
}

TEST(Slice, AxesAreOrthonormalAndCornersSpanTheExtent) {
  Slice s(Eigen::Vector3d(1, 2, 3), Eigen::Vector3d(2, 0, 0), Eigen::Vector3d(1, 3, 0), 40, 20);
  EXPECT_NEAR(s.xAxis().dot(s.yAxis()), 0.0, kTol);
  EXPECT_NEAR(s.yAxis().norm(), 1.0, kTol);
  EXPECT_NEAR((s.corner(1) - s.corner(0)).norm(), 40, kTol);
  EXPECT_NEAR((s.corner(3) - s.corner(0)).norm(), 20, kTol);
  EXPECT_LT(((s.corner(0) + s.corner(2)) / 2 - s.center()).norm(), kTol);
  // Top left to top right runs along x; top left to bottom left along y (screen down).
  EXPECT_GT((s.corner(1) - s.corner(0)).dot(s.xAxis()), 0);
  EXPECT_GT((s.corner(3) - s.corner(0)).dot(s.yAxis()), 0);
}

class SliceViewGeometry : public ::testing::TestWithParam<GlSliceView::Orientation> {};

TEST_P(SliceViewGeometry, ViewportCornersAreTheSliceCornersAndMidDepthLiesOnThePlane) {
  GlSliceView view(GetParam());
  view.resize(200, 100);
  view.setMmPerPixel(0.5);
  view.centerAt(Eigen::Vector3d(10, -20, 30));
  const Slice& s = view.slice().slice();
  EXPECT_NEAR(s.width(), 100, kTol);
  EXPECT_NEAR(s.height(), 50, kTol);
  const ViewState& vs = view.viewState();
  EXPECT_LT((vs.unproject({0, 0}) - s.corner(0)).norm(), 1e-6);
  EXPECT_LT((vs.unproject({200, 0}) - s.corner(1)).norm(), 1e-6);
  EXPECT_LT((vs.unproject({200, 100}) - s.corner(2)).norm(), 1e-6);
  EXPECT_LT((vs.unproject({0, 100}) - s.corner(3)).norm(), 1e-6);
  const Eigen::Vector3d p = vs.unproject({37.5, 81.25});
  EXPECT_NEAR(s.distance(p), 0.0, 1e-6);
  const Eigen::Vector3d back = vs.project(p);
  EXPECT_NEAR(back.x(), 37.5, 1e-6);
  EXPECT_NEAR(back.y(), 81.25, 1e-6);
  EXPECT_NEAR(back.z(), 0.5, 1e-9);
  // One pixel to the right is one pixel increment away.
  EXPECT_LT((vs.unproject({38.5, 81.25}) - p - view.pixelIncrementX()).norm(), 1e-6);
  EXPECT_LT((vs.unproject({37.5, 82.25}) - p - view.pixelIncrementY()).norm(), 1e-6);
}

TEST_P(SliceViewGeometry, ZoomKeepsThePointUnderTheCursorScrollMovesAlongTheNormalPanFollowsThePointer) {
  GlSliceView view(GetParam());
  view.resize(300, 200);
  view.centerAt(Eigen::Vector3d(1, 2, 3));
  const Eigen::Vector2d anchor(40, 150);
  const Eigen::Vector3d before = view.viewState().unproject(anchor);
  view.zoom(2.5, anchor);
  EXPECT_NEAR(view.mmPerPixel(), 0.4, 1e-12);
  EXPECT_LT((view.viewState().unproject(anchor) - before).norm(), 1e-6);

  view.setSliceStep(1.5);
  const Eigen::Vector3d c = view.slice().slice().center();
  view.scroll(-2);
  EXPECT_LT((view.slice().slice().center() - (c - 3.0 * view.slice().slice().normal())).norm(), 1e-9);

  const Eigen::Vector3d grabbed = view.viewState().unproject({100, 100});
  view.pan({15, -7});
  const Eigen::Vector3d now = view.viewState().project(grabbed);
  EXPECT_NEAR(now.x(), 115, 1e-6);
  EXPECT_NEAR(now.y(), 93, 1e-6);
}

TEST_P(SliceViewGeometry, MoveToKeepsTheShownPartAndPutsThePointOnThePlane) {
  GlSliceView view(GetParam());
  view.resize(100, 100);
  const Eigen::Vector3d c = view.slice().slice().center();
  const Eigen::Vector3d p(7, 8, 9);
  view.moveTo(p);
  const Slice& s = view.slice().slice();
  EXPECT_NEAR(s.distance(p), 0.0, 1e-9);
  EXPECT_LT(((s.center() - c).cross(s.normal())).norm(), 1e-9);  // moved along the normal only
}

INSTANTIATE_TEST_SUITE_P(Orientations, SliceViewGeometry,
                         ::testing::Values(GlSliceView::Axial, GlSliceView::Coronal, GlSliceView::Sagittal));

TEST(SliceViewGeometry, StandardOrientationsLookAlongTheWorldAxes) {
  EXPECT_LT((GlSliceView(GlSliceView::Axial).slice().slice().normal().cwiseAbs() - Eigen::Vector3d::UnitZ()).norm(),
            kTol);
  EXPECT_LT((GlSliceView(GlSliceView::Coronal).slice().slice().normal().cwiseAbs() - Eigen::Vector3d::UnitY()).norm(),
            kTol);
  EXPECT_LT(
      (GlSliceView(GlSliceView::Sagittal).slice().slice().normal().cwiseAbs() - Eigen::Vector3d::UnitX()).norm(),
      kTol);
  // Head up in the coronal and sagittal views: world +z is towards the top of the screen.
  EXPECT_LT(GlSliceView(GlSliceView::Coronal).slice().slice().yAxis().z(), 0);
}

TEST(VolumeViewGeometry, ProjectionRoundTripsAfterOrbitAndTheRotationStaysProper) {
  GlVolumeView view;
  view.resize(320, 240);
  Geometry::AlignedBox box{{-50, -60, -70}, {50, 60, 70}};
  view.fit(box);
  view.orbit({123, -45});
  const Eigen::Matrix3d R = view.rotation();
  EXPECT_LT((R.transpose() * R - Eigen::Matrix3d::Identity()).norm(), 1e-9);
  EXPECT_NEAR(R.determinant(), 1.0, 1e-9);
  const Eigen::Vector3d p(10, -20, 30);
  const Eigen::Vector3d q = view.viewState().project(p);
  EXPECT_LT((view.viewState().unproject(q.head<2>(), q.z()) - p).norm(), 1e-6);
  // The whole box fits in the viewport.
  for (int c = 0; c < 8; ++c) {
    const Eigen::Vector3d corner(c & 1 ? 50 : -50, c & 2 ? 60 : -60, c & 4 ? 70 : -70);
    const Eigen::Vector3d s = view.viewState().project(corner);
    EXPECT_GE(s.x(), 0);
    EXPECT_LE(s.x(), 320);
    EXPECT_GE(s.y(), 0);
    EXPECT_LE(s.y(), 240);
    EXPECT_GT(s.z(), 0);
    EXPECT_LT(s.z(), 1);
  }
}

TEST(DataModel, OwnsItemsSignalsInOrderAndForgetsLinksAndSelectionOfRemovedItems) {
  DataModel model;
  std::vector<std::string> events;
  model.dataAdded.connect([&](Data* d) { events.push_back("add " + d->name()); });
  model.dataAboutToBeRemoved.connect([&](Data* d) {
    events.push_back("remove " + d->name());
    EXPECT_TRUE(model.contains(d));  // still there while receivers look at it
  });
  Data* a = model.add(std::make_unique<Mesh>(), "a");
  Data* b = model.add(std::make_unique<Mesh>(), "b");
  EXPECT_EQ(model.add(std::unique_ptr<Mesh>(), "null"), nullptr);
  model.addLink(a, b);
  model.addLink(b, a);
  EXPECT_EQ(model.linked(a), std::vector<Data*>{b});
  model.setSelected(DataList{a, b});
  EXPECT_EQ(model.getAll(Data::kindMesh).size(), 2u);
  EXPECT_TRUE(model.remove(a));
  EXPECT_FALSE(model.remove(a));
  EXPECT_TRUE(model.linked(b).empty());
  EXPECT_EQ(model.selected().size(), 1);
  EXPECT_EQ(model.selected()[0], b);
  auto taken = model.take(b);
  ASSERT_TRUE(taken);
  EXPECT_EQ(model.size(), 0);
  EXPECT_EQ(events, (std::vector<std::string>{"add a", "add b", "remove a", "remove b"}));
}

TEST(DataModel, AListIsAddedWithNumberedNames) {
  DataModel model;
  OwningDataList list;
  list.add(std::make_unique<Mesh>());
  list.add(std::make_unique<Mesh>());
  auto added = model.add(std::move(list), "Result");
  ASSERT_EQ(added.size(), 2u);
  EXPECT_EQ(added[0]->name(), "Result");
  EXPECT_EQ(added[1]->name(), "Result 2");
}

}  // namespace
}  // namespace Merivane
