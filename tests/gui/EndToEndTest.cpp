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
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <cstdlib>
#include <filesystem>

#include "DefaultAlgorithmController.h"
#include "GuiTestKit.h"
#include "GuiView.h"
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

TEST(EndToEnd, GraphBasedSegmentationFromTheMenuShowsTheObjectInRedWhereTheLabelMapSaysSo) {
  if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no X display (run through xvfb-run)";
  if (!std::filesystem::exists(kBrain)) GTEST_SKIP() << kBrain << " missing (Debian's mricron-data)";
  static int argc = 1;
  static char name[] = "EndToEndTests";
  static char* argv[] = {name, nullptr};
  QApplication app(argc, argv);
  PluginManager plugins;
  ML::registerBuiltin(plugins);
  std::string error;
  ASSERT_TRUE(plugins.load(MERIVANE_PLUGIN_PATH, &error)) << error;

  MainWindow window;
  window.resize(1400, 900);
  window.show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
  ASSERT_TRUE(window.openFile(kBrain, true));
  ASSERT_TRUE(window.openFile(MERIVANE_DEMO_SEEDS, true));
  window.select({});

  QMenu* algorithms = nullptr;
  for (QAction* a : window.menuBar()->actions())
    if (a->text().remove('&') == "Algorithms") algorithms = a->menu();
  ASSERT_NE(algorithms, nullptr);
  emit algorithms->aboutToShow();
  QAction* graph = findAction(algorithms, "Graph-based Segmentation");
  ASSERT_TRUE(graph && graph->isEnabled());
  graph->trigger();

  auto* panel = window.findChild<DefaultAlgorithmController*>();
  ASSERT_NE(panel, nullptr);
  auto* accept = panel->findChild<QCheckBox*>("Auto-Accept Segmentation");
  ASSERT_NE(accept, nullptr);
  QTest::mouseClick(accept, Qt::LeftButton, Qt::NoModifier, QPoint(8, accept->height() / 2));  // on the box
  ASSERT_TRUE(accept->isChecked());
  QPushButton* compute = nullptr;
  for (auto* b : panel->findChildren<QPushButton*>())
    if (b->text() == "Compute") compute = b;
  ASSERT_NE(compute, nullptr);
  QSignalSpy finished(panel, &DefaultAlgorithmController::computeFinished);
  QTest::mouseClick(compute, Qt::LeftButton);
  ASSERT_TRUE(finished.wait(120000));
  ASSERT_EQ(finished.at(0).at(0).toInt(), 0);

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

}  // namespace
}  // namespace Merivane
