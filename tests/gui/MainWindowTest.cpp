// The application window as a user drives it: files in, menus built from the factories of the
// loaded plug-in, a panel, a computation, the overlay drawn where the label map says.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QMenuBar>
#include <QTest>
#include <filesystem>

#include "GlLabelRenderer.h"
#include "GuiView.h"
#include "ImageIO.h"
#include "LabelDataComponent.h"
#include "MLPlugin.h"
#include "MainWindow.h"
#include "MultiViewWidget.h"
#include "Plugin.h"
#include "Properties.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "TestSupport.h"
#include "ViewWidget.h"

namespace Merivane {
namespace {

QApplication& app() {
  static int argc = 1;
  static char name[] = "MainWindowTests";
  static char* argv[] = {name, nullptr};
  static QApplication* a = new QApplication(argc, argv);
  return *a;
}

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

QAction* findAction(QMenu* menu, const QString& text) {
  for (QAction* a : menu->actions()) {
    if (a->text() == text) return a;
    if (a->menu())
      if (QAction* inner = findAction(a->menu(), text)) return inner;
  }
  return nullptr;
}

TEST(MainWindow, AFileThatCannotBeReadLeavesTheWindowAsItWas) {
  app();
  plugins();
  MainWindow window;
  const auto missing = std::filesystem::temp_directory_path() / "merivane-no-such-file.nrrd";
  EXPECT_FALSE(window.openFile(QString::fromStdString(missing.string()), true));
  EXPECT_EQ(window.dataModel().size(), 0);
}

TEST(MainWindow, TheMenuOffersWhatFitsTheSelectionAndItsPanelComputesOnIt) {
  app();
  plugins();
  MainWindow window;
  window.resize(900, 700);
  window.show();
  Scene scene;
  Data* image = window.dataModel().add(std::move(scene.image));
  Data* seeds = window.dataModel().add(std::move(scene.seeds));
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

}  // namespace
}  // namespace Merivane
