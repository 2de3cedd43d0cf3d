// `merivane batch` locally: case tables and patterns, cohorts of phantoms end to end, resuming,
// a run killed mid-case, serial against parallel, and the checks that stop a batch early.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <thread>

#include "../io/IoTestUtil.h"
#include "Batch.h"
#include "CsvIO.h"
#include "ImageIO.h"
#include "TestSupport.h"

using namespace Merivane;
namespace fs = std::filesystem;

namespace {

struct Outcome {
  int code;
  std::string err;
};

Outcome merivane(const TestKit::ScratchDir& dir, const std::string& args) {
  const std::string err = dir.file("stderr.txt");
  const std::string command = std::string(MERIVANE_BIN) + " " + args + " > /dev/null 2> " + err + " < /dev/null";
  const int raw = std::system(command.c_str());
  Outcome r{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, TestKit::readBytes(err)};
  fs::remove(err);
  return r;
}

// Two flat regions with one seed in each; the watershed labels the left half 1, the right 2.
void writeCase(const fs::path& folder, int width) {
  fs::create_directories(folder);
  auto image = TestKit::makeImage<float>({width, 6, 3}, [&](int x, int, int) { return x < width / 2 ? 100.0f : 300.0f; });
  auto seeds = TestKit::makeImage<unsigned char>({width, 6, 3}, [&](int x, int y, int z) {
    if (y != 3 || z != 1) return 0;
    return x == 1 ? 1 : (x == width - 2 ? 2 : 0);
  });
  std::string error;
  ASSERT_TRUE(IO::writeImage(*image, (folder / "image.nrrd").string(), &error)) << error;
  ASSERT_TRUE(IO::writeImage(*seeds, (folder / "seeds.nrrd").string(), &error)) << error;
}

struct SummaryRow {
  std::string status;
  int exitCode;
  std::string message;
  std::string outputs;
};

// Rows by case; a case listed twice fails the test.
std::map<std::string, SummaryRow> readSummary(const fs::path& out) {
  std::vector<IO::CsvRow> rows;
  EXPECT_TRUE(IO::parseCsv(TestKit::readBytes((out / "summary.csv").string()), rows, ','));
  std::map<std::string, SummaryRow> byCase;
  if (rows.empty()) return byCase;
  EXPECT_EQ(rows[0], (IO::CsvRow{"case", "status", "exit_code", "seconds", "message", "outputs"}));
  for (size_t i = 1; i < rows.size(); ++i) {
    if (rows[i].size() == 1 && rows[i][0].empty()) continue;
    EXPECT_EQ(rows[i].size(), 6u);
    if (rows[i].size() != 6u) continue;
    EXPECT_TRUE(byCase.emplace(rows[i][0], SummaryRow{rows[i][1], std::stoi(rows[i][2]), rows[i][4], rows[i][5]}).second)
        << rows[i][0] << " listed twice";
  }
  return byCase;
}

bool done(const fs::path& out, const std::string& name) { return fs::exists(out / name / Cli::kDoneMarker); }

// The watershed's answer: left half 1, right half 2.
void expectSplit(const fs::path& labels, int width) {
  std::string error;
  auto set = IO::readImage(labels.string(), &error);
  ASSERT_TRUE(set) << error;
  const auto* p = static_cast<const unsigned char*>(set->mem(0)->data());
  for (int i = 0; i < width * 6 * 3; ++i) ASSERT_EQ(p[i], i % width < width / 2 ? 1 : 2) << labels << " voxel " << i;
}

const char* kRun = "batch WatershedSegmentation --write-inputs";

TEST(Batch, MissingFileFailsItsCaseByNameWhileTheOthersFinishAndARerunSkipsThem) {
  TestKit::ScratchDir dir;
  for (const char* c : {"a", "b", "c"}) writeCase(dir.path() / "data" / c, 10);
  // Paths relative to the table's folder, one absolute, one quoted with a comma in it.
  fs::create_directories(dir.path() / "data" / "d,e");
  fs::rename(dir.path() / "data" / "c", dir.path() / "data" / "d,e" / "c");
  TestKit::writeBytes(dir.file("data/cases.csv"),
                      "case,in,in-labels\n"
                      "a,a/image.nrrd,a/seeds.nrrd\n"
                      "b," + dir.file("data/b/image.nrrd") + ",b/seeds.nrrd\n"
                      "\n"
                      "c,\"d,e/c/image.nrrd\",\"d,e/c/seeds.nrrd\"\n"
                      "lost,a/image.nrrd,lost/seeds.nrrd\n");
  const fs::path out = dir.path() / "out";
  Outcome r = merivane(dir, std::string(kRun) + " --jobs 2 --cases " + dir.file("data/cases.csv") + " --out " + out.string());
  EXPECT_EQ(r.code, 1) << r.err;
  auto rows = readSummary(out);
  ASSERT_EQ(rows.size(), 4u);
  for (const char* c : {"a", "b", "c"}) {
    EXPECT_EQ(rows[c].status, "ok") << c << ": " << rows[c].message;
    EXPECT_EQ(rows[c].outputs, std::string(c) + "/seeds-updated.nrrd");
    EXPECT_TRUE(done(out, c));
    expectSplit(out / c / "seeds-updated.nrrd", 10);
  }
  EXPECT_EQ(rows["lost"].status, "failed");
  EXPECT_EQ(rows["lost"].exitCode, 3);
  EXPECT_NE(rows["lost"].message.find("case 'lost'"), std::string::npos) << rows["lost"].message;
  EXPECT_NE(rows["lost"].message.find("lost/seeds.nrrd"), std::string::npos) << rows["lost"].message;
  EXPECT_FALSE(fs::exists(out / "lost"));
  EXPECT_TRUE(fs::exists(out / "lost.failed.log"));

  // The rerun runs only what is not done: the one case, now that its file is there.
  fs::create_directories(dir.path() / "data" / "lost");
  fs::copy_file(dir.path() / "data" / "a" / "seeds.nrrd", dir.path() / "data" / "lost" / "seeds.nrrd");
  const auto before = fs::last_write_time(out / "a" / "seeds-updated.nrrd");
  r = merivane(dir, std::string(kRun) + " --cases " + dir.file("data/cases.csv") + " --out " + out.string());
  EXPECT_EQ(r.code, 0) << r.err;
  rows = readSummary(out);
  for (const char* c : {"a", "b", "c"}) {
    EXPECT_EQ(rows[c].status, "skipped") << c;
    EXPECT_EQ(rows[c].outputs, std::string(c) + "/seeds-updated.nrrd") << "the record of the earlier run";
  }
  EXPECT_EQ(fs::last_write_time(out / "a" / "seeds-updated.nrrd"), before);
  EXPECT_EQ(rows["lost"].status, "ok") << rows["lost"].message;
  expectSplit(out / "lost" / "seeds-updated.nrrd", 10);
  EXPECT_FALSE(fs::exists(out / "lost.failed.log"));
}

TEST(Batch, FailingRunIsRecordedWithTheReasonItGave) {
  TestKit::ScratchDir dir;
  writeCase(dir.path() / "cases" / "good", 10);
  fs::create_directories(dir.path() / "cases" / "bad");
  TestKit::writeBytes(dir.file("cases/bad/image.nrrd"), "NRRD0004\ntype: float\n");  // header cut short
  fs::copy_file(dir.path() / "cases" / "good" / "seeds.nrrd", dir.path() / "cases" / "bad" / "seeds.nrrd");
  const fs::path out = dir.path() / "out";
  const Outcome r = merivane(dir, std::string(kRun) + " --cases '" + dir.file("cases/*/") +
                                      "' --in '{case}/image.nrrd' --in-labels '{case}/seeds.nrrd' --out " + out.string());
  EXPECT_EQ(r.code, 1) << r.err;
  auto rows = readSummary(out);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows["good"].status, "ok");
  EXPECT_EQ(rows["bad"].status, "failed");
  EXPECT_EQ(rows["bad"].exitCode, 3) << "run's exit code for an unreadable file";
  EXPECT_NE(rows["bad"].message.find("case 'bad'"), std::string::npos) << rows["bad"].message;
  EXPECT_NE(rows["bad"].message.find("image.nrrd"), std::string::npos) << rows["bad"].message;
  EXPECT_FALSE(fs::exists(out / "bad"));
  EXPECT_NE(TestKit::readBytes((out / "bad.failed.log").string()).find("image.nrrd"), std::string::npos);
}

