#include <gtest/gtest.h>

#include "LabelDataComponent.h"
#include "Log.h"
#include "LabelMap.h"
#include "MakeCompatibleLabelMapAlgorithm.h"
#include "MarkAsLabelMapAlgorithm.h"
#include "TestSupport.h"

using namespace Merivane;

TEST(MarkAsLabelMap, AcceptsOnlyOneByteImagesNotYetLabels) {
  auto u8 = TestKit::makeSet(U8, {3, 3, 1});
  auto i8 = TestKit::makeSet(I8, {3, 3, 3});
  auto u16 = TestKit::makeSet(U16, {3, 3, 1});
  SharedImageSet empty;
  EXPECT_TRUE(MarkAsLabelMapAlgorithm::createCompatible(DataList{u8.get(), i8.get()}));
  EXPECT_FALSE(MarkAsLabelMapAlgorithm::createCompatible(DataList{u8.get(), u16.get()}));
  EXPECT_FALSE(MarkAsLabelMapAlgorithm::createCompatible(DataList{&empty}));
  EXPECT_FALSE(MarkAsLabelMapAlgorithm::createCompatible(DataList{}));
  u8->setModality(Data::LABEL);
  EXPECT_FALSE(MarkAsLabelMapAlgorithm::createCompatible(DataList{u8.get()}));
}

TEST(MarkAsLabelMap, SignedBytesReadUnsignedAndLabelsAreDetected) {
  auto img = TestKit::makeImage<char>({4, 1, 1}, [](int x, int, int) { return x == 3 ? -1 : x; });
  img->setModality(Data::CT);
  Algorithm* raw = nullptr;
  ASSERT_TRUE(MarkAsLabelMapAlgorithm::createCompatible(DataList{img.get()}, &raw));
  std::unique_ptr<Algorithm> a(raw);
  int changed = 0;
  a->signalOutputChanged.connect([&] { ++changed; });
  a->compute();
  EXPECT_EQ(a->status(), Algorithm::statusSuccess);
  EXPECT_EQ(changed, 1);
  EXPECT_EQ(img->modality(), Data::LABEL);
  auto* t = dynamic_cast<TypedImage<unsigned char>*>(img->mem());
  ASSERT_TRUE(t);
  EXPECT_EQ(t->value(3, 0), 255);
  auto* labels = img->components().get<LabelDataComponent>();
  ASSERT_TRUE(labels);
  EXPECT_EQ(labels->sourceModality(), Data::CT);
  EXPECT_TRUE(labels->hasLabel(1) && labels->hasLabel(2) && labels->hasLabel(255));
  EXPECT_FALSE(labels->hasLabel(0));
}

TEST(MakeCompatibleLabelMap, OneImageGivesNewEmptyLabelMap) {
  auto image = TestKit::makeSet(F32, {5, 4, 3});
  Algorithm* raw = nullptr;
  ASSERT_TRUE(MakeCompatibleLabelMapAlgorithm::createCompatible(DataList{image.get()}, &raw));
  std::unique_ptr<Algorithm> a(raw);
  EXPECT_TRUE(a->takeOutput().empty());  // nothing before compute
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  auto out = a->takeOutput();
  auto labels = out.extractFirstImage();
  ASSERT_TRUE(labels);
  EXPECT_EQ(Seg::isCompatibleLabelMap(*image, *labels), Seg::LabelMapCompatibility::Compatible);
  EXPECT_TRUE(a->takeOutput().empty());  // once
}

TEST(MakeCompatibleLabelMap, ConvertsALabelMapInPlaceOrLeavesItAloneOnMismatch) {
  auto image = TestKit::makeSet(I16, {3, 2, 1}, 2);
  auto labels = TestKit::makeImage<float>({3, 2, 1}, [](int x, int y, int) { return x == 2 ? 300.0 : x + 0.6 * y; }, 2);
  std::unique_ptr<Algorithm> a(new MakeCompatibleLabelMapAlgorithm(image.get(), labels.get()));
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  EXPECT_EQ(Seg::isCompatibleLabelMap(*image, *labels), Seg::LabelMapCompatibility::Compatible);
  auto* t = static_cast<TypedImage<unsigned char>*>(labels->mem(0));
  EXPECT_EQ(t->value(1, 1), 2);    // 1.6 rounds
  EXPECT_EQ(t->value(2, 0), 255);  // clamped
  EXPECT_EQ(labels->size(), 2);

  auto wrong = TestKit::makeSet(U8, {4, 2, 1});
  wrong->setModality(Data::CT);
  TestKit::LogCapture log;
  std::unique_ptr<Algorithm> b(new MakeCompatibleLabelMapAlgorithm(image.get(), wrong.get()));
  b->compute();
  EXPECT_EQ(b->status(), Algorithm::statusInvalidInput);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_EQ(wrong->modality(), Data::CT);  // untouched
  EXPECT_EQ(wrong->size(), 1);
}
