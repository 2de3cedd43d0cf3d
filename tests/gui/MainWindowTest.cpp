// The application window as a user drives it: files in, menus built from the factories of the
// loaded plug-in, a panel, a computation, the overlay drawn where the label map says.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QMenuBar>
#include <QSpinBox>
#include <QClipboard>
#include <QDialog>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QPushButton>
#include <QTableWidget>
#include <QTimer>
#include <QToolButton>
#include <thread>
#include <QTest>
#include <filesystem>
#include <tuple>
#include <typeinfo>

#include "../io/DicomTestSeries.h"
#include "GlLabelRenderer.h"
#include "GuiView.h"
#include "ImageIO.h"
#include "FactoryRegistry.h"
#include "LabelDataComponent.h"
#include "LabelMapIsolineRenderer.h"
#include "LabelMapIsolineRendererController.h"
#include "LabelStatisticsAlgorithm.h"
#include "GraphBasedSegmentationController.h"
#include "GlMesh.h"
#include "Mesh.h"
#include "DefaultAlgorithmController.h"
#include "QtHelpers.h"
#include "SectionWidget.h"
#include "MLPlugin.h"
#include "MainWindow.h"
#include "MultiViewWidget.h"
#include "Plugin.h"
#include "Properties.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "GuiTestKit.h"
#include "TestSupport.h"
#include "ViewWidget.h"

