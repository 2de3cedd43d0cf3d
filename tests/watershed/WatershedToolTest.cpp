// Seg::WatershedTool: the live flooding against Watershed::run on the same seeds, locks,
// mask, crop and window, the restart on each edit of the seed map, the quick look of large
// frames, apply and discard, background seeds, and the overlay drawn on a slice view.
#include "WatershedTool.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "GlView.h"
#include "GuiTestKit.h"
#include "GuiView.h"
#include "ImageComponents.h"
#include "ImageProcessing.h"
#include "LabelDataComponent.h"
#include "Log.h"
#include "Mask.h"
#include "Progress.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "TestSupport.h"
#include "Watershed.h"
#include "WatershedOverlay.h"

namespace Merivane::Seg {
namespace {

using Voxels = std::vector<uint8_t>;
using U8Image = TypedImage<unsigned char>;

Voxels voxels(const SharedImageSet& set) {
  auto* m = static_cast<const U8Image*>(set.mem(0));
  return {m->pointer(), m->pointer() + m->descriptor().pixelCount()};
}

std::unique_ptr<SharedImageSet> labelMap(const Eigen::Vector3i& dims, const std::function<int(int, int, int)>& f) {
  auto labels = TestKit::makeImage<unsigned char>(dims, f);
  labels->setModality(Data::LABEL);
  return labels;
}

// Three bright slabs along x with dark walls between them: x in [0,8), [10,18), [20,28).
std::unique_ptr<SharedImageSet> slabs(const Eigen::Vector3i& dims) {
  return TestKit::makeImage<short>(dims, [](int x, int y, int z) {
    const bool wall = x == 8 || x == 9 || x == 18 || x == 19;
    return (wall ? 0 : 1000) + static_cast<int>(20 * TestKit::hashNoise(x, y, z));
  });
}

// The reference: the quantised frame flooded from the same seeds in one go.
Voxels reference(const SharedImageSet& image, const SharedImageSet& seeds) {
  const MemImage& frame = *image.mem(0);
  short mn, mx;
  static_cast<const TypedImage<short>&>(frame).getRange(mn, mx);
  auto source = Watershed::quantizeAndBakeWindowLevel(frame, double(mx) - mn, (double(mx) + mn) / 2);
  auto s = static_cast<const U8Image*>(seeds.mem(0))->cloneTyped();
  EXPECT_TRUE(Watershed::run(*source, *s, nullptr, Eigen::Vector3i::Zero(), Eigen::Vector3i::Zero()));
  return {s->pointer(), s->pointer() + s->descriptor().pixelCount()};
}

// Runs the Qt event loop until `done` or twenty seconds have passed.
bool waitFor(const std::function<bool()>& done) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    TestKit::qtApp().processEvents(QEventLoop::AllEvents, 10);
  }
  return true;
}

class WatershedToolTest : public testing::Test {
 protected:
  void SetUp() override {
    TestKit::qtApp();
    Resource::addRepository(&repo);
  }
  void TearDown() override { Resource::removeRepository(&repo); }

  // Starts a run and waits for its full-resolution outcome.
  WatershedTool::StopReason run(WatershedTool& tool) {
    bool stoppedFlag = false;
    WatershedTool::StopReason reason{};
    SignalReceiver receiver;
    tool.stopped.connect(&receiver, [&](WatershedTool::StopReason r) {
      reason = r;
      stoppedFlag = true;
    });
    tool.startComputation();
    EXPECT_TRUE(waitFor([&] { return stoppedFlag; }));
    return reason;
  }

  Repository_MerivaneSeg repo;
  DisplayWidgetMultiAdapter noViews;
};

