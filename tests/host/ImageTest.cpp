#include <gtest/gtest.h>

#include <omp.h>

#include <Eigen/Geometry>
#include <cmath>

#include "ImageComponents.h"
#include "ImageProcessing.h"
#include "LabelDataComponent.h"
#include "Mask.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

TEST(ImageDescriptor, DimensionFollowsSlicesThenHeight) {
  EXPECT_EQ(ImageDescriptor(U8, {1, 1, 1}).dimension(), 1);
  EXPECT_EQ(ImageDescriptor(U8, {7, 1, 1}).dimension(), 1);
  EXPECT_EQ(ImageDescriptor(U8, {1, 2, 1}).dimension(), 2);
  EXPECT_EQ(ImageDescriptor(U8, {1, 1, 2}).dimension(), 3);
  EXPECT_TRUE(ImageDescriptor(U8, {4, 2, 1}).is2D());
  EXPECT_FALSE(ImageDescriptor(U8, {4, 1, 1}).is2D());
  ImageDescriptor d(U16, {3, 4, 5}, 2);
  EXPECT_EQ(d.byteSize(), 3u * 4 * 5 * 2 * 2);
  d.spacing = Eigen::Vector3d(0.5, 2, 3);
  EXPECT_TRUE(d.extent().isApprox(Eigen::Vector3d(1.5, 8, 15)));
  d.shift = 1024;
  d.scale = 2;
  EXPECT_DOUBLE_EQ(d.toPhysical(d.toStored(-300.0)), -300.0);
  EXPECT_DOUBLE_EQ(d.toPhysical(2048.0), 0.0);
}

// Every element type: the index rule, clone independence, range and the typed cast.
template <typename T>
class TypedImageTest : public ::testing::Test {};
using PixelTypes = ::testing::Types<char, unsigned char, short, unsigned short, int, unsigned int, float, double>;
TYPED_TEST_SUITE(TypedImageTest, PixelTypes);

TYPED_TEST(TypedImageTest, IndexRuleCloneAndRange) {
  using T = TypeParam;
  TypedImage<T> img(Eigen::Vector3i(3, 4, 2), 2);
  EXPECT_EQ(img.type(), Utils::pixelTypeId<T>());
  for (int z = 0; z < 2; ++z)
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 3; ++x)
        for (int c = 0; c < 2; ++c) img.setValue(static_cast<T>(x + 3 * y + 12 * z + c), x, y, z, c);
  // ((z * height + y) * width + x) * channels + c
  EXPECT_EQ(img.pointer()[((1 * 4 + 2) * 3 + 1) * 2 + 1], static_cast<T>(1 + 6 + 12 + 1));
  T lo, hi;
  ASSERT_TRUE(img.getRange(lo, hi));
  EXPECT_EQ(lo, T(0));
  EXPECT_EQ(hi, static_cast<T>(2 + 9 + 12 + 1));

  auto copy = img.clone();
  img.fill(T(7));
  auto* typed = dynamic_cast<TypedImage<T>*>(copy.get());
  ASSERT_NE(typed, nullptr);
  EXPECT_EQ(typed->value(2, 3, 1, 1), static_cast<T>(2 + 9 + 12 + 1));
  using Other = std::conditional_t<std::is_same_v<T, float>, double, float>;
  EXPECT_EQ(dynamic_cast<TypedImage<Other>*>(copy.get()), nullptr);

  auto created = MemImage::create(img.descriptor());
  ASSERT_TRUE(created);
  EXPECT_EQ(created->type(), img.type());
  EXPECT_EQ(static_cast<const T*>(created->data())[5], T(0));
}

TEST(TypedImage, BorrowedMemoryIsNotFreed) {
  std::vector<float> buffer(8, 1.5f);
  {
    TypedImage<float> img(Eigen::Vector3i(2, 2, 2), 1, buffer.data(), MemImage::Ownership::Borrowed);
    img.setValue(3.0f, 1, 1, 1);
  }
  EXPECT_EQ(buffer[7], 3.0f);
}

TEST(Image, CompatibleHonoursEachIgnoreFlag) {
  ImageDescriptor a(U8, {4, 4, 1}), b(F32, {4, 4, 1}, 3);
  b.spacing = Eigen::Vector3d(1, 1, 2);
  TypedImage<unsigned char> ia(a);
  TypedImage<float> ib(b);
  EXPECT_FALSE(ia.compatible(ib));
  EXPECT_FALSE(ia.compatible(ib, true, false, true));
  EXPECT_TRUE(ia.compatible(ib, true, true, true));
  TypedImage<float> other(ImageDescriptor(F32, {4, 5, 1}));
  EXPECT_FALSE(ia.compatible(other, true, true, true));
}

