// The window under a real X server (Xvfb): open the demo brain and its ventricle seeds, run
// Graph-based Segmentation from its menu with the panel's Compute button, and check that the
// screenshot shows the red overlay exactly where the label map holds the object label.
// Needs DISPLAY (ctest runs it through xvfb-run) and Debian's mricron-data; skips without them.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QMenu>
#include <QMenuBar>
#include <QMouseEvent>
#include <QPushButton>
#include <QSpinBox>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>
#include <cstdlib>
#include <algorithm>
#include <filesystem>

#include "GraphBasedSegmentationController.h"
#include "GuiTestKit.h"
#include "GuiView.h"
#include "ImageIO.h"
#include "MLPlugin.h"
#include "MainWindow.h"
#include "MultiViewWidget.h"
#include "Plugin.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "ViewWidget.h"

namespace Merivane {
namespace {

constexpr char kBrain[] = "/usr/share/mricron/templates/ch2.nii.gz";

using TestKit::findAction;

// The application and the plug-in, once for the program.
bool loadPlugins() {
  TestKit::qtApp();
  static PluginManager* plugins = nullptr;
  static bool loaded = false;
  if (!plugins) {
    plugins = new PluginManager;
    ML::registerBuiltin(*plugins);
    std::string error;
    loaded = plugins->load(MERIVANE_PLUGIN_PATH, &error);
    if (!loaded) ADD_FAILURE() << error;
  }
  return loaded;
}

// A button press, moves with the button held, and the release, as the pointer would send them.
void drag(QWidget* w, const std::vector<QPoint>& path) {
  auto send = [&](QEvent::Type type, const QPoint& p, Qt::MouseButtons held) {
    QMouseEvent e(type, p, w->mapToGlobal(p), Qt::LeftButton, held, Qt::NoModifier);
    QApplication::sendEvent(w, &e);
  };
  send(QEvent::MouseButtonPress, path.front(), Qt::LeftButton);
  for (size_t i = 1; i < path.size(); ++i) send(QEvent::MouseMove, path[i], Qt::LeftButton);
  send(QEvent::MouseButtonRelease, path.back(), Qt::NoButton);
}

std::vector<unsigned char> voxelsOf(const SharedImageSet& set) {
  const MemImage* m = set.get()->mem();
  const auto* p = static_cast<const unsigned char*>(m->data());
  return {p, p + m->descriptor().byteSize()};
}

class EndToEnd : public ::testing::Test {
 protected:
  // The window on screen with the demo brain and its seeds, both selected.
  void SetUp() override {
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no X display (run through xvfb-run)";
    if (!std::filesystem::exists(kBrain)) GTEST_SKIP() << kBrain << " missing (Debian's mricron-data)";
    ASSERT_TRUE(loadPlugins());
    window_ = std::make_unique<MainWindow>();
    window_->resize(1400, 900);
    window_->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window_.get()));
    ASSERT_TRUE(window_->openFile(kBrain, true));
    ASSERT_TRUE(window_->openFile(MERIVANE_DEMO_SEEDS, true));
    window_->select({});
  }
  // Chooses the entry of the Algorithms menu as the user would; false when it is missing or off.
  bool chooseAlgorithm(const QString& text) {
    QMenu* algorithms = nullptr;
    for (QAction* a : window_->menuBar()->actions())
      if (a->text().remove('&') == "Algorithms") algorithms = a->menu();
    if (!algorithms) return false;
    emit algorithms->aboutToShow();
    QAction* entry = findAction(algorithms, text);
    if (!entry || !entry->isEnabled()) return false;
    entry->trigger();
    return true;
  }
  std::unique_ptr<MainWindow> window_;
};

