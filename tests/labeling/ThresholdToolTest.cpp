// Seg::ThresholdTool: the apply pass against a CPU reference (range ends, empty ranges, locks,
// masks, original and stored ranges with shift and scale, every pixel type the tool reads),
// frames, failure paths, and the preview drawn in a slice view against the applied result.
#include "ThresholdTool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <tuple>

#include "GlMask.h"
#include "GlView.h"
#include "Log.h"
#include "GuiView.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "TestSupport.h"
#include "ThresholdOverlay.h"

namespace Merivane::Seg {
namespace {

using Voxels = std::vector<uint8_t>;

struct Programs {
  Repository_MerivaneSeg repo;
  Programs() { Resource::addRepository(&repo); }
  ~Programs() { Resource::removeRepository(&repo); }
};

Voxels voxels(const SharedImageSet& set, int frame = 0) {
  auto* m = static_cast<TypedImage<unsigned char>*>(set.mem(frame));
  return {m->pointer(), m->pointer() + m->descriptor().pixelCount()};
}

std::unique_ptr<SharedImageSet> labelMap(const Eigen::Vector3i& dims, const std::function<int(int, int, int)>& f) {
  auto labels = TestKit::makeImage<unsigned char>(dims, f);
  labels->setModality(Data::LABEL);
  return labels;
}

class ThresholdToolGl : public testing::Test {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
  Programs programs;
};

// ---------------------------------------------------------------------------------------------
// A row checkable by hand.

TEST_F(ThresholdToolGl, BothEndsAreIncludedAndALockedLabelKeepsItsVoxels) {
  const std::vector<int> values{0, 10, 20, 30, 40, 50, 10};
  const Voxels before{0, 2, 7, 0, 7, 0, 2};
  auto image = TestKit::makeImage<unsigned char>({7, 1, 1}, [&](int x, int, int) { return values[x]; });
  auto labels = labelMap({7, 1, 1}, [&](int x, int, int) { return before[x]; });
  ThresholdTool tool;
  tool.setTargetLabelMap(image.get(), labels.get());
  tool.setRangeStorage(10, 40);
  tool.setActiveLabel(3);
  tool.setPreserveLabel(7, true);
  EXPECT_EQ(tool.apply(0), 1);
  EXPECT_EQ(voxels(*labels), (Voxels{0, 3, 7, 3, 7, 0, 3}));
}

// ---------------------------------------------------------------------------------------------
// Against a CPU reference: pixel type x 2D/3D x scenario.

struct Scenario {
  const char* name;
  double low, high;
  bool original = false;
  double shift = 0.0, scale = 1.0;  // set on the image's frames
  bool lockTwo = false;             // lock label 2
  bool mask = false;                // a mask that admits x + y even
};

const Scenario kScenarios[] = {
    {"StoredRange", 12, 27},
    {"WholeEndsIncluded", 10, 20},
    {"FractionalEnds", 9.5, 20.25},
    {"SingleValue", 17, 17},
    {"LowAboveHighSelectsNothing", 27, 12},
    {"EverythingWithInfiniteEnds", -INFINITY, INFINITY},
    {"LockedLabelKeepsItsVoxels", 5, 30, false, 0, 1, true},
    {"MaskLimitsTheResult", 5, 30, false, 0, 1, false, true},
    {"LockAndMask", 0, 39, false, 0, 1, true, true},
    {"OriginalWithShift", -5, 5, true, 15, 1},
    {"OriginalWithScale", 3, 9, true, 2, 2},
    {"OriginalWithNegativeScale", 3, 9, true, 0, -2},
    {"OriginalLowAboveHigh", 9, 3, true, 2, 2},
};

// Stored value of voxel (x, y, z): 0..39 in a pattern that hits every value on 7 x 5 x 3.
double storedPattern(int x, int y, int z) { return (x * 7 + y * 3 + z * 11) % 40; }

template <typename T>
std::unique_ptr<SharedImageSet> patternImage(const Eigen::Vector3i& dims, double offset, double factor) {
  return TestKit::makeImage<T>(dims, [&](int x, int y, int z) { return storedPattern(x, y, z) * factor + offset; });
}

class ThresholdApply : public testing::TestWithParam<std::tuple<PixelType, bool>> {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
  Programs programs;
};

TEST_P(ThresholdApply, EqualsTheCpuReference) {
  const auto [type, volume] = GetParam();
  const Eigen::Vector3i dims(7, 5, volume ? 3 : 1);
  // Stored values per type: the pattern, shifted for signed types and halved for floats, so
  // that ends fall between and onto values of every kind.
  double offset = 0.0, factor = 1.0;
  std::unique_ptr<SharedImageSet> image;
  switch (type) {
    case U8: image = patternImage<unsigned char>(dims, offset, factor); break;
    case U16: offset = 1000; image = patternImage<unsigned short>(dims, offset, factor); break;
    case I16: offset = -20; image = patternImage<short>(dims, offset, factor); break;
    default: factor = 0.5; image = patternImage<float>(dims, offset, factor); break;
  }
  for (const Scenario& s : kScenarios) {
    SCOPED_TRACE(s.name);
    image->get(0)->setShiftScale(s.shift, s.scale);
    auto labels = labelMap(dims, [](int x, int y, int z) { return Voxels{0, 2, 5}[(x + 2 * y + z) % 3]; });
    const Voxels before = voxels(*labels);
    auto maskImage = TypedImage<unsigned char>::zeros(dims);
    for (int z = 0; z < dims[2]; ++z)
      for (int y = 0; y < dims[1]; ++y)
        for (int x = 0; x < dims[0]; ++x) maskImage->setValue((x + y) % 2 == 0 ? 1 : 0, x, y, z);
    GlMask mask(*maskImage);

    ThresholdTool tool;
    tool.setTargetLabelMap(image.get(), labels.get());
    // The scenario's range is in the pattern's units; stored ranges follow the type's values.
    // Original ends are the pattern's ends seen through the frame's shift and scale.
    auto toOriginal = [&](double p) { return (p * factor + offset) / s.scale - s.shift; };
    double originalLow = toOriginal(s.low), originalHigh = toOriginal(s.high);
    if (s.scale < 0) std::swap(originalLow, originalHigh);
    if (s.original)
      tool.setRangeOriginal(originalLow, originalHigh);
    else
      tool.setRangeStorage(s.low * factor + offset, s.high * factor + offset);
    tool.setActiveLabel(9);
    if (s.lockTwo) tool.setPreserveLabel(2, true);
    if (s.mask) tool.setMask(&mask);
    EXPECT_EQ(tool.apply(-1), 1);

    Voxels expected = before;
    size_t selected = 0;
    for (int z = 0, i = 0; z < dims[2]; ++z)
      for (int y = 0; y < dims[1]; ++y)
        for (int x = 0; x < dims[0]; ++x, ++i) {
          const double stored = storedPattern(x, y, z) * factor + offset;
          // Original values are stored / scale - shift; stored ranges are in the pattern's units.
          const bool inRange = s.original ? (stored / s.scale - s.shift >= originalLow &&
                                             stored / s.scale - s.shift <= originalHigh)
                                          : (storedPattern(x, y, z) >= s.low && storedPattern(x, y, z) <= s.high);
          if (!inRange) continue;
          if (s.mask && (x + y) % 2 != 0) continue;
          if (s.lockTwo && before[i] == 2) continue;
          expected[i] = 9;
          ++selected;
        }
    EXPECT_EQ(voxels(*labels), expected);
    // Each scenario is about something: only the empty ones select nothing.
    const bool empty = std::string(s.name).find("LowAboveHigh") != std::string::npos;
    EXPECT_EQ(selected == 0, empty);
  }
}

INSTANTIATE_TEST_SUITE_P(TypesAndDimensions, ThresholdApply,
                         testing::Combine(testing::Values(U8, U16, I16, F32), testing::Bool()),
                         [](const auto& info) {
                           return std::string(pixelTypeName(std::get<0>(info.param))) +
                                  (std::get<1>(info.param) ? "Volume" : "Image");
                         });

// ---------------------------------------------------------------------------------------------
// Frames.

TEST_F(ThresholdToolGl, ApplyOfOneFrameWritesOnlyThatFrameAndMinusOneWritesEvery) {
  const Eigen::Vector3i dims(5, 4, 2);
  auto image = std::make_unique<SharedImageSet>();
  auto labels = std::make_unique<SharedImageSet>();
  labels->setModality(Data::LABEL);
  for (int f = 0; f < 3; ++f) {
    auto img = TypedImage<unsigned short>::zeros(dims);
    for (int i = 0; i < 40; ++i) img->pointer()[i] = static_cast<unsigned short>(i + 10 * f);
    image->add(std::shared_ptr<Image>(std::move(img)));
    labels->add(std::shared_ptr<Image>(TypedImage<unsigned char>::zeros(dims)));
  }
  ThresholdTool tool;
  tool.setTargetLabelMap(image.get(), labels.get());
  tool.setRangeStorage(20, 29);
  auto count = [&](int f) {
    const Voxels v = voxels(*labels, f);
    return std::count(v.begin(), v.end(), 1);
  };
  EXPECT_EQ(tool.apply(1), 1);
  EXPECT_EQ(count(0), 0);
  EXPECT_EQ(count(1), 10);  // 10 + i in 20..29
  EXPECT_EQ(count(2), 0);
  EXPECT_EQ(tool.apply(-1), 3);
  EXPECT_EQ(count(0), 10);
  EXPECT_EQ(count(1), 10);
  EXPECT_EQ(count(2), 10);
  // A frame that does not exist is skipped without a word.
  TestKit::LogCapture log;
  EXPECT_EQ(tool.apply(7), 0);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ThresholdToolGl, FramesWithoutALabelFrameAreSkipped) {
  const Eigen::Vector3i dims(4, 4, 1);
  auto image = TestKit::makeSet(U8, dims, 3);
  auto labels = TestKit::makeSet(U8, dims, 2);
  labels->setModality(Data::LABEL);
  ThresholdTool tool;
  tool.setTargetLabelMap(image.get(), labels.get());
  tool.setRangeStorage(0, 0);  // the zero images: every voxel
  EXPECT_EQ(tool.apply(-1), 2);
  EXPECT_EQ(voxels(*labels, 1), Voxels(16, 1));
}

// ---------------------------------------------------------------------------------------------
// Failure paths.

TEST_F(ThresholdToolGl, OneNullTargetIsReportedAndTheOldTargetStays) {
  auto image = TestKit::makeSet(U8, {4, 4, 1});
  auto labels = TestKit::makeSet(U8, {4, 4, 1});
  ThresholdTool tool;
  tool.setTargetLabelMap(image.get(), labels.get());
  for (auto [in, lab] : {std::pair<const SharedImageSet*, SharedImageSet*>{image.get(), nullptr},
                         std::pair<const SharedImageSet*, SharedImageSet*>{nullptr, labels.get()}}) {
    TestKit::LogCapture log;
    tool.setTargetLabelMap(in, lab);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].category, "ThresholdTool");
    EXPECT_EQ(log.lines()[0].message, "Both or none of 'image' and 'labelMap' must be set");
    EXPECT_EQ(tool.image(), image.get());
    EXPECT_EQ(tool.labelMap(), labels.get());
  }
  // A label map that does not fit is refused too.
  auto wrong = TestKit::makeSet(U8, {4, 5, 1});
  TestKit::LogCapture log;
  tool.setTargetLabelMap(image.get(), wrong.get());
  EXPECT_EQ(log.count(Log::Error, "ThresholdTool"), 1);
  EXPECT_EQ(tool.labelMap(), labels.get());
}

