// The panels of fiducial extraction, centreline extraction and the line to isosurface walk,
// driven through their widgets in a stand-in window, and the controller table's rows for the
// extraction and clustering algorithms.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTest>
#include <QTimer>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <typeinfo>

#include "AnnotationModel.h"
#include "CenterlineExtractionAlgorithm.h"
#include "CenterlineExtractionController.h"
#include "ConvolutionalCRFAlgorithm.h"
#include "DataModel.h"
#include "DoseComputationAlgorithm.h"
#include "FiducialExtractionAlgorithm.h"
#include "FiducialExtractionController.h"
#include "GlAnnotations.h"
#include "GlCircle.h"
#include "GlView.h"
#include "GuiTestKit.h"
#include "GuiView.h"
#include "HessianAnalysisAlgorithm.h"
#include "HistogramIntensityClusteringAlgorithm.h"
#include "IntensityClusteringAlgorithm.h"
#include "LineToIsosurfaceIntersectionAlgorithm.h"
#include "LineToIsosurfaceIntersectionController.h"
#include "Log.h"
#include "MainWindowBase.h"
#include "QtHelpers.h"
#include "SegAlgorithmControllerFactory.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "LabelMapInterpolationAlgorithm.h"
#include "MorphologicalInterpolationAlgorithm.h"
#include "SkinSegmentationAlgorithm.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

// The window as panels see it: data, annotations and the objects drawn in slice views.
class StandInWindow : public MainWindowBase {
 public:
  DataModel* dataModel() override { return &data; }
  AnnotationModel* annotationModel() override { return &annotations; }
  DisplayWidgetMultiAdapter* displayWidget() override { return &display; }
  void addSliceObject(GlObject* object) override { sliceObjects.push_back(object); }
  void add3DObject(GlObject*) override {}
  void removeObject(GlObject* object) override { std::erase(sliceObjects, object); }
  void updateViews() override {}
  DataModel data;
  AnnotationModel annotations;
  DisplayWidgetMultiAdapter display;
  std::vector<GlObject*> sliceObjects;
};

// Algorithms as the factory hands them out: their input in the factory info.
template <typename A>
void stamp(A& algorithm, const DataList& input) {
  algorithm.setFactoryInfo(Algorithm::FactoryInfo("Seg.Test", "Test", input));
}

// A U16 volume of 0.5 mm voxels, background 1000, with balls of value 3000 and diameter 6 mm
// (edge voxels by their covered fraction, so that centres are not snapped to the grid).
std::unique_ptr<SharedImageSet> markerVolume(const std::vector<Eigen::Vector3d>& centres) {
  const double r = 6.0;  // voxels
  auto volume = TestKit::makeImage<unsigned short>({48, 48, 48}, [&](int x, int y, int z) {
    double cover = 0.0;
    for (const Eigen::Vector3d& c : centres) {
      const Eigen::Vector3d q(x - c[0], y - c[1], z - c[2]);
      if (q.norm() > r + 1.0) continue;
      int in = 0;
      for (int i = 0; i < 64; ++i) {
        const Eigen::Vector3d o((i % 4 + 0.5) / 4 - 0.5, (i / 4 % 4 + 0.5) / 4 - 0.5, (i / 16 + 0.5) / 4 - 0.5);
        if ((q + o).norm() <= r) ++in;
      }
      cover = std::max(cover, in / 64.0);
    }
    return 1000.0 + 2000.0 * cover;
  });
  volume->get(0)->setSpacing(Eigen::Vector3d::Constant(0.5));
  return volume;
}

const std::vector<Eigen::Vector3d> kBalls = {{15.3, 16.6, 14.2}, {32.7, 30.2, 33.4}};

std::filesystem::path tempFile(const std::string& name) {
  return std::filesystem::temp_directory_path() / ("merivane-panels-" + name);
}

// ---------------------------------------------------------------------------------------
// Controller table

enum class Panel { Default, Fiducial, Centerline, Line };

struct Row {
  const char* name;
  std::function<std::unique_ptr<Algorithm>(SharedImageSet& volume, SharedImageSet& labels)> make;
  Panel panel;
  bool flag1, flag2;
};

class ControllerRows : public testing::TestWithParam<Row> {};

