#include <gtest/gtest.h>
#include <omp.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "ImageComponents.h"
#include "LabelDataComponent.h"
#include "LabelStatisticsAlgorithm.h"
#include "Log.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

// A 4 x 3 image, values 10 * x + y, and a label map:
//   1 1 0 2      label 1: values 0, 10, 1, 11     label 2: value 30 alone
//   1 1 0 0
//   0 0 0 0
struct Phantom {
  std::unique_ptr<SharedImageSet> image;
  std::unique_ptr<SharedImageSet> labels;
  explicit Phantom(int slices = 1) {
    image = TestKit::makeImage<short>({4, 3, slices}, [](int x, int y, int) { return 10 * x + y; });
    image->setName("ct");
    image->get(0)->setSpacing(Eigen::Vector3d(0.5, 2.0, 3.0));
    labels = TestKit::makeImage<unsigned char>({4, 3, slices}, [](int x, int y, int) {
      if (x < 2 && y < 2) return 1;
      return x == 3 && y == 0 ? 2 : 0;
    });
    labels->get(0)->setSpacing(Eigen::Vector3d(0.5, 2.0, 3.0));
    labels->setModality(Data::LABEL);
    labels->setName("organs");
    auto* c = labels->components().getOrCreate<LabelDataComponent>(labels.get());
    c->setLabelName(1, "Liver");
    c->setLabelName(2, "Spleen");
  }
  std::unique_ptr<Algorithm> create() const {
    Algorithm* a = nullptr;
    EXPECT_TRUE(LabelStatisticsAlgorithm::createCompatible(DataList{image.get(), labels.get()}, &a));
    return std::unique_ptr<Algorithm>(a);
  }
};

LabelStatisticsAlgorithm& stats(const std::unique_ptr<Algorithm>& a) { return static_cast<LabelStatisticsAlgorithm&>(*a); }

TEST(LabelStatistics, CsvOfHandMadeLabelMap) {
  TestKit::LogCapture log;
  Phantom p;
  auto a = p.create();
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  // Label 1: mean 5.5, sample SD sqrt(((5.5)^2 * 2 + (4.5)^2 * 2) / 3) = sqrt(101 / 3).
  // Pixel size 0.5 * 2 * 3 = 3 mm^3, z included for a single slice.
  EXPECT_EQ(stats(a).csv(),
            "Label;Minimum;Maximum;Mean;SD;Area (mm²);#Pixels\n"
            "organs/Liver;0;11;5.5;5.8023;12;4\n"
            "organs/Spleen;30;30;30;--;3;1\n");
  EXPECT_TRUE(log.contains("\033[0;11m"));
  EXPECT_TRUE(log.contains("| organs/Liver  |       0 |"));
}

TEST(LabelStatistics, VolumeColumnAndRecords) {
  Phantom p(2);
  auto a = p.create();
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  EXPECT_NE(stats(a).csv().find("Volume (mm³)"), std::string::npos);
  auto r = stats(a).statistics(0, 1);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->pixelCount, 8);
  EXPECT_DOUBLE_EQ(*r->mean, 5.5);
  EXPECT_FALSE(stats(a).statistics(-1, 1));
  EXPECT_FALSE(stats(a).statistics(1, 1));
  EXPECT_FALSE(stats(a).statistics(0, 3));
}

TEST(LabelStatistics, EmptyLabelMapGivesOnlyTheHeader) {
  Phantom p;
  std::memset(p.labels->mem(0)->data(), 0, p.labels->mem(0)->byteSize());
  auto a = p.create();
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  EXPECT_EQ(stats(a).csv(), "Label;Minimum;Maximum;Mean;SD;Area (mm²);#Pixels\n");
}

TEST(LabelStatistics, ImageAloneIsItsOwnLabelMap) {
  auto image = TestKit::makeImage<unsigned char>({3, 1, 1}, [](int x, int, int) { return x == 2 ? 4 : 1; });
  Algorithm* raw = nullptr;
  ASSERT_TRUE(LabelStatisticsAlgorithm::createCompatible(DataList{image.get()}, &raw));
  std::unique_ptr<Algorithm> a(raw);
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  ASSERT_TRUE(stats(a).statistics(0, 1));
  EXPECT_EQ(stats(a).statistics(0, 1)->pixelCount, 2);
  EXPECT_DOUBLE_EQ(*stats(a).statistics(0, 4)->maximum, 4.0);
}

TEST(LabelStatistics, FormattingFollowsPrecisionAndFlags) {
  Phantom p;
  auto a = p.create();
  Properties config;
  config.setParam("floatPrecision", 2);
  config.setParam("floatFormatting", 1);
  a->configure(&config);
  a->compute();
  EXPECT_NE(stats(a).csv().find("organs/Liver;0.00;11.00;5.50;5.80;12.00;4"), std::string::npos) << stats(a).csv();
  config.setParam("floatFormatting", 2);
  config.setParam("floatPrecision", 1);
  a->configure(&config);
  a->compute();
  EXPECT_NE(stats(a).csv().find("organs/Liver;0.0e+00;1.1e+01;5.5e+00"), std::string::npos) << stats(a).csv();
}

