// The tubularity measure's formula, the eigenvalues against a dense solver, scale selection
// on tubes of known width, the border, the window, serial against parallel, failure paths.
#include <gtest/gtest.h>
#include <omp.h>

#include <Eigen/Eigenvalues>
#include <cmath>

#include "HessianAnalysis.h"
#include "HessianAnalysisAlgorithm.h"
#include "Log.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

struct MeasureCase {
  double l1, l2, l3, beta, gamma, expected;
};

class TubularityFormula : public testing::TestWithParam<MeasureCase> {};

TEST_P(TubularityFormula, MatchesTheClosedForm) {
  const MeasureCase c = GetParam();
  for (double alpha : {0.0, 1.0, 7.5}) {  // alpha changes nothing
    HessianTubularityMeasure m(alpha, c.beta, c.gamma);
    EXPECT_NEAR(m.combineEigenvalues(c.l1, c.l2, c.l3), c.expected, 1e-12);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TubularityFormula,
    testing::Values(
        // Positive largest eigenvalue: dark structure, 0.
        MeasureCase{0.1, -0.5, 2.0, 1.0, 1.0, 0.0},
        // l2 = 0: Rb infinite, the blob factor 0 ...
        MeasureCase{0.1, 0.0, -2.0, 1.0, 1.0, 0.0},
        // ... unless beta is 0.
        MeasureCase{0.1, 0.0, -2.0, 0.0, 1.0, 1.0 - std::exp(-(0.01 + 4.0))},
        // Flat voxel.
        MeasureCase{0.0, 0.0, 0.0, 1.0, 1.0, 0.0},
        // A general voxel, by hand: Ra = 0.5, Rb = 0.2, S2 = 0.04 + 1 + 4.
        MeasureCase{-0.2, -1.0, -2.0, 2.0, 0.5, std::exp(-4.0 * 0.04) * 0.5 * (1.0 - std::exp(-0.25 * 5.04))}));

// Returns one eigenvalue (by rank of magnitude) or |l3|, to look inside the analysis.
class Probe : public HessianAnalysis {
 public:
  explicit Probe(int which) : which_(which) {}
  double combineEigenvalues(double l1, double l2, double l3) const override {
    return which_ == 0 ? l1 : which_ == 1 ? l2 : which_ == 2 ? l3 : std::abs(l3);
  }

 private:
  int which_;
};

std::unique_ptr<TypedImage<float>> noiseVolume(const Eigen::Vector3i& d, const Eigen::Vector3d& spacing) {
  auto img = TypedImage<float>::zeros(d);
  img->setSpacing(spacing);
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x)
        img->setValue(static_cast<float>(10.0 * TestKit::hashNoise(x, y, z) + 0.1 * x * y), x, y, z);
  return img;
}

TEST(HessianAnalysis, EigenvaluesOfThePlainDifferencesMatchADenseSolver) {
  const Eigen::Vector3d s(0.7, 1.0, 1.6);
  auto img = noiseVolume({7, 6, 5}, s);
  auto f = [&](int x, int y, int z) { return static_cast<double>(img->value(x, y, z)); };
  for (int which = 0; which < 3; ++which) {
    auto out = TypedImage<float>::zeros(img->dimensions());
    ASSERT_TRUE(Probe(which).computeMeasure(*img, *out));
    for (int z = 1; z < 4; ++z)
      for (int y = 1; y < 5; ++y)
        for (int x = 1; x < 6; ++x) {
          // Each difference weighted by 1 / (2 s) of both its axes.
          Eigen::Matrix3d h;
          h(0, 0) = (f(x + 1, y, z) - 2 * f(x, y, z) + f(x - 1, y, z)) / (4 * s[0] * s[0]);
          h(1, 1) = (f(x, y + 1, z) - 2 * f(x, y, z) + f(x, y - 1, z)) / (4 * s[1] * s[1]);
          h(2, 2) = (f(x, y, z + 1) - 2 * f(x, y, z) + f(x, y, z - 1)) / (4 * s[2] * s[2]);
          h(0, 1) = h(1, 0) = (f(x + 1, y + 1, z) - f(x + 1, y - 1, z) - f(x - 1, y + 1, z) + f(x - 1, y - 1, z)) / (4 * s[0] * s[1]);
          h(0, 2) = h(2, 0) = (f(x + 1, y, z + 1) - f(x + 1, y, z - 1) - f(x - 1, y, z + 1) + f(x - 1, y, z - 1)) / (4 * s[0] * s[2]);
          h(1, 2) = h(2, 1) = (f(x, y + 1, z + 1) - f(x, y + 1, z - 1) - f(x, y - 1, z + 1) + f(x, y - 1, z - 1)) / (4 * s[1] * s[2]);
          Eigen::Vector3d ev = Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d>(h).eigenvalues();
          std::sort(ev.data(), ev.data() + 3, [](double a, double b) { return std::abs(a) < std::abs(b); });
          EXPECT_NEAR(out->value(x, y, z), ev[which], 1e-4 * (1 + std::abs(ev[which])));
        }
  }
}

