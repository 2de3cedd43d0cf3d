#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "GraphBasedSegmentation.h"
#include "GraphLaplacianAlgorithm.h"
#include "GraphLaplacianImage.h"
#include "GraphLaplacianSuperpixels.h"
#include "Log.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "SuperpixelsAlgorithm.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

template <typename T>
std::unique_ptr<SharedImage> frame(const Eigen::Vector3i& dims, const std::function<double(int, int, int)>& f) {
  auto img = TypedImage<T>::zeros(dims, 1);
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) img->setValue(static_cast<T>(f(x, y, z)), x, y, z);
  return std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(img)));
}

// A noisy bright ball (disc) of radius 0.3 n in 0; object seeds at the centre, background seeds
// in the corners.
struct Phantom {
  std::unique_ptr<SharedImage> image, seeds;
};

Phantom phantom(int n, int slices, double noise = 0.15) {
  std::mt19937 rng(5);
  std::normal_distribution<double> g(0.0, noise);
  const double c = (n - 1) / 2.0, cz = (slices - 1) / 2.0, r = 0.3 * n;
  auto dist = [=](int x, int y, int z) {
    const double dz = slices > 1 ? z - cz : 0.0;
    return std::sqrt((x - c) * (x - c) + (y - c) * (y - c) + dz * dz);
  };
  Phantom p;
  p.image = frame<float>({n, n, slices}, [&](int x, int y, int z) { return (dist(x, y, z) < r) + g(rng); });
  p.seeds = frame<unsigned char>({n, n, slices}, [&](int x, int y, int z) {
    if (dist(x, y, z) < 3.0) return 1;
    const bool cx = x < 3 || x >= n - 3, cy = y < 3 || y >= n - 3, czz = slices == 1 || z < 3 || z >= slices - 3;
    return cx && cy && czz ? 2 : 0;
  });
  return p;
}

std::unique_ptr<SharedImage> segment(Phantom& p, int graphType, int superpixels = 0) {
  GraphLaplacianAlgorithm a(*p.image, *p.seeds);
  Properties props;
  props.setParam("Verbose", false);
  props.setParam("Graph Type", graphType);
  props.setParam("Solver Iterations", 2000);
  if (superpixels) props.setParam("Superpixels Number", superpixels);
  // Neutral attenuation: no penalty, and a factor of 1 but on the last row.
  props.setParam("Vertical penalty", 1000.0);
  props.setParam("Horizontal penalty", 0.0);
  a.configure(&props);
  a.compute();
  EXPECT_EQ(a.status(), Algorithm::statusSuccess);
  auto set = a.takeOutput().extractFirstImage();
  if (!set) return nullptr;
  return set->get(0)->clone();
}

double dice(const SharedImage& a, const SharedImage& b) {
  const float* pa = static_cast<const float*>(a.mem()->data());
  const float* pb = static_cast<const float*>(b.mem()->data());
  size_t both = 0, na = 0, nb = 0;
  for (size_t i = 0; i < a.descriptor().pixelCount(); ++i) {
    both += pa[i] >= 0.5f && pb[i] >= 0.5f;
    na += pa[i] >= 0.5f;
    nb += pb[i] >= 0.5f;
  }
  return 2.0 * both / double(na + nb);
}

}  // namespace

// The Laplacian over the superpixels: symmetric, zero column sums, one node per superpixel,
// edges exactly between touching superpixels, and every node either seed or unknown.
TEST(GraphLaplacianSuperpixels, LaplacianJoinsTouchingSuperpixels) {
  Phantom p = phantom(40, 1);
  GraphLaplacianSuperpixels g;
  Properties props;
  props.setParam("Superpixels Number", 60);
  g.configure(&props);
  g.generateGraph(*p.image, *p.seeds);
  ASSERT_NE(g.superpixelMap(), nullptr);
  const int K = static_cast<int>(g.superpixels().size());
  const auto& L = g.laplacian();
  ASSERT_EQ(L.rows(), K);
  ASSERT_EQ(L.cols(), K);
  Eigen::MatrixXf dense = Eigen::MatrixXf(L);
  EXPECT_LT((dense - dense.transpose()).cwiseAbs().maxCoeff(), 1e-7f);
  EXPECT_LT(dense.colwise().sum().cwiseAbs().maxCoeff(), 1e-4f);
  Eigen::MatrixXi touch = Eigen::MatrixXi::Zero(K, K);
  const TypedImage<int>& m = *g.superpixelMap();
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 40; ++x) {
      if (x < 39) touch(m.value(x, y), m.value(x + 1, y)) = touch(m.value(x + 1, y), m.value(x, y)) = 1;
      if (y < 39) touch(m.value(x, y), m.value(x, y + 1)) = touch(m.value(x, y + 1), m.value(x, y)) = 1;
    }
  for (int i = 0; i < K; ++i)
    for (int j = 0; j < K; ++j)
      if (i != j) EXPECT_EQ(dense(i, j) < 0.0f, touch(i, j) == 1) << i << ", " << j;
  EXPECT_EQ(g.seedIndices().size() + g.unknownIndices().size(), static_cast<size_t>(K));
  for (size_t k = 0; k < g.unknownIndices().size(); ++k)
    EXPECT_EQ(g.unknownOfSuperpixel(static_cast<int>(g.unknownIndices()[k])), static_cast<int>(k));
}

