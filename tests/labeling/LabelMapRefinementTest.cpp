// Label map refinement on small maps checkable by hand: the outer frame (frames, mask, locks,
// merge), each operation, and the image-based refinement snapping a label to a step edge.
#include <gtest/gtest.h>

#include <algorithm>

#include "LabelMapRefinement.h"
#include "Log.h"
#include "Mask.h"
#include "MorphologicalOperationsAlgorithm.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

using Seg::LabelMapRefinement;
using U8Image = TypedImage<unsigned char>;

// A label map from rows of characters: '.' is 0, a digit is that label, 'X' is 253; slices
// separated by an empty row.
std::unique_ptr<SharedImageSet> labelMap(const std::vector<std::string>& rows) {
  std::vector<std::vector<std::string>> slices(1);
  for (const auto& r : rows) {
    if (r.empty())
      slices.emplace_back();
    else
      slices.back().push_back(r);
  }
  const Eigen::Vector3i d(static_cast<int>(slices[0][0].size()), static_cast<int>(slices[0].size()),
                          static_cast<int>(slices.size()));
  auto set = TestKit::makeImage<unsigned char>(d, [&](int x, int y, int z) {
    const char c = slices[z][y][x];
    return c == '.' ? 0 : c == 'X' ? 253 : c - '0';
  });
  set->setModality(Data::LABEL);
  return set;
}

std::vector<std::string> picture(const SharedImageSet& set, int frame = -1) {
  const auto* img = dynamic_cast<const U8Image*>(set.mem(frame));
  std::vector<std::string> rows;
  const Eigen::Vector3i d = img->dimensions();
  for (int z = 0; z < d[2]; ++z) {
    if (z > 0) rows.emplace_back();
    for (int y = 0; y < d[1]; ++y) {
      std::string row;
      for (int x = 0; x < d[0]; ++x) {
        const int v = img->value(x, y, z);
        row += v == 0 ? '.' : v == 253 ? 'X' : v < 10 ? static_cast<char>('0' + v) : '?';
      }
      rows.push_back(row);
    }
  }
  return rows;
}

size_t count(const SharedImageSet& set, unsigned char label, int frame = -1) {
  const auto* img = dynamic_cast<const U8Image*>(set.mem(frame));
  return static_cast<size_t>(std::count(img->pointer(), img->pointer() + img->descriptor().pixelCount(), label));
}

TEST(LabelMapRefinement, FillHolesIn2DUsesFourNeighbours) {
  // The hole in the ring closes; the ring's missing corner lies on the box's face and stays,
  // and reaches the inside only through a corner.
  auto map = labelMap({
      ".......",
      "..111..",
      ".1..1..",
      ".1..1..",
      ".1111..",
      "......1",
  });
  LabelMapRefinement r(nullptr, *map);
  r.setAffectedLabel(1);
  r.fillHoles();
  EXPECT_EQ(picture(*map), (std::vector<std::string>{
                               ".......",
                               "..111..",
                               ".1111..",
                               ".1111..",
                               ".1111..",
                               "......1",
                           }));
  EXPECT_EQ(r.changedVoxels(), 4u);

  auto open = labelMap({
      "22222",
      "2...2",
      "2...2",
      "22.22",
  });
  LabelMapRefinement o(nullptr, *open);
  o.setAffectedLabel(2);
  const auto before = picture(*open);
  o.fillHoles();  // the gap in the bottom row opens the inside to the box's face
  EXPECT_EQ(picture(*open), before);
  EXPECT_EQ(o.changedVoxels(), 0u);
}

TEST(LabelMapRefinement, FillHolesIn3DUsesSixNeighbours) {
  // A closed 4x4x4 shell round a 2x2x2 cavity.
  std::vector<std::string> rows;
  for (int z = 0; z < 4; ++z) {
    if (z > 0) rows.emplace_back();
    for (int y = 0; y < 4; ++y) rows.push_back(z == 0 || z == 3 || y == 0 || y == 3 ? "1111" : "1..1");
  }
  auto closed = labelMap(rows);
  LabelMapRefinement c(nullptr, *closed);
  c.setAffectedLabel(1);
  c.fillHoles();
  EXPECT_EQ(count(*closed, 1), 64u);
  // A hole in the top face opens the cavity to the outside through a face.
  rows[16] = "1.11";  // z = 3, y = 1: (1, 1, 3) open
  auto opened = labelMap(rows);
  LabelMapRefinement o(nullptr, *opened);
  o.setAffectedLabel(1);
  o.fillHoles();
  EXPECT_EQ(count(*opened, 1), 64u - 9u);
}

