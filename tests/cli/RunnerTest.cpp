// The run core called in process, as the demo calls it: data in memory, outputs to a folder.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <thread>

#include "../io/IoTestUtil.h"
#include "ConsoleProgress.h"
#include "FactoryRegistry.h"
#include "ImageIO.h"
#include "Runner.h"
#include "SegAlgorithmFactory.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

class RunnerTest : public testing::Test {
 protected:
  void SetUp() override { FactoryRegistry::get().addAlgorithmFactory(&factory_); }
  void TearDown() override { FactoryRegistry::get().removeAlgorithmFactory(&factory_); }
  SegAlgorithmFactory factory_;
};

TEST_F(RunnerTest, ChangedInputsAreWrittenOnlyWhenChanged) {
  TestKit::ScratchDir dir;
  TestKit::LogCapture log;
  auto bytes = TestKit::makeImage<unsigned char>({3, 3, 1}, [](int x, int, int) { return x; });
  bytes->setName("mask");
  Cli::RunOptions options;
  options.algorithm = "MarkAsLabelMap";
  options.outDir = dir.file("out");
  options.writeInputs = true;
  options.imageExtension = ".mha";
  const auto r = Cli::runOnData(options, DataList{bytes.get()}, {"mask.png"}, nullptr, nullptr);
  ASSERT_EQ(r.exitCode, Cli::exitSuccess) << r.message;
  ASSERT_EQ(r.written, std::vector<std::string>{dir.file("out/mask-updated.mha")});
  std::string error;
  auto back = IO::readImage(r.written[0], &error);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(back->modality(), Data::LABEL);

  // An algorithm that changes nothing in place leaves nothing to write but its outputs.
  auto image = TestKit::makeImage<float>({3, 3, 1}, [](int x, int, int) { return x; });
  options.algorithm = "Seg.MakeCompatibleLabelMap";
  options.outDir = dir.file("out2");
  const auto r2 = Cli::runOnData(options, DataList{image.get()}, {}, nullptr, nullptr);
  ASSERT_EQ(r2.exitCode, Cli::exitSuccess) << r2.message;
  EXPECT_EQ(r2.written, std::vector<std::string>{dir.file("out2/Label_Map.mha")});
}

TEST_F(RunnerTest, OutputsKeptInMemoryAreTheOnesThatWouldBeWritten) {
  TestKit::ScratchDir dir;
  TestKit::LogCapture log;
  auto image = TestKit::makeImage<float>({3, 4, 2}, [](int x, int y, int z) { return x + y + z; });
  Cli::RunOptions options;
  options.algorithm = "MakeCompatibleLabelMap";
  options.outDir = dir.file("kept");
  options.writeOutputs = false;
  options.writeInputs = true;  // ignored when the outputs stay in memory
  const auto kept = Cli::runOnData(options, DataList{image.get()}, {}, nullptr, nullptr);
  ASSERT_EQ(kept.exitCode, Cli::exitSuccess) << kept.message;
  EXPECT_TRUE(kept.written.empty());
  EXPECT_TRUE(std::filesystem::is_empty(dir.file("kept")));
  ASSERT_EQ(kept.outputs.size(), 1u);

  options.outDir = dir.file("written");
  options.writeOutputs = true;
  options.imageExtension = ".nrrd";
  const auto written = Cli::runOnData(options, DataList{image.get()}, {}, nullptr, nullptr);
  ASSERT_EQ(written.written.size(), 1u);
  std::string error;
  auto back = IO::readImage(written.written[0], &error);
  ASSERT_TRUE(back) << error;
  const SharedImageSet* mem = kept.outputs[0]->asImageSet();
  ASSERT_TRUE(mem);
  EXPECT_EQ(mem->modality(), back->modality());
  ASSERT_EQ(mem->mem(0)->byteSize(), back->mem(0)->byteSize());
  EXPECT_EQ(std::memcmp(mem->mem(0)->data(), back->mem(0)->data(), back->mem(0)->byteSize()), 0);
}

TEST_F(RunnerTest, UnknownSettingIsReportedAndStatusFailureNamesTheLogLine) {
  TestKit::ScratchDir dir;
  TestKit::LogCapture log;
  auto image = TestKit::makeImage<float>({4, 4, 1}, [](int x, int, int) { return x; });
  Cli::RunOptions options;
  auto seeds = TestKit::makeImage<unsigned char>({4, 4, 1}, [](int x, int, int) { return x == 0 ? 1 : (x == 3 ? 2 : 0); });
  seeds->setModality(Data::LABEL);
  options.algorithm = "GraphBasedSegmentation";
  options.outDir = dir.file("out");
  options.configuration.setRawParam("Solver Idd", "3");
  options.configuration.setRawParam("Solver ID", "8");
  const auto r = Cli::runOnData(options, DataList{image.get(), seeds.get()}, {}, nullptr, nullptr);
  EXPECT_TRUE(log.contains("has no parameter 'Solver Idd'"));
  EXPECT_EQ(r.exitCode, Cli::exitAlgorithmFailed);
  EXPECT_EQ(r.status, Algorithm::statusInvalidInput);
  EXPECT_NE(r.message.find("Solver ID must lie in 0..7, not 8"), std::string::npos) << r.message;
}

// Must stay the last test of this program: the Ctrl-C flag is not reset.
TEST_F(RunnerTest, CtrlCCancelsThroughProgressAndWritesNothing) {
  TestKit::ScratchDir dir;
  TestKit::LogCapture log;
  Cli::installInterruptHandler();
  Cli::ConsoleProgress progress(false);
  std::raise(SIGINT);
  for (int i = 0; i < 200 && !progress.isCanceled(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_TRUE(Cli::interrupted());
  ASSERT_TRUE(progress.isCanceled());

  auto image = TestKit::makeImage<short>({300, 300, 4}, [](int x, int y, int) { return x + y; });
  Cli::RunOptions options;
  options.algorithm = "LabelStatistics";
  options.outDir = dir.file("out");
  options.configuration.setRawParam("csvPath", "stats.csv");
  const auto r = Cli::runOnData(options, DataList{image.get()}, {}, &progress, &Cli::interruptFlag());
  EXPECT_EQ(r.exitCode, Cli::exitCanceled);
  EXPECT_TRUE(r.written.empty());
  EXPECT_FALSE(std::filesystem::exists(dir.file("out/stats.csv")));
}

}  // namespace