TEST(SharedImage, PixelWorldRoundTripThroughCentredSpaceAndMatrix) {
  ImageDescriptor d(U8, {10, 20, 5});
  d.spacing = Eigen::Vector3d(0.5, 1.0, 2.0);
  SharedImage frame(d);
  // The centre of the image is the origin of image space.
  EXPECT_TRUE(frame.pixelToWorld(Eigen::Vector3d(4.5, 9.5, 2)).isZero(1e-12));
  EXPECT_TRUE(frame.pixelToWorld(Eigen::Vector3d(0, 0, 0)).isApprox(Eigen::Vector3d(-2.25, -9.5, -4)));

  Eigen::Affine3d m = Eigen::Translation3d(10, -5, 3) * Eigen::AngleAxisd(0.3, Eigen::Vector3d(1, 2, 3).normalized());
  frame.setMatrix(m.matrix());
  Eigen::Vector3d v(1.25, 7.0, 3.5);
  EXPECT_TRUE(frame.worldToPixel(frame.pixelToWorld(v)).isApprox(v, 1e-12));
  // Texture coordinates run 0..1 over the image edges; pixel centres sit half a pixel in.
  Eigen::Vector4d t0 = frame.textureToWorldMatrix() * Eigen::Vector4d(0.05, 0.025, 0.1, 1);
  EXPECT_TRUE(t0.head<3>().isApprox(frame.pixelToWorld(Eigen::Vector3d(0, 0, 0)), 1e-12));
  Eigen::Matrix4d roundTrip = frame.worldToTextureMatrix() * frame.textureToWorldMatrix();
  EXPECT_TRUE(roundTrip.isIdentity(1e-12));
}

TEST(SharedImageSet, FocusFrameKindAndFrameEdits) {
  auto set = TestKit::makeSet(U8, {4, 4, 1}, 1);
  EXPECT_EQ(set->kind(), Data::kindImage);
  EXPECT_EQ(set->img(-1), set->img(0));  // one frame: -1 is that frame
  EXPECT_EQ(set->get(1), nullptr);

  set->add(std::shared_ptr<Image>(MemImage::create(ImageDescriptor(U8, {4, 4, 1}))));
  set->add(std::shared_ptr<Image>(MemImage::create(ImageDescriptor(U8, {4, 4, 1}))));
  EXPECT_EQ(set->kind(), Data::kindImageSet);
  set->selection().setFocus(2);
  EXPECT_EQ(set->get(-1), set->get(2));
  EXPECT_EQ(set->elementwiseComponents().size(), 3u);
  set->remove(2);
  EXPECT_EQ(set->size(), 2);
  EXPECT_EQ(set->elementwiseComponents().size(), 2u);
  EXPECT_EQ(set->get(-1), set->get(1));  // focus pulled back in range

  auto volume = TestKit::makeSet(F32, {4, 4, 3}, 2);
  EXPECT_EQ(volume->kind(), Data::kindVolumeSet);
  volume->setModality(Data::CT);
  EXPECT_EQ(volume->get(1)->modality(), Data::CT);
}

TEST(SharedImageSet, CloneIsDeepAndKeepsComponentsAndProperties) {
  auto set = TestKit::makeImage<unsigned char>({3, 3, 1}, [](int x, int y, int) { return x + y; });
  set->setModality(Data::LABEL);
  set->properties().setParam("topDown", true);
  set->components().getOrCreate<LabelDataComponent>(set.get())->setLabelName(2, "liver");
  auto copy = set->clone();
  static_cast<TypedImage<unsigned char>*>(set->mem())->fill(0);
  EXPECT_EQ(static_cast<TypedImage<unsigned char>*>(copy->mem())->value(2, 2), 4);
  EXPECT_EQ(copy->modality(), Data::LABEL);
  EXPECT_TRUE(copy->properties().paramOr("topDown", false));
  ASSERT_TRUE(copy->components().get<LabelDataComponent>());
  EXPECT_EQ(copy->components().get<LabelDataComponent>()->labelConfig(2)->name, "liver");

  TrackedSharedImageSet tracked;
  tracked.add(std::shared_ptr<Image>(MemImage::create(ImageDescriptor(U8, {2, 2, 1}))));
  tracked.setTracking(0, Eigen::Matrix4d::Constant(2));
  auto trackedCopy = tracked.clone();
  ASSERT_TRUE(dynamic_cast<TrackedSharedImageSet*>(trackedCopy.get()));
  EXPECT_EQ(static_cast<TrackedSharedImageSet&>(*trackedCopy).tracking(0)(1, 1), 2);
}

