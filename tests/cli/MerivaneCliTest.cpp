// End-to-end runs of the built `merivane` program on small phantoms written to a scratch folder.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <Eigen/Geometry>
#include <cmath>
#include <cstdlib>
#include <sstream>

#include "../io/IoTestUtil.h"
#include "CsvIO.h"
#include "ImageIO.h"
#include "LabelDataComponent.h"
#include "Properties.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

struct Outcome {
  int code;
  std::string out;
  std::string err;
};

Outcome merivane(const TestKit::ScratchDir& dir, const std::string& args) {
  const std::string out = dir.file("stdout.txt"), err = dir.file("stderr.txt");
  const std::string command = std::string(MERIVANE_BIN) + " " + args + " > " + out + " 2> " + err + " < /dev/null";
  const int raw = std::system(command.c_str());
  Outcome r{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, TestKit::readBytes(out), TestKit::readBytes(err)};
  std::filesystem::remove(out);
  std::filesystem::remove(err);
  return r;
}

Eigen::Matrix4d obliqueMatrix() {
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m.block<3, 3>(0, 0) = Eigen::AngleAxisd(0.4, Eigen::Vector3d(0, 1, 1).normalized()).toRotationMatrix();
  m.block<3, 1>(0, 3) = Eigen::Vector3d(-20, 5, 60);
  return m;
}

// Two flat regions, 100 on the left and 300 on the right, with seeds 1 and 2 inside them.
void writePhantom(const TestKit::ScratchDir& dir, const std::string& ext) {
  auto image = TestKit::makeImage<float>({20, 16, 6}, [](int x, int, int) { return x < 10 ? 100.0f : 300.0f; });
  image->get(0)->setSpacing(Eigen::Vector3d(0.8, 0.8, 2.0));
  image->get(0)->setMatrix(obliqueMatrix());
  auto seeds = TestKit::makeImage<unsigned char>({20, 16, 6}, [](int x, int y, int z) {
    if (y == 8 && z == 3 && x == 3) return 1;
    return y == 8 && z == 3 && x == 16 ? 2 : 0;
  });
  seeds->get(0)->setSpacing(Eigen::Vector3d(0.8, 0.8, 2.0));
  seeds->get(0)->setMatrix(obliqueMatrix());
  std::string error;
  ASSERT_TRUE(IO::writeImage(*image, dir.file("image" + ext), &error)) << error;
  ASSERT_TRUE(IO::writeImage(*seeds, dir.file("seeds" + ext), &error)) << error;
}

TEST(MerivaneCli, WatershedRunUpdatesTheSeedsInPlaceAndTheResultOverlaysTheImage) {
  TestKit::ScratchDir dir;
  writePhantom(dir, ".nrrd");
  const Outcome r = merivane(dir, "run WatershedSegmentation --in " + dir.file("image.nrrd") + " --in-labels " +
                                  dir.file("seeds.nrrd") + " --out " + dir.file("out") + " --write-inputs");
  ASSERT_EQ(r.code, 0) << r.err;
  const std::string written = dir.file("out/seeds-updated.nrrd");
  EXPECT_NE(r.out.find(written), std::string::npos) << r.out;
  std::string error;
  auto labels = IO::readImage(written, &error);
  ASSERT_TRUE(labels) << error;
  EXPECT_EQ(labels->modality(), Data::LABEL);
  const auto* p = static_cast<const unsigned char*>(labels->mem(0)->data());
  auto at = [&](int x, int y, int z) { return p[(z * 16 + y) * 20 + x]; };
  EXPECT_EQ(at(0, 0, 0), 1);
  EXPECT_EQ(at(5, 15, 5), 1);
  EXPECT_EQ(at(19, 0, 0), 2);
  EXPECT_EQ(at(14, 15, 5), 2);
  EXPECT_TRUE(labels->get(0)->matrix().isApprox(obliqueMatrix(), 1e-12));
  EXPECT_TRUE(labels->img(0)->spacing().isApprox(Eigen::Vector3d(0.8, 0.8, 2.0)));
  EXPECT_NE(r.err.find("progress"), std::string::npos) << "progress lines when stderr is not a terminal";
}