TEST_F(ThresholdToolGl, AnUnreadableMaskIsReportedOnceAndWritesNothing) {
  auto image = TestKit::makeSet(U8, {4, 4, 2}, 2);
  auto labels = TestKit::makeSet(U8, {4, 4, 2}, 2);
  ThresholdTool tool;
  tool.setTargetLabelMap(image.get(), labels.get());
  tool.setRangeStorage(0, 255);
  GlMask empty;
  tool.setMask(&empty);
  TestKit::LogCapture log;
  EXPECT_EQ(tool.apply(-1), 2);  // the pass goes on
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].category, "GL.MultiAbstractInclude");
  EXPECT_EQ(log.lines()[0].message, "Called setIncludeArguments() on an invalid include.");
  EXPECT_EQ(voxels(*labels, 0), Voxels(32, 0));
  EXPECT_EQ(voxels(*labels, 1), Voxels(32, 0));
}

TEST_F(ThresholdToolGl, NoTargetOrANanRangeChangesNothing) {
  auto image = TestKit::makeSet(U8, {4, 4, 1});
  auto labels = TestKit::makeSet(U8, {4, 4, 1});
  ThresholdTool tool;
  EXPECT_EQ(tool.apply(-1), 0);
  tool.setTargetLabelMap(image.get(), labels.get());
  tool.setRangeStorage(3, 4);
  TestKit::LogCapture log;
  tool.setRangeOriginal(NAN, 4);
  EXPECT_EQ(log.count(Log::Warning, "ThresholdTool"), 1);
  EXPECT_EQ(tool.low(), 3);
  EXPECT_FALSE(tool.isRangeOriginal());
  EXPECT_EQ(tool.apply(-1), 1);
  EXPECT_EQ(voxels(*labels), Voxels(16, 0));  // the zero image lies below 3
}