TEST(DataList, ImageQueriesSkipNonImagesAndFilterKindAndModality) {
  struct Note : Data {
    Kind kind() const override { return kindOther; }
  } note;
  auto ct = TestKit::makeSet(I16, {4, 4, 4});
  ct->setModality(Data::CT);
  auto frame = TestKit::makeSet(U8, {4, 4, 1});
  DataList list{static_cast<Data*>(&note), ct.get(), frame.get()};
  EXPECT_EQ(list.getImages().size(), 2u);  // shorter than the list
  EXPECT_EQ(list.getImage(Data::kindVolume), ct.get());
  EXPECT_EQ(list.getImage(Data::kindAny, Data::MRI), nullptr);
  EXPECT_EQ(list.getImages(Data::kindImage).size(), 1u);
  EXPECT_EQ(list.getFirst(), &note);

  OwningDataList owning;
  owning.add(std::move(ct));
  owning.add(std::move(frame));
  auto volume = owning.extractFirstImage(Data::kindVolume);
  ASSERT_TRUE(volume);
  EXPECT_EQ(volume->modality(), Data::CT);
  EXPECT_EQ(owning.size(), 1);
}

TEST(LabelDataComponent, UnknownValueHasNoConfigAndDetectionAddsPresentValues) {
  auto map = TestKit::makeImage<unsigned char>({4, 1, 1}, [](int x, int, int) { return x == 0 ? 0 : x * 10; });
  LabelDataComponent labels(map.get());
  EXPECT_FALSE(labels.hasLabel(3));
  EXPECT_FALSE(labels.labelConfig(3).has_value());
  labels.setLabelName(20, "kept");
  EXPECT_EQ(labels.detectLabels(*map), 2);  // 10 and 30; 20 existed
  EXPECT_EQ(labels.labelConfig(20)->name, "kept");
  EXPECT_EQ(labels.labelConfig(30)->name, LabelDataComponent::defaultLabelConfig(30).name);
  EXPECT_NE(LabelDataComponent::defaultLabelConfig(1).color, LabelDataComponent::defaultLabelConfig(2).color);

  labels.setVisibility2d(30, false);
  auto lut = labels.colormap2d();
  EXPECT_EQ(lut->value(0, 0, 0, 3), 0);
  EXPECT_EQ(lut->value(10, 0, 0, 3), 255);
  EXPECT_EQ(lut->value(30, 0, 0, 3), 0);

  Properties saved;
  labels.configuration(&saved);
  LabelDataComponent restored;
  restored.configure(&saved);
  EXPECT_TRUE(restored.equals(labels));
}

TEST(ImageProcessing, FlipMirrorsOneAxisAndKeepsChannelsTogether) {
  auto img = TypedImage<short>::zeros(Eigen::Vector3i(3, 2, 2), 2);
  for (int z = 0; z < 2; ++z)
    for (int y = 0; y < 2; ++y)
      for (int x = 0; x < 3; ++x) {
        img->setValue(static_cast<short>(100 * z + 10 * y + x), x, y, z, 0);
        img->setValue(static_cast<short>(-(100 * z + 10 * y + x)), x, y, z, 1);
      }
  for (int axis = 0; axis < 3; ++axis) {
    auto f = ImageProcessing::computeFlipped(*img, axis);
    auto* t = dynamic_cast<TypedImage<short>*>(f.get());
    ASSERT_TRUE(t);
    for (int z = 0; z < 2; ++z)
      for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x) {
          int sx = axis == 0 ? 2 - x : x, sy = axis == 1 ? 1 - y : y, sz = axis == 2 ? 1 - z : z;
          EXPECT_EQ(t->value(x, y, z, 0), img->value(sx, sy, sz, 0));
          EXPECT_EQ(t->value(x, y, z, 1), img->value(sx, sy, sz, 1));
        }
  }
  EXPECT_FALSE(ImageProcessing::computeFlipped(*img, 3));
}

