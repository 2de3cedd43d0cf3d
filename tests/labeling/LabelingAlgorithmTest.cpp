// The labeling tool's data holder: which lists it accepts, and label maps stored with a
// scale made into plain labels.
#include "LabelingAlgorithm.h"

#include <gtest/gtest.h>

#include "SharedImageSet.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

std::unique_ptr<SharedImageSet> labelMap(const Eigen::Vector3i& dims) {
  auto set = TestKit::makeImage<unsigned char>(dims, [](int x, int, int) { return x; });
  set->setModality(Data::LABEL);
  return set;
}

TEST(LabelingAlgorithm, AcceptsOneImageOrAnImageWithAFittingLabelMap) {
  auto image = TestKit::makeImage<float>({6, 5, 4}, [](int x, int y, int z) { return x + y + z; });
  auto labels = labelMap({6, 5, 4});
  auto other = labelMap({6, 5, 3});
  auto notLabel = TestKit::makeImage<unsigned char>({6, 5, 4}, [](int, int, int) { return 0; });
  SharedImageSet empty;
  EXPECT_TRUE(LabelingAlgorithm::createCompatible(DataList{image.get()}));
  EXPECT_TRUE(LabelingAlgorithm::createCompatible(DataList{image.get(), labels.get()}));
  EXPECT_FALSE(LabelingAlgorithm::createCompatible(DataList{}));
  EXPECT_FALSE(LabelingAlgorithm::createCompatible(DataList{&empty}));
  EXPECT_FALSE(LabelingAlgorithm::createCompatible(DataList{image.get(), other.get()}));
  EXPECT_FALSE(LabelingAlgorithm::createCompatible(DataList{image.get(), notLabel.get()}));
  EXPECT_FALSE(LabelingAlgorithm::createCompatible(DataList{image.get(), labels.get(), labels.get()}));
  Algorithm* a = nullptr;
  ASSERT_TRUE(LabelingAlgorithm::createCompatible(DataList{image.get(), labels.get()}, &a));
  std::unique_ptr<Algorithm> owned(a);
  auto* labeling = dynamic_cast<LabelingAlgorithm*>(a);
  ASSERT_TRUE(labeling);
  EXPECT_EQ(labeling->image(), image.get());
  EXPECT_EQ(labeling->labelMap(), labels.get());
}

TEST(LabelingAlgorithm, ScaledLabelMapsBecomePlainLabelsRoundedToNearest) {
  auto image = TestKit::makeImage<float>({8, 1, 1}, [](int, int, int) { return 0; });
  auto labels = TestKit::makeImage<unsigned char>({8, 1, 1}, [](int x, int, int) { return x * 3; });
  labels->get()->setShiftScale(1.0, 2.0);  // original = stored / 2 - 1
  LabelingAlgorithm a(image.get(), labels.get());
  auto* mem = static_cast<TypedImage<unsigned char>*>(labels->mem());
  // stored 0 3 6 9 12 15 18 21 -> -1 0.5 2 3.5 5 6.5 8 9.5, rounded half up (negatives to 0).
  const std::vector<int> expected{0, 1, 2, 4, 5, 7, 8, 10};
  for (int x = 0; x < 8; ++x) EXPECT_EQ(mem->pointer()[x], expected[x]) << x;
  EXPECT_EQ(labels->get()->descriptor().scale, 1.0);
  EXPECT_EQ(labels->get()->descriptor().shift, 0.0);
  EXPECT_EQ(labels->modality(), Data::LABEL);
}

TEST(LabelingAlgorithm, PlainLabelMapsStayAsTheyAre) {
  auto image = TestKit::makeImage<float>({5, 2, 1}, [](int, int, int) { return 0; });
  auto labels = labelMap({5, 2, 1});
  LabelingAlgorithm a(image.get(), labels.get());
  auto* mem = static_cast<TypedImage<unsigned char>*>(labels->mem());
  for (int x = 0; x < 5; ++x) EXPECT_EQ(mem->pointer()[x], x);
}

}  // namespace
TEST(LabelingAlgorithm, StatisticsMeasureTheImageUnderEachLabelInPhysicalValues) {
  // Stored values 0..5 along x with scale 2 and shift 1: physical x / 2 - 1. Spacing 0.5 x 2 x 3.
  auto image = TestKit::makeImage<unsigned short>({6, 2, 1}, [](int x, int, int) { return x; });
  image->get(0)->setShiftScale(1.0, 2.0);
  image->get(0)->setSpacing(Eigen::Vector3d(0.5, 2.0, 3.0));
  // Label 1 on x = 0..2 of row 0, label 2 on x = 5 of row 1, label 3 nowhere.
  auto labels = TestKit::makeImage<unsigned char>({6, 2, 1}, [](int x, int y, int) {
    return y == 0 ? (x < 3 ? 1 : 0) : (x == 5 ? 2 : 0);
  });
  labels->setModality(Data::LABEL);
  LabelingAlgorithm labeling(image.get(), labels.get());
  const auto s = labeling.statistics(*labels->get(0), {1, 2, 3});
  ASSERT_EQ(s.size(), 3u);
  // Label 1: values -1, -0.5, 0; size 3 pixels of 3 mm³.
  EXPECT_DOUBLE_EQ(s[0][0], 9.0);
  EXPECT_DOUBLE_EQ(s[0][1], -0.5);
  EXPECT_DOUBLE_EQ(s[0][2], 0.5);  // sample deviation
  EXPECT_DOUBLE_EQ(s[0][3], -1.0);
  EXPECT_DOUBLE_EQ(s[0][4], 0.0);
  EXPECT_EQ(s[1], (std::vector<double>{3.0, 1.5, 0.0, 1.5, 1.5}));
  EXPECT_EQ(s[2], (std::vector<double>{0.0, 0.0, 0.0, 0.0, 0.0}));
  // A label frame of another size gives nothing.
  auto other = labelMap({5, 2, 1});
  EXPECT_TRUE(labeling.statistics(*other->get(0), {1}).empty());
}

}  // namespace Merivane