TEST_F(EndToEnd, GraphBasedSegmentationFromTheMenuShowsTheObjectInRedWhereTheLabelMapSaysSo) {
  MainWindow& window = *window_;
  ASSERT_TRUE(chooseAlgorithm("Graph-based Segmentation"));

  // Found by name: the plug-in's copy of the class is not this program's, for Qt's casts.
  auto* panel = dynamic_cast<GraphBasedSegmentationController*>(window.findChild<QWidget*>("GraphSegmentationWidget"));
  ASSERT_NE(panel, nullptr);
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonCompute"), Qt::LeftButton);
  ASSERT_EQ(panel->lastStatus(), 0);
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonSetLabel"), Qt::LeftButton);
  QApplication::processEvents();

  const QImage shot = window.screenshot();
  shot.save(QString(MERIVANE_SCREENSHOT_PATH));

  // Compare the axial view's pixels with the label map under them.
  SharedImageSet* labels = nullptr;
  for (Data* d : window.dataModel()->getAll())
    if (d->modality() == Data::LABEL) labels = d->asImageSet();
  ASSERT_NE(labels, nullptr);
  const SharedImage& map = *labels->get();
  const auto* values = static_cast<const TypedImage<unsigned char>*>(map.mem());
  GUI::ViewWidget* axial = window.views().viewWidget(0);
  const QPoint origin = axial->mapTo(&window, QPoint(0, 0));
  const ViewState& vs = window.views().view(0).view().viewState();
  int object = 0, objectRed = 0, other = 0, otherRed = 0;
  for (int y = 20; y < axial->height() - 20; ++y)
    for (int x = 0; x < axial->width(); ++x) {
      const Eigen::Vector3d v = map.worldToPixel(vs.unproject({x + 0.5, y + 0.5}));
      const Eigen::Vector3i p = (v.array() + 0.5).floor().cast<int>();
      if ((p.array() < 0).any() || (p.array() >= map.descriptor().dimensions.array()).any()) continue;
      // Voxel edges may fall either way: judge pixels whose neighbourhood agrees.
      const int label = values->value(p.x(), p.y(), p.z());
      bool uniform = true;
      for (int d = -1; d <= 1 && uniform; d += 2)
        for (int axis = 0; axis < 2 && uniform; ++axis) {
          const Eigen::Vector2d q(x + 0.5 + (axis == 0 ? 2 * d : 0), y + 0.5 + (axis == 1 ? 2 * d : 0));
          const Eigen::Vector3i n = (map.worldToPixel(vs.unproject(q)).array() + 0.5).floor().cast<int>();
          if ((n.array() < 0).any() || (n.array() >= map.descriptor().dimensions.array()).any() ||
              values->value(n.x(), n.y(), n.z()) != label)
            uniform = false;
        }
      if (!uniform) continue;
      const QColor c = shot.pixelColor(origin + QPoint(x, y));
      const bool red = c.red() > c.green() + 40 && c.red() > c.blue() + 40;
      if (label == 1) {
        ++object;
        objectRed += red;
      } else {
        ++other;
        otherRed += red;
      }
    }
  ASSERT_GT(object, 200) << "the axial slice should cut the ventricles";
  EXPECT_GE(objectRed, object * 99 / 100) << objectRed << " of " << object << " object pixels are red";
  EXPECT_LE(otherRed, other / 200) << otherRed << " of " << other << " other pixels are red";
}