class MerivaneCliInteractive : public ::testing::TestWithParam<const char*> {};

TEST_P(MerivaneCliInteractive, RunFromSeedsAcceptsIntoTheLabelMapAndExportsTheProbability) {
  TestKit::ScratchDir dir;
  writePhantom(dir, ".nrrd");
  const Outcome r = merivane(dir, std::string("run ") + GetParam() + " --in " + dir.file("image.nrrd") +
                                      " --in-labels " + dir.file("seeds.nrrd") +
                                      " --set \"Auto-Accept Segmentation=true\" --set \"Export Probability=true\"" +
                                      " --out " + dir.file("out") + " --write-inputs");
  ASSERT_EQ(r.code, 0) << r.err;
  std::string error;
  auto labels = IO::readImage(dir.file("out/seeds-updated.nrrd"), &error);
  ASSERT_TRUE(labels) << error;
  const auto* p = static_cast<const unsigned char*>(labels->mem(0)->data());
  auto at = [&](int x, int y, int z) { return p[(z * 16 + y) * 20 + x]; };
  for (int z = 0; z < 6; ++z)
    for (int y = 0; y < 16; ++y)
      for (int x = 0; x < 20; ++x) ASSERT_EQ(at(x, y, z), x < 10 ? 1 : 2) << x << "," << y << "," << z;
  EXPECT_TRUE(labels->get(0)->matrix().isApprox(obliqueMatrix(), 1e-12));
  auto probability = IO::readImage(dir.file("out/Probability.nrrd"), &error);
  ASSERT_TRUE(probability) << error << "\n" << r.out;
  EXPECT_EQ(probability->mem(0)->type(), F32);
}

