// The GPU pass against the CPU pass: every expression in use, every pixel type, 2D and 3D.
// The CPU side reads TypedImage operands (always the processor); the GPU side reads
// SharedImage operands, and for types that textures can hold the test checks that the pass
// really ran on the GPU (the target's texture is current, its memory copy stale).
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "GlContext.h"
#include "ImageMath.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

namespace IM = ImageMath;

enum class Expr { FreshLabels, AddLabels, PositiveDifference, ChannelProduct, Difference, BoundingBox };

std::string exprName(Expr e) {
  switch (e) {
    case Expr::FreshLabels: return "FreshLabels";
    case Expr::AddLabels: return "AddLabels";
    case Expr::PositiveDifference: return "PositiveDifference";
    case Expr::ChannelProduct: return "ChannelProduct";
    case Expr::Difference: return "Difference";
    case Expr::BoundingBox: return "BoundingBox";
  }
  return "?";
}

// Integer values 0..44, exact in float; `box` adds colour (unequal channels) to a small box
// of an otherwise grey image.
std::shared_ptr<SharedImage> makeFrame(PixelType type, const Eigen::Vector3i& dims, int channels, int seed,
                                       bool box = false) {
  auto frame = std::make_shared<SharedImage>(ImageDescriptor(type, dims, channels));
  dispatchPixelType(type, [&](auto tag) {
    using T = decltype(tag);
    auto* img = static_cast<TypedImage<T>*>(frame->mem());
    for (int z = 0; z < dims[2]; ++z)
      for (int y = 0; y < dims[1]; ++y)
        for (int x = 0; x < dims[0]; ++x)
          for (int c = 0; c < channels; ++c) {
            int v = box ? (x + y + z) % 20 : (x * 7 + y * 3 + z * 5 + c * 11 + seed) % 45;
            if (box && x >= 1 && x <= 3 && y >= 1 && y <= 2 && z <= 1) v += 20 * c;
            img->setValue(static_cast<T>(v), x, y, z, c);
          }
  });
  frame->setDirtyMem();
  return frame;
}

template <typename T>
TypedImage<T>& typed(SharedImage& f) {
  return *static_cast<TypedImage<T>*>(f.mem());
}

// Runs expression `e` with operands a (1 channel), b (1 channel) and rgb (3 channels).
template <typename Target, typename A, typename RGB>
void assignExpr(Expr e, Target&& target, const A& a, const A& b, const RGB& rgb, PixelType type) {
  dispatchPixelType(type, [&](auto tag) {
    using T = decltype(tag);
    switch (e) {
      case Expr::FreshLabels:
        target = IM::Scalar<int>(2) + IM::Scalar<int>(5) * ((a > 10) && (a < 30)).template cast<int>();
        break;
      case Expr::AddLabels: target = a + 5 * ((a > 10) && (a < 30)).template cast<int>(); break;
      case Expr::PositiveDifference:
        target = IM::max(a.template cast<float>() - b.template cast<float>(), 0.0f).template cast<T>();
        break;
      case Expr::ChannelProduct: target = rgb * rgb.swizzle({1}); break;
      case Expr::Difference: target = a - b; break;
      case Expr::BoundingBox: break;
    }
  });
}

using OracleParam = std::tuple<PixelType, Expr, bool>;
class ImageMathOracle : public testing::TestWithParam<OracleParam> {};

