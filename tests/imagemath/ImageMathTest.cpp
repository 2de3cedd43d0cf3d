#include <gtest/gtest.h>

#include <limits>

#include "GlContext.h"
#include "ImageMath.h"
#include "Log.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

namespace IM = ImageMath;

std::unique_ptr<TypedImage<float>> floatRamp(const Eigen::Vector3i& dims, int channels = 1) {
  auto img = TypedImage<float>::zeros(dims, channels);
  for (size_t i = 0; i < img->descriptor().elementCount(); ++i) img->pointer()[i] = static_cast<float>(i % 17);
  return img;
}

TEST(ImageMathCpu, ThresholdBandOnTinyImage) {
  TypedImage<float> a(Eigen::Vector3i(4, 1, 1), 1);
  const float values[] = {1.f, 5.f, 9.f, 3.f};
  std::copy(values, values + 4, a.pointer());
  TypedImage<unsigned char> out(Eigen::Vector3i(4, 1, 1), 1);
  IM::makeArray(out) = 10 + 5 * ((IM::makeArray(a) > 2) && (IM::makeArray(a) < 6)).cast<int>();
  EXPECT_EQ(out.value(0, 0), 10);
  EXPECT_EQ(out.value(1, 0), 15);
  EXPECT_EQ(out.value(2, 0), 10);
  EXPECT_EQ(out.value(3, 0), 15);

  // Adding a further band to the existing labels, in place.
  IM::makeArray(out) = IM::makeArray(out) + 100 * ((IM::makeArray(a) > 8) && (IM::makeArray(a) < 10)).cast<int>();
  EXPECT_EQ(out.value(2, 0), 110);
  EXPECT_EQ(out.value(1, 0), 15);
}

TEST(ImageMathCpu, CastWrapsAroundInsteadOfClamping) {
  TypedImage<unsigned char> u8(Eigen::Vector3i(2, 1, 1), 1);
  IM::makeArray(u8) = IM::Scalar<double>(300.0).cast<unsigned char>();
  EXPECT_EQ(u8.value(0, 0), 44);
  TypedImage<char> i8(Eigen::Vector3i(1, 1, 1), 1);
  IM::makeArray(i8) = IM::Scalar<double>(-129.0).cast<char>();
  EXPECT_EQ(i8.value(0, 0), 127);
  // Truncation toward zero, through a 64-bit integer.
  TypedImage<int> i32(Eigen::Vector3i(1, 1, 1), 1);
  IM::makeArray(i32) = IM::Scalar<double>(-2.75).cast<int>();
  EXPECT_EQ(i32.value(0, 0), -2);
  IM::makeArray(u8) = IM::Scalar<double>(std::numeric_limits<double>::quiet_NaN()).cast<unsigned char>();
  EXPECT_EQ(u8.value(0, 0), 0);
}

TEST(ImageMathCpu, ShiftAndScaleApplyOnReadAndWrite) {
  TypedImage<short> a(Eigen::Vector3i(1, 1, 1), 1);
  a.setShiftScale(10, 2);
  a.setValue(30, 0, 0);
  TypedImage<float> out(Eigen::Vector3i(1, 1, 1), 1);
  IM::makeArray(out) = IM::makeArray(a);
  EXPECT_FLOAT_EQ(out.value(0, 0), 5.f);  // 30 / 2 - 10
  IM::makeArray(out) = IM::makeArray(a, true);
  EXPECT_FLOAT_EQ(out.value(0, 0), 30.f);

  TypedImage<short> back(Eigen::Vector3i(1, 1, 1), 1);
  back.setShiftScale(10, 2);
  IM::makeArray(back) = IM::Scalar<float>(5.f);
  EXPECT_EQ(back.value(0, 0), 30);  // (5 + 10) * 2
  IM::makeArray(back, true) = IM::Scalar<float>(5.f);
  EXPECT_EQ(back.value(0, 0), 5);
}