namespace Merivane {
namespace {

QApplication& app() { return TestKit::qtApp(); }

PluginManager& plugins() {
  static PluginManager* m = [] {
    auto* manager = new PluginManager;
    ML::registerBuiltin(*manager);
    std::string error;
    EXPECT_TRUE(manager->load(MERIVANE_PLUGIN_PATH, &error)) << error;
    return manager;
  }();
  return *m;
}

// A bright ball in a dark 40 x 40 x 12 volume, and seeds: 1 inside the ball, 2 near the corners.
struct Scene {
  std::unique_ptr<SharedImageSet> image, seeds;
  Scene() {
    const Eigen::Vector3i dims(40, 40, 12);
    auto img = std::shared_ptr<TypedImage<float>>(TypedImage<float>::zeros(dims));
    auto lab = std::shared_ptr<TypedImage<unsigned char>>(TypedImage<unsigned char>::zeros(dims));
    for (int z = 0; z < dims.z(); ++z)
      for (int y = 0; y < dims.y(); ++y)
        for (int x = 0; x < dims.x(); ++x) {
          const double r = std::hypot(x - 19.5, y - 19.5);
          img->setValue(r < 10 ? 100.f : 10.f, x, y, z);
          if (r < 3) lab->setValue(1, x, y, z);
          if (r > 17) lab->setValue(2, x, y, z);
        }
    image = std::make_unique<SharedImageSet>(img);
    image->setName("ball");
    seeds = std::make_unique<SharedImageSet>(lab);
    seeds->setModality(Data::LABEL);
    seeds->setName("seeds");
  }
};

// The window on screen with the ball and its seeds in its data list.
struct WindowWithScene {
  bool ready = (app(), plugins(), true);
  MainWindow window;
  Data* image = nullptr;
  Data* seeds = nullptr;
  WindowWithScene() {
    window.resize(900, 700);
    window.show();
    Scene scene;
    image = window.dataModel()->add(std::move(scene.image));
    seeds = window.dataModel()->add(std::move(scene.seeds));
  }
};

std::vector<std::unique_ptr<Algorithm>> algorithms;

using TestKit::findAction;

TEST(MainWindow, AFileThatCannotBeReadLeavesTheWindowAsItWas) {
  app();
  plugins();
  MainWindow window;
  const auto missing = std::filesystem::temp_directory_path() / "merivane-no-such-file.nrrd";
  EXPECT_FALSE(window.openFile(QString::fromStdString(missing.string()), true));
  EXPECT_EQ(window.dataModel()->size(), 0);
}

// A folder dropped on the window (or opened from File) brings every DICOM image series in it,
// each under its description and on its own grid; a folder without any says so and adds nothing.
TEST(MainWindow, AFolderOpensEveryDicomSeriesInIt) {
  app();
  plugins();
  MainWindow window;
  const auto dir = std::filesystem::temp_directory_path() / "merivane-window-dicom";
  std::filesystem::remove_all(dir);
  TestKit::SeriesSpec ct;
  ct.description = "Abdomen";
  TestKit::writeSeries(dir.string(), ct);
  TestKit::SeriesSpec mr = ct;
  mr.seriesUid = ct.seriesUid + ".2";
  mr.modality = "MR";
  mr.description = "T2";
  mr.seriesNumber = 2;
  mr.slices = 3;
  TestKit::writeSeries(dir.string(), mr, 11, "MR");
  ASSERT_TRUE(window.openFile(QString::fromStdString(dir.string()), true));
  ASSERT_EQ(window.dataModel()->size(), 2);
  std::vector<std::pair<std::string, int>> opened;
  for (int i = 0; i < 2; ++i) {
    const auto* set = window.dataModel()->at(i)->asImageSet();
    ASSERT_NE(set, nullptr);
    opened.emplace_back(set->name(), set->get()->descriptor().dimensions[2]);
  }
  std::sort(opened.begin(), opened.end());
  EXPECT_EQ(opened, (std::vector<std::pair<std::string, int>>{{"Abdomen (1)", 5}, {"T2 (2)", 3}}));

  const auto empty = std::filesystem::temp_directory_path() / "merivane-window-no-dicom";
  std::filesystem::create_directories(empty);
  EXPECT_FALSE(window.openFile(QString::fromStdString(empty.string()), true));
  EXPECT_EQ(window.dataModel()->size(), 2);
  std::filesystem::remove_all(dir);
  std::filesystem::remove_all(empty);
}

TEST(MainWindow, TheMenuOffersWhatFitsTheSelectionAndItsPanelComputesOnIt) {
  WindowWithScene shown;
  MainWindow& window = shown.window;
  Data* image = shown.image;
  Data* seeds = shown.seeds;
  QMenu* algorithms = nullptr;
  for (QAction* a : window.menuBar()->actions())
    if (a->text().remove('&') == "Algorithms") algorithms = a->menu();
  ASSERT_NE(algorithms, nullptr);

  window.select({image});
  emit algorithms->aboutToShow();
  QAction* graph = findAction(algorithms, "Graph-based Segmentation");
  ASSERT_NE(graph, nullptr);
  EXPECT_FALSE(graph->isEnabled());  // an image alone has no seeds

  window.select({image, seeds});
  emit algorithms->aboutToShow();
  graph = findAction(algorithms, "Graph-based Segmentation");
  ASSERT_NE(graph, nullptr);
  ASSERT_TRUE(graph->isEnabled());
  graph->trigger();
  ASSERT_NE(window.openAlgorithmInstance(), nullptr);
  // Accepting turns the probabilities into labels; without it the map holds seeds and outline.
  Properties accept;
  accept.setParam("Auto-Accept Segmentation", true);
  window.openAlgorithmInstance()->configure(&accept);
  EXPECT_EQ(window.computeOpenAlgorithm(), 0);

  // The label map now holds the ball as 1 and the rest as 2.
  const auto* labels = static_cast<const TypedImage<unsigned char>*>(seeds->asImageSet()->mem());
  EXPECT_EQ(labels->value(19, 19, 6), 1);
  EXPECT_EQ(labels->value(19 + 7, 19, 6), 1);
  EXPECT_EQ(labels->value(19 + 13, 19, 6), 2);
  EXPECT_EQ(labels->value(1, 1, 6), 2);
}

TEST(MainWindow, TheIsolineViewShowsItsRendererAndFollowsThePanelAndTheLabelColours) {
  WindowWithScene shown;
  MainWindow& window = shown.window;
  Data* seeds = shown.seeds;
  window.select({seeds});
  ASSERT_TRUE(window.openAlgorithm("Seg.LabelMapIsolineRenderer"));
  auto* isolines = dynamic_cast<LabelMapIsolineRenderer*>(window.openAlgorithmInstance());
  ASSERT_NE(isolines, nullptr);
  GlIsolineRenderer* renderer = isolines->renderer();
  // In every slice view, not in the 3D view.
  for (int v = 0; v < 3; ++v) EXPECT_TRUE(window.views().view(v).view().hasObject(renderer));
  EXPECT_FALSE(window.views().view(3).view().hasObject(renderer));

  auto* spin = window.findChild<QSpinBox*>();
  ASSERT_NE(spin, nullptr);
  EXPECT_EQ(spin->suffix(), "px");
  spin->setValue(5);
  EXPECT_DOUBLE_EQ(renderer->thicknessPx(), 5.0);

  auto* ldc = seeds->asImageSet()->components().get<LabelDataComponent>();
  ASSERT_NE(ldc, nullptr);
  ldc->setLabelColor(2, Eigen::Vector4d(0, 0, 1, 1));
  ASSERT_GT(renderer->colors().size(), 2u);
  EXPECT_EQ(renderer->colors()[2], Eigen::Vector4f(0, 0, 1, 1));

  // Closing the panel takes the renderer out of the views.
  window.openAlgorithm("Seg.LabelMapToContours");
  for (int v = 0; v < 3; ++v) EXPECT_FALSE(window.views().view(v).view().hasObject(renderer));
}

TEST(IsolineView, AcceptsOneUnsignedByteLabelMapOfOneFrameOnly) {
  Scene scene;
  Algorithm* created = nullptr;
  EXPECT_TRUE(LabelMapIsolineRenderer::createCompatible(DataList{scene.seeds.get()}, nullptr));
  EXPECT_FALSE(LabelMapIsolineRenderer::createCompatible(DataList{scene.image.get()}, &created));
  EXPECT_FALSE(LabelMapIsolineRenderer::createCompatible(DataList{scene.seeds.get(), scene.seeds.get()}, &created));
  EXPECT_FALSE(LabelMapIsolineRenderer::createCompatible(DataList{}, &created));
  EXPECT_EQ(created, nullptr);
  plugins();
  const auto* d = FactoryRegistry::descriptor("Seg.LabelMapIsolineRenderer");
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->menuPath, "Visualization;Show Label Map as Isolines");
}

TEST(ControllerTable, PanelsFollowTheTableForTheClassesThatExist) {
  app();
  plugins();
  Scene scene;
  auto controllerFor = [&](const std::string& name, const DataList& data) -> std::unique_ptr<AlgorithmController> {
    auto algorithm = FactoryRegistry::instantiateAlgorithm(name, data);
    if (!algorithm) return nullptr;
    std::unique_ptr<AlgorithmController> c(FactoryRegistry::createController(algorithm.get()));
    algorithms.push_back(std::move(algorithm));
    return c;
  };
  auto flags = [](AlgorithmController* c) {
    auto* d = dynamic_cast<DefaultAlgorithmController*>(c);
    return d ? std::make_pair(d->flag1(), d->flag2()) : std::make_pair(false, false);
  };
  // Generated panels with the table's flags.
  auto mesh = controllerFor("Seg.LabelToMesh", DataList{scene.seeds.get()});
  ASSERT_TRUE(dynamic_cast<DefaultAlgorithmController*>(mesh.get()));
  EXPECT_EQ(flags(mesh.get()), std::make_pair(true, false));
  auto plain = TestKit::makeImage<unsigned char>(Eigen::Vector3i(4, 4, 2), [](int x, int, int) { return x % 2; });
  auto mark = controllerFor("Seg.MarkAsLabelMap", DataList{plain.get()});
  ASSERT_TRUE(dynamic_cast<DefaultAlgorithmController*>(mark.get()));
  EXPECT_EQ(flags(mark.get()), std::make_pair(true, true));
  auto watershed = controllerFor("Seg.WatershedSegmentation", DataList{scene.image.get(), scene.seeds.get()});
  ASSERT_TRUE(dynamic_cast<DefaultAlgorithmController*>(watershed.get()));
  EXPECT_EQ(flags(watershed.get()), std::make_pair(false, true));
  // A panel of its own.
  auto isolines = controllerFor("Seg.LabelMapIsolineRenderer", DataList{scene.seeds.get()});
  EXPECT_TRUE(dynamic_cast<LabelMapIsolineRendererController*>(isolines.get()));
  auto graph = controllerFor("Seg.GraphBasedSegmentation", DataList{scene.image.get(), scene.seeds.get()});
  EXPECT_TRUE(dynamic_cast<GraphBasedSegmentationController*>(graph.get()));
  // Both interactive segmentations stand before the graph-based one and share one panel; the
  // watershed's hides the random walk's settings. (Found by name: the plug-in's classes are
  // not this program's.)
  for (const char* name : {"Seg.InteractiveSegmentation", "Seg.InteractiveSegmentationWatershed"}) {
    auto interactive = controllerFor(name, DataList{scene.image.get()});
    auto* widget = dynamic_cast<QWidget*>(interactive.get());
    ASSERT_NE(widget, nullptr) << name;
    EXPECT_EQ(widget->objectName(), "InteractiveSegmentationController") << name;
    auto* parameters = widget->findChild<QWidget*>("SegmentationParametersWidget");
    ASSERT_NE(parameters, nullptr);
    EXPECT_EQ(parameters->isHidden(), std::string(name).find("Watershed") != std::string::npos) << name;
  }
  // The extraction and clustering rows: generated panels with their flags, and panels of
  // their own, known by their object names.
  auto exactlyGenerated = [](AlgorithmController* c) {
    return c && typeid(*c) == typeid(DefaultAlgorithmController);
  };
  auto ct = TestKit::makeImage<short>(Eigen::Vector3i(12, 10, 8), [](int x, int, int) { return x < 6 ? 0 : -1000; });
  ct->setModality(Data::CT);
  auto markers = TestKit::makeImage<unsigned short>(Eigen::Vector3i(12, 10, 8), [](int, int, int) { return 1000; });
  const std::tuple<const char*, DataList, std::pair<bool, bool>> generated[] = {
      {"Seg.HistogramIntensityClustering", DataList{scene.image.get()}, {false, false}},
      {"Seg.IntensityClustering", DataList{scene.image.get()}, {false, false}},
      {"Seg.SkinSegmentation", DataList{ct.get()}, {false, false}},
      {"Seg.ConvolutionalCRF", DataList{scene.image.get(), scene.seeds.get()}, {true, false}}};
  for (const auto& [name, data, expected] : generated) {
    auto c = controllerFor(name, data);
    ASSERT_TRUE(exactlyGenerated(c.get())) << name;
    EXPECT_EQ(flags(c.get()), expected) << name;
  }
  const std::pair<const char*, DataList> own[] = {{"Seg.FiducialExtraction", DataList{markers.get()}},
                                                  {"Seg.CenterlineExtraction", DataList{scene.image.get()}},
                                                  {"Seg.LineToIsosurfaceIntersection", DataList{ct.get()}}};
  const char* const ownNames[] = {"FiducialExtractionWidget", "CenterlineExtractionController",
                                  "LineToIsosurfaceIntersectionController"};
  for (int i = 0; i < 3; ++i) {
    auto c = controllerFor(own[i].first, own[i].second);
    auto* widget = dynamic_cast<QWidget*>(c.get());
    ASSERT_NE(widget, nullptr) << own[i].first;
    EXPECT_EQ(widget->objectName(), ownNames[i]);
    // The line panel is a generated one with a button more.
    if (i == 2) {
      EXPECT_EQ(flags(c.get()), std::make_pair(true, false));
    }
  }
  // No panel of its own: the factory says so, and the window then generates one.
  auto compatible = controllerFor("Seg.MakeCompatibleLabelMap", DataList{scene.image.get()});
  EXPECT_EQ(compatible, nullptr);
  EXPECT_EQ(FactoryRegistry::createController(nullptr), nullptr);
  isolines.reset();
  graph.reset();
  mesh.reset();
  mark.reset();
  watershed.reset();
  algorithms.clear();
}

TEST(StatisticsPanel, ShowsTheTableOfTheAlgorithmAndCopiesItsCsv) {
  WindowWithScene shown;
  MainWindow& window = shown.window;
  Data* image = shown.image;
  Data* seeds = shown.seeds;
  window.select({image, seeds});
  ASSERT_TRUE(window.openAlgorithm("Seg.LabelStatistics"));
  // The same measurement straight from the factory, for comparison.
  auto reference = FactoryRegistry::instantiateAlgorithm("Seg.LabelStatistics", DataList{image, seeds});
  ASSERT_TRUE(reference);
  reference->compute();
  const std::string csv = static_cast<LabelStatisticsAlgorithm*>(reference.get())->csv();
  ASSERT_FALSE(csv.empty());

  QStringList cells;
  QString copied;
  // The dialog opens when the computation has ended; look for it until it is there.
  QTimer poll;
  poll.setInterval(10);
  QObject::connect(&poll, &QTimer::timeout, [&] {
    QWidget* modal = nullptr;
    for (QWidget* w : QApplication::topLevelWidgets())
      if (w->objectName() == "LabelStatisticsDialog" && w->isVisible()) modal = w;
    if (!modal) return;
    poll.stop();
    EXPECT_EQ(modal->windowTitle(), "Label Statistics");
    auto* table = modal->findChild<QTableWidget*>();
    ASSERT_NE(table, nullptr);
    for (int r = 0; r < table->rowCount(); ++r) {
      QStringList row{table->verticalHeaderItem(r)->text()};
      for (int c = 0; c < table->columnCount(); ++c) row << table->item(r, c)->text();
      cells << row.join(';');
    }
    for (auto* b : modal->findChildren<QPushButton*>())
      if (b->text() == "Copy CSV to Clipboard") b->click();
    copied = QGuiApplication::clipboard()->text();
    static_cast<QDialog*>(modal)->accept();
  });
  poll.start();
  EXPECT_EQ(window.computeOpenAlgorithm(), 0);
  EXPECT_FALSE(poll.isActive()) << "no statistics dialog appeared";
  QStringList expected = QString::fromStdString(csv).split('\n', Qt::SkipEmptyParts);
  expected.removeFirst();  // the header is the table's column titles
  EXPECT_EQ(cells, expected);
  EXPECT_EQ(copied.toStdString(), csv);
}

TEST(GraphPanel, ComputesSetsLabelsGivesProbabilitiesAndExtractsTheSurface) {
  WindowWithScene shown;
  MainWindow& window = shown.window;
  Data* image = shown.image;
  Data* seeds = shown.seeds;
  window.select({image, seeds});
  ASSERT_TRUE(window.openAlgorithm("Seg.GraphBasedSegmentation"));
  // Found by name: the plug-in's copy of the class is not this program's, for Qt's casts.
  auto* panel = dynamic_cast<GraphBasedSegmentationController*>(window.findChild<QWidget*>("GraphSegmentationWidget"));
  ASSERT_NE(panel, nullptr);
  EXPECT_EQ(panel->windowTitle(), "Graph Segmentation");
  auto* solver = panel->findChild<QComboBox*>("comboBoxSolver");
  ASSERT_NE(solver, nullptr);
  EXPECT_EQ(solver->count(), 8);
  EXPECT_EQ(solver->currentIndex(), 4);
  EXPECT_EQ(solver->itemText(4), "[Eigen] BiCGSTAB");
  EXPECT_EQ(panel->findChild<QSpinBox*>("spinBoxIterations")->value(), 200);
  EXPECT_EQ(panel->findChild<QSpinBox*>("spinBoxIterations")->singleStep(), 10);
  EXPECT_DOUBLE_EQ(panel->findChild<QDoubleSpinBox*>("doubleSpinBoxAdaptiveness")->value(), 100.0);
  EXPECT_TRUE(panel->findChild<QCheckBox*>("checkBoxAutoCrop")->isChecked());
  EXPECT_FALSE(panel->findChild<QSpinBox*>("spinBoxSuperpixels")->isEnabled());
  solver->setCurrentIndex(0);  // the direct solver has no iteration limit
  EXPECT_FALSE(panel->findChild<QSpinBox*>("spinBoxIterations")->isEnabled());
  solver->setCurrentIndex(4);

  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonCompute"), Qt::LeftButton);
  EXPECT_EQ(panel->lastStatus(), 0);
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonSetLabel"), Qt::LeftButton);
  const auto* labels = static_cast<const TypedImage<unsigned char>*>(seeds->asImageSet()->mem());
  EXPECT_EQ(labels->value(19 + 7, 19, 6), 1);
  EXPECT_EQ(labels->value(19 + 13, 19, 6), 2);

  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonAnnotation"), Qt::LeftButton);
  InteractiveObject* surface = window.annotationModel()->find("Segmentation");
  ASSERT_NE(surface, nullptr);
  EXPECT_GT(static_cast<GlMesh*>(surface->object())->mesh()->faces.size(), 100u);
  // The probabilities are handed over to the data list (the panel keeps none afterwards).
  const int before = window.dataModel()->size();
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonProbabilities"), Qt::LeftButton);
  ASSERT_EQ(window.dataModel()->size(), before + 1);
  EXPECT_EQ(window.dataModel()->at(before)->name(), "Probability");
}

TEST(InteractivePanel, OpensFromTheMenuAndExportingItsLabelsClosesIt) {
  WindowWithScene shown;
  MainWindow& window = shown.window;
  window.select({shown.image});
  QMenu* algorithms = nullptr;
  for (QAction* a : window.menuBar()->actions())
    if (a->text().remove('&') == "Algorithms") algorithms = a->menu();
  ASSERT_NE(algorithms, nullptr);
  auto overlays = [&] {
    int n = 0;
    for (int v = 0; v < 3; ++v)
      for (GlObject* o : window.views().view(v).view().objects()) n += dynamic_cast<GlLabelRenderer*>(o) != nullptr;
    return n;
  };
  const int windowOverlays = overlays();
  emit algorithms->aboutToShow();
  QAction* entry = findAction(algorithms, "Interactive Segmentation");
  ASSERT_NE(entry, nullptr);
  ASSERT_TRUE(entry->isEnabled());
  entry->trigger();
  QWidget* panel = window.findChild<QWidget*>("InteractiveSegmentationController");
  ASSERT_NE(panel, nullptr);
  // Its own labels are in no data list: the panel shows them in each slice view itself.
  EXPECT_EQ(overlays(), windowOverlays + 3);
  const int before = window.dataModel()->size();
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonExportLabelMap"), Qt::LeftButton);
  ASSERT_EQ(window.dataModel()->size(), before + 1);
  EXPECT_EQ(window.dataModel()->at(before)->name(), "Labels");
  EXPECT_EQ(window.dataModel()->at(before)->modality(), Data::LABEL);
  // The window closes the panel once its slot has returned.
  QApplication::processEvents();
  EXPECT_EQ(window.openAlgorithmInstance(), nullptr);
  EXPECT_EQ(window.findChild<QWidget*>("InteractiveSegmentationController"), nullptr);
}

TEST(QtHelpers, BackgroundWorkKeepsTheInterfaceResponsiveAndRunOnMainThreadReturnsThere) {
  app();
  QTimer tick;
  int ticks = 0;
  QObject::connect(&tick, &QTimer::timeout, [&] { ++ticks; });
  tick.start(5);
  std::thread::id workerThread, mainThread = std::this_thread::get_id(), calledOn;
  const bool done = QtHelpers::runInBackground(nullptr, "Working", [&] {
    workerThread = std::this_thread::get_id();
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    QtHelpers::runOnMainThread([&] { calledOn = std::this_thread::get_id(); });
  });
  EXPECT_TRUE(done);
  EXPECT_NE(workerThread, mainThread);
  EXPECT_EQ(calledOn, mainThread);
  EXPECT_GT(ticks, 5);  // the interface thread went on with its events meanwhile
}

TEST(SectionWidget, WorkflowModeKeepsOneSectionOpenAndNumbersThem) {
  app();
  SectionWidget sections;
  sections.addSection("Seeds", new QWidget);
  sections.addSection("Run", new QWidget);
  sections.addSection("Accept", new QWidget);
  EXPECT_TRUE(sections.isSectionOpen(0) && sections.isSectionOpen(1) && sections.isSectionOpen(2));
  sections.setWorkflowMode(true);
  EXPECT_TRUE(sections.isSectionOpen(0));
  EXPECT_FALSE(sections.isSectionOpen(1));
  sections.setSectionOpen(2, true);
  EXPECT_FALSE(sections.isSectionOpen(0));
  EXPECT_TRUE(sections.isSectionOpen(2));
  auto* header = sections.findChildren<QToolButton*>().at(1);
  EXPECT_EQ(header->text(), "2. Run");
}

}  // namespace
}  // namespace Merivane