// ---------------------------------------------------------------------------------------------
// Views: enabling, and the preview against the applied result.

struct ViewScene {
  Programs programs;
  GUI::View axial{std::make_unique<GlSliceView>(GlSliceView::Axial)};
  GUI::View volume{std::make_unique<GlVolumeView>()};
  DisplayWidgetMultiAdapter adapter{{&axial, &volume}};
};

TEST_F(ThresholdToolGl, DisableBeforeATargetDoesNothingAndEnableReachesOnlySliceViews) {
  ViewScene s;
  ThresholdTool tool(s.adapter);
  ASSERT_NE(tool.overlay(), nullptr);
  EXPECT_EQ(tool.overlay()->typeName(), "ThresholdOverlay");
  {
    TestKit::LogCapture log;
    tool.disable();
    EXPECT_TRUE(log.lines().empty());
  }
  EXPECT_TRUE(s.axial.view().objects().empty());
  EXPECT_FALSE(tool.isEnabled());

  auto image = TestKit::makeSet(U8, {4, 4, 2});
  auto labels = TestKit::makeSet(U8, {4, 4, 2});
  tool.setTargetLabelMap(image.get(), labels.get());
  tool.enable();
  EXPECT_TRUE(s.axial.view().hasObject(tool.overlay()));
  EXPECT_FALSE(s.volume.view().hasObject(tool.overlay()));
  tool.disable();
  EXPECT_FALSE(s.axial.view().hasObject(tool.overlay()));
  EXPECT_FALSE(tool.isEnabled());
  // Without views there is no overlay, and enabling is harmless.
  ThresholdTool bare;
  EXPECT_EQ(bare.overlay(), nullptr);
  bare.enable();
}