TEST(ImageMathCpu, FloatCastsComputeInSinglePrecision) {
  TypedImage<double> a(Eigen::Vector3i(1, 1, 1), 1), b(Eigen::Vector3i(1, 1, 1), 1);
  a.setValue(1.0 + 1e-9, 0, 0);
  b.setValue(1.0, 0, 0);
  TypedImage<double> out(Eigen::Vector3i(1, 1, 1), 1);
  IM::makeArray(out) = IM::makeArray(a) - IM::makeArray(b);
  EXPECT_GT(out.value(0, 0), 0.0);
  IM::makeArray(out) = IM::max(IM::makeArray(a).cast<float>() - IM::makeArray(b).cast<float>(), 0.0f);
  EXPECT_EQ(out.value(0, 0), 0.0);
}

TEST(ImageMathCpu, OneChannelOperandsBroadcastAndSwizzlesPickChannels) {
  auto rgb = TypedImage<float>::zeros(Eigen::Vector3i(2, 1, 1), 3);
  for (int c = 0; c < 3; ++c) {
    rgb->setValue(c + 1.f, 0, 0, 0, c);
    rgb->setValue(10.f * (c + 1), 1, 0, 0, c);
  }
  TypedImage<float> out(Eigen::Vector3i(2, 1, 1), 3);
  IM::makeArray(out) = IM::makeArray(*rgb) * IM::makeArray(*rgb).swizzle({2});
  EXPECT_FLOAT_EQ(out.value(0, 0, 0, 0), 3.f);
  EXPECT_FLOAT_EQ(out.value(0, 0, 0, 2), 9.f);
  EXPECT_FLOAT_EQ(out.value(1, 0, 0, 1), 600.f);

  TypedImage<float> sum(Eigen::Vector3i(2, 1, 1), 1);
  IM::makeArray(sum) = IM::channelSum(IM::makeArray(*rgb).xy());
  EXPECT_FLOAT_EQ(sum.value(0, 0), 3.f);
  IM::makeArray(sum) = IM::length(IM::makeArray(*rgb));
  EXPECT_FLOAT_EQ(sum.value(0, 0), std::sqrt(14.f));
}

// Slice counts around the serial threshold and around thread block edges.
class ImageMathSlices : public testing::TestWithParam<int> {};

TEST_P(ImageMathSlices, FusedPassEqualsPlainLoopAndIsSerialBelowNineSlices) {
  const int slices = GetParam();
  auto a = floatRamp(Eigen::Vector3i(5, 3, slices));
  auto b = floatRamp(Eigen::Vector3i(5, 3, slices));
  for (size_t i = 0; i < b->descriptor().elementCount(); ++i) b->pointer()[i] = static_cast<float>(i % 5);
  TypedImage<short> out(Eigen::Vector3i(5, 3, slices), 1);
  out.fill(-1);
  IM::makeArray(out) = (IM::makeArray(*a) - IM::makeArray(*b)) * 3;
  for (size_t i = 0; i < out.descriptor().elementCount(); ++i)
    ASSERT_EQ(out.pointer()[i], static_cast<short>((a->pointer()[i] - b->pointer()[i]) * 3)) << "element " << i;
  EXPECT_EQ(IM::internal::lastPassThreads(), slices < 9 ? 1 : omp_get_max_threads());
}

INSTANTIATE_TEST_SUITE_P(Slices, ImageMathSlices, testing::Values(1, 7, 8, 9, 33));

TEST(ImageMathCpu, ReductionsGiveValueAndFirstPosition) {
  auto a = TypedImage<int>::zeros(Eigen::Vector3i(4, 3, 10), 2);
  a->setValue(50, 2, 1, 3, 0);
  a->setValue(50, 1, 2, 7, 0);  // a later equal maximum
  a->setValue(-8, 3, 0, 9, 1);
  std::vector<Eigen::Vector4i> where;
  const Eigen::VectorXd mx = IM::makeArray(*a).max(where);
  ASSERT_EQ(mx.size(), 2);
  EXPECT_EQ(mx[0], 50.0);
  EXPECT_EQ(mx[1], 0.0);
  EXPECT_EQ(where[0], Eigen::Vector4i(2, 1, 3, 0));
  EXPECT_EQ(where[1], Eigen::Vector4i(0, 0, 0, 0));
  std::vector<Eigen::Vector4i> whereMin;
  const Eigen::VectorXd mn = IM::makeArray(*a).min(whereMin);
  EXPECT_EQ(mn[1], -8.0);
  EXPECT_EQ(whereMin[1], Eigen::Vector4i(3, 0, 9, 0));
  EXPECT_EQ(IM::makeArray(*a).max(), mx);
}