TEST_P(ImageMathOracle, GpuPassGivesTheValuesOfTheCpuPass) {
  MERIVANE_REQUIRE_GL();
  const auto [type, expr, volume] = GetParam();
  const Eigen::Vector3i dims = volume ? Eigen::Vector3i(6, 5, 3) : Eigen::Vector3i(7, 5, 1);
  const bool gpuType = type != F64 && type != I32 && type != U32;
  auto a = makeFrame(type, dims, 1, 0), b = makeFrame(type, dims, 1, 9);
  auto rgb = makeFrame(type, dims, 3, 4, expr == Expr::BoundingBox);

  if (expr == Expr::BoundingBox) {
    const auto coords = IM::makeCoordinates(*a, IM::CoordinateType::Pixel).xy();
    const double s = std::sqrt(3.0);
    std::vector<Eigen::Vector4i> whereCpu, whereGpu;
    Eigen::VectorXd cpu, gpu;
    dispatchPixelType(type, [&](auto tag) {
      using T = decltype(tag);
      auto m = IM::makeArray(typed<T>(*rgb));
      cpu = ((IM::channelSum(IM::abs(IM::length(m.xyz()) / s - m.xyz())) > 1.0) * coords).max(whereCpu);
    });
    auto g = IM::makeArray(*rgb);
    gpu = ((IM::channelSum(IM::abs(IM::length(g.xyz()) / s - g.xyz())) > 1.0) * coords).max(whereGpu);
    ASSERT_EQ(cpu.size(), 2);
    EXPECT_EQ(cpu, Eigen::Vector2d(3, 2));
    EXPECT_EQ(gpu, cpu);
    EXPECT_EQ(whereGpu, whereCpu);
    EXPECT_EQ(whereCpu[0], Eigen::Vector4i(3, 1, 0, 0));
    return;
  }

  const int channels = expr == Expr::ChannelProduct ? 3 : 1;
  SharedImage gpuTarget(ImageDescriptor(type, dims, channels));
  auto cpuTarget = MemImage::create(ImageDescriptor(type, dims, channels));
  dispatchPixelType(type, [&](auto tag) {
    using T = decltype(tag);
    assignExpr(expr, IM::makeArray(*static_cast<TypedImage<T>*>(cpuTarget.get())), IM::makeArray(typed<T>(*a)),
               IM::makeArray(typed<T>(*b)), IM::makeArray(typed<T>(*rgb)), type);
  });
  assignExpr(expr, IM::makeArray(gpuTarget), IM::makeArray(*a), IM::makeArray(*b), IM::makeArray(*rgb), type);
  EXPECT_EQ(gpuTarget.hasGl() && !gpuTarget.hasMem(), gpuType) << "pass ran on the wrong device";

  MemImage* result = gpuTarget.mem();
  ASSERT_NE(result, nullptr);
  dispatchPixelType(type, [&](auto tag) {
    using T = decltype(tag);
    const T* want = static_cast<const T*>(cpuTarget->data());
    const T* got = static_cast<const T*>(result->data());
    for (size_t i = 0; i < cpuTarget->descriptor().elementCount(); ++i) {
      if constexpr (std::is_floating_point_v<T>) ASSERT_NEAR(got[i], want[i], 1e-5 * (1 + std::abs(want[i]))) << i;
      else ASSERT_EQ(static_cast<long long>(got[i]), static_cast<long long>(want[i])) << "element " << i;
    }
  });
}

INSTANTIATE_TEST_SUITE_P(
    AllTypes, ImageMathOracle,
    testing::Combine(testing::Values(I8, U8, I16, U16, I32, U32, F32, F64),
                     testing::Values(Expr::FreshLabels, Expr::AddLabels, Expr::PositiveDifference,
                                     Expr::ChannelProduct, Expr::Difference, Expr::BoundingBox),
                     testing::Bool()),
    [](const testing::TestParamInfo<OracleParam>& info) {
      std::string name = pixelTypeName(std::get<0>(info.param));
      name += '_';
      name += exprName(std::get<1>(info.param));
      name += std::get<2>(info.param) ? "_3D" : "_2D";
      return name;
    });

TEST(ImageMathGl, ShiftAndScaleOnReadAndWrite) {
  MERIVANE_REQUIRE_GL();
  SharedImage a(ImageDescriptor(I16, Eigen::Vector3i(3, 2, 1)));
  a.setShiftScale(10, 2);
  typed<short>(a).fill(30);
  a.setDirtyMem();
  SharedImage asFloat(ImageDescriptor(F32, Eigen::Vector3i(3, 2, 1)));
  IM::makeArray(asFloat) = IM::makeArray(a);
  ASSERT_TRUE(asFloat.hasGl());
  EXPECT_FLOAT_EQ(typed<float>(asFloat).value(2, 1), 5.f);
  IM::makeArray(asFloat) = IM::makeArray(a, true);
  EXPECT_FLOAT_EQ(typed<float>(asFloat).value(2, 1), 30.f);

  SharedImage back(ImageDescriptor(I16, Eigen::Vector3i(3, 2, 1)));
  back.setShiftScale(10, 2);
  IM::makeArray(back) = IM::makeArray(a);
  ASSERT_TRUE(back.hasGl());
  EXPECT_EQ(typed<short>(back).value(0, 0), 30);
}

TEST(ImageMathGl, WrapAroundCastOnTheGpu) {
  MERIVANE_REQUIRE_GL();
  SharedImage u8(ImageDescriptor(U8, Eigen::Vector3i(2, 2, 1)));
  IM::makeArray(u8) = IM::Scalar<double>(300.0).cast<unsigned char>();
  ASSERT_TRUE(u8.hasGl());
  EXPECT_EQ(typed<unsigned char>(u8).value(1, 1), 44);
  SharedImage i8(ImageDescriptor(I8, Eigen::Vector3i(2, 2, 1)));
  IM::makeArray(i8) = IM::Scalar<double>(-129.0).cast<char>();
  EXPECT_EQ(typed<char>(i8).value(0, 1), 127);
}

