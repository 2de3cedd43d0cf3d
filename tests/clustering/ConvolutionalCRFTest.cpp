#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>

#include "ConvolutionalCRF.h"
#include "ConvolutionalCRFAlgorithm.h"
#include "Log.h"
#include "Progress.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;
using Algo = ConvolutionalCRFAlgorithm;
using U8Image = TypedImage<unsigned char>;

namespace {

constexpr const char* kCategory = "ConvolutionalCRFAlgorithm";

// A 32 x 32 (x depth) step image, dark left of x = 16, bright from it, with a little noise.
std::unique_ptr<SharedImageSet> stepImage(int depth = 1) {
  return TestKit::makeImage<float>({32, 32, depth}, [](int x, int y, int z) {
    return (x < 16 ? 100.0 : 300.0) + 5.0 * TestKit::hashNoise(x, y, z);
  });
}

// The matching label map with salt: label 1 from x = 16, and wrong labels at `wrong`.
std::unique_ptr<SharedImageSet> stepLabels(int depth, const std::vector<Eigen::Vector3i>& wrong) {
  auto set = TestKit::makeImage<unsigned char>({32, 32, depth}, [](int x, int, int) { return x < 16 ? 0 : 1; });
  auto* m = dynamic_cast<U8Image*>(set->mem(0));
  for (const auto& p : wrong) m->setValue(1 - m->value(p[0], p[1], p[2]), p[0], p[1], p[2]);
  set->setModality(Data::LABEL);
  return set;
}

std::unique_ptr<Algo> create(SharedImageSet& image, SharedImageSet& scores) {
  Algorithm* raw = nullptr;
  EXPECT_TRUE(Algo::createCompatible(DataList{&image, &scores}, &raw));
  return std::unique_ptr<Algo>(static_cast<Algo*>(raw));
}

std::unique_ptr<SharedImageSet> labelsOf(Algo& algo) { return algo.takeOutput().extractFirstImage(); }

}  // namespace

class CrfFlips : public testing::TestWithParam<int> {};

// Isolated wrong labels flip; the edge stays where the image has it (2D and 3D).
TEST_P(CrfFlips, IsolatedWrongPixelsFlipAndTheEdgeStays) {
  const int depth = GetParam();
  auto image = stepImage(depth);
  const std::vector<Eigen::Vector3i> wrong{{7, 9, depth / 2}, {24, 20, depth / 2}, {15, 3, 0}};
  auto scores = stepLabels(depth, wrong);
  auto algo = create(*image, *scores);
  algo->compute();
  ASSERT_EQ(algo->status(), Algorithm::statusSuccess);
  auto labels = labelsOf(*algo);
  ASSERT_TRUE(labels);
  EXPECT_EQ(labels->modality(), Data::LABEL);
  const auto* out = dynamic_cast<U8Image*>(labels->mem(0));
  int differ = 0;
  for (int z = 0; z < depth; ++z)
    for (int y = 0; y < 32; ++y)
      for (int x = 0; x < 32; ++x) differ += out->value(x, y, z) != (x < 16 ? 0 : 1);
  EXPECT_EQ(differ, 0);
}
INSTANTIATE_TEST_SUITE_P(TwoAndThreeD, CrfFlips, testing::Values(1, 6));

