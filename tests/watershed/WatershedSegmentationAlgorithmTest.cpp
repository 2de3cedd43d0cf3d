#include <gtest/gtest.h>

#include "ImageComponents.h"
#include "Log.h"
#include "Progress.h"
#include "Properties.h"
#include "TestSupport.h"
#include "WatershedSegmentationAlgorithm.h"

using namespace Merivane;
using U8Image = TypedImage<unsigned char>;

namespace {

constexpr const char* kCategory = "Seg.WatershedSegmentationAlgorithm";

// Two plateaus of a 9x3 image, 0 up to x = 5 and 100 after it, and a label map with two
// frames: frame 1 (the focus) holds seeds 1 and 2 at both ends of the middle row, frame 0 42s.
struct Scene {
  std::unique_ptr<SharedImageSet> image = std::make_unique<SharedImageSet>();
  std::unique_ptr<SharedImageSet> labels = std::make_unique<SharedImageSet>();

  Scene() {
    for (int i = 0; i < 2; ++i) {
      image->add(TestKit::makeImage<float>({9, 3, 1}, [](int x, int, int) { return x > 5 ? 100 : 0; })->getShared(0));
      labels->add(TestKit::makeImage<unsigned char>({9, 3, 1}, [](int, int, int) { return 42; })->getShared(0));
    }
    frame(1)->fill(0);
    frame(1)->setValue(1, 1, 1);
    frame(1)->setValue(2, 7, 1);
    image->selection().setFocus(1);
  }
  U8Image* frame(int i) const { return dynamic_cast<U8Image*>(labels->mem(i)); }
  std::unique_ptr<Algorithm> create() const {
    Algorithm* raw = nullptr;
    EXPECT_TRUE(WatershedSegmentationAlgorithm::createCompatible(DataList{image.get(), labels.get()}, &raw));
    return std::unique_ptr<Algorithm>(raw);
  }
};

// Label 1 up to column `last1` on every row, 2 after it.
void expectSplitAfter(const U8Image& result, int last1) {
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 9; ++x) EXPECT_EQ(result.value(x, y), x <= last1 ? 1 : 2) << x << "," << y;
}

}  // namespace

class WatershedSegmentationCompat : public testing::TestWithParam<std::string> {};

TEST_P(WatershedSegmentationCompat, AcceptsOnlyAnImageAndAMatchingU8LabelMap) {
  Scene s;
  DataList list{s.image.get(), s.labels.get()};
  const std::string& change = GetParam();
  if (change == "RgbImage") s.image->replace(1, TestKit::makeSet(U8, {9, 3, 1}, 1, 3)->getShared(0));
  if (change == "OneSet") list = DataList{s.image.get()};
  if (change == "ThreeSets") list.add(s.labels.get());
  if (change == "FrameCountsDiffer") s.labels->remove(0);
  if (change == "LabelsNotU8") list = DataList{s.image.get(), s.image.get()};
  if (change == "SizesDiffer") s.labels->replace(0, TestKit::makeSet(U8, {9, 4, 1})->getShared(0));
  if (change == "SpacingDiffers") s.labels->get(1)->setSpacing({1, 2, 1});
  if (change == "EmptySets") s.image->clear(), s.labels->clear();
  EXPECT_EQ(WatershedSegmentationAlgorithm::createCompatible(list), change == "None" || change == "RgbImage");
}

INSTANTIATE_TEST_SUITE_P(Lists, WatershedSegmentationCompat,
                         testing::Values("None", "RgbImage", "OneSet", "ThreeSets", "FrameCountsDiffer", "LabelsNotU8",
                                         "SizesDiffer", "SpacingDiffers", "EmptySets"));

TEST(WatershedSegmentation, UpdatesTheFocusedSeedsInPlace) {
  Scene s;
  auto a = s.create();
  int changed = 0;
  a->signalOutputChanged.connect([&] { ++changed; });
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  expectSplitAfter(*s.frame(1), 5);  // along the step between the plateaus
  EXPECT_EQ(s.frame(0)->value(0, 0), 42);
  EXPECT_EQ(changed, 1);
  EXPECT_TRUE(a->takeOutput().empty());
}

