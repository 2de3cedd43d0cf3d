#include <gtest/gtest.h>

#include "AlgorithmUtils.h"
#include "Log.h"
#include "Parameter.h"
#include "Progress.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

namespace {

using namespace Merivane;

// Sums channel 0 of every input set at pixel (0,0) into a one-pixel output; the
// configured status code is what compute reports, -1 meaning "never set".
class SumAlgorithm : public Algorithm {
 public:
  static inline int live = 0;
  static inline int created = 0;
  static inline int seenStatusParam = 0;
  static inline Progress* seenProgress = nullptr;

  explicit SumAlgorithm(std::vector<SharedImageSet*> inputs) : inputs_(std::move(inputs)) {
    ++live;
    ++created;
  }
  ~SumAlgorithm() override { --live; }

  // Two or more CT image sets.
  static bool createCompatible(const DataList& data, Algorithm** a) {
    auto images = data.getImages(Data::kindAny, Data::CT);
    if (data.size() < 2 || images.size() != static_cast<size_t>(data.size())) return false;
    if (a) *a = new SumAlgorithm(images);
    return true;
  }

  void compute() override {
    seenStatusParam = statusCode;
    seenProgress = progress();
    float sum = 0;
    for (auto* set : inputs_) sum += static_cast<TypedImage<float>*>(set->mem(0))->value(0, 0);
    output_.add(TestKit::makeImage<float>(Eigen::Vector3i(1, 1, 1), [&](int, int, int) { return sum; }));
    if (statusCode != statusUnknown) setStatus(statusCode);
  }
  OwningDataList takeOutput() override { return std::move(output_); }

  Parameter<int> statusCode{"status code", statusUnknown, this};

 private:
  std::vector<SharedImageSet*> inputs_;
  OwningDataList output_;
};

// Relies on the base class for takeOutput.
class SilentAlgorithm : public Algorithm {
 public:
  static bool createCompatible(const DataList&, Algorithm** a) {
    if (a) *a = new SilentAlgorithm;
    return true;
  }
  void compute() override { setStatus(statusSuccess); }
};

std::unique_ptr<SharedImageSet> ctImage(float value) {
  auto set = TestKit::makeImage<float>(Eigen::Vector3i(2, 2, 1), [&](int x, int y, int) { return value + x + y; });
  set->setModality(Data::CT);
  return set;
}

float firstPixel(OwningDataList& out) {
  auto set = out.extractFirstImage();
  return set ? static_cast<TypedImage<float>*>(set->mem(0))->value(0, 0) : -1.0f;
}

class AlgorithmUtilsTest : public testing::Test {
 protected:
  void SetUp() override {
    SumAlgorithm::created = 0;
    SumAlgorithm::seenProgress = nullptr;
    SumAlgorithm::seenStatusParam = 0;
  }
  void TearDown() override { EXPECT_EQ(SumAlgorithm::live, 0) << "execute leaked its algorithm"; }
  void expectOneError(const std::string& message) {
    ASSERT_EQ(log_.lines().size(), 1u);
    EXPECT_EQ(log_.lines()[0].level, Log::Error);
    EXPECT_EQ(log_.lines()[0].category, "AlgorithmUtils");
    EXPECT_EQ(log_.lines()[0].message, message);
  }
  TestKit::LogCapture log_;
  std::unique_ptr<SharedImageSet> a_ = ctImage(1), b_ = ctImage(2);
};

TEST_F(AlgorithmUtilsTest, IncompatibleInputCreatesNothingAndLogsOnce) {
  auto mri = ctImage(3);
  mri->setModality(Data::MRI);
  for (const DataList& list : {DataList{}, DataList{a_.get()}, DataList{a_.get(), mri.get()}}) {
    log_.clear();
    EXPECT_FALSE(AlgorithmUtils::execute<SumAlgorithm>(list, Properties()).has_value());
    expectOneError("Called execute with incompatible input data list.");
  }
  EXPECT_EQ(SumAlgorithm::created, 0);
}

TEST_F(AlgorithmUtilsTest, UnsetStatusCountsAsSuccessAndConfigurationComesFirst) {
  Progress progress;
  auto out = AlgorithmUtils::execute<SumAlgorithm>(DataList{a_.get(), b_.get()}, Properties(), &progress);
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(SumAlgorithm::seenProgress, &progress);
  EXPECT_EQ(firstPixel(*out), 3.0f);
  EXPECT_TRUE(log_.lines().empty());

  // Status 0 set through the configuration: only visible in compute if applied before it.
  Properties config{{"status code", "0"}};
  out = AlgorithmUtils::execute<SumAlgorithm>(DataList{a_.get(), b_.get(), a_.get()}, config);
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(SumAlgorithm::seenStatusParam, 0);
  EXPECT_EQ(SumAlgorithm::seenProgress, nullptr);
  EXPECT_EQ(firstPixel(*out), 4.0f);
  EXPECT_EQ(SumAlgorithm::created, 2);
}

TEST_F(AlgorithmUtilsTest, FailedStatusGivesNothingAndLogsTheCode) {
  Properties config{{"status code", "1"}};
  auto out = AlgorithmUtils::execute<SumAlgorithm>(DataList{a_.get(), b_.get()}, config);
  EXPECT_FALSE(out.has_value());
  EXPECT_EQ(SumAlgorithm::seenStatusParam, 1);
  expectOneError("Execution of algorithm failed, returned status code: 1");
}

TEST_F(AlgorithmUtilsTest, SuccessWithoutOutputIsAnEmptyListNotAFailure) {
  SilentAlgorithm direct;
  EXPECT_TRUE(direct.takeOutput().empty());
  auto out = AlgorithmUtils::execute<SilentAlgorithm>(DataList{}, Properties());
  ASSERT_TRUE(out.has_value());
  EXPECT_TRUE(out->empty());
}

TEST_F(AlgorithmUtilsTest, FrameOverloadBorrowsFramesWithoutOwningThem) {
  SharedImage f1(std::shared_ptr<Image>(TypedImage<float>::zeros(Eigen::Vector3i(2, 2, 1))));
  SharedImage f2(std::shared_ptr<Image>(TypedImage<float>::zeros(Eigen::Vector3i(2, 2, 1))));
  static_cast<TypedImage<float>*>(f1.mem())->setValue(10, 0, 0);
  static_cast<TypedImage<float>*>(f2.mem())->setValue(32, 0, 0);
  f1.setModality(Data::CT);
  f2.setModality(Data::CT);

  auto out = AlgorithmUtils::execute<SumAlgorithm>(std::vector<SharedImage*>{&f1, &f2}, Properties());
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(firstPixel(*out), 42.0f);
  // Still ours, still intact: the wrapping sets must not have deleted or changed them.
  EXPECT_EQ(static_cast<TypedImage<float>*>(f1.mem())->value(0, 0), 10.0f);
  EXPECT_EQ(static_cast<TypedImage<float>*>(f2.mem())->value(0, 0), 32.0f);
  EXPECT_EQ(f1.modality(), Data::CT);

  // The frame's modality is what the algorithm sees.
  f2.setModality(Data::MRI);
  EXPECT_FALSE(AlgorithmUtils::execute<SumAlgorithm>(std::vector<SharedImage*>{&f1, &f2}, Properties()));
  EXPECT_EQ(static_cast<TypedImage<float>*>(f2.mem())->value(0, 0), 32.0f);
}

}  // namespace
