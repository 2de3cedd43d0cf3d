// `merivane info` and `run` on DICOM folders: series listed, chosen by UID, label maps written
// as Segmentation objects that refer to the input series.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>

#include "../io/DicomTestSeries.h"
#include "../io/IoTestUtil.h"
#include "DicomIO.h"
#include "DicomSeriesComponent.h"
#include "ImageIO.h"
#include "LabelDataComponent.h"
#include "SharedImageSet.h"

using namespace Merivane;
using namespace Merivane::TestKit;

namespace {

struct Outcome {
  int code;
  std::string out;
  std::string err;
};

Outcome merivane(const ScratchDir& dir, const std::string& args) {
  const std::string out = dir.file("stdout.txt"), err = dir.file("stderr.txt");
  const std::string command = std::string(MERIVANE_BIN) + " " + args + " > " + out + " 2> " + err + " < /dev/null";
  const int raw = std::system(command.c_str());
  Outcome r{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, readBytes(out), readBytes(err)};
  std::filesystem::remove(out);
  std::filesystem::remove(err);
  return r;
}

// A CT series of 6 x 4 x 5 and an MR series of 3 x 4 x 2 in one folder.
struct Mixed {
  SeriesSpec ct, mr;
  explicit Mixed(const ScratchDir& dir) : mr(mrBeside(ct)) {
    writeSeries(dir.file("mixed"), ct, 1, "A");
    writeSeries(dir.file("mixed"), mr, 2, "B");
  }
};

TEST(MerivaneCliDicom, InfoListsTheSeriesOfAFolderAndDescribesOneChosenByUid) {
  ScratchDir dir;
  Mixed m(dir);
  Outcome r = merivane(dir, "info " + dir.file("mixed"));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("DICOM series 2"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(m.ct.seriesUid + "  CT  6 x 4 x 5, 5 files  phantom"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(m.mr.seriesUid + "  MR  3 x 4 x 2, 2 files  T1"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("dimensions"), std::string::npos) << r.out;

  r = merivane(dir, "info " + dir.file("mixed") + " --series " + m.mr.seriesUid);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("dimensions  3 x 4 x 2"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("modality    MRI"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("series      " + m.mr.seriesUid), std::string::npos) << r.out;
}

TEST(MerivaneCliDicom, RunOnAFolderOfSeveralSeriesWithoutChoiceIsAUsageErrorThatListsThem) {
  ScratchDir dir;
  Mixed m(dir);
  const Outcome r = merivane(dir, "run Seg.MakeCompatibleLabelMap --in " + dir.file("mixed") + " --out " + dir.file("out"));
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("holds 2 DICOM series; choose one with --series UID"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find(m.ct.seriesUid), std::string::npos) << r.err;
  EXPECT_NE(r.err.find(m.mr.seriesUid), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(dir.file("out")));
}

TEST(MerivaneCliDicom, LabelMapOutputIsASegmentationOfTheChosenSeriesAndReadsBackOnIt) {
  ScratchDir dir;
  Mixed m(dir);
  const Outcome r = merivane(dir, "run Seg.IntensityClustering --in " + dir.file("mixed") + " --series " +
                                      m.ct.seriesUid + " --set \"clustersMeans=-200 100\" --set \"clustersStd=60 60\" --format dcm --out " + dir.file("out"));
  ASSERT_EQ(r.code, 0) << r.err;
  std::string seg;
  for (const auto& e : std::filesystem::directory_iterator(dir.file("out")))
    if (e.path().string().ends_with(".seg.dcm")) seg = e.path().string();
  ASSERT_FALSE(seg.empty()) << r.out;
  std::string error;
  auto ct = IO::readDicomSeries(dir.file("mixed"), m.ct.seriesUid, &error);
  ASSERT_TRUE(ct) << error;
  // Read against the series it was made from, it fits; against the other one, it is refused.
  auto labels = IO::readDicomSegmentation(seg, ct.get(), &error);
  ASSERT_TRUE(labels) << error;
  EXPECT_EQ(labels->mem(0)->descriptor().dimensions, ct->mem(0)->descriptor().dimensions);
  EXPECT_FALSE(labels->components().get<LabelDataComponent>()->labelConfigs().empty());
  auto mr = IO::readDicomSeries(dir.file("mixed"), m.mr.seriesUid, &error);
  ASSERT_TRUE(mr) << error;
  EXPECT_FALSE(IO::readDicomSegmentation(seg, mr.get(), &error));
  EXPECT_NE(error.find("refers to series " + m.ct.seriesUid), std::string::npos) << error;

  // The segmentation as an input takes the grid of the series given before it.
  const Outcome stats = merivane(dir, "run Seg.LabelStatistics --in " + dir.file("mixed") + " --series " +
                                          m.ct.seriesUid + " --in-labels " + seg + " --out " + dir.file("stats"));
  EXPECT_EQ(stats.code, 0) << stats.err;
}

TEST(MerivaneCliDicom, SeriesBeforeAnyInputIsAUsageError) {
  ScratchDir dir;
  const Outcome r = merivane(dir, "run Seg.MakeCompatibleLabelMap --series 1.2.3 --in x --out " + dir.file("out"));
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("--series names the series of the --in before it"), std::string::npos) << r.err;
}

}  // namespace
