#pragma once
// The application window: the data list, the four views, menus built from the algorithm
// factories, the panel of the algorithm in use, and saving.
#include <QMainWindow>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "AnnotationModel.h"
#include "DataModel.h"
#include "MainWindowBase.h"

class QTreeWidget;
class QTreeWidgetItem;
class QDockWidget;
class QSlider;
class QPushButton;
class QMenu;

namespace Merivane {
class Algorithm;
class AlgorithmController;
class Properties;
class GlObject;
class SharedImageSet;
namespace GUI {
class MultiViewWidget;
}

class MainWindow : public QMainWindow, public MainWindowBase {
  Q_OBJECT
 public:
  MainWindow();
  ~MainWindow() override;

  // What panels reach through MainWindowBase.
  DataModel* dataModel() override { return &model_; }
  AnnotationModel* annotationModel() override { return &annotations_; }
  DisplayWidgetMultiAdapter* displayWidget() override;
  void addSliceObject(GlObject* object) override;
  void add3DObject(GlObject* object) override;
  void removeObject(GlObject* object) override;
  void updateViews() override;
  void requestCloseAlgorithm(AlgorithmController* controller) override;
  GUI::MultiViewWidget& views() { return *views_; }

  // Reads an image, label map or mesh; a failure shows a message box naming the file (or,
  // with `quiet`, only logs) and returns false.
  // An image, label map or mesh file, a DICOM file, or a folder: every DICOM image series in
  // it. False, with a message unless quiet, when nothing could be read.
  bool openFile(const QString& path, bool quiet = false);
  bool openDicomFolder(const QString& path, bool quiet = false);
  // Creates the algorithm by factory name on the selected data, as its menu entry does, and
  // shows its panel. False when the name is unknown or the selection does not fit.
  bool openAlgorithm(const std::string& name);
  // Configures the open algorithm and shows the new values in its panel.
  void configureOpenAlgorithm(const Properties& settings);
  // Runs the open panel's computation and waits for it (for scripts and tests).
  int computeOpenAlgorithm();
  Algorithm* openAlgorithmInstance() const { return algorithm_.get(); }
  // Selects the data items (all of them when empty).
  void select(const std::vector<Data*>& items);
  // The whole window as shown, views drawn now.
  QImage screenshot();

 protected:
  void closeEvent(QCloseEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private slots:
  void onOpen();
  void onOpenDicomFolder();
  void onSaveSelected();
  void onListSelectionChanged();
  void onListItemChanged(QTreeWidgetItem* item, int column);
  void rebuildAlgorithmMenu();

 private:
  struct Overlay;
  void onDataAdded(Data* data);
  void onDataRemoved(Data* data);
  void onDataChanged(Data* data);
  void closeAlgorithm();
  void updateOverlayControls();
  Overlay* overlayOf(Data* data);

  DataModel model_;
  AnnotationModel annotations_;
  GUI::MultiViewWidget* views_ = nullptr;
  QTreeWidget* list_ = nullptr;
  QDockWidget* panelDock_ = nullptr;
  QSlider* opacity_ = nullptr;
  QPushButton* color_ = nullptr;
  QMenu* algorithms_ = nullptr;
  std::map<Data*, QTreeWidgetItem*> items_;
  std::vector<std::unique_ptr<Overlay>> overlays_;
  std::unique_ptr<Algorithm> algorithm_;
  AlgorithmController* controller_ = nullptr;  // owned through its widget
  bool updatingList_ = false;
};

}  // namespace Merivane