TEST(ImageMathCpu, EmptyReductionGivesLowestFiniteDouble) {
  auto empty = TypedImage<float>::zeros(Eigen::Vector3i(4, 4, 0), 1);
  const Eigen::VectorXd mx = IM::makeArray(*empty).max();
  ASSERT_EQ(mx.size(), 1);
  EXPECT_EQ(mx[0], std::numeric_limits<double>::lowest());
  std::vector<Eigen::Vector4i> where;
  IM::makeArray(*empty).max(where);
  EXPECT_EQ(where[0][0], -1);
}

TEST(ImageMathCpu, StrategyIsCpuOnlyForF64I32U32AndWideImages) {
  SharedImage f64(ImageDescriptor(F64, Eigen::Vector3i(2, 2, 1)));
  SharedImage i32(ImageDescriptor(I32, Eigen::Vector3i(2, 2, 1)));
  SharedImage wide(ImageDescriptor(U8, Eigen::Vector3i(2, 2, 1), 5));
  SharedImage f32(ImageDescriptor(F32, Eigen::Vector3i(2, 2, 1), 4));
  EXPECT_EQ(IM::makeArray(f64).deviceStrategy(), IM::CpuOnly);
  EXPECT_EQ(IM::makeArray(i32).deviceStrategy(), IM::CpuOnly);
  EXPECT_EQ(IM::makeArray(wide).deviceStrategy(), IM::CpuOnly);
  EXPECT_EQ(IM::makeArray(f32).deviceStrategy(), IM::GpuAllowed);
  EXPECT_EQ((IM::makeArray(f32) + IM::makeArray(f64)).deviceStrategy(), IM::CpuOnly);
  EXPECT_EQ((IM::makeArray(f32) * 2.0).deviceStrategy(), IM::GpuAllowed);
  auto mem = TypedImage<float>::zeros(Eigen::Vector3i(2, 2, 1), 1);
  EXPECT_EQ(IM::makeArray(*mem).deviceStrategy(), IM::CpuOnly);
  EXPECT_EQ((IM::makeArray(f32) + IM::makeArray(*mem)).numImgs(), 1);
}

TEST(ImageMathCpu, DescriptorsFollowImagesAndWiderChannels) {
  SharedImage rgb(ImageDescriptor(U8, Eigen::Vector3i(6, 5, 4), 3));
  const auto d = (2 * IM::makeArray(rgb)).imgDesc();
  EXPECT_EQ(d.dimensions, Eigen::Vector3i(6, 5, 4));
  EXPECT_EQ(d.channels, 3);
  EXPECT_EQ(IM::makeArray(rgb).xy().imgDesc().channels, 2);
  EXPECT_EQ(IM::channelSum(IM::makeArray(rgb)).imgDesc().channels, 1);
  EXPECT_EQ(IM::Scalar<int>(3).imgDesc().pixelType, I32);
  EXPECT_EQ(IM::makeArray(rgb).cast<short>().imgDesc().pixelType, I16);
}

TEST(ImageMathCpu, MismatchedOperandLeavesTargetUnchangedWithOneLogLine) {
  TestKit::LogCapture log;
  auto small = floatRamp(Eigen::Vector3i(3, 3, 1));
  TypedImage<float> out(Eigen::Vector3i(4, 3, 1), 1);
  out.fill(7.f);
  IM::makeArray(out) = IM::makeArray(*small) + 1;
  EXPECT_EQ(out.value(3, 2), 7.f);
  EXPECT_EQ(log.count(Log::Error, "ImageMath"), 1);
  // A swizzle past the operand's channels is refused the same way.
  auto rgb = floatRamp(Eigen::Vector3i(4, 3, 1), 3);
  IM::makeArray(out) = IM::makeArray(*rgb).swizzle({5});
  EXPECT_EQ(out.value(0, 0), 7.f);
}

// The target's shape drives the loop and an operand is read at the same linear index, whatever
// its own shape: other dimensions with as many pixels or more are read as they lie in memory,
// on the processor and through a SharedImage alike.
class ImageMathOperandShape : public testing::TestWithParam<std::tuple<Eigen::Vector3i, bool>> {};

