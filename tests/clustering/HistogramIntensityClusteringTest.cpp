#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>

#include "HistogramIntensityClusteringAlgorithm.h"
#include "Log.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;
using Algo = HistogramIntensityClusteringAlgorithm;
using U8Image = TypedImage<unsigned char>;

namespace {

constexpr const char* kCategory = "Seg.HistogramIntensityClusteringAlgorithm";

// Modes at `means`, one per block of z slices, each spread by +-spread of fixed noise.
std::unique_ptr<SharedImageSet> modes(const std::vector<double>& means, double spread, int n = 40) {
  const int block = n / static_cast<int>(means.size());
  return TestKit::makeImage<unsigned short>({n, n, n}, [&](int x, int y, int z) {
    const int k = std::min(z / block, static_cast<int>(means.size()) - 1);
    return std::lround(means[static_cast<size_t>(k)] + spread * TestKit::hashNoise(x, y, z));
  });
}

std::unique_ptr<SharedImageSet> run(SharedImageSet& image, int& status, const Properties* config = nullptr) {
  Algorithm* raw = nullptr;
  EXPECT_TRUE(Algo::createCompatible(DataList{&image}, &raw));
  std::unique_ptr<Algorithm> algo(raw);
  algo->configure(config);
  algo->compute();
  status = algo->status();
  return algo->takeOutput().extractFirstImage(Data::kindAny, Data::LABEL);
}

}  // namespace

// y with valleys of 0 at bins 4 and 10: three clusters whose bounds sit at the valleys' bins
// mapped onto [c, dMax], the first from c - 1 and the last to b.
TEST(HistogramClusteringScan, ValleysOfZeroCloseClustersAtTheirBins) {
  const std::vector<double> y{1, 5, 9, 5, 0, 4, 8, 9, 7, 3, 0, 2, 6, 6, 5, 2};
  const auto cl = Algo::findClusters(y, 1.0, 1.3, 0.0, 16.0, 20.0);
  ASSERT_EQ(cl.size(), 3u);
  EXPECT_DOUBLE_EQ(cl[0].lower, -1.0);
  EXPECT_DOUBLE_EQ(cl[0].upper, 4.0);  // m = 8, (8 * 0.5 / 16) * 16
  EXPECT_DOUBLE_EQ(cl[1].lower, 4.0);
  EXPECT_DOUBLE_EQ(cl[1].upper, 10.0);
  EXPECT_DOUBLE_EQ(cl[2].lower, 10.0);
  EXPECT_DOUBLE_EQ(cl[2].upper, 20.0);
  EXPECT_DOUBLE_EQ(cl[0].mass, 1 + 5 + 9 + 5 + 0);
}

TEST(HistogramClusteringScan, ShallowValleysDoNotSplit) {
  const std::vector<double> y{1, 5, 9, 8, 7.5, 8, 9, 5, 1};
  EXPECT_TRUE(Algo::findClusters(y, 1.0, 1.3, 0.0, 9.0, 9.0).empty());
  EXPECT_EQ(Algo::findClusters(y, 1.0, 1.1, 0.0, 9.0, 9.0).size(), 2u);
}

TEST(HistogramClusteringScan, SmallLastHumpJoinsTheClusterBeforeIt) {
  // The last hump (mass 3 after the valley at bin 9) is below the smallest cluster mass 10.
  const std::vector<double> y{1, 8, 9, 2, 0, 6, 9, 6, 1, 0, 1, 2, 0, 0};
  const auto small = Algo::findClusters(y, 10.0, 1.3, 0.0, 14.0, 14.0);
  ASSERT_EQ(small.size(), 2u);
  EXPECT_DOUBLE_EQ(small[1].upper, 14.0);
  EXPECT_DOUBLE_EQ(small[1].lower, small[0].upper);
  EXPECT_EQ(Algo::findClusters(y, 1.0, 1.3, 0.0, 14.0, 14.0).size(), 3u);
  EXPECT_TRUE(Algo::findClusters({1, 2}, 0.0, 1.3, 0, 1, 1).empty());
}

TEST(HistogramClusteringSteps, FoldingKeepsAllMassOnTheBoundaryBins) {
  std::vector<float> h{1, 2, 3, 4, 5, 6};
  Algo::foldRange(h, 2, 3);
  EXPECT_EQ(h, (std::vector<float>{0, 0, 6, 15, 0, 0}));
  std::vector<float> g{1, 2, 3};
  Algo::foldRange(g, 3, 3);  // lo = n folds onto the last bin
  EXPECT_EQ(g, (std::vector<float>{0, 0, 6}));
  const auto s = Algo::smooth({0, 3, 0, 0, 9}, 1, 1.5);
  EXPECT_EQ(s, (std::vector<double>{1.5, 0, 0, 3, 4.5}));  // 1 < 1.5 became 0
}

struct ModesCase {
  std::vector<double> means;
  int expectedLabels;
};
class HistogramClusteringModes : public testing::TestWithParam<ModesCase> {};

// Two and three well-separated modes: one label per mode, in intensity order from 0.
TEST_P(HistogramClusteringModes, OneLabelPerModeInIntensityOrder) {
  const ModesCase& c = GetParam();
  auto image = modes(c.means, 40.0);
  Properties config;
  config.setParam("underSamplingSkip", 1);
  int status = -1;
  auto labels = run(*image, status, &config);
  ASSERT_EQ(status, Algorithm::statusSuccess);
  ASSERT_TRUE(labels);
  EXPECT_EQ(labels->modality(), Data::LABEL);
  const auto* in = dynamic_cast<TypedImage<unsigned short>*>(image->mem(0));
  const auto* out = dynamic_cast<U8Image*>(labels->mem(0));
  ASSERT_TRUE(out);
  unsigned short lo = 0, hi = 0;
  in->getRange(lo, hi);
  const int block = 40 / static_cast<int>(c.means.size());
  int wrong = 0;
  for (int z = 0; z < 40; ++z)
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 40; ++x) {
        if (in->value(x, y, z) == hi) {  // the original maximum lies on the last bound
          EXPECT_EQ(out->value(x, y, z), 0);
          continue;
        }
        wrong += out->value(x, y, z) != std::min(z / block, c.expectedLabels - 1);
      }
  EXPECT_EQ(wrong, 0);
}

