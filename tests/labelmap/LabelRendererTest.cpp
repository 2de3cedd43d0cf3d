// The label overlays against a CPU rendering of the same slice: each viewport pixel samples
// the voxel under its centre, as the programs do.
#include <gtest/gtest.h>

#include <cmath>

#include "GlLabelRenderer.h"
#include "GlView.h"
#include "LabelDataComponent.h"
#include "Log.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

using TestKit::makeImage;

struct Programs {
  Repository_MerivaneSeg repository;
  Programs() { Resource::addRepository(&repository); }
  ~Programs() { Resource::removeRepository(&repository); }
};

// An axial view of `size` pixels over the middle of the map, `mm` per pixel, on slice z.
void viewOver(GlSliceView& view, const SharedImage& map, int w, int h, double mm, double z) {
  view.resize(w, h);
  view.setMmPerPixel(mm);
  const Eigen::Vector3i d = map.descriptor().dimensions;
  view.centerAt(map.pixelToWorld(Eigen::Vector3d(d.x() / 2.0 - 0.5, d.y() / 2.0 - 0.5, z)));
  view.background = Eigen::Vector4f(0, 0, 0, 1);
}

// The label under viewport pixel (x, y), -1 outside the map.
int labelUnder(const GlSliceView& view, const SharedImage& map, double x, double y) {
  const Eigen::Vector3d v = map.worldToPixel(view.viewState().unproject({x, y}));
  const Eigen::Vector3i p = (v.array() + 0.5).floor().cast<int>();
  const Eigen::Vector3i d = map.descriptor().dimensions;
  if ((p.array() < 0).any() || (p.array() >= d.array()).any()) return -1;
  return static_cast<const TypedImage<unsigned char>*>(map.mem())->value(p.x(), p.y(), p.z());
}

const std::vector<Eigen::Vector3f> kColors = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 1, 0}};

class LabelOverlay : public ::testing::TestWithParam<double> {};  // opacity

TEST_P(LabelOverlay, EachPixelHasItsLabelsColourAtTheOpacityAndLabelZeroStaysTransparent) {
  MERIVANE_REQUIRE_GL();
  Programs programs;
  auto set = makeImage<unsigned char>(Eigen::Vector3i(9, 7, 3), [](int x, int y, int z) { return (x + 2 * y + z) % 5; });
  SharedImage& map = *set->get();
  GlLabelRenderer renderer(&map);
  renderer.setColors(kColors);
  renderer.setOpacity(GetParam());
  // Half a voxel per pixel and an odd offset, so that pixels fall on both sides of voxel edges.
  GlSliceView view;
  viewOver(view, map, 21, 17, 0.5, 1);
  view.pan({0.3, -0.4});
  view.addObject(&renderer);
  std::vector<unsigned char> rgba;
  ASSERT_TRUE(view.render(rgba));
  int coloured = 0;
  for (int y = 0; y < view.height(); ++y)
    for (int x = 0; x < view.width(); ++x) {
      const int label = labelUnder(view, map, x + 0.5, y + 0.5);
      const unsigned char* px = &rgba[(static_cast<size_t>(y) * view.width() + x) * 4];
      Eigen::Vector3f expected = Eigen::Vector3f::Zero();
      if (label > 0) expected = kColors[static_cast<size_t>(label)] * static_cast<float>(GetParam());
      for (int c = 0; c < 3; ++c)
        ASSERT_NEAR(px[c], expected[c] * 255, 1.5) << "pixel " << x << "," << y << " label " << label;
      coloured += label > 0;
    }
  EXPECT_GT(coloured, 100);
}

INSTANTIATE_TEST_SUITE_P(Opacities, LabelOverlay, ::testing::Values(1.0, 0.5, 0.2));

// A square of label 3 in a 2D map; the CPU outline marks pixels with another label within half
// the width, as the program does.
TEST(IsolineOverlay, TheOutlineIsTheWidthInScreenPixelsAtAnyZoom) {
  MERIVANE_REQUIRE_GL();
  Programs programs;
  auto set = makeImage<unsigned char>(Eigen::Vector3i(20, 20, 1),
                                      [](int x, int y, int) { return x >= 6 && x < 14 && y >= 6 && y < 14 ? 3 : 0; });
  SharedImage& map = *set->get();
  GlIsolineRenderer renderer(&map);
  std::vector<Eigen::Vector4f> colors(4, Eigen::Vector4f(0, 0, 0, 0));
  colors[3] = Eigen::Vector4f(0, 1, 1, 1);
  renderer.setColors(colors);
  for (double mm : {0.25, 0.5}) {
    for (double width : {2.0, 4.0}) {
      renderer.setThicknessPx(width);
      GlSliceView view;
      viewOver(view, map, 96, 96, mm, 0);
      view.addObject(&renderer);
      std::vector<unsigned char> rgba;
      ASSERT_TRUE(view.render(rgba));
      const double r = width / 2;
      const int n = static_cast<int>(std::ceil(r));
      int mismatches = 0, painted = 0;
      for (int y = 0; y < 96; ++y)
        for (int x = 0; x < 96; ++x) {
          const int here = std::max(0, labelUnder(view, map, x + 0.5, y + 0.5));
          bool edge = false;
          for (int dy = -n; dy <= n && !edge; ++dy)
            for (int dx = -n; dx <= n && !edge; ++dx)
              if (dx * dx + dy * dy <= r * r)
                edge = std::max(0, labelUnder(view, map, x + 0.5 + dx, y + 0.5 + dy)) != here;
          const bool shown = rgba[(static_cast<size_t>(y) * 96 + x) * 4 + 1] > 128;
          mismatches += edge != shown;
          painted += shown;
        }
      // Pixels exactly on a voxel edge may round either way; a handful at most.
      EXPECT_LE(mismatches, 8) << mm << " mm per pixel, width " << width;
      // A horizontal line through the square crosses two edges, each `width` pixels wide.
      int run = 0;
      const int y = 48;
      for (int x = 0; x < 96; ++x) run += rgba[(static_cast<size_t>(y) * 96 + x) * 4 + 1] > 128;
      EXPECT_EQ(run, 2 * static_cast<int>(width)) << mm << " mm per pixel, width " << width;
      EXPECT_GT(painted, 0);
    }
  }
}

