#include "GlAnisotropicDiffusionFilter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <tuple>
#include <vector>

#include "GlContext.h"
#include "GlImage.h"
#include "Log.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

using Voxels = std::vector<double>;

using TestKit::hashNoise;

// The same diffusion on the CPU in double precision, written from the filter's description.
struct Reference {
  Eigen::Vector3i d;
  Eigen::Vector3d spacing = Eigen::Vector3d::Ones();
  std::vector<float> smoothing, sharpen;
  int iterations = 0;
  double contrast = 0.6, amount = 0.0;
  double k2 = 0.0;

  bool volume() const { return d[2] > 1; }
  int axes() const { return volume() ? 3 : 2; }
  size_t index(Eigen::Vector3i c) const {
    c = c.cwiseMax(0).cwiseMin(d - Eigen::Vector3i::Ones());
    return static_cast<size_t>((c[2] * d[1] + c[1]) * d[0] + c[0]);
  }
  template <typename F>
  void forEach(F f) const {
    for (int z = 0; z < d[2]; ++z)
      for (int y = 0; y < d[1]; ++y)
        for (int x = 0; x < d[0]; ++x) f(Eigen::Vector3i(x, y, z));
  }

  Voxels run(const Voxels& input, double outMin, double outMax, bool round) {
    const double minSpacing = volume() ? spacing.minCoeff() : spacing.head<2>().minCoeff();
    const Eigen::Vector3d scale = Eigen::Vector3d::Constant(minSpacing).cwiseQuotient(spacing);
    Voxels u = input;
    if (iterations > 0) {
      Voxels s = input;
      const int half = static_cast<int>(smoothing.size()) / 2;
      for (int a = 0; a < axes(); ++a) {
        Voxels next(s.size());
        forEach([&](const Eigen::Vector3i& c) {
          double sum = 0.0;
          for (int k = -half; k <= half; ++k)
            sum += smoothing[static_cast<size_t>(k + half)] * s[index(c + k * Eigen::Vector3i::Unit(a))];
          next[index(c)] = sum;
        });
        s = next;
      }
      Voxels grad2(s.size(), 0.0);
      double total = 0.0;
      forEach([&](const Eigen::Vector3i& c) {
        for (int a = 0; a < axes(); ++a) {
          const Eigen::Vector3i e = Eigen::Vector3i::Unit(a);
          const double g = 0.5 * (s[index(c + e)] - s[index(c - e)]) * scale[a];
          grad2[index(c)] += g * g;
        }
        total += grad2[index(c)];
      });
      const double mean = total / static_cast<double>(s.size());
      k2 = mean > 0.0 ? 2.0 * contrast * contrast * mean : 0.0;
      Voxels g(s.size());
      for (size_t i = 0; i < g.size(); ++i) g[i] = k2 > 0.0 ? std::exp(-grad2[i] / k2) : 1.0;
      double wsum = 0.0;
      for (int a = 0; a < axes(); ++a) wsum += scale[a] * scale[a];
      const double dt = 1.0 / (2.0 * wsum + 1.0);
      for (int it = 0; it < iterations; ++it) {
        Voxels next(u.size());
        forEach([&](const Eigen::Vector3i& c) {
          const size_t i = index(c);
          double flux = 0.0;
          for (int a = 0; a < axes(); ++a)
            for (int sign : {1, -1}) {
              const size_t n = index(c + sign * Eigen::Vector3i::Unit(a));
              flux += scale[a] * scale[a] * 0.5 * (g[i] + g[n]) * (u[n] - u[i]);
            }
          next[i] = u[i] + dt * flux;
        });
        u = next;
      }
    }
    Voxels out(u.size());
    const int h = static_cast<int>(sharpen.size()) / 2;
    const bool sharpening = iterations > 0 && amount > 0.0 && h > 0;
    forEach([&](const Eigen::Vector3i& c) {
      double v = u[index(c)];
      if (sharpening) {
        double blurred = 0.0, lo = v, hi = v;
        const int hz = volume() ? h : 0;
        for (int k = -hz; k <= hz; ++k)
          for (int j = -h; j <= h; ++j)
            for (int i = -h; i <= h; ++i) {
              const double x = u[index(c + Eigen::Vector3i(i, j, k))];
              blurred += sharpen[i + h] * sharpen[j + h] * (volume() ? sharpen[k + h] : 1.0) * x;
              lo = std::min(lo, x);
              hi = std::max(hi, x);
            }
        v = std::clamp(v + amount * (v - blurred), lo, hi);
      }
      v = std::clamp(v, outMin, outMax);
      out[index(c)] = round ? std::floor(v + 0.5) : v;
    });
    return out;
  }
};