TEST(Batch, SerialAndParallelRunsWriteTheSameFiles) {
  TestKit::ScratchDir dir;
  const int widths[] = {8, 10, 12, 14, 16};
  for (int i = 0; i < 5; ++i) writeCase(dir.path() / "data" / ("case" + std::to_string(i)), widths[i]);
  std::string table = "case,in,in-labels\n";
  for (int i = 0; i < 5; ++i) {
    const std::string c = "case" + std::to_string(i);
    table += c + "," + c + "/image.nrrd," + c + "/seeds.nrrd\n";
  }
  TestKit::writeBytes(dir.file("data/cases.csv"), table);
  for (const char* jobs : {"1", "4"}) {
    const Outcome r = merivane(dir, std::string(kRun) + " --jobs " + jobs + " --cases " + dir.file("data/cases.csv") +
                                        " --out " + dir.file(std::string("out") + jobs));
    ASSERT_EQ(r.code, 0) << r.err;
  }
  const auto serial = readSummary(dir.path() / "out1"), parallel = readSummary(dir.path() / "out4");
  ASSERT_EQ(serial.size(), 5u);
  for (int i = 0; i < 5; ++i) {
    const std::string c = "case" + std::to_string(i);
    EXPECT_EQ(serial.at(c).outputs, parallel.at(c).outputs);
    EXPECT_EQ(TestKit::readBytes(dir.file("out1/" + c + "/seeds-updated.nrrd")),
              TestKit::readBytes(dir.file("out4/" + c + "/seeds-updated.nrrd")))
        << c;
    expectSplit(dir.path() / "out4" / c / "seeds-updated.nrrd", widths[i]);
  }
}