// Seed rule: the largest label of 1..254 in a superpixel decides; 255 is ignored; any label
// but the active one is background.
TEST(GraphLaplacianSuperpixels, LargestSeedLabelDecidesAndOutlineIsIgnored) {
  // Four flat quadrants of distinct values make four superpixels.
  auto img = frame<float>({20, 20, 1}, [](int x, int y, int) { return (x < 10 ? 0.0 : 100.0) + (y < 10 ? 0.0 : 300.0); });
  auto lab = frame<unsigned char>({20, 20, 1}, [](int x, int y, int) {
    if (x == 2 && y == 2) return 1;    // top left: object...
    if (x == 3 && y == 2) return 2;    // ...and background: background wins
    if (x == 15 && y == 2) return 1;   // top right: object
    if (x == 2 && y == 15) return 255; // bottom left: outline only, free
    if (x == 15 && y == 15) return 3;  // bottom right: another label, background
    return 0;
  });
  GraphLaplacianSuperpixels g;
  Properties props;
  props.setParam("Superpixels Number", 4);
  g.configure(&props);
  g.generateGraph(*img, *lab);
  ASSERT_EQ(g.superpixels().size(), 4u);
  const TypedImage<int>& m = *g.superpixelMap();
  auto seedValue = [&](int x, int y) -> float {
    const int k = m.value(x, y);
    for (size_t i = 0; i < g.seedIndices().size(); ++i)
      if (static_cast<int>(g.seedIndices()[i]) == k) return g.seedValues()[i];
    return -1.0f;
  };
  EXPECT_EQ(seedValue(2, 2), 0.0f);
  EXPECT_EQ(seedValue(15, 2), 1.0f);
  EXPECT_EQ(seedValue(2, 15), -1.0f);
  EXPECT_EQ(seedValue(15, 15), 0.0f);
  // The free superpixel's value lands on all its pixels; seeds keep 1 and 0.
  auto out = frame<float>({20, 20, 1}, [](int, int, int) { return 7.0; });
  Eigen::VectorXf v = Eigen::VectorXf::Constant(1, 0.25f);
  g.generateImageFromVector(v, *out);
  auto* o = static_cast<TypedImage<float>*>(out->mem());
  EXPECT_EQ(o->value(0, 19), 0.25f);
  EXPECT_EQ(o->value(19, 0), 1.0f);
  EXPECT_EQ(o->value(0, 0), 0.0f);
  auto lbl = frame<unsigned char>({20, 20, 1}, [](int, int, int) { return 0; });
  g.generateImageFromVector(v, *lbl);
  EXPECT_EQ(static_cast<TypedImage<unsigned char>*>(lbl->mem())->value(0, 19), 2);
  EXPECT_EQ(static_cast<TypedImage<unsigned char>*>(lbl->mem())->value(19, 0), 1);
  // And the vector comes back from the image.
  Eigen::VectorXf back = g.generateVectorFromImage(*out);
  ASSERT_EQ(back.size(), 1);
  EXPECT_EQ(back[0], 0.25f);
}

TEST(GraphLaplacianSuperpixels, MismatchesAreReportedAndLeaveTheTarget) {
  Phantom p = phantom(24, 1);
  GraphLaplacianSuperpixels g;
  TestKit::LogCapture log;
  g.generateSeeds(static_cast<TypedImage<unsigned char>*>(p.seeds->mem()));
  EXPECT_TRUE(log.contains("No superpixels map available"));
  g.generateGraph(*p.image, *p.seeds);
  log.clear();
  auto out = frame<float>({24, 24, 1}, [](int, int, int) { return 7.0; });
  g.generateImageFromVector(Eigen::VectorXf::Zero(static_cast<Eigen::Index>(g.unknownIndices().size()) + 1), *out);
  EXPECT_TRUE(log.contains("Problem in vector size"));
  EXPECT_EQ(static_cast<TypedImage<float>*>(out->mem())->value(3, 3), 7.0f);
  auto other = frame<float>({23, 24, 1}, [](int, int, int) { return 1.0; });
  Eigen::VectorXf v = g.generateVectorFromImage(*other);
  EXPECT_TRUE(log.contains("[GraphLaplacianSuperpixels] Image is not compatible"));
  EXPECT_EQ(v.size(), static_cast<Eigen::Index>(g.unknownIndices().size()));
  EXPECT_EQ(v.cwiseAbs().sum(), 0.0f);
}