// Uploads `values` as a one-channel image of `type`, runs the filter into a fresh texture of
// the same type and reads it back as doubles.
bool filterOnGpu(GlAnisotropicDiffusionFilter& f, PixelType type, const Eigen::Vector3i& d,
                 const Eigen::Vector3d& spacing, const Voxels& values, Voxels& result) {
  bool ok = false;
  dispatchPixelType(type, [&](auto tag) {
    using T = decltype(tag);
    TypedImage<T> in(d, 1), back(d, 1);
    for (size_t i = 0; i < values.size(); ++i) in.pointer()[i] = static_cast<T>(values[i]);
    ImageDescriptor desc = in.descriptor();
    desc.spacing = spacing;
    GlImage input(desc, 0, in.pointer()), output(desc);
    if (!f.compute(input, output) || !output.download(back)) return;
    result.assign(back.pointer(), back.pointer() + values.size());
    ok = true;
  });
  return ok;
}

using OracleCase = std::tuple<Eigen::Vector3i, Eigen::Vector3d, PixelType>;

class DiffusionOracle : public testing::TestWithParam<OracleCase> {};

TEST_P(DiffusionOracle, GpuPassesEqualTheCpuReference) {
  MERIVANE_REQUIRE_GL();
  const auto [d, spacing, type] = GetParam();
  // A bright ball with an edge, plus noise.
  Voxels values(static_cast<size_t>(d.prod()));
  Reference ref;
  ref.d = d;
  ref.spacing = spacing;
  ref.forEach([&](const Eigen::Vector3i& c) {
    const double r = (c.cast<double>() - d.cast<double>() * 0.4).norm();
    values[ref.index(c)] = std::round((r < d[0] * 0.3 ? 900.0 : 300.0) + 80.0 * hashNoise(c[0], c[1], c[2]));
  });
  GlAnisotropicDiffusionFilter f;
  ASSERT_TRUE(f.setSmoothingKernelSize(5));
  ASSERT_TRUE(f.setIterations(6));
  ASSERT_TRUE(f.setContrast(0.6));
  ASSERT_TRUE(f.setSharpenKernelSize(3, 0.5));
  Voxels gpu;
  ASSERT_TRUE(filterOnGpu(f, type, d, spacing, values, gpu));
  ref.smoothing = f.smoothingWeights();
  ref.sharpen = f.sharpenWeights();
  ref.iterations = f.iterations();
  ref.amount = f.sharpenAmount();
  const bool integer = type != F32;
  const Voxels cpu = ref.run(values, 0.0, 65535.0, integer);
  EXPECT_NEAR(f.lastEdgeScaleSquared(), ref.k2, 1e-4 * ref.k2);
  // Single against double precision; integers may round the other way at .5.
  const double tolerance = integer ? 1.0 : 0.01;
  int changed = 0;
  for (size_t i = 0; i < cpu.size(); ++i) {
    ASSERT_NEAR(gpu[i], cpu[i], tolerance) << "voxel " << i;
    changed += std::abs(cpu[i] - values[i]) > 1.0;
  }
  EXPECT_GT(changed, static_cast<int>(cpu.size()) / 4);  // the comparison is not of two copies
}