TEST_P(ControllerRows, GiveTheirPanelWithItsFlags) {
  TestKit::qtApp();
  auto volume = TestKit::makeImage<float>({8, 8, 6}, [](int x, int y, int z) { return x + y + z; });
  volume->setModality(Data::CT);
  auto labels = TestKit::makeImage<unsigned char>({8, 8, 6}, [](int x, int, int) { return x < 4 ? 1 : 2; });
  labels->setModality(Data::LABEL);
  auto algorithm = GetParam().make(*volume, *labels);
  ASSERT_TRUE(algorithm);
  SegAlgorithmControllerFactory factory;
  std::unique_ptr<AlgorithmController> controller(factory.create(algorithm.get()));
  ASSERT_TRUE(controller);
  switch (GetParam().panel) {
    case Panel::Default: {
      ASSERT_EQ(typeid(*controller), typeid(DefaultAlgorithmController));
      auto* d = static_cast<DefaultAlgorithmController*>(controller.get());
      EXPECT_EQ(d->flag1(), GetParam().flag1);
      EXPECT_EQ(d->flag2(), GetParam().flag2);
      EXPECT_EQ(d->title(), "");
      break;
    }
    case Panel::Fiducial: EXPECT_EQ(typeid(*controller), typeid(FiducialExtractionController)); break;
    case Panel::Centerline: EXPECT_EQ(typeid(*controller), typeid(CenterlineExtractionController)); break;
    case Panel::Line: {
      ASSERT_EQ(typeid(*controller), typeid(LineToIsosurfaceIntersectionController));
      auto* d = static_cast<DefaultAlgorithmController*>(controller.get());
      EXPECT_TRUE(d->flag1());
      EXPECT_FALSE(d->flag2());
      break;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    ControllerTable, ControllerRows,
    testing::Values(
        Row{"Centerline", [](SharedImageSet& v, SharedImageSet&) { return std::make_unique<CenterlineExtractionAlgorithm>(v.get(0)); },
            Panel::Centerline, false, false},
        Row{"Dose", [](SharedImageSet& v, SharedImageSet& l) { return std::make_unique<DoseComputationAlgorithm>(&v, &l); },
            Panel::Default, false, false},
        Row{"Fiducial",
            [](SharedImageSet& v, SharedImageSet&) {
              return std::make_unique<FiducialExtractionAlgorithm>(v.get(0), FiducialExtractionAlgorithm::Mode3D);
            },
            Panel::Fiducial, false, false},
        Row{"Hessian", [](SharedImageSet& v, SharedImageSet&) { return std::make_unique<HessianAnalysisAlgorithm>(v.get(0)); },
            Panel::Default, false, false},
        Row{"HistogramClustering",
            [](SharedImageSet& v, SharedImageSet&) { return std::make_unique<HistogramIntensityClusteringAlgorithm>(v); },
            Panel::Default, false, false},
        Row{"Clustering",
            [](SharedImageSet& v, SharedImageSet&) { return std::make_unique<IntensityClusteringAlgorithm>(v.get(0)); },
            Panel::Default, false, false},
        Row{"Skin", [](SharedImageSet& v, SharedImageSet&) { return std::make_unique<SkinSegmentationAlgorithm>(&v); },
            Panel::Default, false, false},
        Row{"Line",
            [](SharedImageSet& v, SharedImageSet&) { return std::make_unique<LineToIsosurfaceIntersectionAlgorithm>(v); },
            Panel::Line, true, false},
        Row{"MorphologicalInterpolation",
            [](SharedImageSet&, SharedImageSet& l) { return std::make_unique<MorphologicalInterpolationAlgorithm>(&l, &l); },
            Panel::Default, false, false},
        Row{"LabelMapInterpolation",
            [](SharedImageSet&, SharedImageSet& l) { return std::make_unique<LabelMapInterpolationAlgorithm>(&l); },
            Panel::Default, false, false},
        Row{"CRF", [](SharedImageSet& v, SharedImageSet& l) { return std::make_unique<ConvolutionalCRFAlgorithm>(&v, &l); },
            Panel::Default, true, false}),
    [](const testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------
// Fiducial panel

struct FiducialPanel : testing::Test {
  bool ready = (TestKit::qtApp(), true);
  StandInWindow window;
  Data* image = nullptr;
  std::unique_ptr<FiducialExtractionAlgorithm> algorithm;
  std::unique_ptr<FiducialExtractionController> panel;
  QListWidget* list = nullptr;

  void open(std::unique_ptr<SharedImageSet> volume) {
    SharedImageSet* set = volume.get();
    image = window.data.add(std::move(volume), "markers");
    algorithm = std::make_unique<FiducialExtractionAlgorithm>(set->get(0), FiducialExtractionAlgorithm::Mode3D);
    stamp(*algorithm, DataList{image});
    panel = std::make_unique<FiducialExtractionController>(algorithm.get());
    panel->init();
    list = panel->findChild<QListWidget*>("listWidgetFiducials");
    ASSERT_NE(list, nullptr);
  }
  void SetUp() override { open(markerVolume(kBalls)); }
  void TearDown() override { QtHelpers::setQuestionHook(nullptr); }
  std::vector<double> zs() const {
    std::vector<double> out;
    for (const auto& f : panel->fiducials()) out.push_back(f.centre.z());
    return out;
  }
  QStringList texts() const {
    QStringList out;
    for (int i = 0; i < list->count(); ++i) out << list->item(i)->text();
    return out;
  }
};

struct SpinBoxExpectation {
  const char* name;
  double min, max, step, value;
  int decimals;
  const char* suffix;
};

class FiducialPanelSpins : public FiducialPanel, public testing::WithParamInterface<SpinBoxExpectation> {};

TEST_P(FiducialPanelSpins, HaveTheirRangeStepAndStartValue) {
  const SpinBoxExpectation s = GetParam();
  auto* box = panel->findChild<QDoubleSpinBox*>(s.name);
  ASSERT_NE(box, nullptr) << s.name;
  EXPECT_DOUBLE_EQ(box->minimum(), s.min);
  EXPECT_DOUBLE_EQ(box->maximum(), s.max);
  EXPECT_DOUBLE_EQ(box->singleStep(), s.step);
  EXPECT_DOUBLE_EQ(box->value(), s.value);
  EXPECT_EQ(box->decimals(), s.decimals);
  EXPECT_EQ(box->suffix(), s.suffix);
}

INSTANTIATE_TEST_SUITE_P(FiducialPanel, FiducialPanelSpins,
                         testing::Values(SpinBoxExpectation{"doubleSpinBoxMinContrast", 0, 1, 0.05, 0.1, 2, ""},
                                         SpinBoxExpectation{"doubleSpinBoxScoreThreshold", 0, 1, 0.05, 0.75, 2, ""},
                                         SpinBoxExpectation{"doubleSpinBoxMinCoverage", 0, 1, 0.05, 0.8, 2, ""},
                                         SpinBoxExpectation{"doubleSpinBoxRoiSize", 1, 10000, 1, 10, 2, " mm"},
                                         SpinBoxExpectation{"doubleSpinBoxDiameter", 1, 100, 0.5, 6, 2, " mm"}));

TEST_F(FiducialPanel, ControlsCarryTheirTextsAndStartStates) {
  auto* mode = panel->findChild<QComboBox*>("comboBoxMode");
  ASSERT_NE(mode, nullptr);
  EXPECT_EQ(mode->count(), 2);
  EXPECT_EQ(mode->itemText(0), "3D");
  EXPECT_EQ(mode->itemText(1), "2D");
  EXPECT_EQ(mode->currentIndex(), 0);  // the algorithm was made in 3D mode
  auto* step = panel->findChild<QSpinBox*>("spinBoxSliceStep");
  ASSERT_NE(step, nullptr);
  EXPECT_EQ(step->minimum(), 1);
  EXPECT_EQ(step->maximum(), 20);
  EXPECT_EQ(step->value(), algorithm->sliceStep.value());
  const std::pair<const char*, bool> checks[] = {
      {"Fixed diameter", true}, {"Global detection", true}, {"Only on slice", false}};
  for (auto [text, checked] : checks) {
    QCheckBox* found = nullptr;
    for (auto* box : panel->findChildren<QCheckBox*>())
      if (box->text() == text) found = box;
    ASSERT_NE(found, nullptr) << text;
    EXPECT_EQ(found->isChecked(), checked) << text;
  }
  const std::pair<const char*, const char*> buttons[] = {{"pushButtonExtractFiducials", "Extract fiducials"},
                                                         {"pushButtonClearFiducials", "Clear"},
                                                         {"pushButtonSortFiducials", "Sort"},
                                                         {"pushButtonExportFiducialsToFile", "Export to file"},
                                                         {"pushButtonExportFiducialsAsLabels", "Export as labels"},
                                                         {"pushButtonImportFiducialsFromFile", "Import from file"}};
  for (auto [name, text] : buttons) {
    auto* b = panel->findChild<QPushButton*>(name);
    ASSERT_NE(b, nullptr) << name;
    EXPECT_EQ(b->text(), text);
  }
  for (const char* name : {"pushButtonDeleteFiducials", "pushButtonMoveFiducialsDown", "pushButtonMoveFiducialsUp"})
    EXPECT_NE(panel->findChild<QPushButton*>(name), nullptr) << name;
  EXPECT_EQ(list->selectionMode(), QAbstractItemView::ExtendedSelection);
}

TEST_F(FiducialPanel, FixedDiameterEnablesGlobalDetectionAndTheRegionSize) {
  auto* fixed = panel->findChild<QCheckBox*>("checkBoxFixedDiameter");
  auto* global = panel->findChild<QCheckBox*>("checkBoxGlobalDetection");
  auto* roi = panel->findChild<QDoubleSpinBox*>("doubleSpinBoxRoiSize");
  auto* roiLabel = panel->findChild<QLabel*>("labelRoiSize");
  ASSERT_TRUE(fixed && global && roi && roiLabel);
  fixed->setChecked(false);
  EXPECT_FALSE(global->isEnabled());
  EXPECT_FALSE(roi->isEnabled());
  EXPECT_FALSE(roiLabel->isEnabled());
  fixed->setChecked(true);
  EXPECT_TRUE(global->isEnabled() && roi->isEnabled() && roiLabel->isEnabled());
}

TEST_F(FiducialPanel, ExtractFillsTheListSortedByZWithACirclePerMarker) {
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonExtractFiducials"), Qt::LeftButton);
  ASSERT_EQ(panel->lastStatus(), Algorithm::statusSuccess);
  ASSERT_EQ(list->count(), 2);
  EXPECT_EQ(texts(), QStringList({"Fiducial #1", "Fiducial #2"}));
  const SharedImage& frame = *static_cast<SharedImageSet*>(image)->get(0);
  // Highest z first: the second ball, then the first.
  const auto found = panel->fiducials();
  EXPECT_LT((frame.worldToPixel(found[0].centre) - kBalls[1]).norm(), 0.2);
  EXPECT_LT((frame.worldToPixel(found[1].centre) - kBalls[0]).norm(), 0.2);
  EXPECT_EQ(window.sliceObjects.size(), 2u);
  ASSERT_EQ(panel->pointCloud().points().size(), 2u);
  EXPECT_TRUE(panel->pointCloud().points()[0].isApprox(found[0].centre));
  // A selected row turns its circle magenta, the others stay green.
  list->item(1)->setSelected(true);
  auto* second = dynamic_cast<GlCircle*>(window.sliceObjects[1]);
  auto* first = dynamic_cast<GlCircle*>(window.sliceObjects[0]);
  ASSERT_TRUE(first && second);
  EXPECT_TRUE(second->color().isApprox(Eigen::Vector4f(1, 0, 1, 1)));
  EXPECT_TRUE(first->color().isApprox(Eigen::Vector4f(0, 1, 0, 1)));
  // Clear takes the rows and the circles.
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonClearFiducials"), Qt::LeftButton);
  EXPECT_EQ(list->count(), 0);
  EXPECT_TRUE(window.sliceObjects.empty());
  EXPECT_TRUE(panel->pointCloud().points().empty());
}

TEST_F(FiducialPanel, NothingFoundWithGlobalDetectionTellsTheUserAndAddsNothing) {
  open(markerVolume({}));
  std::vector<QString> asked;
  QtHelpers::setQuestionHook([&](const QtHelpers::Question& q) {
    asked.push_back(q.title + "|" + q.text);
    return static_cast<int>(QMessageBox::Ok);
  });
  panel->onCompute();
  QTest::qWait(20);  // the message is posted
  EXPECT_EQ(list->count(), 0);
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0], "Fiducial extraction|Couldn't extract any fiducials");
}

TEST_F(FiducialPanel, FreeDiameterFailureKeepsTheClickedPointWithTheConfiguredRadius) {
  open(markerVolume({}));
  panel->findChild<QCheckBox*>("checkBoxFixedDiameter")->setChecked(false);
  panel->findChild<QDoubleSpinBox*>("doubleSpinBoxDiameter")->setValue(8.0);
  // A slice view on the volume's centre plane; the "user" clicks its middle.
  GlSliceView view(GlSliceView::Axial);
  view.resize(64, 64);
  const Eigen::Vector3d centre = static_cast<SharedImageSet*>(image)->get(0)->pixelToWorld({24, 24, 24});
  view.centerAt(centre);
  QTimer::singleShot(30, [&] {
    InteractiveObject* start = window.annotations.find("Fiducial start point");
    ASSERT_NE(start, nullptr);
    start->eventHandler()->handleInputEvent(
        TestKit::pointerEvent(GUI::InputEvent::MouseButtonPress, {32, 32}, GUI::InputEvent::LeftButton), view);
  });
  TestKit::LogCapture log;
  panel->onCompute();
  ASSERT_EQ(list->count(), 1);
  const auto kept = panel->fiducials();
  EXPECT_DOUBLE_EQ(kept[0].radius, 4.0);
  EXPECT_LT((kept[0].centre - view.viewState().unproject({32, 32})).norm(), 1.0);
  EXPECT_TRUE(log.contains("Couldn't extract fiducial, using clicked point"));
  // The start point is gone from the annotations.
  EXPECT_EQ(window.annotations.find("Fiducial start point"), nullptr);
}

TEST_F(FiducialPanel, SortOrdersByZDescendingAndRenumbers) {
  for (double z : {1.0, 5.0, -2.0, 3.0}) panel->addFiducial({Eigen::Vector3d(0, z, z), 1.0});
  list->item(0)->setSelected(true);
  EXPECT_EQ(zs(), std::vector<double>({1, 5, -2, 3}));
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonSortFiducials"), Qt::LeftButton);
  EXPECT_EQ(zs(), std::vector<double>({5, 3, 1, -2}));
  EXPECT_EQ(texts(), QStringList({"Fiducial #1", "Fiducial #2", "Fiducial #3", "Fiducial #4"}));
  std::vector<double> cloud;
  for (const auto& p : panel->pointCloud().points()) cloud.push_back(p.z());
  EXPECT_EQ(cloud, zs());
}

TEST_F(FiducialPanel, MoveAndDeleteEditTheListAndTheCloud) {
  for (double z : {1.0, 2.0, 3.0}) panel->addFiducial({Eigen::Vector3d(0, 0, z), 1.0});
  list->item(2)->setSelected(true);
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonMoveFiducialsUp"), Qt::LeftButton);
  EXPECT_EQ(zs(), std::vector<double>({1, 3, 2}));
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonMoveFiducialsUp"), Qt::LeftButton);
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonMoveFiducialsUp"), Qt::LeftButton);  // stays on top
  EXPECT_EQ(zs(), std::vector<double>({3, 1, 2}));
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonMoveFiducialsDown"), Qt::LeftButton);
  EXPECT_EQ(zs(), std::vector<double>({1, 3, 2}));
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonDeleteFiducials"), Qt::LeftButton);
  EXPECT_EQ(zs(), std::vector<double>({1, 2}));
  EXPECT_EQ(texts(), QStringList({"Fiducial #1", "Fiducial #2"}));
  ASSERT_EQ(panel->pointCloud().points().size(), 2u);
  EXPECT_EQ(panel->pointCloud().points()[1].z(), 2.0);
}

TEST_F(FiducialPanel, ExportThenImportRoundTripsTheCentres) {
  panel->onCompute();
  ASSERT_EQ(list->count(), 2);
  const auto before = panel->fiducials();
  const auto path = tempFile("roundtrip.txt");
  ASSERT_TRUE(panel->exportFiducialsToFile(QString::fromStdString(path.string())));
  panel->onClearFiducials();
  panel->findChild<QDoubleSpinBox*>("doubleSpinBoxDiameter")->setValue(5.0);
  ASSERT_TRUE(panel->importFiducialsFromFile(QString::fromStdString(path.string())));
  const auto after = panel->fiducials();
  ASSERT_EQ(after.size(), before.size());
  for (size_t i = 0; i < after.size(); ++i) {
    EXPECT_LT((after[i].centre - before[i].centre).norm(), 1e-4);
    EXPECT_DOUBLE_EQ(after[i].radius, 2.5);  // three numbers per line: half the diameter
  }
  // With a selection only the selected rows are written.
  list->item(1)->setSelected(true);
  ASSERT_TRUE(panel->exportFiducialsToFile(QString::fromStdString(path.string())));
  panel->onClearFiducials();
  ASSERT_TRUE(panel->importFiducialsFromFile(QString::fromStdString(path.string())));
  ASSERT_EQ(panel->fiducials().size(), 1u);
  EXPECT_LT((panel->fiducials()[0].centre - before[1].centre).norm(), 1e-4);
  std::filesystem::remove(path);
}

TEST_F(FiducialPanel, ImportTakesAFourthNumberAsRadiusAndSkipsComments) {
  const auto path = tempFile("import.txt");
  std::ofstream(path) << "# centre and radius\n1 2 3\n  4 5 6 1.5\t\nnot a line\n7 8\n";
  ASSERT_TRUE(panel->importFiducialsFromFile(QString::fromStdString(path.string())));
  const auto read = panel->fiducials();
  ASSERT_EQ(read.size(), 2u);
  EXPECT_TRUE(read[0].centre.isApprox(Eigen::Vector3d(1, 2, 3)));
  EXPECT_DOUBLE_EQ(read[0].radius, 3.0);
  EXPECT_TRUE(read[1].centre.isApprox(Eigen::Vector3d(4, 5, 6)));
  EXPECT_DOUBLE_EQ(read[1].radius, 1.5);
  std::filesystem::remove(path);
}

TEST_F(FiducialPanel, ExportAsLabelsAddsNamedPointsOnTheImage) {
  panel->onCompute();
  ASSERT_EQ(list->count(), 2);
  panel->exportFiducialsAsLabels("Marker");
  const auto points = window.annotations.annotations(image);
  ASSERT_EQ(points.size(), 2u);
  const auto centres = panel->fiducials();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(points[i]->name(), "Marker " + std::to_string(i + 1));
    auto* p = dynamic_cast<GlPoint*>(points[i]->object());
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(p->position.isApprox(centres[i].centre));
  }
}

TEST_F(FiducialPanel, UnreadableFileLeavesTheListAndShowsAMessage) {
  panel->addFiducial({Eigen::Vector3d(1, 1, 1), 1.0});
  TestKit::LogCapture log;
  EXPECT_FALSE(panel->importFiducialsFromFile(QString::fromStdString(tempFile("no-such-file.txt").string())));
  EXPECT_EQ(list->count(), 1);
  EXPECT_FALSE(panel->message().isEmpty());
  EXPECT_EQ(log.count(Log::Error), 1);
  // A file that cannot be written: a message, and nothing left behind.
  const auto dir = tempFile("no-such-dir") / "out.txt";
  EXPECT_FALSE(panel->exportFiducialsToFile(QString::fromStdString(dir.string())));
  EXPECT_FALSE(std::filesystem::exists(dir));
}

TEST(FiducialPanelFailure, ComputeWithoutInputDataShowsAMessage) {
  TestKit::qtApp();
  StandInWindow window;
  FiducialExtractionAlgorithm algorithm(nullptr, FiducialExtractionAlgorithm::Mode3D);
  FiducialExtractionController panel(&algorithm);
  panel.init();
  TestKit::LogCapture log;
  panel.onCompute();
  EXPECT_EQ(panel.lastStatus(), Algorithm::statusInvalidInput);
  EXPECT_FALSE(panel.message().isEmpty());
  EXPECT_EQ(panel.findChild<QListWidget*>("listWidgetFiducials")->count(), 0);
  EXPECT_GE(log.count(Log::Error), 1);
}

TEST_F(FiducialPanel, Screenshot) {
  panel->onCompute();
  panel->resize(360, 640);
  panel->show();
  QTest::qWait(20);
  const auto path = std::filesystem::path(MERIVANE_DOCS_DIR) / "fiducial-panel.png";
  if (std::getenv("MERIVANE_WRITE_SCREENSHOTS")) {
    EXPECT_TRUE(panel->grab().save(QString::fromStdString(path.string())));
  }
  EXPECT_FALSE(panel->grab().isNull());
}

// ---------------------------------------------------------------------------------------
// Line to isosurface panel

// A CT volume 24 x 8 x 8: tissue (0) for x < 12, air (-1000) from x = 12.
std::unique_ptr<SharedImageSet> stepVolume() {
  auto set = TestKit::makeImage<short>({24, 8, 8}, [](int x, int, int) { return x < 12 ? 0.0 : -1000.0; });
  set->setModality(Data::CT);
  return set;
}

struct LinePanel : testing::Test {
  bool ready = (TestKit::qtApp(), true);
  StandInWindow window;
  Data* image = nullptr;
  SharedImageSet* set = nullptr;
  std::unique_ptr<LineToIsosurfaceIntersectionAlgorithm> algorithm;
  std::unique_ptr<LineToIsosurfaceIntersectionController> panel;
  LinePanel() {
    auto volume = stepVolume();
    set = volume.get();
    image = window.data.add(std::move(volume), "step");
    algorithm = std::make_unique<LineToIsosurfaceIntersectionAlgorithm>(*set);
    stamp(*algorithm, DataList{image});
    panel = std::make_unique<LineToIsosurfaceIntersectionController>(algorithm.get());
    panel->init();
  }
  int computeAndWait() {
    QSignalSpy finished(panel.get(), &DefaultAlgorithmController::computeFinished);
    panel->onCompute();
    if (!panel->isComputing()) return -1;
    if (finished.isEmpty() && !finished.wait(10000)) return -2;
    return finished.front().front().toInt();
  }
};

TEST_F(LinePanel, BallGoesWhereTheTwoPointLineLeavesTheTissue) {
  auto* setLine = panel->findChild<QPushButton*>("pushButtonSetLine");
  ASSERT_NE(setLine, nullptr);
  EXPECT_EQ(setLine->text(), "Set Line");
  QTest::mouseClick(setLine, Qt::LeftButton);
  ASSERT_NE(panel->lineAnnotation(), nullptr);
  auto* line = dynamic_cast<GlPolyLine*>(panel->lineAnnotation()->object());
  ASSERT_NE(line, nullptr);
  // Two clicks in an axial view through the volume's middle: from x = 2 to x = 22 along y = z = 4.
  const SharedImage& frame = *set->get(0);
  GlSliceView view(GlSliceView::Axial);
  view.resize(64, 64);
  view.centerAt(frame.pixelToWorld({12, 4, 4}));
  for (double x : {2.0, 22.0}) {
    const Eigen::Vector3d p = view.viewState().project(frame.pixelToWorld({x, 4, 4}));
    panel->lineAnnotation()->eventHandler()->handleInputEvent(
        TestKit::pointerEvent(GUI::InputEvent::MouseButtonPress, p.head<2>(), GUI::InputEvent::LeftButton), view);
  }
  ASSERT_EQ(line->points.size(), 2u);
  ASSERT_EQ(computeAndWait(), Algorithm::statusSuccess);
  ASSERT_NE(panel->resultBall(), nullptr);
  auto* ball = dynamic_cast<GlBall*>(panel->resultBall()->object());
  ASSERT_NE(ball, nullptr);
  // The last tissue voxel before the air.
  EXPECT_LT((frame.worldToPixel(ball->center) - Eigen::Vector3d(11, 4, 4)).norm(), 1e-6);
  // A second run replaces the ball.
  ASSERT_EQ(computeAndWait(), Algorithm::statusSuccess);
  int balls = 0;
  for (InteractiveObject* a : window.annotations.annotations())
    if (dynamic_cast<GlBall*>(a->object())) ++balls;
  EXPECT_EQ(balls, 1);
}

TEST_F(LinePanel, ComputeWithoutALineOrWithOnePointOnlyWarns) {
  TestKit::LogCapture log;
  EXPECT_EQ(computeAndWait(), -1);
  EXPECT_TRUE(log.contains("Annotation Missing"));
  panel->onSetLine();
  dynamic_cast<GlPolyLine*>(panel->lineAnnotation()->object())->points.push_back(Eigen::Vector3d::Zero());
  EXPECT_EQ(computeAndWait(), -1);
  EXPECT_TRUE(log.contains("Points Missing"));
  EXPECT_EQ(panel->resultBall(), nullptr);
}

TEST_F(LinePanel, ALineThatMissesTheVolumeGivesNoBall) {
  panel->onSetLine();
  auto* line = dynamic_cast<GlPolyLine*>(panel->lineAnnotation()->object());
  line->points = {Eigen::Vector3d(500, 500, 500), Eigen::Vector3d(600, 500, 500)};
  TestKit::LogCapture log;
  EXPECT_EQ(computeAndWait(), Algorithm::statusInvalidInput);
  EXPECT_EQ(panel->resultBall(), nullptr);
}

// ---------------------------------------------------------------------------------------
// Centerline panel

struct CenterlinePanel : testing::Test {
  bool ready = (TestKit::qtApp(), true);
  StandInWindow window;
  Data* image = nullptr;
  std::unique_ptr<CenterlineExtractionAlgorithm> algorithm;
  std::unique_ptr<CenterlineExtractionController> panel;
  CenterlinePanel() {
    auto volume = TestKit::makeImage<float>({16, 16, 16}, [](int, int, int) { return 0.0; });
    SharedImageSet* set = volume.get();
    image = window.data.add(std::move(volume), "tube");
    algorithm = std::make_unique<CenterlineExtractionAlgorithm>(set->get(0));
    stamp(*algorithm, DataList{image});
    panel = std::make_unique<CenterlineExtractionController>(algorithm.get());
    panel->init();
  }
  ~CenterlinePanel() override { QtHelpers::setQuestionHook(nullptr); }
};

TEST_F(CenterlinePanel, ControlsCarryTheirRangesAndStartValues) {
  struct Expected {
    const char* name;
    double min, max, step, value;
    int decimals;
  };
  for (const Expected& s : {Expected{"doubleSpinBoxSmoothness", 0.001, 1, 0.001, 0.05, 3},
                        Expected{"doubleSpinBoxMinI", -99999, 99999, 1, 0, 1},
                        Expected{"doubleSpinBoxMaxI", -99999, 99999, 1, 2000, 1}}) {
    auto* box = panel->findChild<QDoubleSpinBox*>(s.name);
    ASSERT_NE(box, nullptr) << s.name;
    EXPECT_DOUBLE_EQ(box->minimum(), s.min) << s.name;
    EXPECT_DOUBLE_EQ(box->maximum(), s.max) << s.name;
    EXPECT_DOUBLE_EQ(box->singleStep(), s.step) << s.name;
    EXPECT_NEAR(box->value(), s.value, 1e-6) << s.name;
    EXPECT_EQ(box->decimals(), s.decimals) << s.name;
  }
  auto* resolution = panel->findChild<QDoubleSpinBox*>("doubleSpinBoxResolution");
  ASSERT_NE(resolution, nullptr);
  EXPECT_DOUBLE_EQ(resolution->minimum(), 0.01);
  EXPECT_DOUBLE_EQ(resolution->singleStep(), 0.01);
  EXPECT_DOUBLE_EQ(resolution->value(), 0.5);
  EXPECT_NE(panel->findChild<QDoubleSpinBox*>("doubleSpinBoxMargins"), nullptr);
  auto* samples = panel->findChild<QSpinBox*>("spinBoxSamples");
  ASSERT_NE(samples, nullptr);
  EXPECT_EQ(samples->minimum(), 2);
  EXPECT_EQ(samples->maximum(), 999);
  EXPECT_EQ(samples->value(), 20);
  auto* bright = panel->findChild<QCheckBox*>("checkBoxBright");
  ASSERT_NE(bright, nullptr);
  EXPECT_EQ(bright->text(), "Bright centerline");
  EXPECT_TRUE(bright->isChecked());
  auto* compute = panel->findChild<QPushButton*>("pushButtonCompute");
  ASSERT_NE(compute, nullptr);
  EXPECT_EQ(compute->text(), "Compute");
  EXPECT_EQ(panel->windowTitle(), "Centerline Extraction");
}

TEST_F(CenterlinePanel, WidgetsReachTheAlgorithmExceptTheSmoothness) {
  panel->findChild<QDoubleSpinBox*>("doubleSpinBoxSmoothness")->setValue(0.5);
  panel->findChild<QDoubleSpinBox*>("doubleSpinBoxMinI")->setValue(-100);
  panel->findChild<QDoubleSpinBox*>("doubleSpinBoxMaxI")->setValue(300);
  panel->findChild<QSpinBox*>("spinBoxSamples")->setValue(7);
  panel->findChild<QCheckBox*>("checkBoxBright")->setChecked(false);
  panel->findChild<QDoubleSpinBox*>("doubleSpinBoxResolution")->setValue(1.25);
  panel->findChild<QDoubleSpinBox*>("doubleSpinBoxMargins")->setValue(-1);
  panel->setParametersToAlgorithm();
  // The smoothness goes out under a key the algorithm does not read.
  EXPECT_FLOAT_EQ(algorithm->isotropicConstant.value(), 0.05f);
  EXPECT_FLOAT_EQ(algorithm->minimumLut.value(), -100.f);
  EXPECT_FLOAT_EQ(algorithm->maximumLut.value(), 300.f);
  EXPECT_EQ(algorithm->centerlineSamples.value(), 7);
  EXPECT_FALSE(algorithm->bright.value());
  EXPECT_DOUBLE_EQ(algorithm->workingResolution.value(), 1.25);
  EXPECT_DOUBLE_EQ(algorithm->croppingMargin.value(), -1.0);
}

TEST_F(CenterlinePanel, WithoutALineItOffersToDrawOne) {
  int asked = 0;
  int answer = QMessageBox::No;
  QtHelpers::setQuestionHook([&](const QtHelpers::Question& q) {
    ++asked;
    EXPECT_EQ(q.title, "Centerline Extraction");
    return answer;
  });
  panel->onCompute();
  EXPECT_EQ(asked, 1);
  EXPECT_TRUE(window.annotations.annotations().empty());
  answer = QMessageBox::Yes;
  panel->onCompute();
  EXPECT_EQ(asked, 2);
  InteractiveObject* init = window.annotations.find("Centerline Initialization");
  ASSERT_NE(init, nullptr);
  EXPECT_NE(dynamic_cast<GlPolyLine*>(init->object()), nullptr);
  // A line of one point still counts as none.
  dynamic_cast<GlPolyLine*>(init->object())->points.push_back(Eigen::Vector3d::Zero());
  answer = QMessageBox::No;
  panel->onCompute();
  EXPECT_EQ(asked, 3);
}

}  // namespace
}  // namespace Merivane