// The parent of process `pid`, or -1.
pid_t parentOf(pid_t pid) {
  const std::string stat = TestKit::readBytes("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');  // stat: pid (comm) state ppid ...
  char state = 0;
  int ppid = -1;
  if (close == std::string::npos || std::sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid) != 2) return -1;
  return ppid;
}

TEST(Batch, RunKilledMidCaseLeavesNoMarkerAndIsRedoneOnResume) {
  TestKit::ScratchDir dir;
  for (const char* c : {"a", "b", "slow"}) writeCase(dir.path() / "cases" / c, 10);
  // The run of "slow" tells its pid and then waits to be killed; the others are real runs.
  const std::string started = dir.file("started");
  TestKit::writeBytes(dir.file("program.sh"), "#!/bin/sh\n"
                                              "case \"$*\" in *cases/slow/*)\n"
                                              "  echo $$ > " + started + ".tmp && mv " + started + ".tmp " + started + "\n"
                                              "  exec sleep 600;;\n"
                                              "esac\n"
                                              "exec " + std::string(MERIVANE_BIN) + " \"$@\"\n");
  fs::permissions(dir.file("program.sh"), fs::perms::owner_all);
  const fs::path out = dir.path() / "out";
  const std::string args = std::string(kRun) + " --jobs 3 --cases '" + dir.file("cases/*/") +
                           "' --in '{case}/image.nrrd' --in-labels '{case}/seeds.nrrd' --out " + out.string();

  const pid_t batch = ::fork();
  ASSERT_GE(batch, 0);
  if (batch == 0) {
    const std::string command = "exec " + std::string(MERIVANE_BIN) + " " + args + " --merivane " +
                                dir.file("program.sh") + " > /dev/null 2> " + dir.file("batch-stderr.txt") +
                                " < /dev/null";
    ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  for (int i = 0; i < 600 && !fs::exists(started); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_TRUE(fs::exists(started)) << "the run of the slow case never started";
  const pid_t run = static_cast<pid_t>(std::stoi(TestKit::readBytes(started)));
  EXPECT_EQ(parentOf(run), batch) << "each case runs as a child of the batch";
  EXPECT_FALSE(done(out, "slow"));
  ASSERT_EQ(::kill(run, SIGKILL), 0);
  int raw = 0;
  ASSERT_EQ(::waitpid(batch, &raw, 0), batch);
  ASSERT_TRUE(WIFEXITED(raw));
  EXPECT_EQ(WEXITSTATUS(raw), 1) << TestKit::readBytes(dir.file("batch-stderr.txt"));

  auto rows = readSummary(out);
  EXPECT_EQ(rows["a"].status, "ok");
  EXPECT_EQ(rows["b"].status, "ok");
  EXPECT_EQ(rows["slow"].status, "failed");
  EXPECT_EQ(rows["slow"].exitCode, 128 + SIGKILL);
  EXPECT_NE(rows["slow"].message.find("case 'slow'"), std::string::npos) << rows["slow"].message;
  EXPECT_NE(rows["slow"].message.find("signal 9"), std::string::npos) << rows["slow"].message;
  EXPECT_FALSE(fs::exists(out / "slow"));
  for (const auto& entry : fs::directory_iterator(out))
    EXPECT_NE(entry.path().filename().string().rfind(".tmp-", 0), 0u) << "left behind: " << entry.path();

  const Outcome r = merivane(dir, args);
  EXPECT_EQ(r.code, 0) << r.err;
  rows = readSummary(out);
  EXPECT_EQ(rows["a"].status, "skipped");
  EXPECT_EQ(rows["b"].status, "skipped");
  EXPECT_EQ(rows["slow"].status, "ok") << rows["slow"].message;
  expectSplit(out / "slow" / "seeds-updated.nrrd", 10);
}

// Mistakes that would fail every case stop the batch before any case starts.
struct EarlyStop {
  const char* label;
  const char* arguments;  // after the table and --out
  const char* table;
  int code;
  const char* says;
};

class BatchEarlyStop : public ::testing::TestWithParam<EarlyStop> {};

TEST_P(BatchEarlyStop, NothingRunsAndTheReasonIsGiven) {
  const EarlyStop& p = GetParam();
  TestKit::ScratchDir dir;
  writeCase(dir.path() / "a", 10);
  TestKit::writeBytes(dir.file("cases.csv"), p.table);
  const std::string command = std::string("batch ") + p.arguments + " --cases " + dir.file("cases.csv") + " --out " +
                              dir.file("out");
  const Outcome r = merivane(dir, command);
  EXPECT_EQ(r.code, p.code) << r.err;
  EXPECT_NE(r.err.find(p.says), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir.path() / "out" / "summary.csv"));
  EXPECT_FALSE(fs::exists(dir.path() / "out" / "a"));
}

const char* kGoodTable = "case,in,in-labels\na,a/image.nrrd,a/seeds.nrrd\nb,a/image.nrrd,missing.nrrd\n";

INSTANTIATE_TEST_SUITE_P(
    Mistakes, BatchEarlyStop,
    ::testing::Values(
        EarlyStop{"UnknownAlgorithm", "NoSuchThing", kGoodTable, 4, "unknown algorithm 'NoSuchThing'"},
        EarlyStop{"UnknownParameter", "WatershedSegmentation --set NoSuchKey=3", kGoodTable, 2, "'NoSuchKey'"},
        EarlyStop{"BadSetSyntax", "WatershedSegmentation --set novalue", kGoodTable, 2, "KEY=VALUE"},
        EarlyStop{"BadJobs", "WatershedSegmentation --jobs 0", kGoodTable, 2, "--jobs"},
        EarlyStop{"BadFormat", "WatershedSegmentation --format xyz", kGoodTable, 2, "unknown image format"},
        EarlyStop{"MissingConfig", "WatershedSegmentation --config /nonexistent/params.xml", kGoodTable, 3, "params.xml"},
        EarlyStop{"UnknownColumn", "WatershedSegmentation", "case,in,in_labels\na,a/image.nrrd,a/seeds.nrrd\n", 2,
                  "unknown column 'in_labels'"},
        EarlyStop{"NoCaseColumn", "WatershedSegmentation", "in\na/image.nrrd\n", 2, "no 'case' column"},
        EarlyStop{"DuplicateCase", "WatershedSegmentation", "case,in\na,a/image.nrrd\na,a/image.nrrd\n", 2,
                  "line 3: case 'a' twice"},
        EarlyStop{"TooManyFields", "WatershedSegmentation", "case,in\na,a/image.nrrd,x\n", 2, "line 2"},
        EarlyStop{"NameWithSlash", "WatershedSegmentation", "case,in\na/b,a/image.nrrd\n", 2, "'a/b'"},
        EarlyStop{"HiddenName", "WatershedSegmentation", "case,in\n.a,a/image.nrrd\n", 2, "'.a'"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(BatchCaseTable, ColumnsGiveInputsInOrderWithPathsFromTheTablesFolder) {
  TestKit::ScratchDir dir;
  // A byte-order mark, CRLF line ends, numbered columns, an empty cell and blanks round cells.
  TestKit::writeBytes(dir.file("t.csv"),
                      "\xEF\xBB\xBF" "case, in-labels1 ,in2,in1\r\n"
                      " p1 ,s.nrrd,/abs/t2.nii.gz,sub/t1.nrrd\r\n"
                      "p2,,b.nrrd,\"q \"\"x\"\".nrrd\"\r\n");
  std::vector<Cli::BatchCase> cases;
  std::string error;
  ASSERT_TRUE(Cli::readCaseTable(dir.file("t.csv"), cases, &error)) << error;
  ASSERT_EQ(cases.size(), 2u);
  EXPECT_EQ(cases[0].name, "p1");
  ASSERT_EQ(cases[0].inputs.size(), 3u);
  EXPECT_EQ(cases[0].inputs[0].path, dir.file("s.nrrd"));
  EXPECT_TRUE(cases[0].inputs[0].asLabels);
  EXPECT_EQ(cases[0].inputs[1].path, "/abs/t2.nii.gz");
  EXPECT_FALSE(cases[0].inputs[1].asLabels);
  EXPECT_EQ(cases[0].inputs[2].path, dir.file("sub/t1.nrrd"));
  EXPECT_EQ(cases[0].columns, (std::vector<std::string>{"in-labels1", "in2", "in1"}));
  EXPECT_EQ(cases[1].inputs[0].path, "") << "an empty cell stays empty, and its case then fails";
  EXPECT_EQ(cases[1].inputs[2].path, dir.file("q \"x\".nrrd"));
}

TEST(BatchCaseTable, PatternNamesCasesAfterTheirFoldersOrFilesInSortedOrder) {
  TestKit::ScratchDir dir;
  for (const char* c : {"s2", "s10", "s1"}) fs::create_directories(dir.path() / "data" / c);
  std::vector<Cli::BatchCase> cases;
  std::string error;
  ASSERT_TRUE(Cli::casesFromPattern(dir.file("data/*/"), {{"{case}/t1.nrrd", false}, {"seeds/{name}.nrrd", true}},
                                    cases, &error))
      << error;
  ASSERT_EQ(cases.size(), 3u);
  EXPECT_EQ(cases[0].name, "s1");
  EXPECT_EQ(cases[1].name, "s10");
  EXPECT_EQ(cases[2].name, "s2");
  EXPECT_EQ(cases[1].inputs[0].path, dir.file("data/s10/t1.nrrd"));
  EXPECT_EQ(cases[1].inputs[1].path, (fs::current_path() / "seeds/s10.nrrd").string());
  EXPECT_TRUE(cases[1].inputs[1].asLabels);

  fs::create_directories(dir.path() / "scans");
  for (const char* f : {"x.nii.gz", "y.nrrd"}) TestKit::writeBytes(dir.file(std::string("scans/") + f), "");
  ASSERT_TRUE(Cli::casesFromPattern(dir.file("scans/*"), {{"{case}", false}}, cases, &error)) << error;
  ASSERT_EQ(cases.size(), 2u);
  EXPECT_EQ(cases[0].name, "x");
  EXPECT_EQ(cases[0].inputs[0].path, dir.file("scans/x.nii.gz"));
  EXPECT_EQ(cases[1].name, "y");

  EXPECT_FALSE(Cli::casesFromPattern(dir.file("nothing/*"), {{"{case}", false}}, cases, &error));
  EXPECT_NE(error.find("no case matches"), std::string::npos) << error;
}

}  // namespace