TEST(Mask, ExplicitRenderingOfCroppingAndIntensityMasks) {
  CroppingMask crop(Eigen::Vector3i(5, 4, 1));
  crop.setBorder(Eigen::Vector3i(1, 0, 0), Eigen::Vector3i(2, 1, 0));
  auto m = crop.createExplicitMask();
  int count = 0;
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 5; ++x) count += m->maskImageTyped().value(x, y) != 0;
  EXPECT_EQ(count, 2 * 3);

  auto img = TestKit::makeImage<unsigned short>({3, 3, 1}, [](int x, int y, int) { return x == y ? 9 : 1; });
  IntensityMask intensity(*img->img(), 9.0f);
  auto rendered = intensity.createExplicitMask(*img->get());
  EXPECT_EQ(rendered->maskImageTyped().value(1, 1), 0);
  EXPECT_EQ(rendered->maskImageTyped().value(2, 1), 255);
  auto converted = ExplicitMask::convert(*rendered->maskImageTyped().clone());
  EXPECT_EQ(converted->maskImageTyped().value(2, 1), 255);
}

TEST(TypedImage, RangeLeavesNaNOut) {
  TypedImage<float> img(Eigen::Vector3i(4, 1, 1), 1);
  const float nan = std::nanf("");
  float v[] = {nan, 3.0f, -2.0f, nan};
  std::copy(v, v + 4, img.pointer());
  float lo = 0, hi = 0;
  ASSERT_TRUE(img.getRange(lo, hi));
  EXPECT_EQ(lo, -2.0f);
  EXPECT_EQ(hi, 3.0f);
  img.fill(nan);
  EXPECT_FALSE(img.getRange(lo, hi));
}

// Histograms in original values: buckets of stored values, the upper end in the last bucket.
TEST(HistogramDataComponent, BucketsOriginalValuesOverTheGivenRange) {
  auto set = TestKit::makeImage<unsigned short>({5, 2, 1}, [](int x, int y, int) { return 10 + x + 5 * y; });
  set->get(0)->setShiftScale(-100.0, 2.0);  // original = stored / 2 + 100
  HistogramDataComponent& h = HistogramDataComponent::of(*set);
  EXPECT_EQ(&h, set->components().get<HistogramDataComponent>());
  const auto [lo, hi] = h.minmax();
  EXPECT_DOUBLE_EQ(lo, 105.0);
  EXPECT_DOUBLE_EQ(hi, 109.5);
  EXPECT_EQ(h.maxNumBuckets(0), 10);
  const std::vector<double> counts = h.derivedHistogram(0, 3, Vec2d(105.0, 108.0));
  ASSERT_EQ(counts.size(), 3u);
  EXPECT_EQ(counts, (std::vector<double>{2, 2, 3}));  // 105 105.5 | 106 106.5 | 107 107.5 108
  EXPECT_TRUE(h.derivedHistogram(0, 0, Vec2d(105.0, 108.0)).empty());
  EXPECT_TRUE(h.derivedHistogram(0, 4, Vec2d(3.0, 3.0)).empty());
  EXPECT_TRUE(h.derivedHistogram(1, 4, Vec2d(0.0, 3.0)).empty());
}

TEST(HistogramDataComponent, NaNFallsIntoNoBucketAndSerialEqualsParallel) {
  auto set = TestKit::makeImage<float>({300, 300, 1}, [](int x, int y, int) {
    return (x + y) % 97 == 0 ? std::nanf("") : static_cast<float>(TestKit::hashNoise(x, y, 0));
  });
  HistogramDataComponent& h = HistogramDataComponent::of(*set);
  EXPECT_EQ(h.maxNumBuckets(0), 4096);
  const auto [lo, hi] = h.minmax();
  omp_set_num_threads(1);
  const std::vector<double> serial = h.derivedHistogram(0, 50, Vec2d(lo, hi));
  omp_set_num_threads(2);
  const std::vector<double> parallel = h.derivedHistogram(0, 50, Vec2d(lo, hi));
  EXPECT_EQ(serial, parallel);
  double total = 0;
  for (double c : serial) total += c;
  int nans = 0;
  for (int y = 0; y < 300; ++y)
    for (int x = 0; x < 300; ++x) nans += (x + y) % 97 == 0;
  EXPECT_EQ(total, 300.0 * 300.0 - nans);
}