TEST(IsolineOverlay, ARegionThatHoldsAllLabelsDrawsTheSameOutline) {
  MERIVANE_REQUIRE_GL();
  Programs programs;
  auto set = makeImage<unsigned char>(Eigen::Vector3i(20, 20, 3),
                                      [](int x, int y, int z) { return x >= 6 && x < 14 && y >= 6 && y < 14 && z == 1 ? 3 : 0; });
  SharedImage& map = *set->get();
  GlIsolineRenderer renderer(&map);
  std::vector<Eigen::Vector4f> colors(4, Eigen::Vector4f(0, 0, 0, 0));
  colors[3] = Eigen::Vector4f(0, 1, 1, 1);
  renderer.setColors(colors);
  renderer.setThicknessPx(6);
  GlSliceView view;
  viewOver(view, map, 96, 96, 0.3, 1);
  view.addObject(&renderer);
  std::vector<unsigned char> whole, clipped;
  ASSERT_TRUE(view.render(whole));
  // The square's voxels as a world box, just as tight as the stencil's.
  Geometry::AlignedBox box;
  const Eigen::Vector3d lo = map.pixelToWorld(Eigen::Vector3d(5.5, 5.5, 0.5)), hi = map.pixelToWorld(Eigen::Vector3d(13.5, 13.5, 1.5));
  for (size_t k = 0; k < 3; ++k) {
    box.min[k] = std::min(lo[static_cast<int>(k)], hi[static_cast<int>(k)]);
    box.max[k] = std::max(lo[static_cast<int>(k)], hi[static_cast<int>(k)]);
  }
  renderer.setRegion(box);
  ASSERT_TRUE(view.render(clipped));
  EXPECT_EQ(clipped, whole);
  // A slice beside the region draws nothing, as the map holds nothing there.
  view.scroll(-1);
  ASSERT_TRUE(view.render(clipped));
  for (size_t i = 1; i < clipped.size(); i += 4) ASSERT_LT(clipped[i], 128);
}

TEST(IsolineOverlay, RefusesAMapThatIsNotUnsignedByte) {
  TestKit::LogCapture log;
  auto set = makeImage<unsigned short>(Eigen::Vector3i(4, 4, 1), [](int, int, int) { return 1; });
  GlIsolineRenderer renderer;
  renderer.setLabelMap(set->get());
  EXPECT_EQ(renderer.labelMap(), nullptr);
  EXPECT_TRUE(log.contains("This class only supports label images of type unsigned byte."));
  EXPECT_EQ(log.count(Log::Error, "GlIsolineRenderer"), 1);
}

TEST(LabelOverlay, AnEmptyColourListKeepsTheOldColours) {
  TestKit::LogCapture log;
  GlLabelRenderer renderer;
  renderer.setColors(kColors);
  renderer.setColors({});
  EXPECT_EQ(renderer.colors().size(), kColors.size());
  EXPECT_TRUE(log.contains("Can not assign empty color map."));
}

TEST(LabelOverlay, DrawsNothingInAViewThatIsNotASliceView) {
  MERIVANE_REQUIRE_GL();
  Programs programs;
  auto set = makeImage<unsigned char>(Eigen::Vector3i(4, 4, 4), [](int, int, int) { return 1; });
  GlLabelRenderer renderer(set->get());
  renderer.setColors(kColors);
  GlVolumeView view;
  view.resize(16, 16);
  view.fit(renderer.bounds());
  view.addObject(&renderer);
  std::vector<unsigned char> rgba;
  ASSERT_TRUE(view.render(rgba));
  for (size_t i = 0; i < rgba.size(); i += 4) ASSERT_EQ(rgba[i], 0);
}

TEST(LabelOverlay, AColourChangedInTheLabelComponentShowsAtTheNextDraw) {
  MERIVANE_REQUIRE_GL();
  Programs programs;
  auto set = makeImage<unsigned char>(Eigen::Vector3i(4, 4, 1), [](int, int, int) { return 2; });
  LabelDataComponent ldc(set.get());
  ldc.detectLabels(*set);
  ldc.setLabelColor(2, Eigen::Vector4d(1, 0, 0, 1));
  GlLabelRenderer renderer(set->get());
  renderer.setLabelDataComponent(&ldc);
  GlSliceView view;
  viewOver(view, *set->get(), 4, 4, 1, 0);
  view.addObject(&renderer);
  std::vector<unsigned char> rgba;
  ASSERT_TRUE(view.render(rgba));
  EXPECT_EQ(rgba[0], 255);
  EXPECT_EQ(rgba[1], 0);
  ldc.setLabelColor(2, Eigen::Vector4d(0, 0, 1, 1));
  ASSERT_TRUE(view.render(rgba));
  EXPECT_EQ(rgba[0], 0);
  EXPECT_EQ(rgba[2], 255);
}

}  // namespace
}  // namespace Merivane