TEST_P(MerivaneCliInteractive, SeedsOfOneLabelOnlyFailWithStatusAndReason) {
  TestKit::ScratchDir dir;
  auto image = TestKit::makeImage<float>({12, 12, 4}, [](int x, int, int) { return x; });
  auto seeds = TestKit::makeImage<unsigned char>({12, 12, 4}, [](int x, int, int) { return x == 2 ? 2 : 0; });
  std::string error;
  ASSERT_TRUE(IO::writeImage(*image, dir.file("image.nrrd"), &error)) << error;
  ASSERT_TRUE(IO::writeImage(*seeds, dir.file("seeds.nrrd"), &error)) << error;
  const Outcome r = merivane(dir, std::string("run ") + GetParam() + " --in " + dir.file("image.nrrd") +
                                      " --in-labels " + dir.file("seeds.nrrd") + " --out " + dir.file("out") +
                                      " --write-inputs");
  if (std::string(GetParam()) == "InteractiveSegmentation") {
    EXPECT_EQ(r.code, 1) << r.err;
    EXPECT_NE(r.err.find("status 3"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("none of label 1"), std::string::npos) << r.err;
    EXPECT_FALSE(std::filesystem::exists(dir.file("out/seeds-updated.nrrd")));
  } else {
    // The watershed floods from any marker: the background takes everything.
    EXPECT_EQ(r.code, 0) << r.err;
  }
}

INSTANTIATE_TEST_SUITE_P(Both, MerivaneCliInteractive,
                         ::testing::Values("InteractiveSegmentation", "InteractiveSegmentationWatershed"));

TEST(MerivaneCli, NewLabelMapIsWrittenInTheInputFormatWithTheInputGeometry) {
  TestKit::ScratchDir dir;
  writePhantom(dir, ".nii.gz");
  const Outcome r = merivane(dir, "run Seg.MakeCompatibleLabelMap --in " + dir.file("image.nii.gz") + " --out " +
                                  dir.file("out"));
  ASSERT_EQ(r.code, 0) << r.err;
  const std::string path = dir.file("out/image_Label_Map.nii.gz");
  EXPECT_EQ(r.out, path + "\n");
  std::string error;
  auto labels = IO::readImage(path, &error);
  ASSERT_TRUE(labels) << error;
  EXPECT_EQ(labels->modality(), Data::LABEL);
  EXPECT_TRUE(labels->get(0)->matrix().isApprox(obliqueMatrix(), 1e-5));
  // Nothing else is left in the folder: no temporary files.
  int files = 0;
  for ([[maybe_unused]] auto& e : std::filesystem::directory_iterator(dir.file("out"))) ++files;
  EXPECT_EQ(files, 1);
}

TEST(MerivaneCli, StatisticsCsvLandsInTheOutputFolder) {
  TestKit::ScratchDir dir;
  auto image = TestKit::makeImage<short>({4, 3, 1}, [](int x, int y, int) { return 10 * x + y; });
  auto labels = TestKit::makeImage<unsigned char>({4, 3, 1}, [](int x, int y, int) { return x < 2 && y < 2 ? 1 : 0; });
  labels->setModality(Data::LABEL);
  labels->components().getOrCreate<LabelDataComponent>(labels.get())->setLabelName(1, "Liver");
  std::string error;
  ASSERT_TRUE(IO::writeImage(*image, dir.file("ct.mha"), &error)) << error;
  ASSERT_TRUE(IO::writeImage(*labels, dir.file("organs.mha"), &error)) << error;
  const Outcome r = merivane(dir, "run LabelStatistics --in " + dir.file("ct.mha") + " --in " + dir.file("organs.mha") +
                                  " --set csvPath=stats.csv --set floatPrecision=3 --out " + dir.file("out"));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(TestKit::readBytes(dir.file("out/stats.csv")),
            "Label;Minimum;Maximum;Mean;SD;Area (mm²);#Pixels\norgans/Liver;0;11;5.5;5.8;4;4\n");
  EXPECT_NE(r.err.find("[INFO] Seg.LabelStatisticsAlgorithm"), std::string::npos) << r.err;
}

TEST(MerivaneCli, CenterlineFromPointsInCsvFollowsTheTubeInWorldCoordinates) {
  TestKit::ScratchDir dir;
  // A bright tube along x at y = 8, z = 5 of a volume with an oblique matrix.
  auto image = TestKit::makeImage<unsigned short>({30, 16, 10}, [](int x, int y, int z) {
    return 100 + 700 * std::exp(-((y - 8) * (y - 8) + (z - 5) * (z - 5)) / 2.0);
  });
  image->get(0)->setMatrix(obliqueMatrix());
  std::string error;
  ASSERT_TRUE(IO::writeImage(*image, dir.file("tube.nrrd"), &error)) << error;
  const Eigen::Vector3d a = image->get(0)->pixelToWorld({3, 8, 5}), b = image->get(0)->pixelToWorld({26, 8, 5});
  ASSERT_TRUE(IO::writeCsvFile(dir.file("line.csv"), {"x", "y", "z"},
                               {{std::to_string(a[0]), std::to_string(a[1]), std::to_string(a[2])},
                                {std::to_string(b[0]), std::to_string(b[1]), std::to_string(b[2])}}));
  const Outcome r = merivane(dir, "--quiet run CenterlineExtraction --in " + dir.file("tube.nrrd") + " --in " +
                                      dir.file("line.csv") + " --set \"Working Resolution=1\" --set \"Centerline Samples=5\" --out " +
                                      dir.file("out"));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("Probability_Map.nrrd"), std::string::npos);
  EXPECT_NE(r.out.find("Action_Map.nrrd"), std::string::npos);
  std::vector<IO::CsvRow> rows;
  ASSERT_TRUE(IO::parseCsv(TestKit::readBytes(dir.file("out/Centerline.csv")), rows));
  ASSERT_EQ(rows.size(), 6u);
  EXPECT_EQ(rows[0], (IO::CsvRow{"x", "y", "z"}));
  for (size_t i = 1; i < rows.size(); ++i) {
    const Eigen::Vector3d p(std::stod(rows[i][0]), std::stod(rows[i][1]), std::stod(rows[i][2]));
    const Eigen::Vector3d v = image->get(0)->worldToPixel(p);
    EXPECT_NEAR(v[1], 8.0, 0.5) << i;
    EXPECT_NEAR(v[2], 5.0, 0.5) << i;
  }

  // The same run with one point only fails with the algorithm's status and writes nothing.
  ASSERT_TRUE(IO::writeCsvFile(dir.file("one.csv"), {"x", "y", "z"},
                               {{std::to_string(a[0]), std::to_string(a[1]), std::to_string(a[2])}}));
  const Outcome one = merivane(dir, "--quiet run CenterlineExtraction --in " + dir.file("tube.nrrd") + " --in " +
                                        dir.file("one.csv") + " --out " + dir.file("out1"));
  EXPECT_EQ(one.code, 1);
  EXPECT_NE(one.err.find("at least two initial points"), std::string::npos) << one.err;

  // The Hessian analysis, which the plug-in's menu leaves out, runs by name.
  const Outcome h = merivane(dir, "--quiet run HessianAnalysis --in " + dir.file("tube.nrrd") +
                                      " --set \"Scales=1 2\" --out " + dir.file("out2"));
  ASSERT_EQ(h.code, 0) << h.err;
  EXPECT_NE(h.out.find("Tubularity.nrrd"), std::string::npos);
}