TEST_F(WatershedToolTest, FloodsLikeTheTransformAndApplyWritesTheResultIntoTheSeedMap) {
  const Eigen::Vector3i dims(28, 6, 4);
  auto image = slabs(dims);
  auto seeds = labelMap(dims, [](int x, int y, int z) {
    if (y == 2 && z == 1 && x == 3) return 1;
    if (y == 3 && z == 2 && x == 14) return 2;
    if (y == 1 && z == 1 && x == 25) return 3;
    return 0;
  });
  const Voxels expected = reference(*image, *seeds);
  const Voxels before = voxels(*seeds);
  WatershedTool tool(*image, *seeds, noViews);
  tool.enable();
  EXPECT_EQ(run(tool), WatershedTool::StopReason::Finished);
  ASSERT_NE(tool.resultImage(), nullptr);
  EXPECT_FALSE(tool.resultIsPreview());
  EXPECT_EQ(voxels(*tool.resultImage()), expected);
  // The result stays apart from the seeds until applied.
  EXPECT_EQ(voxels(*seeds), before);
  // Each slab is one label.
  EXPECT_EQ(expected[3], 1);
  EXPECT_EQ(expected[14], 2);
  EXPECT_EQ(expected[25], 3);
  ASSERT_TRUE(tool.applyResult());
  EXPECT_EQ(voxels(*seeds), expected);
  EXPECT_EQ(tool.resultImage(), nullptr);
  EXPECT_FALSE(tool.applyResult());  // nothing left to apply
}

TEST_F(WatershedToolTest, OneSeedColourStopsWithCheckFailedAndKeepsTheLastResult) {
  const Eigen::Vector3i dims(28, 4, 1);
  auto image = slabs(dims);
  auto seeds = labelMap(dims, [](int x, int y, int) { return y == 1 && (x == 3 || x == 14) ? 1 + (x > 10) : 0; });
  WatershedTool tool(*image, *seeds, noViews);
  tool.enable();
  ASSERT_EQ(run(tool), WatershedTool::StopReason::Finished);
  const Voxels shown = voxels(*tool.resultImage());
  // Now only label 1 is left.
  tool.removeSeedsFromLabelMap(2);
  EXPECT_EQ(run(tool), WatershedTool::StopReason::CheckFailed);
  ASSERT_NE(tool.resultImage(), nullptr);
  EXPECT_EQ(voxels(*tool.resultImage()), shown);
}

TEST_F(WatershedToolTest, ALockedLabelIsNoSeedAtAllNotABarrier) {
  const Eigen::Vector3i dims(28, 5, 3);
  auto image = slabs(dims);
  auto withLocked = labelMap(dims, [](int x, int y, int z) {
    if (x == 2 && y == 2 && z == 1) return 1;
    if (x == 24 && y == 2 && z == 1) return 2;
    return x >= 11 && x <= 16 ? 7 : 0;  // a wall of label 7 across the middle slab
  });
  auto without = labelMap(dims, [](int x, int y, int z) {
    if (x == 2 && y == 2 && z == 1) return 1;
    if (x == 24 && y == 2 && z == 1) return 2;
    return 0;
  });
  WatershedTool tool(*image, *withLocked, noViews);
  tool.setLocking(7, true);
  ASSERT_EQ(run(tool), WatershedTool::StopReason::Finished);
  const Voxels result = voxels(*tool.resultImage());
  EXPECT_EQ(result, reference(*image, *without));
  EXPECT_EQ(std::count(result.begin(), result.end(), 7), 0);
}