TEST(LabelMapRefinement, MedianSmoothingThresholds) {
  // 2D, size 1: half 1, window 3x3, threshold trunc(9 * 0.5) = 4; more than 4 keeps a voxel.
  auto square = labelMap({
      ".....",
      ".111.",
      ".111.",
      ".111.",
      ".....",
  });
  LabelMapRefinement r(nullptr, *square);
  r.setAffectedLabel(1);
  r.smooth(1, LabelMapRefinement::Median);
  EXPECT_EQ(picture(*square), (std::vector<std::string>{
                                  ".....",
                                  "..1..",
                                  ".111.",
                                  "..1..",
                                  ".....",
                              }));
  // Size 4: half 2, window 5x5, threshold 12. A 4x4 block keeps the voxels whose window
  // holds at least 13 of its 16.
  auto block = labelMap({
      "......",
      ".1111.",
      ".1111.",
      ".1111.",
      ".1111.",
      "......",
  });
  LabelMapRefinement b(nullptr, *block);
  b.setAffectedLabel(1);
  b.smooth(4, LabelMapRefinement::Median);
  EXPECT_EQ(count(*block, 1), 4u);
  EXPECT_EQ(picture(*block)[2], "..11..");
  // A row: dims 1, window 3, threshold 1. Only the box [1, 5) is recomputed; inside it a
  // gap between two set voxels fills, a lone voxel goes.
  auto row = labelMap({".11.1.."});
  LabelMapRefinement w(nullptr, *row);
  w.setAffectedLabel(1);
  w.smooth(1, LabelMapRefinement::Median);
  EXPECT_EQ(picture(*row)[0], ".111...");
  // 3D, size 3: half 1, window 3x3x3, threshold 13. A 3x3x3 cube keeps only its centre (27)
  // and the six face centres (18 each); edges (12) and corners (8) go.
  std::vector<std::string> rows;
  for (int z = 0; z < 5; ++z) {
    if (z > 0) rows.emplace_back();
    for (int y = 0; y < 5; ++y) rows.push_back(z >= 1 && z <= 3 && y >= 1 && y <= 3 ? ".111." : ".....");
  }
  auto cube = labelMap(rows);
  LabelMapRefinement c(nullptr, *cube);
  c.setAffectedLabel(1);
  c.smooth(3, LabelMapRefinement::Median);
  EXPECT_EQ(count(*cube, 1), 7u);
}

TEST(LabelMapRefinement, MedianWindowLargerThanTheImageIsClipped) {
  // Window 21x21 (threshold 220) on a 3x3 image: at most 9 voxels counted, all go.
  auto tiny = labelMap({"111", "111", "111"});
  LabelMapRefinement r(nullptr, *tiny);
  r.setAffectedLabel(1);
  r.smooth(20, LabelMapRefinement::Median);
  EXPECT_EQ(count(*tiny, 1), 0u);
}

TEST(LabelMapRefinement, AnUnknownSmoothingModeReportsAndChangesNothing) {
  auto map = labelMap({"111", "1.1"});
  const auto before = picture(*map);
  TestKit::LogCapture log;
  LabelMapRefinement r(nullptr, *map);
  r.setAffectedLabel(1);
  r.smooth(2, static_cast<LabelMapRefinement::SmoothingMode>(5));
  EXPECT_EQ(picture(*map), before);
  EXPECT_TRUE(log.contains("Invalid Smoothing mode"));
  EXPECT_EQ(log.count(Log::Error, "LabelMapRefinement"), 1);
}

TEST(LabelMapRefinement, SmallComponentsGoAndOtherLabelsStay) {
  auto map = labelMap({
      "1..22...",
      "........",
      ".11.111.",
      ".11.111.",
      "....111.",
  });
  LabelMapRefinement r(nullptr, *map);
  r.setAffectedLabel(1);
  r.removeSmallComponents(std::nullopt, 4ul);
  EXPECT_EQ(picture(*map), (std::vector<std::string>{
                               "...22...",
                               "........",
                               ".11.111.",
                               ".11.111.",
                               "....111.",
                           }));
  r.keepNLargestComponents(1);
  EXPECT_EQ(picture(*map), (std::vector<std::string>{
                               "...22...",
                               "........",
                               "....111.",
                               "....111.",
                               "....111.",
                           }));
  EXPECT_EQ(r.changedVoxels(), 4u);
}

