// The application window as a user drives it: files in, menus built from the factories of the
// loaded plug-in, a panel, a computation, the overlay drawn where the label map says.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QMenuBar>
#include <QSpinBox>
#include <QTest>
#include <filesystem>

#include "GlLabelRenderer.h"
#include "GuiView.h"
#include "ImageIO.h"
#include "FactoryRegistry.h"
#include "LabelDataComponent.h"
#include "LabelMapIsolineRenderer.h"
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
  EXPECT_EQ(window.dataModel()->size(), 0);
}

TEST(MainWindow, TheMenuOffersWhatFitsTheSelectionAndItsPanelComputesOnIt) {
  app();
  plugins();
  MainWindow window;
  window.resize(900, 700);
  window.show();
  Scene scene;
  Data* image = window.dataModel()->add(std::move(scene.image));
  Data* seeds = window.dataModel()->add(std::move(scene.seeds));
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
  app();
  plugins();
  MainWindow window;
  window.resize(900, 700);
  window.show();
  Scene scene;
  Data* seeds = window.dataModel()->add(std::move(scene.seeds));
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

}  // namespace
}  // namespace Merivane