TEST_F(WatershedToolTest, TheMaskCutsSeedsAndResult) {
  const Eigen::Vector3i dims(28, 5, 3);
  auto image = slabs(dims);
  auto seeds = labelMap(dims, [](int x, int y, int z) {
    return y == 2 && z == 1 ? (x == 3 ? 1 : x == 24 ? 2 : x == 14 ? 3 : 0) : 0;
  });
  auto maskImage = std::shared_ptr<U8Image>(U8Image::zeros(dims).release());
  for (int z = 0; z < 3; ++z)
    for (int y = 0; y < 5; ++y)
      for (int x = 0; x < 20; ++x) maskImage->setValue(1, x, y, z);
  ExplicitMask mask(maskImage);
  WatershedTool tool(*image, *seeds, noViews);
  tool.setMask(&mask);
  ASSERT_EQ(run(tool), WatershedTool::StopReason::Finished);
  const Voxels result = voxels(*tool.resultImage());
  for (int z = 0; z < 3; ++z)
    for (int y = 0; y < 5; ++y)
      for (int x = 0; x < 28; ++x) {
        const uint8_t v = result[static_cast<size_t>((z * 5 + y) * 28 + x)];
        if (x >= 20)
          EXPECT_EQ(v, 0) << x;
        else
          EXPECT_TRUE(v == 1 || v == 3) << x;  // seed 2 lay outside the mask
      }
  // Apply writes inside the mask only: the seed outside it stays.
  ASSERT_TRUE(tool.applyResult());
  EXPECT_EQ(voxels(*seeds)[static_cast<size_t>((1 * 5 + 2) * 28 + 24)], 2);
}

TEST_F(WatershedToolTest, ACropGivesAResultOfTheCropsSizeThatApplyPutsBackInPlace) {
  const Eigen::Vector3i dims(28, 10, 8);
  auto image = slabs(dims);
  auto seeds = labelMap(dims, [](int x, int y, int z) {
    if (y == 0 && z == 0) return 9;  // outside the crop: cleared by apply
    return y == 4 && z == 3 ? (x == 11 ? 1 : x == 16 ? 2 : 0) : 0;
  });
  const Eigen::Vector3i lo(10, 1, 1), size(8, 8, 6);
  // The reference floods the crop of the quantised frame from the crop of the seeds.
  auto croppedImage = std::make_unique<SharedImageSet>(
      std::shared_ptr<Image>(ImageProcessing::createCropped(*image->mem(0), lo, size)));
  auto croppedSeeds = std::make_unique<SharedImageSet>(
      std::shared_ptr<Image>(ImageProcessing::createCropped(*seeds->mem(0), lo, size)));
  // The range of the whole frame quantises both.
  short mn, mx;
  static_cast<const TypedImage<short>*>(image->mem(0))->getRange(mn, mx);
  auto source = Watershed::quantizeAndBakeWindowLevel(*croppedImage->mem(0), double(mx) - mn, (double(mx) + mn) / 2);
  auto expected = static_cast<const U8Image*>(croppedSeeds->mem(0))->cloneTyped();
  ASSERT_TRUE(Watershed::run(*source, *expected, nullptr, Eigen::Vector3i::Zero(), Eigen::Vector3i::Zero()));

  WatershedTool tool(*image, *seeds, noViews);
  tool.setCropRegion(lo, lo + size - Eigen::Vector3i::Ones());
  ASSERT_EQ(run(tool), WatershedTool::StopReason::Finished);
  const SharedImage* r = tool.resultImage()->get(0);
  EXPECT_EQ(r->descriptor().dimensions, size);
  EXPECT_EQ(voxels(*tool.resultImage()), Voxels(expected->pointer(), expected->pointer() + size.prod()));
  // The result lies where the crop box lies in the world.
  EXPECT_TRUE(r->pixelToWorld(Eigen::Vector3d(0, 0, 0)).isApprox(seeds->get()->pixelToWorld(lo.cast<double>())));
  ASSERT_TRUE(tool.applyResult());
  const Voxels after = voxels(*seeds);
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) {
        const uint8_t v = after[static_cast<size_t>((z * dims[1] + y) * dims[0] + x)];
        const Eigen::Vector3i p = Eigen::Vector3i(x, y, z) - lo;
        if ((p.array() >= 0).all() && (p.array() < size.array()).all())
          EXPECT_EQ(v, expected->value(p[0], p[1], p[2])) << x << "," << y << "," << z;
        else
          EXPECT_EQ(v, 0) << x << "," << y << "," << z;
      }
}