TEST(LabelMapRefinement, MorphologyRunsInStepsOfAtMostFive) {
  EXPECT_EQ(LabelMapRefinement::morphoSteps(12), (std::vector<int>{5, 5, 2}));
  EXPECT_EQ(LabelMapRefinement::morphoSteps(5), (std::vector<int>{5}));
  EXPECT_EQ(LabelMapRefinement::morphoSteps(6), (std::vector<int>{5, 1}));
  EXPECT_TRUE(LabelMapRefinement::morphoSteps(0).empty());
  EXPECT_TRUE(LabelMapRefinement::morphoSteps(-3).empty());

  // dilate(12) equals balls of 5, 5 and 2 one after the other (and not one ball of 12).
  auto map = TestKit::makeImage<unsigned char>({41, 41, 1}, [](int x, int y, int) { return x == 20 && y == 20; });
  map->setModality(Data::LABEL);
  auto expected = U8Image::zeros(Eigen::Vector3i(41, 41, 1));
  expected->setValue(255, 20, 20);
  for (int step : {5, 5, 2}) ASSERT_TRUE(Morphology::dilate(*expected, step));
  auto oneBall = U8Image::zeros(Eigen::Vector3i(41, 41, 1));
  oneBall->setValue(255, 20, 20);
  ASSERT_TRUE(Morphology::dilate(*oneBall, 12));
  LabelMapRefinement r(nullptr, *map);
  r.setAffectedLabel(1);
  r.dilate(12);
  const auto* got = dynamic_cast<const U8Image*>(map->mem());
  size_t differsFromOneBall = 0;
  for (size_t i = 0; i < got->descriptor().pixelCount(); ++i) {
    EXPECT_EQ(got->pointer()[i] != 0, expected->pointer()[i] != 0) << i;
    differsFromOneBall += (got->pointer()[i] != 0) != (oneBall->pointer()[i] != 0);
  }
  EXPECT_GT(differsFromOneBall, 0u);
  // Sizes of 0 or below change nothing.
  const auto before = picture(*map);
  r.dilate(0);
  r.erode(-2);
  EXPECT_EQ(picture(*map), before);
  EXPECT_EQ(r.changedVoxels(), 0u);
}

TEST(LabelMapRefinement, ALockedLabelStopsADilation) {
  auto map = labelMap({
      "........",
      ".11.22..",
      ".11.22..",
      "........",
  });
  auto unlocked = labelMap({
      "........",
      ".11.22..",
      ".11.22..",
      "........",
  });
  LabelMapRefinement r(nullptr, *map);
  r.setAffectedLabel(1);
  r.lockLabel(2, true);
  r.dilate(2);
  EXPECT_EQ(picture(*map), (std::vector<std::string>{
                               "1111....",
                               "111122..",
                               "111122..",
                               "1111....",
                           }));
  LabelMapRefinement u(nullptr, *unlocked);
  u.setAffectedLabel(1);
  u.dilate(2);
  EXPECT_EQ(picture(*unlocked), (std::vector<std::string>{
                                    "1111....",
                                    "111112..",
                                    "111112..",
                                    "1111....",
                                }));
  // Erosion of the other label, locked, leaves it as it is.
  LabelMapRefinement e(nullptr, *map);
  e.setAffectedLabel(2);
  e.lockLabel(2, true);
  e.erode(1);
  EXPECT_EQ(count(*map, 2), 4u);
}

TEST(LabelMapRefinement, AMaskLimitsTheChange) {
  auto map = labelMap({
      "......",
      ".1111.",
      ".1111.",
      "......",
  });
  // Outside the label: an erosion changes nothing.
  ExplicitMask outside(Eigen::Vector3i(6, 4, 1));
  outside.maskImageTyped().setValue(1, 0, 0);
  LabelMapRefinement r(nullptr, *map);
  r.setAffectedLabel(1);
  r.setMask(&outside);
  ASSERT_EQ(r.mask(), &outside);
  r.erode(1);
  EXPECT_EQ(count(*map, 1), 8u);
  // The left half only.
  ExplicitMask left(Eigen::Vector3i(6, 4, 1));
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 3; ++x) left.maskImageTyped().setValue(1, x, y);
  r.setMask(&left);
  r.dilate(1);
  EXPECT_EQ(picture(*map), (std::vector<std::string>{
                               ".11...",
                               "11111.",
                               "11111.",
                               ".11...",
                           }));
  // A mask of another size is refused, with a warning.
  TestKit::LogCapture log;
  ExplicitMask other(Eigen::Vector3i(5, 4, 1));
  r.setMask(&other);
  EXPECT_EQ(r.mask(), nullptr);
  EXPECT_EQ(log.count(Log::Warning, "LabelMapRefinement"), 1);
}