// Precision 0..17 and formatting 0..2 are taken; the numbers read as a stream with that
// precision and, for 1 and 2 only, the fixed or scientific flag prints them.
class LabelStatisticsFormatting : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(LabelStatisticsFormatting, ValueInRangeIsPassedToTheStream) {
  const auto [precision, formatting] = GetParam();
  Phantom p;
  auto a = p.create();
  Properties config;
  config.setParam("floatPrecision", precision);
  config.setParam("floatFormatting", formatting);
  a->configure(&config);
  TestKit::LogCapture log;
  a->compute();
  EXPECT_EQ(a->status(), Algorithm::statusSuccess);
  EXPECT_EQ(log.count(Log::Error), 0);
  auto text = [&](double v) {
    std::ostringstream s;
    s.precision(precision);
    if (formatting == 1) s << std::fixed;
    if (formatting == 2) s << std::scientific;
    s << v;
    return s.str();
  };
  // Liver: minimum 0, maximum 11, mean 5.5.
  const std::string row = "organs/Liver;" + text(0) + ";" + text(11) + ";" + text(5.5) + ";";
  EXPECT_NE(stats(a).csv().find(row), std::string::npos) << row << "\n" << stats(a).csv();
}

INSTANTIATE_TEST_SUITE_P(PrecisionAndFormatting, LabelStatisticsFormatting,
                         testing::Values(std::tuple{6, 0}, std::tuple{0, 0}, std::tuple{17, 1}, std::tuple{17, 2}));

class LabelStatisticsBadFormatting
    : public testing::TestWithParam<std::tuple<const char*, int, const char*>> {};

TEST_P(LabelStatisticsBadFormatting, OutOfRangeIsInvalidInputWithNoTable) {
  const auto [key, value, message] = GetParam();
  Phantom p;
  auto a = p.create();
  Properties config;
  config.setParam(key, value);
  a->configure(&config);
  TestKit::LogCapture log;
  a->compute();
  EXPECT_EQ(a->status(), Algorithm::statusInvalidInput);
  EXPECT_TRUE(stats(a).csv().empty());
  ASSERT_EQ(log.count(Log::Error), 1);
  EXPECT_EQ(log.lines()[0].category, "Seg.LabelStatisticsAlgorithm");
  EXPECT_EQ(log.lines()[0].message, message);
}

INSTANTIATE_TEST_SUITE_P(
    Ranges, LabelStatisticsBadFormatting,
    testing::Values(std::tuple{"floatPrecision", 18, "floatPrecision must lie in 0..17, not 18"},
                    std::tuple{"floatPrecision", -1, "floatPrecision must lie in 0..17, not -1"},
                    std::tuple{"floatFormatting", 3, "floatFormatting must lie in 0..2, not 3"},
                    std::tuple{"floatFormatting", -1, "floatFormatting must lie in 0..2, not -1"}));

TEST(LabelStatistics, RealWorldMappingIsOfferedAndApplied) {
  Phantom p;
  auto* rw = p.image->components().getOrCreate<RealWorldMappingDataComponent>();
  rw->setMappings({{"HU", -100.0, 2.0}});
  auto a = p.create();
  Properties shown;
  a->configuration(&shown);
  ASSERT_TRUE(shown.contains("useRealWorldValues"));
  EXPECT_EQ(shown.attribute("useRealWorldValues", "label"), "Use Real-World values (HU)");
  Properties config;
  config.setParam("useRealWorldValues", true);
  a->configure(&config);
  a->compute();
  EXPECT_NE(stats(a).csv().find("Minimum (HU)"), std::string::npos);
  EXPECT_DOUBLE_EQ(*stats(a).statistics(0, 2)->mean, -40.0);  // 30 * 2 - 100

  TestKit::LogCapture log;
  config.setParam("useGPU", true);
  a->configure(&config);
  a->compute();
  EXPECT_TRUE(log.contains("RealWorldValue mapping is not supported on GPU"));
  EXPECT_DOUBLE_EQ(*stats(a).statistics(0, 2)->mean, 30.0);
}