TEST_F(WatershedToolTest, TheDisplayWindowReachesTheSourceOnlyWithUseWindowLevel) {
  // Two plateaus, 100 and 200, with a ramp between them; seeds at both ends. Through a window
  // that maps everything to 255, the source is flat and the boundary moves.
  const Eigen::Vector3i dims(32, 3, 1);
  auto image = TestKit::makeImage<short>(dims, [](int x, int, int) { return x < 20 ? 100 : x < 24 ? 100 + (x - 19) * 20 : 200; });
  auto seeds = labelMap(dims, [](int x, int y, int) { return y == 1 && x == 1 ? 1 : y == 1 && x == 30 ? 2 : 0; });
  auto* display = image->components().getOrCreate<DisplayOptions2d>();
  display->window = 1000;
  display->level = 150;
  WatershedTool tool(*image, *seeds, noViews);
  ASSERT_EQ(run(tool), WatershedTool::StopReason::Finished);
  const Voxels byRange = voxels(*tool.resultImage());
  // Off: a change of the window changes nothing.
  display->window = 1;
  display->level = -500;
  ASSERT_EQ(run(tool), WatershedTool::StopReason::Finished);
  EXPECT_EQ(voxels(*tool.resultImage()), byRange);
  // On: the flat window floods by distance alone, and the boundary moves to the middle.
  tool.setUseWindowLevel(true);
  ASSERT_EQ(run(tool), WatershedTool::StopReason::Finished);
  const Voxels flat = voxels(*tool.resultImage());
  EXPECT_NE(flat, byRange);
  // Changing the window again makes the source stale: a wide window gives the ramp back.
  display->window = 1000;
  display->level = 150;
  ASSERT_EQ(run(tool), WatershedTool::StopReason::Finished);
  EXPECT_EQ(voxels(*tool.resultImage()), byRange);
}

TEST_F(WatershedToolTest, AnEditOfTheSeedMapRestartsTheFloodWhileEnabled) {
  const Eigen::Vector3i dims(28, 5, 3);
  auto image = slabs(dims);
  auto seeds = labelMap(dims, [](int x, int y, int z) { return y == 2 && z == 1 ? (x == 3 ? 1 : x == 24 ? 2 : 0) : 0; });
  WatershedTool tool(*image, *seeds, noViews);
  int shown = 0;
  SignalReceiver receiver;
  tool.resultShown.connect(&receiver, [&](bool) { ++shown; });
  // Disabled: edits are not followed.
  seeds->contentChanged.emitSignal(0);
  TestKit::qtApp().processEvents();
  EXPECT_TRUE(tool.isIdle());
  EXPECT_EQ(shown, 0);
  tool.enable();
  seeds->contentChanged.emitSignal(0);
  ASSERT_TRUE(waitFor([&] { return shown == 1; }));
  // A new seed in the middle slab: the edit alone brings a result with it.
  static_cast<U8Image*>(seeds->mem(0))->setValue(3, 14, 2, 1);  // x 14, y 2, z 1
  seeds->contentChanged.emitSignal(0);
  ASSERT_TRUE(waitFor([&] { return shown == 2; }));
  EXPECT_EQ(voxels(*tool.resultImage())[static_cast<size_t>(14)], 3);
}