INSTANTIATE_TEST_SUITE_P(Shapes, DiffusionOracle,
                         testing::Combine(testing::Values(Eigen::Vector3i(17, 13, 1), Eigen::Vector3i(9, 8, 6)),
                                          testing::Values(Eigen::Vector3d(1, 1, 1), Eigen::Vector3d(0.8, 1.0, 2.5)),
                                          testing::Values(F32, U16)));

using ShapeType = std::tuple<Eigen::Vector3i, PixelType>;

class DiffusionInvariants : public testing::TestWithParam<ShapeType> {};

TEST_P(DiffusionInvariants, ConstantImageStaysConstant) {
  MERIVANE_REQUIRE_GL();
  const auto [d, type] = GetParam();
  GlAnisotropicDiffusionFilter f;
  f.setSmoothingKernelSize(32);
  f.setSharpenKernelSize(3, 0.5);
  const Voxels values(static_cast<size_t>(d.prod()), 77.0);
  Voxels out;
  ASSERT_TRUE(filterOnGpu(f, type, d, {1, 1, 3}, values, out));
  EXPECT_EQ(out, values);
  EXPECT_EQ(f.lastEdgeScaleSquared(), 0.0);
}

TEST_P(DiffusionInvariants, ZeroIterationsCopyTheInput) {
  MERIVANE_REQUIRE_GL();
  const auto [d, type] = GetParam();
  GlAnisotropicDiffusionFilter f;
  ASSERT_TRUE(f.setIterations(0));
  f.setSharpenKernelSize(5, 2.0);
  Voxels values(static_cast<size_t>(d.prod()));
  for (size_t i = 0; i < values.size(); ++i) values[i] = std::round(100.0 + 100.0 * hashNoise(static_cast<int>(i), 1, 2));
  Voxels out;
  ASSERT_TRUE(filterOnGpu(f, type, d, {1, 1, 1}, values, out));
  EXPECT_EQ(out, values);
}

INSTANTIATE_TEST_SUITE_P(Shapes, DiffusionInvariants,
                         testing::Combine(testing::Values(Eigen::Vector3i(16, 12, 1), Eigen::Vector3i(7, 6, 5)),
                                          testing::Values(U8, I16, F32)));

TEST(GlAnisotropicDiffusionFilter, StepEdgeStaysSharpWhileNoiseOnTheFlatPartsDrops) {
  MERIVANE_REQUIRE_GL();
  const Eigen::Vector3i d(96, 64, 1);
  GlAnisotropicDiffusionFilter f;  // as the label painter configures it
  f.setSmoothingKernelSize(32);
  f.setIterations(50);
  f.setContrast(0.6);
  f.setSharpenKernelSize(3, 0.5);
  auto at = [&](int x, int y) { return static_cast<size_t>(y * d[0] + x); };
  // Clean: the step survives within one grey value.
  Voxels clean(static_cast<size_t>(d.prod())), noisy(clean.size());
  for (int y = 0; y < d[1]; ++y)
    for (int x = 0; x < d[0]; ++x) {
      clean[at(x, y)] = x < 48 ? 1000.0 : 2000.0;
      noisy[at(x, y)] = clean[at(x, y)] + std::round(150.0 * hashNoise(x, y, 0));
    }
  Voxels out;
  ASSERT_TRUE(filterOnGpu(f, U16, d, {1, 1, 1}, clean, out));
  for (size_t i = 0; i < out.size(); ++i) ASSERT_NEAR(out[i], clean[i], 1.0) << i;

  ASSERT_TRUE(filterOnGpu(f, U16, d, {1, 1, 1}, noisy, out));
  // Spread round the clean value on the flat parts, away from the edge.
  auto deviation = [&](const Voxels& v, int x0, int x1) {
    double sum = 0.0;
    int n = 0;
    for (int y = 0; y < d[1]; ++y)
      for (int x = x0; x < x1; ++x, ++n) sum += (v[at(x, y)] - clean[at(x, y)]) * (v[at(x, y)] - clean[at(x, y)]);
    return std::sqrt(sum / n);
  };
  for (auto [x0, x1] : {std::pair{2, 30}, std::pair{66, 94}}) {
    EXPECT_LT(deviation(out, x0, x1), deviation(noisy, x0, x1) / 4) << x0;
  }
  // The edge keeps its height: the columns either side still differ by most of the step.
  double left = 0.0, right = 0.0;
  for (int y = 0; y < d[1]; ++y) {
    left += out[at(47, y)] / d[1];
    right += out[at(48, y)] / d[1];
  }
  EXPECT_GT(right - left, 800.0);
  // Never beyond the input's range.
  const auto [lo, hi] = std::minmax_element(noisy.begin(), noisy.end());
  for (double v : out) ASSERT_TRUE(v >= *lo && v <= *hi) << v;
}