TEST_P(ImageMathOperandShape, OperandIsReadAtTheTargetsLinearIndex) {
  const auto [dims, shared] = GetParam();
  TestKit::LogCapture log;
  auto operand = floatRamp(dims);  // element i holds i % 17
  auto out = TypedImage<float>::zeros(Eigen::Vector3i(4, 3, 2), 1);
  if (shared) {
    // An F64 target keeps the pass on the processor.
    SharedImage target(std::shared_ptr<Image>(TypedImage<double>::zeros(Eigen::Vector3i(4, 3, 2), 1)));
    SharedImage in(std::shared_ptr<Image>(floatRamp(dims)));
    IM::makeArray(target) = IM::makeArray(in) * 2;
    const auto* d = static_cast<const double*>(target.mem()->data());
    for (int i = 0; i < 24; ++i) out->pointer()[i] = static_cast<float>(d[i]);
  } else {
    IM::makeArray(*out) = IM::makeArray(*operand) * 2;
  }
  for (int i = 0; i < 24; ++i) EXPECT_EQ(out->pointer()[i], 2.0f * (i % 17)) << i;
  EXPECT_EQ(log.count(Log::Error), 0);
}

INSTANTIATE_TEST_SUITE_P(SameCountOrMore, ImageMathOperandShape,
                         testing::Combine(testing::Values(Eigen::Vector3i(4, 3, 2), Eigen::Vector3i(6, 4, 1),
                                                          Eigen::Vector3i(24, 1, 1), Eigen::Vector3i(5, 5, 3)),
                                          testing::Bool()));

TEST(ImageMathCpu, CoordinatesGivePixelImageAndWorldPositions) {
  SharedImage frame(ImageDescriptor(F32, Eigen::Vector3i(4, 2, 1)));
  frame.setSpacing(Eigen::Vector3d(2, 3, 1));
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m(0, 3) = 100;
  frame.setMatrix(m);
  auto check = [&](IM::CoordinateType type, int x, int y, const Eigen::Vector3d& expected) {
    auto out = TypedImage<double>::zeros(Eigen::Vector3i(4, 2, 1), 4);
    IM::makeArray(*out) = IM::makeCoordinates(frame, type);
    EXPECT_EQ(out->value(x, y, 0, 3), 1.0);  // the homogeneous channel
    for (int c = 0; c < 3; ++c) EXPECT_DOUBLE_EQ(out->value(x, y, 0, c), expected[c]) << static_cast<int>(type);
  };
  check(IM::CoordinateType::Pixel, 3, 1, Eigen::Vector3d(3, 1, 0));
  check(IM::CoordinateType::Image, 3, 1, frame.pixelToWorld(Eigen::Vector3d(3, 1, 0)) - Eigen::Vector3d(100, 0, 0));
  check(IM::CoordinateType::World, 0, 0, frame.pixelToWorld(Eigen::Vector3d(0, 0, 0)));
}

TEST(ImageMathCpu, SetAssignmentWritesSelectedFramesOnly) {
  GL::Context::setEnabled(false);
  auto set = TestKit::makeSet(U8, Eigen::Vector3i(3, 3, 1), 3);
  auto src = TestKit::makeSet(U8, Eigen::Vector3i(3, 3, 1), 3);
  for (int i = 0; i < 3; ++i) static_cast<TypedImage<unsigned char>*>(src->mem(i))->fill(static_cast<unsigned char>(i + 1));
  Selection sel;
  sel.select(0);
  sel.select(2);
  IM::Array<SharedImageSet>(*set, false, &sel) = IM::makeArray(*src) * 10;
  EXPECT_EQ(static_cast<TypedImage<unsigned char>*>(set->mem(0))->value(1, 1), 10);
  EXPECT_EQ(static_cast<TypedImage<unsigned char>*>(set->mem(1))->value(1, 1), 0);
  EXPECT_EQ(static_cast<TypedImage<unsigned char>*>(set->mem(2))->value(1, 1), 30);
  GL::Context::setEnabled(true);
}

}  // namespace
}  // namespace Merivane