TEST_F(EndToEnd, PaintingOnTheDemoBrainUndoesRedoesAndSavesWhatWasPainted) {
  MainWindow& window = *window_;
  ASSERT_TRUE(chooseAlgorithm("Labeling"));
  QWidget* panel = window.findChild<QWidget*>("LabelingWidget");
  ASSERT_NE(panel, nullptr);
  panel->findChild<QSpinBox*>("spinBoxLabel")->setValue(5);
  panel->findChild<QSpinBox*>("spinBoxSize")->setValue(12);
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonStart"), Qt::LeftButton);

  SharedImageSet* labels = nullptr;
  for (Data* d : window.dataModel()->getAll())
    if (d->modality() == Data::LABEL) labels = d->asImageSet();
  ASSERT_NE(labels, nullptr);
  const std::vector<unsigned char> before = voxelsOf(*labels);

  // A stroke across the middle of the axial view.
  GUI::ViewWidget* axial = window.views().viewWidget(0);
  const QPoint c(axial->width() / 2, axial->height() / 2);
  drag(axial, {c + QPoint(-30, 0), c + QPoint(-10, 2), c + QPoint(10, 4), c + QPoint(30, 6)});
  QApplication::processEvents();
  const std::vector<unsigned char> painted = voxelsOf(*labels);
  const auto fives = std::count(painted.begin(), painted.end(), 5);
  ASSERT_GT(fives, 100) << "the stroke should have painted label 5";
  EXPECT_EQ(std::count(before.begin(), before.end(), 5), 0);

  // Undo and redo with the keys, in the window.
  window.activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(&window));
  QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier);
  EXPECT_EQ(voxelsOf(*labels), before);
  QTest::keyClick(&window, Qt::Key_Y, Qt::ControlModifier);
  EXPECT_EQ(voxelsOf(*labels), painted);
  QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier);
  QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
  EXPECT_EQ(voxelsOf(*labels), painted);

  // Saved and read back, the file holds what was painted, as a label map.
  const auto path = std::filesystem::temp_directory_path() / "merivane-e2e-painted.nii.gz";
  std::string error;
  ASSERT_TRUE(IO::writeImage(*labels, path.string(), &error)) << error;
  auto back = IO::readImage(path.string(), &error);
  std::filesystem::remove(path);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(back->modality(), Data::LABEL);
  EXPECT_EQ(voxelsOf(*back), painted);
}

// Yellow where the outline of value 255 is drawn over the image (the panel's outline colour at
// the overlay's opacity); neither the red object seeds nor the green background ones pass.
int yellowPixels(const QImage& shot, const QRect& area) {
  int n = 0;
  for (int y = area.top(); y <= area.bottom(); ++y)
    for (int x = area.left(); x <= area.right(); ++x) {
      const QColor c = shot.pixelColor(x, y);
      n += c.red() - c.blue() > 80 && c.green() - c.blue() > 60 && std::abs(c.red() - c.green()) < 50;
    }
  return n;
}