TEST(MerivaneCli, FiducialsAreWrittenAsTextAndTheSurfacePointAsCsv) {
  TestKit::ScratchDir dir;
  // One bright ball of diameter 6 mm (12 voxels) round voxel (20.5, 19.5, 20) in 0.5 mm voxels.
  auto ball = TestKit::makeImage<unsigned short>({40, 40, 40}, [](int x, int y, int z) {
    return (Eigen::Vector3d(x, y, z) - Eigen::Vector3d(20.5, 19.5, 20)).norm() <= 6.0 ? 3000 : 1000;
  });
  ball->get(0)->setSpacing(Eigen::Vector3d::Constant(0.5));
  std::string error;
  ASSERT_TRUE(IO::writeImage(*ball, dir.file("ball.nrrd"), &error)) << error;
  const Outcome r = merivane(dir, "--quiet run FiducialExtraction --in " + dir.file("ball.nrrd") + " --set minCoverage=0.5 --out " +
                                      dir.file("out"));
  ASSERT_EQ(r.code, 0) << r.err;
  const std::string written = TestKit::readBytes(dir.file("out/Fiducials.txt"));
  std::istringstream text(written);
  Eigen::Vector3d centre;
  double radius = 0.0;
  ASSERT_TRUE(text >> centre[0] >> centre[1] >> centre[2] >> radius);
  EXPECT_LE((ball->get(0)->worldToPixel(centre) - Eigen::Vector3d(20.5, 19.5, 20)).norm(), 0.1);
  EXPECT_EQ(radius, 3.0);
  EXPECT_FALSE(text >> centre[0]) << written;

  // Tissue up to x = 11, air beyond, walked along x from a line given as two points.
  auto ct = TestKit::makeImage<short>({24, 8, 8}, [](int x, int, int) { return x < 12 ? 0 : -1000; });
  ct->setModality(Data::CT);
  ct->get(0)->setMatrix(obliqueMatrix());
  ASSERT_TRUE(IO::writeImage(*ct, dir.file("ct.nrrd"), &error)) << error;
  const Eigen::Vector3d a = ct->get(0)->pixelToWorld({2, 4, 4}), b = ct->get(0)->pixelToWorld({22, 4, 4});
  ASSERT_TRUE(IO::writeCsvFile(dir.file("ray.csv"), {"x", "y", "z"},
                               {{std::to_string(a[0]), std::to_string(a[1]), std::to_string(a[2])},
                                {std::to_string(b[0]), std::to_string(b[1]), std::to_string(b[2])}}));
  const Outcome line = merivane(dir, "--quiet run LineToIsosurfaceIntersection --in " + dir.file("ct.nrrd") + " --in " +
                                         dir.file("ray.csv") + " --set threshold=-500 --out " + dir.file("out2"));
  ASSERT_EQ(line.code, 0) << line.err;
  std::vector<IO::CsvRow> rows;
  ASSERT_TRUE(IO::parseCsv(TestKit::readBytes(dir.file("out2/Intersection.csv")), rows));
  ASSERT_EQ(rows.size(), 2u);
  const Eigen::Vector3d p(std::stod(rows[1][0]), std::stod(rows[1][1]), std::stod(rows[1][2]));
  EXPECT_LE((ct->get(0)->worldToPixel(p) - Eigen::Vector3d(11, 4, 4)).norm(), 1e-4);
}

