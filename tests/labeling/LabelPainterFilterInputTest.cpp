// The label painter's denoised input: what the adaptive brush reads with filter input on,
// and when the denoised copy is made, kept and dropped.
#include <gtest/gtest.h>

#include <cmath>

#include "GlImage.h"
#include "ImageComponents.h"
#include "LabelPainter.h"
#include "Log.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "ShaderTestKit.h"
#include "TestSupport.h"

namespace Merivane::Seg {
namespace {

using TestKit::LogCapture;

using TestKit::hashNoise;

// Dark tissue (1000) left of x = 60 and bright (1300) right of it, by default under heavy
// noise (+-300), seen through a window that spans the two: a 0.3 step under +-0.3 of noise.
struct NoisyEdge {
  static constexpr int kEdge = 60;
  Eigen::Vector3i dims{96, 64, 1};
  std::unique_ptr<SharedImageSet> image, labels;

  explicit NoisyEdge(int frames = 1, double noise = 300.0) {
    image = std::make_unique<SharedImageSet>();
    labels = std::make_unique<SharedImageSet>();
    for (int f = 0; f < frames; ++f) {
      auto img = TypedImage<unsigned short>::zeros(dims);
      for (int y = 0; y < dims[1]; ++y)
        for (int x = 0; x < dims[0]; ++x)
          img->setValue(static_cast<unsigned short>((x < kEdge ? 1000 : 1300) + std::lround(noise * hashNoise(x, y, f))),
                        x, y, 0, 0);
      image->add(std::shared_ptr<Image>(std::move(img)));
      labels->add(std::shared_ptr<Image>(TypedImage<unsigned char>::zeros(dims)));
    }
    labels->setModality(Data::LABEL);
    auto* display = image->components().getOrCreate<DisplayOptions2d>();
    display->window = 1000;
    display->level = 1150;
  }
  Eigen::Vector3d world(double x, double y) const { return image->get()->pixelToWorld({x - 0.5, y - 0.5, 0}); }
  const unsigned char* labelVoxels() const {
    return static_cast<TypedImage<unsigned char>*>(labels->mem())->pointer();
  }
  void clearLabels() {
    auto* m = static_cast<TypedImage<unsigned char>*>(labels->mem());
    std::fill(m->pointer(), m->pointer() + m->descriptor().pixelCount(), 0);
    labels->get()->setDirtyMem();
  }
};

class FilterInput : public TestKit::WithSegPrograms {};

struct Coverage {
  int inside = 0;    // painted pixels of the capsule on the dark side
  int capsule = 0;   // pixels of the capsule on the dark side
  int bright = 0;    // painted pixels on the bright side
};

// A vertical adaptive stroke at x0 with radius r, counted against its capsule.
Coverage stroke(LabelPainter& p, NoisyEdge& s, double x0, float r) {
  s.clearLabels();
  p.setRadiusPixels(r);
  EXPECT_TRUE(p.paint(s.world(x0, 16.5), s.world(x0, 48.5)));
  Coverage c;
  const unsigned char* v = s.labelVoxels();
  for (int y = 0; y < s.dims[1]; ++y)
    for (int x = 0; x < s.dims[0]; ++x) {
      const double px = x + 0.5, py = y + 0.5;
      const double dy = py < 16.5 ? 16.5 - py : py > 48.5 ? py - 48.5 : 0.0;
      const bool inCapsule = (px - x0) * (px - x0) + dy * dy <= r * r;
      const bool painted = v[y * s.dims[0] + x] != 0;
      if (x >= NoisyEdge::kEdge) c.bright += painted;
      else if (inCapsule) {
        ++c.capsule;
        c.inside += painted;
      }
    }
  return c;
}

TEST_F(FilterInput, AdaptiveBrushOnTheDenoisedCopyPaintsAsOnANoiseFreeImage) {
  // The same strokes on the image without noise are the reference: one in the middle of the
  // dark part and one that reaches over the edge.
  NoisyEdge clean(1, 0.0), s;
  Coverage cleanMiddle, cleanEdge;
  {
    LabelPainter p;
    ASSERT_TRUE(p.setCurrent(clean.image.get(), clean.labels.get()));
    p.setAdaptiveness(1.0f);
    cleanMiddle = stroke(p, clean, 24.5, 8.0f);
    cleanEdge = stroke(p, clean, 52.5, 12.0f);
  }
  ASSERT_EQ(cleanEdge.bright, 0);
  ASSERT_GT(cleanMiddle.inside, cleanMiddle.capsule * 9 / 10);

  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  p.setAdaptiveness(1.0f);
  // On the raw input the noise punches holes into the stroke.
  const Coverage rawMiddle = stroke(p, s, 24.5, 8.0f);
  const Coverage rawEdge = stroke(p, s, 52.5, 12.0f);
  EXPECT_LT(rawMiddle.inside, cleanMiddle.inside / 2);
  EXPECT_LT(rawEdge.inside, cleanEdge.inside / 2);

  p.setFilterInput(true);
  const Coverage middle = stroke(p, s, 24.5, 8.0f);
  ASSERT_NE(p.filteredInput(), nullptr);
  EXPECT_GE(middle.inside, cleanMiddle.inside - cleanMiddle.capsule / 50);  // a few rim pixels may flip
  EXPECT_EQ(middle.bright, 0);
  // Near the edge the diffusion holds back, so some noise stays there; the stroke still
  // keeps to its side.
  const Coverage edge = stroke(p, s, 52.5, 12.0f);
  EXPECT_EQ(edge.bright, 0);
  EXPECT_GT(edge.inside, cleanEdge.inside * 7 / 10);
}

TEST_F(FilterInput, TheCopyIsMadeOncePerFocusAndDroppedWhenItsSettingsChange) {
  NoisyEdge s(2);
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  int signals = 0;
  p.settingsChanged.connect([&] { ++signals; });
  const Eigen::Vector3d a = s.world(20.5, 20.5), b = s.world(24.5, 30.5);
  // Paints once and tells whether the stroke made a new copy.
  auto denoisedBy = [&](const char* what) {
    LogCapture log;
    EXPECT_TRUE(p.paint(a, b)) << what;
    return log.contains("Denoised the input");
  };
  EXPECT_FALSE(denoisedBy("off"));
  EXPECT_EQ(p.filteredInput(), nullptr);

  p.setFilterInput(true);
  EXPECT_EQ(signals, 1);
  EXPECT_TRUE(denoisedBy("first stroke"));
  const GlImage* first = p.filteredInput();
  ASSERT_NE(first, nullptr);
  EXPECT_FALSE(denoisedBy("second stroke on the same frame"));
  EXPECT_EQ(p.filteredInput(), first);

  p.setFilterInputIterations(50);  // unchanged: nothing happens
  p.setFilterInput(true);
  EXPECT_EQ(signals, 1);
  EXPECT_EQ(p.filteredInput(), first);

  s.image->selection().setFocus(1);
  s.labels->selection().setFocus(1);
  EXPECT_TRUE(denoisedBy("other focus"));

  p.setFilterInputIterations(10);
  EXPECT_EQ(signals, 2);
  EXPECT_EQ(p.filteredInput(), nullptr);
  EXPECT_TRUE(denoisedBy("new iterations"));

  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  EXPECT_EQ(p.filteredInput(), nullptr);
  EXPECT_TRUE(denoisedBy("after setCurrent"));

  p.setFilterInput(false);
  EXPECT_EQ(p.filteredInput(), nullptr);
  EXPECT_FALSE(denoisedBy("off again"));
}

TEST_F(FilterInput, IterationsReachTheFilterAndZeroCopiesTheInput) {
  NoisyEdge s;
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  p.setFilterInput(true);
  const auto* input = static_cast<TypedImage<unsigned short>*>(s.image->mem());
  auto differing = [&](int iterations) {
    p.setFilterInputIterations(iterations);
    EXPECT_TRUE(p.paint(s.world(10.5, 10.5), s.world(10.5, 10.5)));
    TypedImage<unsigned short> copy(s.dims, 1);
    EXPECT_TRUE(p.filteredInput() && p.filteredInput()->download(copy));
    int n = 0;
    for (size_t i = 0; i < copy.descriptor().pixelCount(); ++i) n += copy.pointer()[i] != input->pointer()[i];
    return n;
  };
  EXPECT_EQ(differing(0), 0);
  EXPECT_GT(differing(5), s.dims.prod() / 2);
}

TEST_F(FilterInput, BadIterationsLogOneLineAndChangeNothing) {
  NoisyEdge s;
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(s.image.get(), s.labels.get()));
  p.setFilterInput(true);
  ASSERT_TRUE(p.paint(s.world(10.5, 10.5), s.world(10.5, 10.5)));
  const GlImage* copy = p.filteredInput();
  ASSERT_NE(copy, nullptr);
  int signals = 0;
  p.settingsChanged.connect([&] { ++signals; });
  for (int bad : {-1, 1001}) {
    LogCapture log;
    p.setFilterInputIterations(bad);
    ASSERT_EQ(log.lines().size(), 1u) << bad;
    EXPECT_EQ(log.lines()[0].level, Log::Warning);
    EXPECT_EQ(log.lines()[0].category, "LabelPainter");
  }
  EXPECT_EQ(p.filterInputIterations(), 50);
  EXPECT_EQ(p.filteredInput(), copy);
  EXPECT_EQ(signals, 0);
}

TEST_F(FilterInput, AnInputTheFilterCannotTakeIsReportedOnceAndPaintedAsItIs) {
  const Eigen::Vector3i dims(12, 10, 1);
  auto image = TestKit::makeImage<unsigned short>(dims, [](int x, int, int) { return 100 * x; }, 2);
  auto labels = TestKit::makeImage<unsigned char>(dims, [](int, int, int) { return 0; });
  labels->setModality(Data::LABEL);
  LabelPainter p;
  ASSERT_TRUE(p.setCurrent(image.get(), labels.get()));
  p.setFilterInput(true);
  p.setAdaptiveness(0.5f);
  const Eigen::Vector3d c = image->get()->pixelToWorld({5, 5, 0});
  {
    LogCapture log;
    EXPECT_TRUE(p.paint(c, c));
    EXPECT_EQ(log.count(Log::Warning), 1);
    EXPECT_TRUE(log.contains("cannot be denoised"));
  }
  LogCapture log;
  EXPECT_TRUE(p.paint(c, c));
  EXPECT_EQ(log.count(Log::Warning), 0);
  EXPECT_EQ(p.filteredInput(), nullptr);
}

}  // namespace
}  // namespace Merivane::Seg
