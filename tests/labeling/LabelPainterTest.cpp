// Whole strokes through Seg::LabelPainter against the CPU references, and its failure paths.
#include "LabelPainter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "GlContext.h"
#include "GlImage.h"
#include "ImageComponents.h"
#include "LabelPainterReference.h"
#include "Log.h"
#include "Mask.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "ShaderTestKit.h"
#include "TestSupport.h"

namespace Merivane::Seg {
namespace {

namespace Ref = Reference;
using TestKit::LogCapture;
using Voxels = std::vector<uint8_t>;

struct Scene {
  std::unique_ptr<SharedImageSet> image;
  std::unique_ptr<SharedImageSet> labels;

  Scene(const Eigen::Vector3i& dims, const Eigen::Vector3d& spacing = Eigen::Vector3d::Ones(), uint8_t fill = 0) {
    image = TestKit::makeImage<unsigned short>(dims, [](int x, int, int) { return 100 + x; });
    labels = TestKit::makeImage<unsigned char>(dims, [fill](int, int, int) { return fill; });
    labels->setModality(Data::LABEL);
    image->get()->setSpacing(spacing);
    labels->get()->setSpacing(spacing);
  }
  Eigen::Vector3i dims() const { return labels->img()->dimensions(); }
  // World point of a voxel-frame point (centres at half-integers).
  Eigen::Vector3d world(const Eigen::Vector3d& v) const {
    Eigen::Vector3d p = v - Eigen::Vector3d(0.5, 0.5, 0.5);
    if (dims()[2] == 1) p[2] = 0.0;
    return image->get()->pixelToWorld(p);
  }
  Voxels labelVoxels() const {
    auto* m = static_cast<TypedImage<unsigned char>*>(labels->mem());
    return {m->pointer(), m->pointer() + m->descriptor().pixelCount()};
  }
  void setLabels(const Voxels& v) {
    auto* m = static_cast<TypedImage<unsigned char>*>(labels->mem());
    std::copy(v.begin(), v.end(), m->pointer());
    labels->get()->setDirtyMem();
  }
};

Voxels stencilVoxels(const LabelPainter& p) {
  auto* m = static_cast<TypedImage<unsigned char>*>(p.stencil()->mem());
  return {m->pointer(), m->pointer() + m->descriptor().pixelCount()};
}

// Label map after painting `label` where the reference brush is Yes; Either voxels are
// copied from `actual`, so they never fail a comparison.
Voxels expectedAfter(const Voxels& before, const std::vector<Ref::Inside>& brush, const Voxels& actual, uint8_t label,
                     const LabelLock& lock = {}, bool erase = false) {
  Voxels out = before;
  for (size_t i = 0; i < out.size(); ++i) {
    if (brush[i] == Ref::Inside::Either) out[i] = actual[i];
    else out[i] = Ref::merge(before[i], brush[i] == Ref::Inside::Yes, true, lock.flags(), label, erase);
  }
  return out;
}

class Painter : public TestKit::WithSegPrograms {};

TEST_F(Painter, DabOfRadius2Point5IsTheDiscOf21Pixels) {
  Scene s({11, 11, 1});
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  p.setRadiusPixels(2.5f);
  p.setLabel(4);
  const Eigen::Vector3d c = s.world({5.5, 5.5, 0});
  ASSERT_TRUE(p.paint(c, c));
  const Voxels v = s.labelVoxels();
  int count = 0;
  for (int y = 0; y < 11; ++y)
    for (int x = 0; x < 11; ++x) {
      const int dx = x - 5, dy = y - 5;
      EXPECT_EQ(v[y * 11 + x], dx * dx + dy * dy <= 6 ? 4 : 0) << x << "," << y;
      count += v[y * 11 + x] == 4;
    }
  EXPECT_EQ(count, 21);
  // The stencil holds the stroke as 0/1.
  const Voxels st = stencilVoxels(p);
  for (size_t i = 0; i < v.size(); ++i) EXPECT_EQ(st[i], v[i] == 4 ? 1 : 0);
}

// Stroke shape: image size, spacing, radius and segments (voxel frame).
struct StrokeCase {
  const char* name;
  Eigen::Vector3i dims;
  Eigen::Vector3d spacing;
  float radius;
  std::vector<std::pair<Eigen::Vector3d, Eigen::Vector3d>> segments;
};

void PrintTo(const StrokeCase& c, std::ostream* os) { *os << c.name; }

class PainterStroke : public Painter, public testing::WithParamInterface<StrokeCase> {};

TEST_P(PainterStroke, LabelMapEqualsTheCpuBrushMergedOverExistingLabels) {
  const StrokeCase& c = GetParam();
  Scene s(c.dims, c.spacing);
  // Existing labels: 3 on the left half (the painted label), 5 in the right half.
  Voxels before(static_cast<size_t>(c.dims.prod()));
  for (size_t i = 0; i < before.size(); ++i) before[i] = static_cast<int>(i % c.dims[0]) < c.dims[0] / 2 ? 3 : 5;
  s.setLabels(before);
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  p.setRadiusPixels(c.radius);
  p.setLabel(3);
  std::vector<LabelPainter::Segment> segments;
  Ref::Stroke ref;
  ref.radius = c.radius;
  const double minSpacing = c.dims[2] == 1 ? std::min(c.spacing[0], c.spacing[1]) : c.spacing.minCoeff();
  for (int i = 0; i < 3; ++i) ref.factor[i] = std::min<double>(c.radius, static_cast<float>(c.spacing[i] / minSpacing));
  for (const auto& [a, b] : c.segments) {
    segments.push_back({s.world(a), s.world(b)});
    ref.segments.push_back({a, b});
  }
  ASSERT_TRUE(p.paintSegments(segments));
  const Voxels after = s.labelVoxels();
  const Voxels expected = expectedAfter(before, Ref::brush(c.dims, ref), after, 3);
  int differing = 0;
  for (size_t i = 0; i < after.size(); ++i) differing += after[i] != expected[i];
  EXPECT_EQ(differing, 0);
  // The memory copy was read back box-wise; it equals the texture.
  TypedImage<unsigned char> texture(c.dims, 1);
  ASSERT_TRUE(s.labels->get()->hasGl());
  ASSERT_TRUE(s.labels->gl()->download(texture));
  EXPECT_TRUE(std::equal(after.begin(), after.end(), texture.pointer()));
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, PainterStroke,
    testing::Values(
        StrokeCase{"Disc2D", {13, 11, 1}, {1, 1, 1}, 3.3f, {{{6.5, 5.5, 0}, {6.5, 5.5, 0}}}},
        StrokeCase{"Segment2DAnisotropic", {17, 12, 1}, {0.5, 1.0, 1}, 2.7f, {{{2.3, 3.1, 0}, {14.6, 8.2, 0}}}},
        StrokeCase{"BallIsotropic", {12, 11, 10}, {1, 1, 1}, 3.6f, {{{6.5, 5.5, 4.5}, {6.5, 5.5, 4.5}}}},
        StrokeCase{"SegmentAcrossSlices", {14, 10, 9}, {1, 1, 2.5}, 2.2f, {{{3.2, 4.1, 2.5}, {10.7, 5.3, 6.5}}}},
        StrokeCase{"PolylineUnion", {16, 14, 6}, {0.8, 0.8, 1.6}, 2.4f,
                   {{{2.5, 2.5, 1.5}, {8.2, 9.1, 2.5}}, {{8.2, 9.1, 2.5}, {13.7, 3.3, 3.5}}, {{13.7, 3.3, 3.5}, {13.7, 3.3, 3.5}}}},
        StrokeCase{"JustOutsideWithinReach", {10, 10, 5}, {1, 1, 1}, 3.4f, {{{-2.0, 5.5, 2.5}, {-1.5, 6.5, 2.5}}}}),
    [](const testing::TestParamInfo<StrokeCase>& info) { return std::string(info.param.name); });

TEST_F(Painter, ThickSlicesClampTheFactorAndSetTheReachInZ) {
  // 1 x 1 x 5 mm voxels: radius 3 reaches 1 slice either way, radius 10 reaches 2.
  for (const auto& [radius, reach] : {std::pair{3.0f, 1}, std::pair{10.0f, 2}}) {
    Scene s({25, 25, 9}, {1, 1, 5});
    LabelPainter p;
    ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
    p.setRadiusPixels(radius);
    const Eigen::Vector3d c = s.world({12.5, 12.5, 4.5});
    ASSERT_TRUE(p.paint(c, c));
    const Voxels v = s.labelVoxels();
    for (int z = 0; z < 9; ++z) EXPECT_EQ(v[(z * 25 + 12) * 25 + 12], std::abs(z - 4) <= reach ? 1 : 0) << radius << " z " << z;
  }
}

TEST_F(Painter, SliceNormalKeepsTheStrokeInTheSliceOfItsFirstPoint) {
  Scene s({12, 12, 8}, {1, 1, 1.5});
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  p.setRadiusPixels(4.0f);
  // From slice 3 to slice 5: without the normal several slices are painted, with it only 3.
  ASSERT_TRUE(p.paint(s.world({3.5, 3.5, 3.5}), s.world({8.5, 8.5, 5.5}), false, false, Eigen::Vector3d(0, 0, 2)));
  const Voxels v = s.labelVoxels();
  for (int z = 0; z < 8; ++z) {
    int n = 0;
    for (int i = 0; i < 144; ++i) n += v[z * 144 + i];
    if (z == 3) EXPECT_GT(n, 20);
    else EXPECT_EQ(n, 0) << "slice " << z;
  }
  // A one-slice image drops even a zero normal.
  Scene flat({9, 9, 1});
  ASSERT_TRUE(p.setCurrent(flat.image.get(), flat.labels.get()));
  const Eigen::Vector3d c = flat.world({4.5, 4.5, 0});
  EXPECT_TRUE(p.paint(c, c, false, false, Eigen::Vector3d::Zero()));
}

using LockParam = std::tuple<bool, bool>;  // erase, with painter mask
class PainterLocks : public Painter, public testing::WithParamInterface<LockParam> {};

TEST_P(PainterLocks, LockedLabelsAndMaskedVoxelsAreLeftAlone) {
  const auto [erase, withMask] = GetParam();
  const Eigen::Vector3i dims(10, 8, 3);
  Scene s(dims);
  Voxels before(static_cast<size_t>(dims.prod()));
  for (size_t i = 0; i < before.size(); ++i) before[i] = static_cast<uint8_t>(i % 10 < 4 ? 7 : (i % 10 < 7 ? 2 : 0));
  s.setLabels(before);
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  p.setRadiusPixels(20.0f);  // covers everything
  p.setLabel(2);
  p.setPreserveLabel(7, true);
  auto maskImage = TypedImage<unsigned char>::zeros(dims);
  for (int y = 0; y < dims[1]; ++y)
    for (int x = 0; x < dims[0]; ++x)
      for (int z = 0; z < dims[2]; ++z) maskImage->setValue(y < 4, x, y, z);
  ExplicitMask mask(std::shared_ptr<TypedImage<unsigned char>>(std::move(maskImage)));
  if (withMask) p.setMask(&mask);
  const Eigen::Vector3d c = s.world({5, 4, 1.5});
  ASSERT_TRUE(p.paint(c, c, erase));
  const Voxels after = s.labelVoxels();
  for (size_t i = 0; i < after.size(); ++i) {
    const int y = static_cast<int>(i / 10 % 8);
    const bool admitted = !withMask || y < 4;
    EXPECT_EQ(after[i], Ref::merge(before[i], true, admitted, p.labelLock().flags(), 2, erase)) << i;
  }
}

INSTANTIATE_TEST_SUITE_P(All, PainterLocks, testing::Combine(testing::Bool(), testing::Bool()));

TEST_F(Painter, PreviewLeavesTheLabelMapAndTheNextStrokeClearsIt) {
  Scene s({12, 12, 4});
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  p.setRadiusPixels(2.0f);
  const Voxels before = s.labelVoxels();
  ASSERT_TRUE(p.paint(s.world({3.5, 3.5, 1.5}), s.world({3.5, 3.5, 1.5}), false, true));
  EXPECT_EQ(s.labelVoxels(), before);
  const Voxels preview = stencilVoxels(p);
  EXPECT_EQ(preview[(1 * 12 + 3) * 12 + 3], 1);
  ASSERT_TRUE(p.paint(s.world({9.5, 9.5, 2.5}), s.world({9.5, 9.5, 2.5})));
  const Voxels st = stencilVoxels(p);
  EXPECT_EQ(st[(1 * 12 + 3) * 12 + 3], 0);
  EXPECT_EQ(st[(2 * 12 + 9) * 12 + 9], 1);
  EXPECT_EQ(s.labelVoxels()[(1 * 12 + 3) * 12 + 3], 0);
  EXPECT_EQ(s.labelVoxels()[(2 * 12 + 9) * 12 + 9], 1);
}

TEST_F(Painter, AdaptiveBrushStopsAtAnEdgeAndKeepsItsCentreLine) {
  // A step edge at x = 10; the stroke runs on the dark side close to it.
  const Eigen::Vector3i dims(20, 16, 1);
  Scene s(dims);
  s.image = TestKit::makeImage<unsigned short>(dims, [](int x, int, int) { return x < 10 ? 100 : 1000; });
  // The brush sees the image through its display window, which spans the two intensities.
  auto* display = s.image->components().getOrCreate<DisplayOptions2d>();
  display->window = 1000;
  display->level = 550;
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  p.setRadiusPixels(6.0f);
  p.setAdaptiveness(1.0f);
  ASSERT_TRUE(p.paint(s.world({7.5, 3.5, 0}), s.world({7.5, 12.5, 0})));
  const Voxels v = s.labelVoxels();
  int dark = 0, bright = 0;
  for (int y = 0; y < dims[1]; ++y)
    for (int x = 0; x < dims[0]; ++x) (x < 10 ? dark : bright) += v[y * dims[0] + x];
  EXPECT_EQ(bright, 0);
  EXPECT_GT(dark, 40);
  for (int y = 4; y <= 12; ++y) EXPECT_EQ(v[y * dims[0] + 7], 1) << y;
}

TEST_F(Painter, BadStrokesChangeNothingAndLogOneLine) {
  Scene s({10, 10, 4}, Eigen::Vector3d::Ones(), 6);
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  const Voxels before = s.labelVoxels();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Eigen::Vector3d c = s.world({5, 5, 2});
  struct Bad {
    const char* what;
    std::function<bool()> stroke;
    int level;
  };
  const std::vector<Bad> cases = {
      {"NaN point", [&] { return p.paint(Eigen::Vector3d(nan, 0, 0), c); }, Log::Error},
      {"zero normal", [&] { return p.paint(c, c, false, false, Eigen::Vector3d::Zero()); }, Log::Error},
      {"outside", [&] { return p.paint(Eigen::Vector3d(500, 0, 0), Eigen::Vector3d(600, 0, 0)); }, Log::Debug},
      {"locked active label",
       [&] {
         p.setPreserveLabel(1, true);
         const bool r = p.paint(c, c);
         p.setPreserveLabel(1, false);
         return r;
       },
       Log::Error},
      {"label out of range",
       [&] {
         p.setLabel(300);
         const bool r = p.paint(c, c);
         p.setLabel(1);
         return r;
       },
       Log::Error},
  };
  for (const Bad& b : cases) {
    LogCapture log;
    EXPECT_FALSE(b.stroke()) << b.what;
    EXPECT_EQ(log.lines().size(), 1u) << b.what;
    if (!log.lines().empty()) {
      EXPECT_EQ(log.lines()[0].level, b.level) << b.what;
      EXPECT_EQ(log.lines()[0].category, "LabelPainter") << b.what;
    }
    EXPECT_EQ(s.labelVoxels(), before) << b.what;
  }
  // A stroke outside leaves a cleared stencil; an empty stroke says nothing.
  ASSERT_NE(p.stencil(), nullptr);
  for (uint8_t v : stencilVoxels(p)) ASSERT_EQ(v, 0);
  LogCapture log;
  EXPECT_FALSE(p.paintSegments({}));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Painter, RefusedPairsLogWhyAndKeepThePreviousPair) {
  Scene good({6, 5, 3});
  struct Case {
    const char* message;
    std::function<std::unique_ptr<SharedImageSet>()> labels;
  };
  auto label = [](PixelType t, const Eigen::Vector3i& d, int channels, Eigen::Vector3d spacing = Eigen::Vector3d::Ones()) {
    auto set = TestKit::makeSet(t, d, 1, channels);
    set->setModality(Data::LABEL);
    set->get()->setSpacing(spacing);
    return set;
  };
  const std::vector<Case> cases = {
      {"do not have the same dimensions", [&] { return label(U8, {6, 5, 2}, 1); }},
      {"do not have the same spacing", [&] { return label(U8, {6, 5, 3}, 1, {1, 1, 2}); }},
      {"must be of modality LABEL", [&] { return TestKit::makeSet(U8, {6, 5, 3}); }},
      {"must be of format U8", [&] { return label(U16, {6, 5, 3}, 1); }},
      {"must have 1 channel", [&] { return label(U8, {6, 5, 3}, 2); }},
  };
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(good.image.get(), good.labels.get()));
  for (const Case& c : cases) {
    auto labels = c.labels();
    LogCapture log;
    EXPECT_FALSE(p.setCurrent(good.image.get(), labels.get())) << c.message;
    ASSERT_EQ(log.lines().size(), 1u) << c.message;
    EXPECT_EQ(log.lines()[0].level, Log::Warning);
    EXPECT_NE(log.lines()[0].message.find(c.message), std::string::npos) << log.lines()[0].message;
    EXPECT_EQ(p.labelMap(), good.labels.get());
  }
  LogCapture log;
  EXPECT_FALSE(p.setCurrent(good.image.get(), nullptr));
  EXPECT_TRUE(log.contains("Only both or neither"));
}

TEST_F(Painter, StencilSignalsBracketItsReplacement) {
  Scene s({8, 8, 2});
  LabelPainter p;
  std::string events;
  p.stencilAboutToBeReplaced.connect([&] { events += 'A'; });
  p.stencilReplaced.connect([&] { events += p.stencil() ? 'R' : 'N'; });
  p.settingsChanged.connect([&] { events += 'S'; });
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  const Eigen::Vector3d c = s.world({4, 4, 1});
  ASSERT_TRUE(p.paint(c, c));
  ASSERT_TRUE(p.paint(c, c));  // same shape: the stencil stays
  ASSERT_TRUE(p.setCurrent(nullptr, nullptr));
  EXPECT_EQ(events, "SARANS");
  EXPECT_EQ(p.stencil(), nullptr);
}

TEST(LabelPainterSettings, RadiusUnitsConvertThroughTheSmallestSpacing) {
  Repository_MerivaneSeg repo;
  Resource::addRepository(&repo);
  Scene volume({4, 4, 3}, {0.5, 0.8, 0.3});
  Scene flat({4, 4, 1}, {0.5, 0.8, 0.1});
  LabelPainter p;
  p.setRadiusMM(3.0f);
  EXPECT_EQ(p.radiusPixels(), 0.0f);  // no input yet
  // Binding may fail without GL; the radius only needs the pointers.
  if (p.setCurrent(volume.image.get(), volume.labels.get())) {
    EXPECT_FLOAT_EQ(p.radiusPixels(), 10.0f);  // 3 / 0.3
    EXPECT_FLOAT_EQ(p.radiusMM(), 3.0f);
    ASSERT_TRUE(p.setCurrent(flat.image.get(), flat.labels.get()));
    EXPECT_FLOAT_EQ(p.radiusPixels(), 6.0f);  // one slice: min(0.5, 0.8)
    p.setRadiusPixels(-2.0f);
    EXPECT_EQ(p.radiusPixels(), 0.0f);
    p.setRadiusPixels(4.0f);
    EXPECT_FLOAT_EQ(p.radiusMM(), 2.0f);
  }
  LabelLock lock;
  lock.setLocked(0, true);
  lock.setLocked(37, true);
  lock.setLocked(255, true);
  EXPECT_EQ(lock.flags()[0], 1u);
  EXPECT_EQ(lock.flags()[1], 1u << 5);
  EXPECT_EQ(lock.flags()[7], 1u << 31);
  EXPECT_TRUE(lock.locked(37));
  EXPECT_FALSE(lock.locked(36));
  lock.setAll(true);
  for (int l = 0; l < 256; ++l) EXPECT_TRUE(lock.locked(static_cast<unsigned char>(l)));
  Resource::removeRepository(&repo);
}

}  // namespace
}  // namespace Merivane::Seg