TEST(WatershedSegmentation, NewLabelsGoToACloneAndDisplayWindowIsUsed) {
  Scene s;
  // A window far above the data quantises everything to 0: the plateaus vanish and the seeds
  // meet midway.
  auto* display = s.image->components().getOrCreate<DisplayOptions2d>();
  display->window = 10;
  display->level = 1000;
  auto a = s.create();
  Properties p;
  p.setParam("Create New Labels", true);
  a->configure(&p);
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  auto labels = a->takeOutput().extractFirstImage();
  ASSERT_TRUE(labels && labels->size() == 2);
  expectSplitAfter(*dynamic_cast<U8Image*>(labels->mem(1)), 4);
  EXPECT_EQ(dynamic_cast<U8Image*>(labels->mem(0))->value(0, 0), 42);
  EXPECT_EQ(s.frame(1)->value(4, 1), 0);  // the seeds are untouched
  EXPECT_TRUE(a->takeOutput().empty());
  Properties written;
  a->configuration(&written);
  EXPECT_EQ(written.paramKeys(), std::vector<std::string>{"Create New Labels"});
}

// Each case spoils a compatible scene after creation: compute gives the status, one error line
// that says why, no output and no change.
class WatershedSegmentationFailure : public testing::TestWithParam<std::tuple<std::string, int, std::string>> {};

TEST_P(WatershedSegmentationFailure, GivesStatusAndOneLineWithoutOutput) {
  const auto& [spoil, status, says] = GetParam();
  Scene s;
  auto a = s.create();
  Progress progress;
  if (spoil == "LabelsNoLongerU8") s.labels->replace(1, TestKit::makeSet(I16, {9, 3, 1})->getShared(0));
  if (spoil == "FocusOutOfRange") s.image->selection().setFocus(5);
  if (spoil == "SpacingNoLongerMatches") s.labels->get(1)->setSpacing({1, 2, 1});
  if (spoil == "CancelledCaller") {
    progress.cancelAllTasks();
    a->setProgress(&progress);
  }
  TestKit::LogCapture log;
  a->compute();
  EXPECT_EQ(a->status(), status);
  EXPECT_EQ(log.count(Log::Error, kCategory), 1);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(log.contains(says));
  EXPECT_TRUE(a->takeOutput().empty());
  if (s.frame(1)) {
    EXPECT_EQ(s.frame(1)->value(4, 1), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, WatershedSegmentationFailure,
                         testing::Values(std::tuple("LabelsNoLongerU8", Algorithm::statusInvalidInput, "no U8 frame 1"),
                                         std::tuple("FocusOutOfRange", Algorithm::statusInvalidInput, "no frame 5"),
                                         std::tuple("CancelledCaller", Algorithm::statusUnknown, "cancelled"),
                                         std::tuple("SpacingNoLongerMatches", Algorithm::statusUnknown,
                                                    "do not match")));

TEST(WatershedSegmentationAlgorithm, NoMarkerIsInvalidInputWithOneLineAndNothingChanged) {
  Scene s;
  s.frame(1)->fill(0);
  s.frame(1)->setValue(254, 3, 1);  // queued and outline values are no markers
  s.frame(1)->setValue(255, 4, 1);
  auto a = s.create();
  TestKit::LogCapture log;
  a->compute();
  EXPECT_EQ(a->status(), Algorithm::statusInvalidInput);
  ASSERT_EQ(log.count(Log::Error), 1);
  EXPECT_EQ(log.lines()[0].category, kCategory);
  EXPECT_NE(log.lines()[0].message.find("no marker"), std::string::npos) << log.lines()[0].message;
  EXPECT_EQ(s.frame(1)->value(3, 1), 254);
  EXPECT_EQ(s.frame(1)->value(0, 0), 0);
  EXPECT_EQ(a->takeOutput().size(), 0);
}

// The 9 mm wide label map moved along x: it must share some volume with the image.
class WatershedLabelMapPlacement : public testing::TestWithParam<std::tuple<double, int>> {};

TEST_P(WatershedLabelMapPlacement, LabelMapOutsideTheImageInWorldIsRefused) {
  const auto [shift, status] = GetParam();
  Scene s;
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m(0, 3) = shift;
  s.labels->get(1)->setMatrix(m);
  auto a = s.create();
  TestKit::LogCapture log;
  a->compute();
  EXPECT_EQ(a->status(), status);
  if (status == Algorithm::statusSuccess) return;
  ASSERT_EQ(log.count(Log::Error), 1);
  EXPECT_NE(log.lines()[0].message.find("outside the image in world space"), std::string::npos);
  EXPECT_EQ(s.frame(1)->value(0, 1), 0) << "the seeds stay as they were";
}

INSTANTIATE_TEST_SUITE_P(Shifts, WatershedLabelMapPlacement,
                         testing::Values(std::tuple{8.0, int(Algorithm::statusSuccess)},
                                         std::tuple{-8.0, int(Algorithm::statusSuccess)},
                                         std::tuple{9.0, int(Algorithm::statusInvalidInput)},
                                         std::tuple{-100.0, int(Algorithm::statusInvalidInput)}));