TEST(LabelStatistics, WritesCsvFileAndReportsAnUnwritablePath) {
  Phantom p;
  auto a = p.create();
  const auto path = std::filesystem::temp_directory_path() / ("merivane-stats-" + std::to_string(::getpid()) + ".csv");
  Properties config;
  config.setParam("csvPath", path.string());
  a->configure(&config);
  a->compute();
  ASSERT_EQ(a->status(), Algorithm::statusSuccess);
  std::ifstream in(path);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text, stats(a).csv());
  std::filesystem::remove(path);

  TestKit::LogCapture log;
  config.setParam("csvPath", "/nonexistent/folder/stats.csv");
  a->configure(&config);
  a->compute();
  EXPECT_EQ(a->status(), Algorithm::statusUnknown);
  EXPECT_TRUE(log.contains("Could not open CSV path: /nonexistent/folder/stats.csv"));
  EXPECT_FALSE(stats(a).csv().empty());  // the table in memory stays valid
}

TEST(LabelStatistics, CreatesOnlyForOneSingleChannelImageWithOneFrameLabelMaps) {
  Phantom p;
  auto second = TestKit::makeImage<short>({4, 3, 1}, [](int, int, int) { return 0; });
  auto twoChannels = TestKit::makeSet(F32, {4, 3, 1}, 1, 2);
  auto twoFrames = TestKit::makeSet(U8, {4, 3, 1}, 2);
  twoFrames->setModality(Data::LABEL);
  EXPECT_FALSE(LabelStatisticsAlgorithm::createCompatible(DataList{p.image.get(), second.get()}));
  EXPECT_FALSE(LabelStatisticsAlgorithm::createCompatible(DataList{twoChannels.get()}));
  EXPECT_FALSE(LabelStatisticsAlgorithm::createCompatible(DataList{p.image.get(), twoFrames.get()}));
  EXPECT_FALSE(LabelStatisticsAlgorithm::createCompatible(DataList{p.labels.get()}));
  EXPECT_TRUE(LabelStatisticsAlgorithm::createCompatible(DataList{p.labels.get(), p.image.get(), p.labels.get()}));
}

TEST(LabelStatistics, MismatchedLabelMapGivesInvalidInputAndNoTable) {
  TestKit::LogCapture log;
  Phantom p;
  p.labels->get(0)->setSpacing(Eigen::Vector3d(1, 1, 1));
  auto a = p.create();
  a->compute();
  EXPECT_EQ(a->status(), Algorithm::statusInvalidInput);
  EXPECT_TRUE(stats(a).csv().empty());
  EXPECT_EQ(log.count(Log::Error, "Seg.LabelStatisticsAlgorithm"), 1);
}

TEST(LabelStatistics, TableChecksRowsAndHeader) {
  TestKit::LogCapture log;
  std::ostringstream out;
  EXPECT_FALSE(LabelStatisticsAlgorithm::writeCsvToStream(out, {{"a", "b"}, {"c"}}, {"x", "y"}));
  EXPECT_TRUE(log.contains("Cannot create table with different number of columns"));
  EXPECT_FALSE(LabelStatisticsAlgorithm::writeCsvToStream(out, {{"a", "b"}}, {"x"}));
  EXPECT_TRUE(log.contains("Header has wrong amount of colums"));
  EXPECT_EQ(out.str(), "");
  const std::string table = LabelStatisticsAlgorithm::createAsciiTable({{"1", "22"}}, {"abc", "d"});
  EXPECT_EQ(table, "\n------------\n| abc |  d |\n------------\n| 1   | 22 |\n------------");
}

// Sizes straddling the block edge; results must not depend on the number of threads.
class LabelStatisticsThreads : public testing::TestWithParam<int> {};

TEST_P(LabelStatisticsThreads, SerialEqualsParallel) {
  const int slices = GetParam();
  auto image = TestKit::makeImage<float>({97, 89, slices}, [](int x, int y, int z) { return std::sin(x * 0.3 + y) * 100 + z; });
  auto labels = TestKit::makeImage<unsigned char>({97, 89, slices}, [](int x, int y, int z) { return (x * 7 + y * 3 + z) % 5; });
  labels->setModality(Data::LABEL);
  auto run = [&](int threads) {
    const int before = omp_get_max_threads();
    omp_set_num_threads(threads);
    auto r = Seg::computeLabelStatistics(*image, {labels.get()}, false);
    omp_set_num_threads(before);
    return r;
  };
  const auto serial = run(1), parallel = run(4);
  ASSERT_EQ(serial.size(), 1u);
  ASSERT_EQ(serial[0].size(), 4u);
  for (const auto& [label, r] : serial[0]) {
    const auto& q = parallel[0].at(label);
    EXPECT_EQ(r.pixelCount, q.pixelCount);
    EXPECT_EQ(*r.mean, *q.mean);  // bit for bit
    EXPECT_EQ(*r.standardDeviation, *q.standardDeviation);
    EXPECT_EQ(*r.minimum, *q.minimum);
  }
}

INSTANTIATE_TEST_SUITE_P(Slices, LabelStatisticsThreads, testing::Values(1, 7, 9, 33));

}  // namespace