INSTANTIATE_TEST_SUITE_P(TwoAndThree, HistogramClusteringModes,
                         testing::Values(ModesCase{{500, 1500}, 2}, ModesCase{{300, 1000, 2000}, 3}));

TEST(HistogramClustering, ConstantImageGivesNoLabelsAndStatusError) {
  auto image = TestKit::makeImage<float>({8, 8, 8}, [](int, int, int) { return 7.0f; });
  TestKit::LogCapture log;
  int status = -1;
  EXPECT_FALSE(run(*image, status));
  EXPECT_EQ(status, Algorithm::statusError);
  EXPECT_EQ(log.count(Log::Info, kCategory) + log.count(Log::Warning, kCategory) + log.count(Log::Error, kCategory), 1);
}

TEST(HistogramClustering, EmptyHistogramOfNaNOnlyGivesNoLabels) {
  auto image = TestKit::makeImage<float>({6, 6, 1}, [](int, int, int) { return std::nanf(""); });
  int status = -1;
  EXPECT_FALSE(run(*image, status));
  EXPECT_EQ(status, Algorithm::statusError);
}

TEST(HistogramClustering, NaNVoxelsAreLeftOutAndKeepLabelZero) {
  auto image = TestKit::makeImage<float>({40, 40, 40}, [](int x, int y, int z) {
    if ((x * 7 + y * 3 + z) % 11 == 0) return std::nanf("");
    return static_cast<float>((z < 20 ? 100.0 : 600.0) + 30.0 * TestKit::hashNoise(x, y, z));
  });
  int status = -1;
  auto labels = run(*image, status);
  ASSERT_EQ(status, Algorithm::statusSuccess);
  const auto* out = dynamic_cast<U8Image*>(labels->mem(0));
  const auto* in = dynamic_cast<TypedImage<float>*>(image->mem(0));
  for (int z = 0; z < 40; ++z)
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 40; ++x) {
        const float v = in->value(x, y, z);
        if (std::isnan(v)) EXPECT_EQ(out->value(x, y, z), 0);
        else if (v > 300 && v < 630 - 1e-3) EXPECT_EQ(out->value(x, y, z), 1) << v;
        else if (v < 300) EXPECT_EQ(out->value(x, y, z), 0);
      }
}

TEST(HistogramClustering, LabelsDoNotDependOnTheThreadCount) {
  auto image = modes({300, 1000, 2000}, 60.0, 33);
  Properties config;
  config.setParam("underSamplingSkip", 2);
  int status = -1;
  omp_set_num_threads(1);
  auto serial = run(*image, status, &config);
  omp_set_num_threads(2);
  auto parallel = run(*image, status, &config);
  ASSERT_TRUE(serial && parallel);
  const auto* a = dynamic_cast<U8Image*>(serial->mem(0));
  const auto* b = dynamic_cast<U8Image*>(parallel->mem(0));
  EXPECT_TRUE(std::equal(a->pointer(), a->pointer() + a->descriptor().elementCount(), b->pointer()));
}

TEST(HistogramClustering, DebugOutputGivesTheThreeHistogramsFirst) {
  auto image = modes({500, 1500}, 40.0);
  Algo algo(*image);
  algo.debugOutput = true;
  algo.compute();
  ASSERT_EQ(algo.status(), Algorithm::statusSuccess);
  OwningDataList out = algo.takeOutput();
  ASSERT_EQ(out.size(), 4);
  const DataList view = out.dataListView();
  EXPECT_EQ(view[0]->name(), "Histogram");
  EXPECT_EQ(view[1]->name(), "Histogram smooth");
  EXPECT_EQ(view[2]->name(), "Histogram spline");
  EXPECT_EQ(view[3]->modality(), Data::LABEL);
  // Folding keeps the voxel count.
  const auto* h = dynamic_cast<TypedImage<float>*>(view[0]->asImageSet()->mem(0));
  double total = 0;
  for (int i = 0; i < h->width(); ++i) total += h->value(i, 0);
  EXPECT_EQ(total, 40.0 * 40 * 40);
  EXPECT_EQ(algo.takeOutput().size(), 0);
}

TEST(HistogramClustering, BadParameterOrInputSetsStatusLogsOnceAndLeavesInput) {
  auto image = modes({500, 1500}, 40.0, 10);
  auto before = image->mem(0)->clone();
  for (const char* key : {"underSamplingSkip", "smoothRadius"}) {
    TestKit::LogCapture log;
    Properties config;
    config.setParam(key, 0);
    int status = -1;
    EXPECT_FALSE(run(*image, status, &config));
    EXPECT_EQ(status, Algorithm::statusInvalidInput) << key;
    EXPECT_EQ(log.count(Log::Error, kCategory), 1) << key;
  }
  EXPECT_EQ(std::memcmp(before->data(), image->mem(0)->data(), before->byteSize()), 0);
  SharedImageSet twoFrames;
  twoFrames.add(image->getShared(0));
  twoFrames.add(image->getShared(0));
  EXPECT_FALSE(Algo::createCompatible(DataList{&twoFrames}));
  EXPECT_FALSE(Algo::createCompatible(DataList{image.get(), image.get()}));
}