TEST(MerivaneCli, ContoursAreWrittenInThePropertiesTextBesideTheirLabelMap) {
  TestKit::ScratchDir dir;
  auto labels = TestKit::makeImage<unsigned char>({8, 8, 1}, [](int x, int y, int) { return x > 1 && x < 6 && y > 2 && y < 6; });
  labels->setModality(Data::LABEL);
  std::string error;
  ASSERT_TRUE(IO::writeImage(*labels, dir.file("square.png"), &error)) << error;
  const Outcome r = merivane(dir, "run LabelMapToContours --in " + dir.file("square.png") + " --set labelValues=1 --out " + dir.file("out") + " --write-inputs");
  ASSERT_EQ(r.code, 0) << r.err;
  std::string xmlPath;
  for (const auto& e : std::filesystem::directory_iterator(dir.file("out")))
    if (e.path().string().find("-contours.xml") != std::string::npos) xmlPath = e.path().string();
  ASSERT_FALSE(xmlPath.empty()) << r.out;
  auto p = PropertiesIO::loadFromFile(xmlPath, &error);
  ASSERT_TRUE(p) << error;
  EXPECT_TRUE(p->subProperties("ContoursStorageComponent"));
}

TEST(MerivaneCli, InfoDescribesGeometryAndLabels) {
  TestKit::ScratchDir dir;
  writePhantom(dir, ".nrrd");
  const Outcome r = merivane(dir, "info " + dir.file("image.nrrd"));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("dimensions  20 x 16 x 6"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("spacing     0.8 0.8 2 mm"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("type        F32, 1 channel"), std::string::npos) << r.out;
}

struct Failure {
  const char* name;
  const char* args;  // {DIR} stands for the scratch folder
  int code;
  const char* message;
};

void PrintTo(const Failure& f, std::ostream* os) { *os << f.name; }

const Failure kFailures[] = {
    {"UnknownAlgorithm", "run NoSuchThing --in {DIR}/image.nrrd --out {DIR}/out", 4, "unknown algorithm 'NoSuchThing'"},
    {"InputsDoNotFit", "run MarkAsLabelMap --in {DIR}/image.nrrd --out {DIR}/out", 4, "does not accept these inputs"},
    {"TruncatedInput", "run MakeCompatibleLabelMap --in {DIR}/cut.nrrd --out {DIR}/out", 3, "cut.nrrd: data is truncated"},
    {"MissingInput", "run MakeCompatibleLabelMap --in {DIR}/none.nrrd --out {DIR}/out", 3, "none.nrrd: no such file"},
    {"NoOutputFolder", "run MakeCompatibleLabelMap --in {DIR}/image.nrrd", 2, "run needs --out DIR"},
    {"BadSetting", "run LabelStatistics --in {DIR}/image.nrrd --set floatPrecision --out {DIR}/out", 2, "KEY=VALUE"},
    {"AlgorithmStatus",
     "run GraphBasedSegmentation --in {DIR}/image.nrrd --in-labels {DIR}/seeds.nrrd --set \"Solver ID=8\" --out {DIR}/out",
     1, "failed with status 2 (invalid input): Seg.GraphBasedSegmentation: Solver ID must lie in 0..7, not 8"},
    {"UnreadableSetting",
     "run GraphBasedSegmentation --in {DIR}/image.nrrd --in-labels {DIR}/seeds.nrrd --set \"Solver ID=abc\" --out {DIR}/out",
     2, "'Solver ID' cannot be read from 'abc'; nothing was run"},
    {"UnreadableFlag",
     "run GraphBasedSegmentation --in {DIR}/image.nrrd --in-labels {DIR}/seeds.nrrd --set \"Export Probability=maybe\" "
     "--out {DIR}/out",
     2, "'Export Probability' cannot be read from 'maybe'"},
    {"SettingOutOfRange",
     "run GraphBasedSegmentation --in {DIR}/image.nrrd --in-labels {DIR}/seeds.nrrd --set \"Num Levels=-3\" --out {DIR}/out",
     1, "failed with status 2 (invalid input): Seg.GraphBasedSegmentation: Num Levels must be at least 1, not -3"},
    {"NanLabels", "run GraphBasedSegmentation --in {DIR}/image.nrrd --in-labels {DIR}/nan.nrrd --out {DIR}/out", 3,
     "not whole numbers cannot be labels"},
    {"SeedsFarAway", "run GraphBasedSegmentation --in {DIR}/image.nrrd --in-labels {DIR}/far.nrrd --out {DIR}/out", 1,
     "status 2 (invalid input): Seg.GraphBasedSegmentation: The label map lies outside the image in world space"},
    {"WatershedWithoutMarkers", "run WatershedSegmentation --in {DIR}/image.nrrd --in-labels {DIR}/empty.nrrd --out {DIR}/out",
     1, "status 2 (invalid input): Seg.WatershedSegmentationAlgorithm: The label map holds no marker"},
    {"UnknownCommand", "frobnicate", 2, "unknown command 'frobnicate'"},
    {"BadFormat", "run MakeCompatibleLabelMap --in {DIR}/image.nrrd --format tiff --out {DIR}/out", 2,
     "unknown image format '.tiff'"},
    {"ConfigIsADirectory", "run LabelStatistics --in {DIR}/image.nrrd --config {DIR} --out {DIR}/out", 3,
     "is a directory"},
    {"ConfigNestedTooDeep", "run LabelStatistics --in {DIR}/image.nrrd --config {DIR}/deep.xml --out {DIR}/out", 3,
     "deep.xml: line 101: <properties> nested deeper than 100 levels"},
    {"InputIsADevice", "run LabelStatistics --in /dev/zero --out {DIR}/out", 3, "zero: is not a regular file"},
    {"InputIsADirectory", "info {DIR}/out.nii", 3, "out.nii: is a directory"},
};

class MerivaneCliFailure : public testing::TestWithParam<Failure> {};

TEST_P(MerivaneCliFailure, ExitsNonZeroWithTheReasonOnStderr) {
  TestKit::ScratchDir dir;
  writePhantom(dir, ".nrrd");
  {
    std::string error;
    auto image = IO::readImage(dir.file("image.nrrd"), &error);
    IO::WriteOptions raw;
    raw.compress = false;
    ASSERT_TRUE(image && IO::writeImage(*image, dir.file("raw.nrrd"), &error, raw)) << error;
    const std::string bytes = TestKit::readBytes(dir.file("raw.nrrd"));
    TestKit::writeBytes(dir.file("cut.nrrd"), bytes.substr(0, bytes.size() - 100));

    auto seeds = IO::readImage(dir.file("seeds.nrrd"), &error);
    ASSERT_TRUE(seeds) << error;
    Eigen::Matrix4d far = obliqueMatrix();
    far(0, 3) += 100.0;
    seeds->get(0)->setMatrix(far);
    ASSERT_TRUE(IO::writeImage(*seeds, dir.file("far.nrrd"), &error)) << error;
    seeds->get(0)->setMatrix(obliqueMatrix());
    dynamic_cast<TypedImage<unsigned char>*>(seeds->mem(0))->fill(0);
    ASSERT_TRUE(IO::writeImage(*seeds, dir.file("empty.nrrd"), &error)) << error;
    auto nan = TestKit::makeImage<float>({20, 16, 6}, [](int x, int, int) { return x == 0 ? NAN : 0.0f; });
    ASSERT_TRUE(IO::writeImage(*nan, dir.file("nan.nrrd"), &error)) << error;
  }
  {
    // The nesting that once overflowed the stack of the configuration reader.
    std::string deep;
    for (int i = 0; i < 20000; ++i) deep += "<properties name=\"n\">\n";
    for (int i = 0; i < 20000; ++i) deep += "</properties>\n";
    TestKit::writeBytes(dir.file("deep.xml"), deep);
    std::filesystem::create_directory(dir.file("out.nii"));
  }
  std::string args = GetParam().args;
  for (size_t at; (at = args.find("{DIR}")) != std::string::npos;) args.replace(at, 5, dir.path().string());
  const Outcome r = merivane(dir, args);
  EXPECT_EQ(r.code, GetParam().code) << r.err;
  EXPECT_NE(r.err.find(GetParam().message), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(dir.file("out")) && !std::filesystem::is_empty(dir.file("out")))
      << "a failed run writes nothing";
}

INSTANTIATE_TEST_SUITE_P(Cases, MerivaneCliFailure, testing::ValuesIn(kFailures),
                         [](const testing::TestParamInfo<Failure>& i) { return std::string(i.param.name); });

TEST(MerivaneCli, PluginNamedWithoutAFolderIsThatFileAndNotAPlugin) {
  TestKit::ScratchDir dir;
  writePhantom(dir, ".nii.gz");
  const std::string err = dir.file("stderr.txt");
  const std::string command = "cd " + dir.path().string() + " && " + MERIVANE_BIN +
                              " --plugin image.nii.gz list > /dev/null 2> " + err + " < /dev/null";
  const int raw = std::system(command.c_str());
  EXPECT_TRUE(WIFEXITED(raw) && WEXITSTATUS(raw) == 1);
  const std::string message = TestKit::readBytes(err);
  EXPECT_NE(message.find("image.nii.gz: not a loadable plug-in library ("), std::string::npos) << message;
  EXPECT_EQ(message.find("No such file"), std::string::npos) << message;
}

TEST(MerivaneCli, EveryCommandHasHelpAndParamsShowDefaults) {
  TestKit::ScratchDir dir;
  for (const char* command : {"--help", "list --help", "params --help", "info --help", "run --help"}) {
    const Outcome r = merivane(dir, command);
    EXPECT_EQ(r.code, 0) << command;
    EXPECT_EQ(r.out.rfind("Usage: merivane", 0), 0u) << command << ": " << r.out;
  }
  const Outcome list = merivane(dir, "list");
  EXPECT_NE(list.out.find("Seg.LabelStatistics"), std::string::npos);
  const Outcome params = merivane(dir, "params LabelStatistics");
  ASSERT_EQ(params.code, 0) << params.err;
  EXPECT_NE(params.out.find("floatPrecision  = \"6\"  (default \"6\")"), std::string::npos) << params.out;
  const Outcome xml = merivane(dir, "params Seg.LabelStatistics --xml");
  TestKit::writeBytes(dir.file("config.xml"), xml.out);
  writePhantom(dir, ".nrrd");
  const Outcome run = merivane(dir, "run LabelStatistics --in " + dir.file("image.nrrd") + " --config " +
                                    dir.file("config.xml") + " --out " + dir.file("out") + " --quiet");
  EXPECT_EQ(run.code, 0) << run.err;
  EXPECT_EQ(run.err, "");
}

}  // namespace