// The coloured pixels of the preview on slice z are the voxels an apply labels there.
class ThresholdPreview : public testing::TestWithParam<std::tuple<bool, bool>> {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
};

TEST_P(ThresholdPreview, ShowsExactlyTheVoxelsThatApplyWritesOnTheSliceShown) {
  const auto [volume, masked] = GetParam();
  ViewScene s;
  const Eigen::Vector3i dims(16, 16, volume ? 6 : 1);
  const int z = volume ? 3 : 0;
  auto image = TestKit::makeImage<short>(dims, [](int x, int y, int z) { return (x * 5 + y * 9 + z * 13) % 50 - 25; });
  auto labels = labelMap(dims, [](int x, int y, int) { return (x / 4 + y / 4) % 3 == 0 ? 4 : 0; });
  auto maskImage = TypedImage<unsigned char>::zeros(dims);
  for (int k = 0; k < dims[2]; ++k)
    for (int y = 0; y < 16; ++y)
      for (int x = 0; x < 16; ++x) maskImage->setValue(x < 11 && y > 2 ? 1 : 0, x, y, k);
  GlMask mask(*maskImage);

  GlSliceView& v = *s.axial.sliceView();
  v.resize(32, 32);
  v.setMmPerPixel(1.0);
  v.background = Eigen::Vector4f(0, 0, 0, 1);
  v.centerAt(image->get()->pixelToWorld(Eigen::Vector3d(7.5, 7.5, z)));

  ThresholdTool tool(s.adapter);
  tool.setTargetLabelMap(image.get(), labels.get());
  tool.setRangeOriginal(-10, 12);
  tool.setActiveLabel(1);
  tool.setPreserveLabel(4, true);
  if (masked) tool.setMask(&mask);
  tool.overlay()->setColor(Eigen::Vector4f(1, 0, 0, 1));
  tool.enable();
  std::vector<unsigned char> rgba;
  ASSERT_TRUE(v.render(rgba));

  EXPECT_EQ(tool.apply(0), 1);
  const Voxels after = voxels(*labels);
  int shown = 0;
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 16; ++x) {
      // Voxel (x, y) lies under viewport pixel (x + 8, y + 8), top row first.
      const unsigned char red = rgba[(static_cast<size_t>(y + 8) * 32 + x + 8) * 4];
      const bool written = after[static_cast<size_t>(z) * 256 + y * 16 + x] == 1;
      EXPECT_EQ(red == 255, written) << "voxel " << x << "," << y;
      EXPECT_TRUE(red == 0 || red == 255);
      shown += written;
    }
  EXPECT_GT(shown, 10);
  // Nothing outside the image.
  EXPECT_EQ(rgba[0], 0);
  EXPECT_EQ(rgba[(31 * 32 + 31) * 4], 0);

  // After disabling, the view shows nothing of it.
  tool.disable();
  ASSERT_TRUE(v.render(rgba));
  EXPECT_EQ(rgba[(10 * 32 + 10) * 4], 0);
}

INSTANTIATE_TEST_SUITE_P(SliceKinds, ThresholdPreview, testing::Combine(testing::Bool(), testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param) ? "Volume" : "Image") +
                                  (std::get<1>(info.param) ? "Masked" : "Unmasked");
                         });

}  // namespace
}  // namespace Merivane::Seg