// A bright tube along z with a Gaussian cross-section of width w (voxels).
std::unique_ptr<TypedImage<float>> gaussianTube(double w, int n = 41) {
  auto img = TypedImage<float>::zeros(Eigen::Vector3i(n, n, 15));
  const double c = (n - 1) / 2.0;
  for (int z = 0; z < 15; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        const double r2 = (x - c) * (x - c) + (y - c) * (y - c);
        img->setValue(static_cast<float>(100.0 * std::exp(-r2 / (2 * w * w))), x, y, z);
      }
  return img;
}

class ScaleSelection : public testing::TestWithParam<double> {};

TEST_P(ScaleSelection, NormalisedResponseOnTheAxisPeaksAtTheTubesWidth) {
  const double width = GetParam();
  auto tube = gaussianTube(width);
  const std::vector<double> candidates{1.0, 1.5, 2.0, 2.5, 3.0, 3.5, 4.0, 5.0};
  double best = -1, bestScale = 0;
  for (double sigma : candidates) {
    Probe magnitude(3);
    magnitude.scales = {sigma};
    auto out = TypedImage<float>::zeros(tube->dimensions());
    ASSERT_TRUE(magnitude.computeMeasure(*tube, *out));
    const double r = out->value(20, 20, 7);
    if (r > best) {
      best = r;
      bestScale = sigma;
    }
  }
  EXPECT_EQ(bestScale, width);
  // Several scales at once keep the largest response.
  Probe all(3);
  all.scales = candidates;
  auto out = TypedImage<float>::zeros(tube->dimensions());
  all.computeMeasure(*tube, *out);
  EXPECT_NEAR(out->value(20, 20, 7), best, 1e-5 * best);
}

INSTANTIATE_TEST_SUITE_P(Widths, ScaleSelection, testing::Values(1.5, 2.5, 3.5));

TEST(HessianAnalysis, DarkTubeHasNoTubularityAndTheBorderStaysZero) {
  auto tube = gaussianTube(2.0);
  float* p = tube->pointer();
  for (size_t i = 0; i < tube->descriptor().pixelCount(); ++i) p[i] = -p[i];
  HessianTubularityMeasure m;
  m.scales = {2.0};
  auto out = TypedImage<float>::zeros(tube->dimensions());
  m.computeMeasure(*tube, *out);
  EXPECT_EQ(out->value(20, 20, 7), 0.0f);
  // Bright again: the measure is non-zero near the axis, never on the outer layer.
  for (size_t i = 0; i < tube->descriptor().pixelCount(); ++i) p[i] = -p[i];
  m.computeMeasure(*tube, *out);
  double inner = 0;
  const Eigen::Vector3i d = tube->dimensions();
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x) {
        const bool border = x == 0 || y == 0 || z == 0 || x == d[0] - 1 || y == d[1] - 1 || z == d[2] - 1;
        if (border) EXPECT_EQ(out->value(x, y, z), 0.0f);
        else inner = std::max(inner, static_cast<double>(out->value(x, y, z)));
      }
  EXPECT_GT(inner, 0.1);
}