TEST_F(WatershedToolTest, LargeFramesShowAReducedQuickLookFirstThenTheFullResult) {
  const Eigen::Vector3i dims(28, 16, 16);
  auto image = slabs(dims);
  auto seeds = labelMap(dims, [](int x, int y, int z) { return y == 8 && z == 8 ? (x == 3 ? 1 : x == 14 ? 2 : x == 25 ? 3 : 0) : 0; });
  WatershedTool tool(*image, *seeds, noViews);
  tool.setQuickLookThreshold(1000);  // 7,168 voxels: reduced by 2 per axis
  std::vector<bool> kinds;
  std::vector<Eigen::Vector3i> sizes;
  SignalReceiver receiver;
  tool.resultShown.connect(&receiver, [&](bool full) {
    kinds.push_back(full);
    sizes.push_back(tool.resultImage()->get(0)->descriptor().dimensions);
  });
  tool.enable();
  ASSERT_EQ(run(tool), WatershedTool::StopReason::Finished);
  ASSERT_TRUE(waitFor([&] { return !kinds.empty() && kinds.back(); }));
  EXPECT_FALSE(tool.resultIsPreview());
  EXPECT_EQ(voxels(*tool.resultImage()), reference(*image, *seeds));
  // A quick look, if it came first, was the reduced grid, and never followed the full result.
  for (size_t i = 0; i < kinds.size(); ++i) {
    if (!kinds[i]) {
      EXPECT_EQ(sizes[i], Eigen::Vector3i(14, 8, 8));
      EXPECT_TRUE(i + 1 < kinds.size());
    }
  }
}

TEST_F(WatershedToolTest, BackgroundSeedsComeFromACompatibleMapOnly) {
  const Eigen::Vector3i dims(8, 4, 2);
  auto image = slabs(dims);
  auto seeds = labelMap(dims, [](int x, int, int) { return x == 0 ? 1 : 0; });
  auto background = labelMap(dims, [](int x, int, int) { return x >= 6 ? 5 : 0; });
  auto other = labelMap({4, 4, 2}, [](int, int, int) { return 1; });
  WatershedTool tool(*image, *seeds, noViews);
  {
    TestKit::LogCapture log;
    tool.setBackgroundSeeds(*other, nullptr);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].message, "Cannot set background seeds from incompatible label map");
  }
  EXPECT_EQ(voxels(*seeds), voxels(*labelMap(dims, [](int x, int, int) { return x == 0 ? 1 : 0; })));
  Progress progress;
  tool.setBackgroundSeeds(*background, &progress);
  EXPECT_EQ(voxels(*seeds), voxels(*labelMap(dims, [](int x, int, int) { return x == 0 ? 1 : x >= 6 ? 2 : 0; })));
}

TEST_F(WatershedToolTest, PreviewColoursAreTheSeedColoursWithLowerLightness) {
  const Eigen::Vector3i dims(4, 4, 1);
  auto image = slabs(dims);
  auto seeds = labelMap(dims, [](int, int, int) { return 0; });
  auto* ldc = seeds->components().getOrCreate<LabelDataComponent>(seeds.get());
  ldc->setLabelColor(1, Eigen::Vector4d(1, 0, 0, 1));      // lightness 0.5
  ldc->setLabelColor(2, Eigen::Vector4d(0.5, 0.5, 0.5, 1));  // grey, lightness 0.5
  WatershedTool tool(*image, *seeds, noViews);
  const auto& c = tool.overlay()->colors();
  ASSERT_EQ(c.size(), 256u);
  // l = 0.5 - 0.3 * 0.5 / 2 = 0.425; a saturated red at that lightness is (0.85, 0, 0).
  EXPECT_TRUE(c[1].isApprox(Eigen::Vector3f(0.85f, 0, 0), 1e-5f)) << c[1].transpose();
  EXPECT_TRUE(c[2].isApprox(Eigen::Vector3f(0.425f, 0.425f, 0.425f), 1e-5f)) << c[2].transpose();
  // A colour changed in the seed map's labels reaches the overlay.
  ldc->setLabelColor(1, Eigen::Vector4d(0, 0, 1, 1));
  EXPECT_TRUE(tool.overlay()->colors()[1].isApprox(Eigen::Vector3f(0, 0, 0.85f), 1e-5f));
  tool.setPreviewLightnessShift(0);
  EXPECT_TRUE(tool.overlay()->colors()[1].isApprox(Eigen::Vector3f(0, 0, 1), 1e-5f));
}