TEST(GlAnisotropicDiffusionFilter, BadSettingsAreRefusedWithOneLineAndKeepTheOldValues) {
  GlAnisotropicDiffusionFilter f;
  ASSERT_TRUE(f.setSmoothingKernelSize(7));
  ASSERT_TRUE(f.setIterations(12));
  ASSERT_TRUE(f.setContrast(0.4));
  ASSERT_TRUE(f.setSharpenKernelSize(3, 0.5));
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::vector<std::pair<const char*, std::function<bool()>>> bad = {
      {"kernel 0", [&] { return f.setSmoothingKernelSize(0); }},
      {"kernel 64", [&] { return f.setSmoothingKernelSize(64); }},
      {"iterations -1", [&] { return f.setIterations(-1); }},
      {"iterations 1001", [&] { return f.setIterations(1001); }},
      {"contrast 0", [&] { return f.setContrast(0.0); }},
      {"contrast NaN", [&] { return f.setContrast(nan); }},
      {"sharpen 11", [&] { return f.setSharpenKernelSize(11, 0.5); }},
      {"sharpen amount -1", [&] { return f.setSharpenKernelSize(3, -1.0); }},
      {"sharpen amount inf", [&] { return f.setSharpenKernelSize(3, std::numeric_limits<double>::infinity()); }},
  };
  for (const auto& [what, call] : bad) {
    TestKit::LogCapture log;
    EXPECT_FALSE(call()) << what;
    ASSERT_EQ(log.lines().size(), 1u) << what;
    EXPECT_EQ(log.lines()[0].level, Log::Warning) << what;
  }
  EXPECT_EQ(f.smoothingKernelSize(), 7);
  EXPECT_EQ(f.iterations(), 12);
  EXPECT_EQ(f.contrast(), 0.4);
  EXPECT_EQ(f.sharpenKernelSize(), 3);
  EXPECT_EQ(f.sharpenAmount(), 0.5);
}

TEST(GlAnisotropicDiffusionFilter, UnusableTexturesAreRefusedAndTheOutputKept) {
  MERIVANE_REQUIRE_GL();
  const Eigen::Vector3i d(8, 6, 1);
  const std::vector<unsigned short> seven(static_cast<size_t>(d.prod()) * 2, 7);
  GlImage input(ImageDescriptor(U16, d, 1), 0, seven.data());
  GlImage smaller(ImageDescriptor(U16, {8, 5, 1}, 1));
  GlImage twoChannels(ImageDescriptor(U16, d, 2), 0, seven.data());
  GlImage output(ImageDescriptor(U16, d, 1), 0, seven.data());
  GlAnisotropicDiffusionFilter f;
  EXPECT_FALSE(f.compute(input, smaller));
  EXPECT_FALSE(f.compute(twoChannels, output));
  EXPECT_FALSE(f.compute(output, output));
  TypedImage<unsigned short> back(d, 1);
  ASSERT_TRUE(output.download(back));
  for (size_t i = 0; i < back.descriptor().pixelCount(); ++i) EXPECT_EQ(back.pointer()[i], 7);
}

}  // namespace
}  // namespace Merivane