class HessianThreads : public testing::TestWithParam<int> {};

TEST_P(HessianThreads, SerialEqualsParallel) {
  auto img = noiseVolume({11, 10, GetParam()}, {1.0, 1.0, 1.0});
  HessianTubularityMeasure m(1.0, 0.5, 0.2);
  m.scales = {1.0, 2.0};
  auto a = TypedImage<float>::zeros(img->dimensions()), b = TypedImage<float>::zeros(img->dimensions());
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  m.computeMeasure(*img, *a);
  omp_set_num_threads(2);
  m.computeMeasure(*img, *b);
  omp_set_num_threads(threads);
  for (size_t i = 0; i < img->descriptor().pixelCount(); ++i) ASSERT_EQ(a->pointer()[i], b->pointer()[i]) << i;
}

INSTANTIATE_TEST_SUITE_P(Slices, HessianThreads, testing::Values(1, 3, 7, 9, 33));

TEST(HessianAnalysisAlgorithm, WindowClampsOnlyWhenItIsNotEmpty) {
  auto set = TestKit::makeImage<float>({12, 12, 12}, [](int x, int y, int z) {
    return 50.0 * std::exp(-((x - 6.0) * (x - 6.0) + (y - 5.5) * (y - 5.5)) / 4.0) + TestKit::hashNoise(x, y, z);
  });
  auto run = [&](double lo, double hi) {
    HessianAnalysisAlgorithm a(set->get(0));
    a.minIntensity = lo;
    a.maxIntensity = hi;
    a.compute();
    EXPECT_EQ(a.status(), Algorithm::statusSuccess);
    auto out = a.takeOutput().extractFirstImage();
    return std::vector<float>(static_cast<const float*>(out->mem()->data()),
                              static_cast<const float*>(out->mem()->data()) + 12 * 12 * 12);
  };
  const auto none = run(0, 0), wide = run(-1e6, 1e6), narrow = run(0, 10);
  EXPECT_EQ(none, wide);
  EXPECT_NE(none, narrow);
}

TEST(HessianAnalysisAlgorithm, KeysInOrderAndFailurePaths) {
  auto volume = TestKit::makeImage<float>({6, 6, 6}, [](int, int, int) { return 1.0; });
  auto flat = TestKit::makeImage<float>({6, 6, 1}, [](int, int, int) { return 1.0; });
  EXPECT_FALSE(HessianAnalysisAlgorithm::createCompatible(DataList{flat.get()}));
  EXPECT_FALSE(HessianAnalysisAlgorithm::createCompatible(DataList{volume.get(), volume.get()}));
  Algorithm* created = nullptr;
  ASSERT_TRUE(HessianAnalysisAlgorithm::createCompatible(DataList{volume.get()}, &created));
  std::unique_ptr<Algorithm> algorithm(created);
  Properties p;
  algorithm->configuration(&p);
  const std::vector<std::string> keys = p.paramKeys();
  ASSERT_GE(keys.size(), 5u);
  EXPECT_EQ(std::vector<std::string>(keys.begin(), keys.begin() + 5),
            (std::vector<std::string>{"MinIntensity", "MaxIntensity", "Alpha", "Beta", "Gamma"}));

  TestKit::LogCapture log;
  HessianAnalysisAlgorithm onFlat(flat->get(0));
  onFlat.compute();
  EXPECT_EQ(onFlat.status(), Algorithm::statusInvalidInput);
  EXPECT_TRUE(onFlat.takeOutput().empty());
  HessianAnalysisAlgorithm badScale(volume->get(0));
  badScale.scales = std::vector<double>{1.0, -2.0};
  badScale.compute();
  EXPECT_EQ(badScale.status(), Algorithm::statusInvalidInput);
  EXPECT_EQ(log.count(Log::Error, "Seg.HessianAnalysisAlgorithm"), 2);
}

}  // namespace
}  // namespace Merivane