TEST_F(WatershedToolTest, TheToolEndsCleanlyWhenDestroyedMidFlood) {
  const Eigen::Vector3i dims(96, 96, 96);
  auto image = TestKit::makeImage<short>(dims, [](int x, int y, int z) { return (x * 7 + y * 13 + z * 29) % 251; });
  auto seeds = labelMap(dims, [](int x, int y, int z) { return x == 1 && y == 1 && z == 1 ? 1 : x == 90 && y == 90 && z == 90 ? 2 : 0; });
  for (int i = 0; i < 3; ++i) {
    auto tool = std::make_unique<WatershedTool>(*image, *seeds, noViews);
    tool->enable();
    tool->startComputation();
    TestKit::qtApp().processEvents();
    tool.reset();  // cancels and joins; nothing posted reaches the dead tool
    TestKit::qtApp().processEvents();
  }
}

// ---------------------------------------------------------------------------------------------
// The overlay on a slice view.

class WatershedOverlayGl : public WatershedToolTest {
 protected:
  void SetUp() override {
    MERIVANE_REQUIRE_GL();
    WatershedToolTest::SetUp();
  }
};

TEST_F(WatershedOverlayGl, ShowsTheResultInPreviewColoursExceptOnSeeds) {
  GUI::View axial{std::make_unique<GlSliceView>(GlSliceView::Axial)};
  DisplayWidgetMultiAdapter adapter{{&axial}};
  const Eigen::Vector3i dims(28, 16, 3);
  auto image = slabs(dims);
  auto seeds = labelMap(dims, [](int x, int y, int z) { return z == 1 && y == 8 ? (x == 3 ? 1 : x == 14 ? 2 : x == 25 ? 3 : 0) : 0; });
  auto* ldc = seeds->components().getOrCreate<LabelDataComponent>(seeds.get());
  ldc->setLabelColor(1, Eigen::Vector4d(1, 0, 0, 1));
  ldc->setLabelColor(2, Eigen::Vector4d(0, 1, 0, 1));
  ldc->setLabelColor(3, Eigen::Vector4d(0, 0, 1, 1));
  GlSliceView& v = *axial.sliceView();
  v.resize(32, 32);
  v.setMmPerPixel(1.0);
  v.background = Eigen::Vector4f(0, 0, 0, 1);
  v.centerAt(image->get()->pixelToWorld(Eigen::Vector3d(13.5, 7.5, 1)));

  WatershedTool tool(*image, *seeds, adapter);
  tool.setPreviewOpacity(1.0f);
  tool.enable();
  EXPECT_TRUE(axial.view().hasObject(tool.overlay()));
  ASSERT_EQ(run(tool), WatershedTool::StopReason::Finished);
  std::vector<unsigned char> rgba;
  ASSERT_TRUE(v.render(rgba));
  const Voxels result = voxels(*tool.resultImage());
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 28; ++x) {
      // Voxel (x, y) lies under viewport pixel (x + 2, y + 8), top row first.
      const unsigned char* px = &rgba[(static_cast<size_t>(y + 8) * 32 + x + 2) * 4];
      const uint8_t label = result[static_cast<size_t>((1 * 16 + y) * 28 + x)];
      const bool seed = y == 8 && (x == 3 || x == 14 || x == 25);
      if (seed) {
        EXPECT_EQ(px[0] + px[1] + px[2], 0) << x << "," << y;  // left to the seed map's renderer
        continue;
      }
      // 0.85 of full intensity in the label's channel.
      const int channel = label - 1;
      ASSERT_TRUE(channel >= 0 && channel < 3);
      EXPECT_NEAR(px[channel], 217, 1) << x << "," << y;
      EXPECT_EQ(px[(channel + 1) % 3], 0);
    }
  tool.disable();
  EXPECT_FALSE(axial.view().hasObject(tool.overlay()));
  ASSERT_TRUE(v.render(rgba));
  EXPECT_EQ(rgba[(static_cast<size_t>(10) * 32 + 10) * 4], 0);
}

}  // namespace
}  // namespace Merivane::Seg