// A Potts energy of the hard labels: disagreement with the given labels plus 4-neighbour pairs
// of like intensity that carry different labels. The CRF must not raise it.
TEST(ConvolutionalCRF, PottsEnergyDoesNotRise) {
  auto image = stepImage();
  std::vector<Eigen::Vector3i> wrong;
  for (int i = 0; i < 40; ++i) wrong.push_back({(i * 13) % 32, (i * 7 + 3) % 32, 0});
  auto scores = stepLabels(1, wrong);
  const auto* in = dynamic_cast<U8Image*>(scores->mem(0));
  const auto energy = [&](const U8Image& l) {
    int e = 0;
    for (int y = 0; y < 32; ++y)
      for (int x = 0; x < 32; ++x) {
        e += l.value(x, y) != in->value(x, y);
        if (x + 1 < 32 && (x < 16) == (x + 1 < 16)) e += l.value(x, y) != l.value(x + 1, y);
        if (y + 1 < 32) e += l.value(x, y) != l.value(x, y + 1);
      }
    return e;
  };
  auto algo = create(*image, *scores);
  for (int iterations : {1, 3, 10}) {
    algo->maxNumIter = iterations;
    algo->compute();
    auto labels = labelsOf(*algo);
    ASSERT_TRUE(labels);
    EXPECT_LE(energy(*dynamic_cast<U8Image*>(labels->mem(0))), energy(*in)) << iterations;
  }
}

TEST(ConvolutionalCRF, NoIterationsGiveTheInputAndOneChannelScoresGiveTwoClasses) {
  auto image = stepImage();
  auto scores = stepLabels(1, {{5, 5, 0}});
  auto algo = create(*image, *scores);
  algo->maxNumIter = 0;
  algo->compute();
  auto labels = labelsOf(*algo);
  EXPECT_EQ(std::memcmp(labels->mem(0)->data(), scores->mem(0)->data(), 32 * 32), 0);

  auto p = TestKit::makeImage<float>({32, 32, 1}, [](int x, int, int) { return x < 16 ? 0.2 : 0.9; });
  auto probs = create(*image, *p);
  probs->outputMode = Algo::OutputMode::Probability;
  probs->maxNumIter = 0;
  probs->compute();
  auto q = probs->takeOutput().extractFirstImage();
  ASSERT_TRUE(q);
  ASSERT_EQ(q->mem(0)->channels(), 2);
  const auto* v = static_cast<const TypedImage<float>*>(q->mem(0));
  // softmax(1 - p, p) at x = 20: p = 0.9.
  const double e = std::exp(0.9 - 0.1);
  EXPECT_NEAR(v->value(20, 4, 0, 1), e / (1 + e), 1e-5);
  EXPECT_NEAR(v->value(20, 4, 0, 0) + v->value(20, 4, 0, 1), 1.0, 1e-6);
}

TEST(ConvolutionalCRF, WindowLargerThanTheImageIsCutAndReductionPadsWithTheEdge) {
  auto image = TestKit::makeImage<float>({5, 3, 1}, [](int x, int, int) { return x; });
  auto scores = TestKit::makeImage<unsigned char>({5, 3, 1}, [](int x, int, int) { return x > 2; });
  auto algo = create(*image, *scores);
  algo->radius = 20;
  algo->compute();
  EXPECT_EQ(algo->status(), Algorithm::statusSuccess);
  // 5 x 3 at factor 2 pads to 6 x 4: the padded column and row repeat the last real ones.
  const std::vector<float> in{0, 1, 2, 3, 4, 10, 11, 12, 13, 14, 20, 21, 22, 23, 24};
  const auto r = Seg::internal::ConvolutionalCRF::reduce(in, {5, 3, 1}, 1, 2);
  ASSERT_EQ(r.size(), 6u);
  EXPECT_FLOAT_EQ(r[0], (0 + 1 + 10 + 11) / 4.0f);
  EXPECT_FLOAT_EQ(r[2], (4 + 4 + 14 + 14) / 4.0f);
  EXPECT_FLOAT_EQ(r[5], (24 + 24 + 24 + 24) / 4.0f);
}

TEST(ConvolutionalCRF, SerialEqualsParallel) {
  auto image = TestKit::makeImage<float>({70, 33, 9}, [](int x, int y, int z) { return TestKit::hashNoise(x, y, z) + (x > 30); });
  auto scores = TestKit::makeImage<unsigned char>({70, 33, 9}, [](int x, int y, int z) { return (x + y + z) % 3; });
  scores->setModality(Data::LABEL);
  auto run = [&](int threads) {
    omp_set_num_threads(threads);
    auto algo = create(*image, *scores);
    algo->outputMode = Algo::OutputMode::Probability;
    algo->maxNumIter = 4;
    algo->compute();
    return algo->takeOutput().extractFirstImage();
  };
  auto a = run(1), b = run(2);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(std::memcmp(a->mem(0)->data(), b->mem(0)->data(), a->mem(0)->byteSize()), 0);
}

