#include <gtest/gtest.h>

#include "ImageComponents.h"
#include "LabelMap.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

// An image of `frames` 2D frames and a label map made to fit it.
struct Pair {
  std::unique_ptr<SharedImageSet> image = TestKit::makeSet(I16, {6, 5, 1}, 3);
  std::unique_ptr<SharedImageSet> labels = Seg::createCompatibleLabelMap(*image);
};

void setFrame(SharedImageSet& set, int i, PixelType type, const Eigen::Vector3i& dims, int channels = 1) {
  auto frame = std::make_shared<SharedImage>(ImageDescriptor(type, dims, channels));
  frame->setSpacing(set.img(i)->spacing());
  set.replace(i, frame);
}

// The documented integer code of a compatibility check.
int code(Seg::LabelMapCompatibility c) { return static_cast<int>(c); }

}  // namespace

struct CompatCase {
  const char* name;
  void (*spoil)(Pair&);
  int strict;
  int lenient;
};

class IsCompatibleLabelMap : public ::testing::TestWithParam<CompatCase> {};

TEST_P(IsCompatibleLabelMap, ReportsFirstFailingTest) {
  Pair p;
  ASSERT_EQ(Seg::isCompatibleLabelMap(*p.image, *p.labels, false), Seg::LabelMapCompatibility::Compatible);
  GetParam().spoil(p);
  EXPECT_EQ(code(Seg::isCompatibleLabelMap(*p.image, *p.labels, false)), GetParam().strict);
  EXPECT_EQ(code(Seg::isCompatibleLabelMap(*p.image, *p.labels, true)), GetParam().lenient);
}

INSTANTIATE_TEST_SUITE_P(
    Codes, IsCompatibleLabelMap,
    ::testing::Values(
        CompatCase{"Compatible", [](Pair&) {}, 0, 0},
        CompatCase{"NotLabelModality", [](Pair& p) { p.labels->setModality(Data::CT); }, 1, 0},
        // Lenient compares only the frames both sets have.
        CompatCase{"FewerFrames", [](Pair& p) { p.labels->remove(2); }, 5, 0},
        CompatCase{"NotU8", [](Pair& p) { setFrame(*p.labels, 1, U16, {6, 5, 1}); }, 2, 2},
        CompatCase{"TwoChannels", [](Pair& p) { setFrame(*p.labels, 2, U8, {6, 5, 1}, 2); }, 3, 3},
        CompatCase{"OtherGrid", [](Pair& p) { setFrame(*p.labels, 0, U8, {5, 6, 1}); }, 4, 4},
        // The grid test compares spacing exactly, so a spacing difference is caught there, in
        // both modes, before the strict spacing test.
        CompatCase{"OtherSpacing", [](Pair& p) { p.labels->get(1)->setSpacing(Eigen::Vector3d(1, 1, 2)); }, 4, 4},
        // The modality test comes before the pixel-type test.
        CompatCase{"ModalityBeforeType",
                   [](Pair& p) {
                     p.labels->setModality(Data::CT);
                     setFrame(*p.labels, 0, U16, {6, 5, 1});
                   },
                   1, 2}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(EnsureCompatibleLabelMap, EmptyLabelMapGetsOneZeroedFramePerImageFrame) {
  auto image = TestKit::makeSet(F32, {7, 3, 2}, 2);
  image->get(0)->setSpacing(Eigen::Vector3d(0.5, 0.5, 3.0), false);
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m(0, 3) = 12;
  image->get(1)->setMatrix(m);
  SharedImageSet labels;
  Seg::ensureCompatibleLabelMap(*image, labels);
  ASSERT_EQ(labels.size(), 2);
  EXPECT_EQ(labels.modality(), Data::LABEL);
  for (int i = 0; i < 2; ++i) {
    const auto& d = labels.img(i)->descriptor();
    EXPECT_EQ(d.pixelType, U8);
    EXPECT_EQ(d.channels, 1);
    EXPECT_EQ(d.dimensions, Eigen::Vector3i(7, 3, 2));
    EXPECT_EQ(d.spacing, image->img(i)->spacing());
    EXPECT_EQ(labels.get(i)->matrix(), image->get(i)->matrix());
    auto* t = static_cast<TypedImage<unsigned char>*>(labels.mem(i));
    unsigned char lo, hi;
    t->getRange(lo, hi);
    EXPECT_EQ(hi, 0);
  }
  EXPECT_FALSE(labels.img(0)->isMetric());
  EXPECT_EQ(Seg::isCompatibleLabelMap(*image, labels), Seg::LabelMapCompatibility::Compatible);
}

TEST(EnsureCompatibleLabelMap, SurplusFramesGoAndPatientInformationIsCopiedWithToday) {
  auto image = TestKit::makeSet(U8, {4, 4, 1}, 2);
  auto* info = image->components().getOrCreate<ImageInfoDataComponent>();
  info->patientName = "Doe^Jane";
  info->date = "19990101";
  auto labels = TestKit::makeSet(U8, {4, 4, 1}, 4);
  Seg::ensureCompatibleLabelMap(*image, *labels);
  EXPECT_EQ(labels->size(), 2);
  auto* copied = labels->components().get<ImageInfoDataComponent>();
  ASSERT_TRUE(copied);
  EXPECT_EQ(copied->patientName, "Doe^Jane");
  EXPECT_EQ(copied->date.size(), 8u);
  EXPECT_NE(copied->date, "19990101");
}

TEST(EnsureCompatibleLabelMap, FlipsRowsOfUltrasoundFramesWhenRowOrderDiffers) {
  auto image = TestKit::makeSet(U8, {2, 3, 1}, 1);
  image->setModality(Data::ULTRASOUND);
  image->properties().setParam("topDown", true);
  auto labels = TestKit::makeImage<unsigned char>({2, 3, 1}, [](int, int y, int) { return y + 1; });
  Seg::ensureCompatibleLabelMap(*image, *labels);
  auto* t = static_cast<TypedImage<unsigned char>*>(labels->mem(0));
  EXPECT_EQ(t->value(0, 0), 3);
  EXPECT_EQ(t->value(1, 2), 1);
  EXPECT_TRUE(labels->properties().paramOr("topDown", false));

  // Same row order, or not ultrasound: rows stay.
  Seg::ensureCompatibleLabelMap(*image, *labels);
  EXPECT_EQ(t->value(0, 0), 3);
  auto ct = TestKit::makeSet(U8, {2, 3, 1}, 1);
  ct->setModality(Data::CT);
  ct->properties().setParam("topDown", false);
  Seg::ensureCompatibleLabelMap(*ct, *labels);
  EXPECT_EQ(static_cast<TypedImage<unsigned char>*>(labels->mem(0))->value(0, 0), 3);
}