TEST(ImageMathGl, F64OperandRunsOnTheCpuEvenWhenOthersHaveTextures) {
  MERIVANE_REQUIRE_GL();
  auto a = makeFrame(F32, Eigen::Vector3i(4, 3, 2), 1, 0);
  auto d = makeFrame(F64, Eigen::Vector3i(4, 3, 2), 1, 3);
  ASSERT_NE(a->gl(), nullptr);
  SharedImage out(ImageDescriptor(F32, Eigen::Vector3i(4, 3, 2)));
  ASSERT_NE(out.gl(), nullptr);
  IM::makeArray(out) = IM::makeArray(*a) + IM::makeArray(*d);
  EXPECT_TRUE(out.hasMem());
  EXPECT_FALSE(out.hasGl());
  EXPECT_FLOAT_EQ(typed<float>(out).value(3, 2, 1), typed<float>(*a).value(3, 2, 1) + typed<double>(*d).value(3, 2, 1));
}

TEST(ImageMathGl, FiveChannelImageRunsOnTheCpu) {
  MERIVANE_REQUIRE_GL();
  auto five = makeFrame(U8, Eigen::Vector3i(3, 3, 1), 5, 1);
  SharedImage out(ImageDescriptor(U8, Eigen::Vector3i(3, 3, 1), 5));
  IM::makeArray(out) = IM::makeArray(*five) * 2;
  EXPECT_FALSE(out.hasGl());
  EXPECT_EQ(typed<unsigned char>(out).value(2, 1, 0, 4), 2 * typed<unsigned char>(*five).value(2, 1, 0, 4));
}

TEST(ImageMathGl, InPlaceUpdateReadsTheOldValues) {
  MERIVANE_REQUIRE_GL();
  auto a = makeFrame(U16, Eigen::Vector3i(5, 4, 3), 1, 2);
  auto expected = typed<unsigned short>(*a).cloneTyped();
  IM::makeArray(*a) = IM::makeArray(*a) * 2 + 1;
  ASSERT_TRUE(a->hasGl());
  for (size_t i = 0; i < expected->descriptor().elementCount(); ++i)
    ASSERT_EQ(typed<unsigned short>(*a).pointer()[i], expected->pointer()[i] * 2 + 1);
}

TEST(ImageMathGl, ProgramsAreCachedByTextNotByValues) {
  MERIVANE_REQUIRE_GL();
  auto a = makeFrame(F32, Eigen::Vector3i(4, 4, 1), 1, 0);
  SharedImage out(ImageDescriptor(F32, Eigen::Vector3i(4, 4, 1)));
  IM::makeArray(out) = IM::makeArray(*a) * 3.0f + 1.0f;
  const size_t programs = IM::internal::cachedProgramCount();
  IM::makeArray(out) = IM::makeArray(*a) * 5.0f + 2.0f;
  EXPECT_EQ(IM::internal::cachedProgramCount(), programs);
  EXPECT_FLOAT_EQ(typed<float>(out).value(1, 2), typed<float>(*a).value(1, 2) * 5 + 2);
}

TEST(ImageMathGl, DisabledContextFallsBackToTheCpu) {
  auto a = makeFrame(U8, Eigen::Vector3i(4, 4, 2), 1, 0);
  GL::Context::setEnabled(false);
  SharedImage out(ImageDescriptor(U8, Eigen::Vector3i(4, 4, 2)));
  IM::makeArray(out) = IM::makeArray(*a) + 1;
  GL::Context::setEnabled(true);
  EXPECT_FALSE(out.hasGl());
  EXPECT_EQ(typed<unsigned char>(out).value(3, 3, 1), typed<unsigned char>(*a).value(3, 3, 1) + 1);
}

TEST(ImageMathGl, ReductionOnTheGpuMatchesTheCpuWithPositions) {
  MERIVANE_REQUIRE_GL();
  auto a = makeFrame(F32, Eigen::Vector3i(9, 7, 10), 2, 5);
  std::vector<Eigen::Vector4i> whereGpu, whereCpu;
  const Eigen::VectorXd gpu = (IM::makeArray(*a) * 2.0f).min(whereGpu);
  const Eigen::VectorXd cpu = (IM::makeArray(typed<float>(*a)) * 2.0f).min(whereCpu);
  EXPECT_EQ(gpu, cpu);
  EXPECT_EQ(whereGpu, whereCpu);
}

}  // namespace
}  // namespace Merivane