TEST_F(EndToEnd, InteractiveSegmentationOfTheVentriclesPaintsRunsShowsTheOutlineAndExports) {
  MainWindow& window = *window_;
  // The brain alone: the panel paints into a label map of its own.
  Data* brain = nullptr;
  for (Data* d : window.dataModel()->getAll())
    if (d->modality() == Data::LABEL)
      window.dataModel()->remove(d);
    else
      brain = d;
  ASSERT_NE(brain, nullptr);
  const SharedImage& image = *brain->asImageSet()->get();
  window.select({brain});
  ASSERT_TRUE(chooseAlgorithm("Interactive Segmentation"));
  QWidget* panel = window.findChild<QWidget*>("InteractiveSegmentationController");
  ASSERT_NE(panel, nullptr);

  // The slice views through the lateral ventricles: axial slice 94, coronal 112, sagittal 83.
  window.views().adapter().centerSliceViewsAt(image.pixelToWorld(Eigen::Vector3d(83, 112, 94)), brain->asImageSet());
  QApplication::processEvents();
  GUI::ViewWidget* axial = window.views().viewWidget(0);
  GUI::ViewWidget* coronal = window.views().viewWidget(1);
  auto at = [&](int view, double x, double y, double z) {
    const Eigen::Vector3d p =
        window.views().view(view).view().viewState().project(image.pixelToWorld(Eigen::Vector3d(x, y, z)));
    return QPoint(static_cast<int>(std::lround(p.x())), static_cast<int>(std::lround(p.y())));
  };
  // Voxel paths: in slice 94 (x, y) and in slice 112 (x, z).
  auto axialPath = [&](std::vector<std::pair<double, double>> xy) {
    std::vector<QPoint> path;
    for (auto [x, y] : xy) path.push_back(at(0, x, y, 94));
    return path;
  };
  auto coronalPath = [&](std::vector<std::pair<double, double>> xz) {
    std::vector<QPoint> path;
    for (auto [x, z] : xz) path.push_back(at(1, x, 112, z));
    return path;
  };
  panel->findChild<QSpinBox*>("spinBoxSize")->setValue(3);

  // Object: down the middle of each ventricle's body, where the fluid is dark.
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonDrawIn"), Qt::LeftButton);
  drag(axial, axialPath({{70, 86}, {78, 100}, {83, 112}, {83.5, 124}, {78, 130}}));
  drag(axial, axialPath({{113, 86}, {108, 98}, {103, 110}, {102, 120}, {102, 127}}));
  drag(coronal, coronalPath({{77, 99}, {83, 96}, {86, 93}}));
  drag(coronal, coronalPath({{105, 99}, {102, 96}, {98, 93}}));
  // Space over a view switches to the background: a loop in the white matter round them.
  QTest::keyClick(axial, Qt::Key_Space);
  ASSERT_TRUE(panel->findChild<QPushButton*>("pushButtonDrawOut")->isChecked());
  drag(axial, axialPath({{60, 74}, {122, 74}, {122, 142}, {60, 142}, {60, 74}}));
  drag(coronal, coronalPath({{64, 85}, {122, 85}, {122, 106}, {64, 106}, {64, 85}}));
  QApplication::processEvents();
  const QImage painted = window.screenshot();
  const QRect axialArea(axial->mapTo(&window, QPoint(0, 0)), axial->size());
  EXPECT_LT(yellowPixels(painted, axialArea), 20) << "no outline before the run";

  // Step 2 of the panel: Run Segmentation.
  for (QToolButton* header : panel->findChildren<QToolButton*>())
    if (header->text() == "2. Processing") QTest::mouseClick(header, Qt::LeftButton);
  QPushButton* run = panel->findChild<QPushButton*>("pushButtonRunSeg");
  ASSERT_TRUE(run->isVisible());
  QTest::mouseClick(run, Qt::LeftButton);
  QPushButton* accept = panel->findChild<QPushButton*>("pushButtonAccept");
  ASSERT_TRUE(accept->isVisible()) << "the run should have succeeded";
  QApplication::processEvents();
  const QImage shot = window.screenshot();
  shot.save(QString(MERIVANE_INTERACTIVE_SCREENSHOT_PATH));
  EXPECT_GT(yellowPixels(shot, axialArea), 150) << "the outline shows in the axial view";

  // Accept, then export: the label map joins the data list and the panel closes.
  QTest::mouseClick(accept, Qt::LeftButton);
  EXPECT_FALSE(accept->isVisible());
  for (QToolButton* header : panel->findChildren<QToolButton*>())
    if (header->text() == "3. Export") QTest::mouseClick(header, Qt::LeftButton);
  QTest::mouseClick(panel->findChild<QPushButton*>("pushButtonExportLabelMap"), Qt::LeftButton);
  QApplication::processEvents();
  EXPECT_EQ(window.findChild<QWidget*>("InteractiveSegmentationController"), nullptr);
  SharedImageSet* labels = nullptr;
  for (Data* d : window.dataModel()->getAll())
    if (d->name() == "Labels") labels = d->asImageSet();
  ASSERT_NE(labels, nullptr);
  const auto values = voxelsOf(*labels);
  const auto* intensity = static_cast<const TypedImage<unsigned char>*>(image.mem());
  ASSERT_NE(intensity, nullptr);
  size_t object = 0, dark = 0;
  for (size_t i = 0; i < values.size(); ++i)
    if (values[i] == 1) {
      ++object;
      dark += intensity->pointer()[i] < 60;
    }
  // The lateral ventricles hold some 16,000 voxels of fluid; the object is mostly that.
  EXPECT_GT(object, 4000u);
  EXPECT_LT(object, 40000u);
  EXPECT_GT(dark, object * 8 / 10) << dark << " of " << object << " object voxels are dark";
  EXPECT_EQ(std::count(values.begin(), values.end(), 255), 0);
}

}  // namespace
}  // namespace Merivane