TEST(LabelMapRefinement, FrameRangesAndTheirErrors) {
  auto map = std::make_unique<SharedImageSet>();
  for (int f = 0; f < 3; ++f) map->add(labelMap({"....", ".11.", "...."})->getShared(0));
  map->setModality(Data::LABEL);
  map->selection().setFocus(2);
  LabelMapRefinement r(nullptr, *map);
  r.setAffectedLabel(1);
  EXPECT_TRUE(r.setAffectedFrames(-1, 77));
  r.dilate(1);  // the focused frame alone
  EXPECT_EQ(count(*map, 1, 0), 2u);
  EXPECT_EQ(count(*map, 1, 2), 8u);

  TestKit::LogCapture log;
  struct Bad {
    int first, last;
    const char* message;
  };
  for (const Bad& bad : {Bad{3, 4, "Invalid frame range, firstFrame is outside of the frame range"},
                         Bad{-2, 1, "Invalid frame range, firstFrame is outside of the frame range"},
                         Bad{1, 1, "Invalid frame range, lastFrame must be bigger than firstFrame"},
                         Bad{1, 0, "Invalid frame range, lastFrame must be bigger than firstFrame"},
                         Bad{1, 4, "Invalid frame range, lastFrame is outside of the frame range"}}) {
    log.clear();
    EXPECT_FALSE(r.setAffectedFrames(bad.first, bad.last));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].message, bad.message);
    EXPECT_EQ(log.lines()[0].category, "LabelMapRefinement");
    EXPECT_EQ(log.lines()[0].level, Log::Error);
    EXPECT_EQ(r.firstFrame(), -1);  // the range stays
  }
  EXPECT_TRUE(r.setAffectedFrames(0, 2));  // last is exclusive
  r.erode(1);
  EXPECT_EQ(count(*map, 1, 0), 0u);
  EXPECT_EQ(count(*map, 1, 1), 0u);
  EXPECT_EQ(count(*map, 1, 2), 8u);
  EXPECT_TRUE(r.setAffectedFrames(0, 3));
  EXPECT_EQ(r.lastFrame(), 3);
}

TEST(LabelMapRefinement, AnAbsentLabelChangesNothing) {
  auto map = labelMap({"22..", "2..."});
  LabelMapRefinement r(nullptr, *map);
  r.setAffectedLabel(7);
  r.dilate(3);
  r.fillHoles();
  r.smooth(2, LabelMapRefinement::Median);
  r.keepNLargestComponents(1);
  EXPECT_EQ(picture(*map), (std::vector<std::string>{"22..", "2..."}));
  EXPECT_EQ(r.changedVoxels(), 0u);
}

TEST(LabelMapRefinement, ErodingAThinLabelFarRemovesIt) {
  auto map = labelMap({
      "........",
      ".111111.",
      "......2.",
  });
  LabelMapRefinement r(nullptr, *map);
  r.setAffectedLabel(1);
  r.erode(100);
  EXPECT_EQ(picture(*map), (std::vector<std::string>{"........", "........", "......2."}));
  EXPECT_EQ(r.changedVoxels(), 6u);
}

// A 2D step edge: intensity 10 for x < 12 and 90 from 12 on, over 24 x 6 pixels.
std::unique_ptr<SharedImageSet> stepImage(const Eigen::Vector3i& d = {24, 6, 1}) {
  return TestKit::makeImage<unsigned short>(d, [](int x, int, int) { return x < 12 ? 10 : 90; });
}

// Label `label` for x < `end` on every row, then `rest`.
std::unique_ptr<SharedImageSet> columns(const Eigen::Vector3i& d, std::vector<std::pair<int, int>> spans) {
  auto set = TestKit::makeImage<unsigned char>(d, [&](int x, int, int) {
    int begin = 0;
    for (auto [end, label] : spans) {
      if (x >= begin && x < end) return label;
      begin = end;
    }
    return 0;
  });
  set->setModality(Data::LABEL);
  return set;
}