TEST(ConvolutionalCRF, CompatibilityOverridesAndInvalidPairsWarn) {
  auto image = stepImage();
  auto scores = stepLabels(1, {});
  auto algo = create(*image, *scores);
  TestKit::LogCapture log;
  algo->labelCompatibilites = "0, 1, 0.5; 3,0,2 junk 1 ,1, -1";
  algo->compute();
  EXPECT_EQ(algo->status(), Algorithm::statusSuccess);
  EXPECT_EQ(log.count(Log::Warning, kCategory), 1);
  EXPECT_TRUE(log.contains("Invalid label pair (3, 0) for input with 2 classes"));
}

TEST(ConvolutionalCRF, FailuresSetStatusTwoLogOnceAndLeaveTheInput) {
  auto image = stepImage();
  auto scores = stepLabels(1, {{3, 3, 0}});
  auto before = scores->mem(0)->clone();
  const auto expectFailure = [&](Algo& algo, const std::string& text) {
    TestKit::LogCapture log;
    algo.compute();
    EXPECT_EQ(algo.status(), Algorithm::statusInvalidInput) << text;
    EXPECT_EQ(log.count(Log::Error, kCategory), 1) << text;
    EXPECT_TRUE(log.contains(text)) << text;
    EXPECT_EQ(algo.takeOutput().size(), 0);
  };
  {
    auto a = create(*image, *scores);
    a->radius = 0;
    expectFailure(*a, "Radius must be >= 1, got: 0");
  }
  {
    auto a = create(*image, *scores);
    a->maxNumIter = -1;
    expectFailure(*a, "Maximum number of iterations must be >= 0, got: -1");
  }
  {
    auto a = create(*image, *scores);
    a->smoothnessSigma = 0;
    expectFailure(*a, "Sigma parameters must be > 0");
  }
  {
    auto twoChannels = TestKit::makeSet(U8, {32, 32, 1}, 1, 2);
    twoChannels->setModality(Data::LABEL);
    auto a = create(*image, *twoChannels);
    expectFailure(*a, "labelScores appears to be a labelmap but has more than one channel");
  }
  {
    auto big = TestKit::makeSet(U8, {2048, 2048, 1});
    auto bigScores = TestKit::makeSet(U8, {2048, 2048, 1});
    auto a = create(*big, *bigScores);
    a->radius = 60;
    a->downsampling = 1;
    expectFailure(*a, "Configuration would create a kernel of size greater than 4Gb");
  }
  EXPECT_EQ(std::memcmp(before->data(), scores->mem(0)->data(), before->byteSize()), 0);
  auto mri = stepImage();
  mri->setModality(Data::MRI);
  EXPECT_FALSE(Algo::createCompatible(DataList{image.get(), mri.get()}));
  EXPECT_FALSE(Algo::createCompatible(DataList{image.get()}));
}

TEST(ConvolutionalCRF, CancelGivesStatus1000) {
  auto image = stepImage();
  auto scores = stepLabels(1, {});
  auto algo = create(*image, *scores);
  Progress progress;
  progress.cancelAllTasks();
  algo->setProgress(&progress);
  algo->compute();
  EXPECT_EQ(algo->status(), Algorithm::statusCanceled);
  EXPECT_EQ(algo->takeOutput().size(), 0);
  EXPECT_EQ(Algo(image.get(), stepLabels(3, {}).get()).radius.value(), 5);
  auto volume = stepImage(4);
  EXPECT_EQ(Algo(volume.get(), nullptr).radius.value(), 3);
}