class SuperpixelAgreement : public ::testing::TestWithParam<std::tuple<int, int, int>> {};

// The random walk on superpixels agrees with the one on pixels; so does the attenuated variant
// with neutral attenuation.
TEST_P(SuperpixelAgreement, DiceAgainstPixelGraph) {
  const auto [n, slices, type] = GetParam();
  Phantom p = phantom(n, slices);
  auto pixels = segment(p, 0);
  auto superpixels = segment(p, type, slices == 1 ? 400 : 1500);
  ASSERT_TRUE(pixels && superpixels);
  EXPECT_GE(dice(*pixels, *superpixels), 0.95);
}

INSTANTIATE_TEST_SUITE_P(Phantoms, SuperpixelAgreement,
                         testing::Values(std::make_tuple(96, 1, 1), std::make_tuple(40, 40, 1), std::make_tuple(96, 1, 3)));

// The graph switch of the user-facing algorithm reaches the inner graph, with its settings.
TEST(GraphBasedSegmentation, SuperpixelSwitchSelectsTheSuperpixelGraph) {
  Phantom p = phantom(48, 1);
  auto images = std::make_unique<SharedImageSet>(std::shared_ptr<SharedImage>(std::move(p.image)));
  auto labels = std::make_unique<SharedImageSet>(std::shared_ptr<SharedImage>(std::move(p.seeds)));
  labels->setModality(Data::LABEL);
  GraphBasedSegmentation seg(images.get(), labels.get());
  seg.verbose = false;
  seg.numLevels = 1;
  seg.useSuperpixels = true;
  Properties config;
  config.setParam("Superpixels Number", 123);
  config.setParam("Superpixels Adaptiveness", 2.0);
  seg.setSuperpixelsConfiguration(&config);
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  auto* graph = dynamic_cast<GraphLaplacianSuperpixels*>(&seg.innerAlgorithm()->graph());
  ASSERT_NE(graph, nullptr);
  EXPECT_EQ(graph->superpixelsNumber.value(), 123);
  EXPECT_EQ(graph->superpixelsAdaptiveness.value(), 2.0);
  ASSERT_NE(graph->superpixelMap(), nullptr);
  EXPECT_LT(graph->superpixels().size(), 250u);
  EXPECT_GT(seg.innerAlgorithm()->memoryEstimation(1), 0u);
  seg.useSuperpixels = false;
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  EXPECT_EQ(typeid(seg.innerAlgorithm()->graph()), typeid(GraphLaplacianImage));
}

TEST(GraphTypeSetting, SuperpixelTypesPickTheirClasses) {
  auto img = frame<float>({3, 3, 1}, [](int, int, int) { return 0.0; });
  auto lab = frame<unsigned char>({3, 3, 1}, [](int, int, int) { return 0; });
  GraphLaplacianAlgorithm a(*img, *lab);
  Properties p;
  p.setParam("Graph Type", 1);
  a.configure(&p);
  EXPECT_EQ(typeid(a.graph()), typeid(GraphLaplacianSuperpixels));
  p.setParam("Graph Type", 3);
  a.configure(&p);
  EXPECT_EQ(typeid(a.graph()), typeid(GraphLaplacianSuperpixelsAttenuation));
  // The estimate counts the superpixels, not the pixels, plus 8 bytes per pixel for the map.
  p.setParam("Superpixels Number", 1000);
  a.configure(&p);
  const int64_t n = 1000, extra = 9 * 8;
  EXPECT_EQ(a.memoryEstimation(1),
            static_cast<uint64_t>(static_cast<float>(n * 48 + extra + (5 * n + n) * 12 + n * 10 * 8) * 1.3f));
}

TEST(GraphLaplacianAlgorithm, BadSuperpixelSettingFailsWithOneLine) {
  Phantom p = phantom(24, 1);
  GraphLaplacianAlgorithm a(*p.image, *p.seeds);
  Properties props;
  props.setParam("Verbose", false);
  props.setParam("Graph Type", 1);
  props.setParam("Superpixels Number", 0);
  a.configure(&props);
  TestKit::LogCapture log;
  a.compute();
  EXPECT_EQ(a.status(), Algorithm::statusInvalidInput);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(log.contains("Superpixels Number"));
  EXPECT_TRUE(a.takeOutput().empty());
}