TEST(LabelMapRefinement, ImageBasedRefinementSnapsToAStepEdge) {
  for (const Eigen::Vector3i& d : {Eigen::Vector3i(24, 6, 1), Eigen::Vector3i(24, 5, 4)}) {
    auto image = stepImage(d);
    // The label ends three voxels short of the edge, and another time two voxels past it.
    for (int end : {9, 14}) {
      auto map = columns(d, {{end, 1}});
      LabelMapRefinement r(image.get(), *map);
      r.setAffectedLabel(1);
      r.imageBasedRefinement(4);
      const auto* got = dynamic_cast<const U8Image*>(map->mem());
      for (int z = 0; z < d[2]; ++z)
        for (int y = 0; y < d[1]; ++y)
          for (int x = 0; x < d[0]; ++x)
            ASSERT_EQ(got->value(x, y, z), x < 12 ? 1 : 0) << "end " << end << " at " << x << "," << y << "," << z;
      EXPECT_EQ(r.changedVoxels(), static_cast<size_t>(std::abs(end - 12) * d[1] * d[2]));
    }
  }
}

TEST(LabelMapRefinement, ImageBasedRefinementNeedsAnImage) {
  auto map = columns({8, 2, 1}, {{4, 1}});
  TestKit::LogCapture log;
  LabelMapRefinement r(nullptr, *map);
  r.setAffectedLabel(1);
  r.imageBasedRefinement(2);
  EXPECT_EQ(count(*map, 1), 8u);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].category, "LabelmapRefinement");
  EXPECT_EQ(log.lines()[0].message, "imageBaseRefinement can only be executed when an image is set");
}

TEST(LabelMapRefinement, Label253CountsAsBackgroundAndCanItselfBeRefined) {
  auto image = stepImage();
  const Eigen::Vector3i d(24, 6, 1);
  // Label 1 up to x = 8, label 253 from 8 to 12 and from 20 on. 253 is the background seeds'
  // value: its voxels are background like 0, so label 1 takes those before the edge, and
  // those far behind it stay.
  auto map = columns(d, {{8, 1}, {12, 253}, {20, 0}, {24, 253}});
  LabelMapRefinement r(image.get(), *map);
  r.setAffectedLabel(1);
  EXPECT_EQ(r.backgroundSeedValue(), 253);
  r.imageBasedRefinement(4);
  EXPECT_EQ(picture(*map)[0], "111111111111........XXXX");
  // Locked, 253 keeps its voxels.
  auto locked = columns(d, {{8, 1}, {12, 253}, {20, 0}, {24, 253}});
  LabelMapRefinement l(image.get(), *locked);
  l.setAffectedLabel(1);
  l.lockLabel(253, true);
  l.imageBasedRefinement(4);
  EXPECT_EQ(picture(*locked)[0], "11111111XXXX........XXXX");
  // Refining 253 itself: its background seeds take another value, and it snaps like any label.
  auto own = columns(d, {{9, 253}});
  LabelMapRefinement o(image.get(), *own);
  o.setAffectedLabel(253);
  EXPECT_EQ(o.backgroundSeedValue(), 252);
  o.imageBasedRefinement(4);
  EXPECT_EQ(picture(*own)[0], "XXXXXXXXXXXX............");
}

class LabelMapRefinementGl : public testing::Test {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
};

TEST_F(LabelMapRefinementGl, GaussianSmoothingRemovesASpikeAndKeepsTheBody) {
  auto map = labelMap({
      "..........",
      "..........",
      "..111111..",
      "..111111..",
      "..111111..",
      "..1111111.",
      "..111111..",
      "..111111..",
      "..........",
      "...2......",
  });
  LabelMapRefinement r(nullptr, *map);
  r.setAffectedLabel(1);
  r.smooth(2, LabelMapRefinement::Gaussian);
  const auto rows = picture(*map);
  EXPECT_EQ(rows[5], "..111111..");  // the spike is gone
  EXPECT_EQ(rows[4].substr(3, 4), "1111");
  EXPECT_EQ(rows[9], "...2......");  // other labels untouched
  EXPECT_GT(r.changedVoxels(), 0u);
}

}  // namespace
}  // namespace Merivane
