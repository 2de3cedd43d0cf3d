#include "MainWindow.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QColorDialog>
#include <QDockWidget>
#include <QDragEnterEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QSlider>
#include <QStatusBar>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <cmath>
#include <cstring>

#include "Algorithm.h"
#include "AlgorithmFactory.h"
#include "DefaultAlgorithmController.h"
#include "FactoryRegistry.h"
#include "GlLabelRenderer.h"
#include "GlMesh.h"
#include "DicomIO.h"
#include "ImageIO.h"
#include "LabelDataComponent.h"
#include "Log.h"
#include "Mesh.h"
#include "MeshIO.h"
#include "MultiViewWidget.h"
#include "Progress.h"
#include "Properties.h"
#include "QtHelpers.h"
#include "SharedImage.h"
#include "SharedImageSet.h"

namespace Merivane {

// What the views draw for one data item: a label overlay or a mesh.
struct MainWindow::Overlay {
  Data* data = nullptr;
  std::unique_ptr<GlLabelRenderer> labels;
  std::unique_ptr<GlMesh> mesh;
  GlObject* object() const { return labels ? static_cast<GlObject*>(labels.get()) : mesh.get(); }
};

namespace {

bool isLabelMap(const Data* d) {
  const SharedImageSet* s = d ? d->asImageSet() : nullptr;
  return s && s->modality() == Data::LABEL;
}

const char* kImageFilter = "Images and meshes (*.nii *.nii.gz *.nrrd *.nhdr *.mha *.mhd *.png *.dcm *.ply *.stl *.obj);;All files (*)";

}  // namespace

MainWindow::MainWindow() {
  setWindowTitle("Merivane");
  setAcceptDrops(true);
  views_ = new GUI::MultiViewWidget(this);
  setCentralWidget(views_);

  // The data list, with the overlay controls of the selected label map below it.
  auto* dataDock = new QDockWidget(tr("Data"), this);
  dataDock->setObjectName("dataDock");
  auto* dataPane = new QWidget(dataDock);
  auto* dataLayout = new QVBoxLayout(dataPane);
  list_ = new QTreeWidget(dataPane);
  list_->setHeaderLabels({tr("Name"), tr("Kind")});
  list_->setRootIsDecorated(false);
  list_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  list_->header()->setStretchLastSection(false);
  list_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
  dataLayout->addWidget(list_);
  auto* overlayRow = new QHBoxLayout;
  overlayRow->addWidget(new QLabel(tr("Opacity"), dataPane));
  opacity_ = new QSlider(Qt::Horizontal, dataPane);
  opacity_->setRange(0, 100);
  opacity_->setValue(50);
  overlayRow->addWidget(opacity_);
  color_ = new QPushButton(tr("Colour..."), dataPane);
  overlayRow->addWidget(color_);
  dataLayout->addLayout(overlayRow);
  dataDock->setWidget(dataPane);
  addDockWidget(Qt::LeftDockWidgetArea, dataDock);

  panelDock_ = new QDockWidget(tr("Panel"), this);
  panelDock_->setObjectName("panelDock");
  panelDock_->setWidget(new QLabel(tr("Choose an algorithm from the Algorithms menu."), panelDock_));
  addDockWidget(Qt::RightDockWidgetArea, panelDock_);

  QMenu* file = menuBar()->addMenu(tr("&File"));
  file->addAction(tr("&Open..."), this, &MainWindow::onOpen, QKeySequence::Open);
  file->addAction(tr("Open &DICOM Folder..."), this, &MainWindow::onOpenDicomFolder);
  file->addAction(tr("&Save Selected As..."), this, &MainWindow::onSaveSelected, QKeySequence::Save);
  file->addAction(tr("&Remove Selected"), this, [this] {
    for (Data* d : model_.selected().items()) model_.remove(d);
  });
  file->addSeparator();
  file->addAction(tr("&Quit"), this, &QWidget::close, QKeySequence::Quit);
  algorithms_ = menuBar()->addMenu(tr("&Algorithms"));
  connect(algorithms_, &QMenu::aboutToShow, this, &MainWindow::rebuildAlgorithmMenu);
  rebuildAlgorithmMenu();
  QMenu* view = menuBar()->addMenu(tr("&View"));
  view->addAction(tr("&Reset Views"), this, [this] { views_->setReferenceImage(views_->referenceImage()); });

  connect(list_, &QTreeWidget::itemSelectionChanged, this, &MainWindow::onListSelectionChanged);
  connect(list_, &QTreeWidget::itemChanged, this, &MainWindow::onListItemChanged);
  connect(opacity_, &QSlider::valueChanged, this, [this](int v) {
    for (Data* d : model_.selected().items())
      if (Overlay* o = overlayOf(d); o && o->labels) o->labels->setOpacity(v / 100.0);
    views_->updateViews();
  });
  connect(color_, &QPushButton::clicked, this, [this] {
    for (Data* d : model_.selected().items()) {
      auto* set = d->asImageSet();
      if (!isLabelMap(d) || !set) continue;
      auto* ldc = set->components().getOrCreate<LabelDataComponent>(set);
      if (ldc->labelConfigs().empty()) ldc->detectLabels(*set);
      if (ldc->labelConfigs().empty()) continue;
      const int value = ldc->labelConfigs().begin()->first;
      const Eigen::Vector4d c = ldc->labelConfigs().begin()->second.color;
      const QColor chosen = QColorDialog::getColor(QColor::fromRgbF(c[0], c[1], c[2]), this,
                                                   tr("Colour of label %1").arg(value));
      if (!chosen.isValid()) continue;
      ldc->setLabelColor(value, Eigen::Vector4d(chosen.redF(), chosen.greenF(), chosen.blueF(), c[3]));
      model_.notifyChanged(d);
    }
  });

  // Annotations are drawn in every view, and their manipulators see the views' events.
  annotations_.annotationAdded.connect([this](InteractiveObject* a) {
    for (int i = 0; i < 4; ++i) views_->view(i).addViewObject(a);
    views_->updateViews();
  });
  annotations_.annotationAboutToBeRemoved.connect([this](InteractiveObject* a) {
    for (int i = 0; i < 4; ++i) views_->view(i).removeViewObject(a);
    views_->updateViews();
  });
  annotations_.annotationChanged.connect([this](InteractiveObject*) { views_->updateViews(); });
  model_.dataAdded.connect([this](Data* d) { onDataAdded(d); });
  model_.dataAboutToBeRemoved.connect([this](Data* d) { onDataRemoved(d); });
  model_.dataChanged.connect([this](Data* d) { onDataChanged(d); });
  connect(views_, &GUI::MultiViewWidget::pointerMoved, this, [this](double x, double y, double z, double v) {
    statusBar()->showMessage(QString("%1, %2, %3 mm  %4")
                                 .arg(x, 0, 'f', 1)
                                 .arg(y, 0, 'f', 1)
                                 .arg(z, 0, 'f', 1)
                                 .arg(std::isnan(v) ? QString() : QString::number(v, 'g', 6)));
  });
  resize(1400, 900);
}

MainWindow::~MainWindow() {
  closeAlgorithm();
  // The models tell this window about each item they drop: do it while the window is whole.
  annotations_.clear();
  model_.clear();
  // Views hold overlay pointers; take them out before the overlays go.
  for (auto& o : overlays_) views_->removeObject(o->object());
  overlays_.clear();
  views_->setReferenceImage(nullptr);
}

DisplayWidgetMultiAdapter* MainWindow::displayWidget() { return &views_->adapter(); }
void MainWindow::addSliceObject(GlObject* object) { views_->addSliceObject(object); }
void MainWindow::add3DObject(GlObject* object) { views_->add3DObject(object); }
void MainWindow::removeObject(GlObject* object) { views_->removeObject(object); }
void MainWindow::updateViews() { views_->updateViews(); }

void MainWindow::requestCloseAlgorithm(AlgorithmController* controller) {
  if (!controller || controller != controller_) return;
  // Not now: the request comes from one of the panel's own slots.
  QMetaObject::invokeMethod(
      this, [this, controller] { if (controller_ == controller) closeAlgorithm(); }, Qt::QueuedConnection);
}

bool MainWindow::openFile(const QString& path, bool quiet) {
  const std::string p = path.toStdString();
  std::string error;
  std::unique_ptr<Data> data;
  if (QFileInfo(path).isDir()) return openDicomFolder(path, quiet);
  if (IO::isMeshPath(p)) {
    data = IO::readMesh(p, &error);
  } else {
    auto image = IO::readImage(p, &error);
    if (image && image->modality() != Data::LABEL && image->get() && image->get()->descriptor().pixelType == U8 &&
        QFileInfo(path).fileName().contains("label", Qt::CaseInsensitive))
      IO::markAsLabelMap(*image);
    data = std::move(image);
  }
  if (!data) {
    const QString message = QString::fromStdString(error.empty() ? p + ": could not be read" : error);
    LOG_ERROR("MainWindow", message.toStdString());
    if (!quiet) QMessageBox::warning(this, tr("Open"), message);
    return false;
  }
  QString name = QFileInfo(path).fileName();
  for (const char* ext : {".nii.gz", ".nii", ".nrrd", ".nhdr", ".mha", ".mhd", ".png", ".ply", ".stl", ".obj",
                          ".seg.dcm", ".dcm"})
    if (name.endsWith(ext)) name.chop(static_cast<int>(std::strlen(ext)));
  model_.add(std::move(data), name.toStdString());
  return true;
}

void MainWindow::onOpen() {
  const QStringList files = QFileDialog::getOpenFileNames(this, tr("Open"), QString(), tr(kImageFilter));
  for (const QString& f : files) openFile(f);
}

bool MainWindow::openDicomFolder(const QString& path, bool quiet) {
  const std::string p = path.toStdString();
  std::string error;
  std::vector<IO::DicomSeriesInfo> series;
  bool opened = false;
  if (IO::listDicomSeries(p, series, &error)) {
    // Every image series of the folder, each under its description (or the folder's name).
    for (const IO::DicomSeriesInfo& s : series) {
      std::string why;
      auto image = IO::readDicomSeries(p, s.seriesInstanceUid, &why);
      if (!image) {
        error += (error.empty() ? "" : "\n") + why;
        continue;
      }
      std::string name = !s.description.empty() ? s.description : QFileInfo(path).fileName().toStdString();
      if (series.size() > 1) name += " (" + std::to_string(s.seriesNumber) + ")";
      model_.add(std::move(image), name);
      opened = true;
    }
  }
  if (!error.empty()) {
    LOG_ERROR("MainWindow", error);
    if (!quiet) QMessageBox::warning(this, tr("Open"), QString::fromStdString(error));
  }
  return opened;
}

void MainWindow::onOpenDicomFolder() {
  const QString folder = QFileDialog::getExistingDirectory(this, tr("Open DICOM Folder"));
  if (!folder.isEmpty()) openDicomFolder(folder);
}

void MainWindow::onSaveSelected() {
  for (Data* d : model_.selected().items()) {
    const QString path = QFileDialog::getSaveFileName(this, tr("Save %1").arg(QString::fromStdString(d->name())),
                                                      QString::fromStdString(d->name()), tr(kImageFilter));
    if (path.isEmpty()) continue;
    std::string error;
    bool ok = false;
    if (auto* set = d->asImageSet())
      ok = IO::writeImage(*set, path.toStdString(), &error);
    else if (auto* mesh = d->asMesh())
      ok = IO::writeMesh(*mesh, path.toStdString(), &error);
    else
      error = d->name() + ": this kind of data cannot be saved";
    if (!ok) QMessageBox::warning(this, tr("Save"), QString::fromStdString(error));
    else statusBar()->showMessage(tr("Saved %1").arg(path), 5000);
  }
}

MainWindow::Overlay* MainWindow::overlayOf(Data* data) {
  for (auto& o : overlays_)
    if (o->data == data) return o.get();
  return nullptr;
}

void MainWindow::onDataAdded(Data* data) {
  updatingList_ = true;
  auto* item = new QTreeWidgetItem(list_);
  item->setText(0, QString::fromStdString(data->name().empty() ? "(unnamed)" : data->name()));
  item->setText(1, isLabelMap(data) ? tr("label map") : data->asMesh() ? tr("mesh") : tr("image"));
  item->setFlags(item->flags() | Qt::ItemIsUserCheckable | Qt::ItemIsEditable);
  item->setCheckState(0, Qt::Checked);
  item->setToolTip(0, QString::fromStdString(data->describe()));
  items_[data] = item;
  updatingList_ = false;

  if (isLabelMap(data)) {
    auto o = std::make_unique<Overlay>();
    o->data = data;
    auto* set = data->asImageSet();
    o->labels = std::make_unique<GlLabelRenderer>(set->get());
    auto* ldc = set->components().getOrCreate<LabelDataComponent>(set);
    if (ldc->labelConfigs().empty()) ldc->detectLabels(*set);
    o->labels->setLabelDataComponent(ldc);
    o->labels->setOpacity(opacity_->value() / 100.0);
    views_->addSliceObject(o->labels.get());
    overlays_.push_back(std::move(o));
    // A label map on its own is shown as the image too, so there is something under it.
    if (!views_->referenceImage()) views_->setReferenceImage(set);
  } else if (auto* mesh = data->asMesh()) {
    auto o = std::make_unique<Overlay>();
    o->data = data;
    // The model owns the mesh; the view holds it without owning.
    o->mesh = std::make_unique<GlMesh>(std::shared_ptr<const Mesh>(mesh, [](const Mesh*) {}));
    views_->addSliceObject(o->mesh.get());
    views_->add3DObject(o->mesh.get());
    overlays_.push_back(std::move(o));
  } else if (auto* set = data->asImageSet()) {
    if (!views_->referenceImage() || isLabelMap(views_->referenceImage())) views_->setReferenceImage(set);
  }
  select({data});
}

void MainWindow::onDataRemoved(Data* data) {
  annotations_.removeAll(data);
  if (algorithm_) {
    // The open algorithm may hold the item: close it first.
    closeAlgorithm();
  }
  if (Overlay* o = overlayOf(data)) {
    views_->removeObject(o->object());
    overlays_.erase(std::remove_if(overlays_.begin(), overlays_.end(), [&](auto& p) { return p.get() == o; }),
                    overlays_.end());
  }
  if (views_->referenceImage() == data) {
    SharedImageSet* next = nullptr;
    for (Data* d : model_.getAll())
      if (d != data && d->asImageSet() && !next) next = d->asImageSet();
    views_->setReferenceImage(next);
  }
  auto it = items_.find(data);
  if (it != items_.end()) {
    updatingList_ = true;
    delete it->second;
    updatingList_ = false;
    items_.erase(it);
  }
  views_->updateViews();
}

void MainWindow::onDataChanged(Data* data) {
  if (auto* set = data ? data->asImageSet() : nullptr)
    for (int i = 0; i < set->size(); ++i)
      if (set->get(i) && set->get(i)->hasMem()) set->get(i)->setDirtyMem();
  views_->updateViews();
}

void MainWindow::select(const std::vector<Data*>& items) {
  updatingList_ = true;
  list_->clearSelection();
  for (Data* d : items.empty() ? model_.getAll() : items)
    if (auto it = items_.find(d); it != items_.end()) it->second->setSelected(true);
  updatingList_ = false;
  onListSelectionChanged();
}

void MainWindow::onListSelectionChanged() {
  if (updatingList_) return;
  DataList selection;
  for (auto& [data, item] : items_)
    if (item->isSelected()) selection.add(data);
  // Keep the list's order.
  DataList ordered;
  for (Data* d : model_.getAll())
    for (Data* s : selection.items())
      if (s == d) ordered.add(d);
  model_.setSelected(ordered);
  // An image chosen on its own becomes the one the views show.
  if (ordered.size() == 1 && ordered[0]->asImageSet() && !isLabelMap(ordered[0]) &&
      views_->referenceImage() != ordered[0])
    views_->setReferenceImage(ordered[0]->asImageSet());
  updateOverlayControls();
  if (controller_) controller_->onSelectedDataChanged(ordered);
}

void MainWindow::updateOverlayControls() {
  bool any = false;
  for (Data* d : model_.selected().items())
    if (Overlay* o = overlayOf(d); o && o->labels) {
      QSignalBlocker block(opacity_);
      opacity_->setValue(static_cast<int>(o->labels->opacity() * 100 + 0.5));
      any = true;
    }
  opacity_->setEnabled(any);
  color_->setEnabled(any);
}

void MainWindow::onListItemChanged(QTreeWidgetItem* item, int column) {
  if (updatingList_ || column != 0) return;
  for (auto& [data, it] : items_) {
    if (it != item) continue;
    data->setName(item->text(0).toStdString());
    if (Overlay* o = overlayOf(data)) o->object()->setVisible(item->checkState(0) == Qt::Checked);
  }
  views_->updateViews();
}

void MainWindow::rebuildAlgorithmMenu() {
  algorithms_->clear();
  const DataList selection = model_.selected();
  bool any = false;
  for (AlgorithmFactory* factory : FactoryRegistry::get().algorithmFactories()) {
    for (const AlgorithmFactory::Descriptor* d : factory->algorithmDescriptors()) {
      if (d->attributes.test(AlgorithmFactory::Descriptor::Hidden) || d->menuPath.empty()) continue;
      // "Segmentation;Graph-based Segmentation" becomes a sub-menu and an entry.
      const QStringList parts = QString::fromStdString(d->menuPath).split(';');
      QMenu* menu = algorithms_;
      for (int i = 0; i + 1 < parts.size(); ++i) {
        QMenu* sub = nullptr;
        for (QAction* a : menu->actions())
          if (a->menu() && a->text() == parts[i]) sub = a->menu();
        menu = sub ? sub : menu->addMenu(parts[i]);
      }
      QAction* action = menu->addAction(parts.back());
      const bool fits = d->isCompatible && d->isCompatible(selection);
      action->setEnabled(fits);
      action->setToolTip(QString::fromStdString(d->id));
      const std::string id = d->id;
      connect(action, &QAction::triggered, this, [this, id] { openAlgorithm(id); });
      any = true;
    }
  }
  if (!any) algorithms_->addAction(tr("(no algorithms: the plug-in did not load)"))->setEnabled(false);
}

bool MainWindow::openAlgorithm(const std::string& requested) {
  closeAlgorithm();
  // "GraphBasedSegmentation" means "Seg.GraphBasedSegmentation" when only the latter exists.
  std::string name = requested;
  if (!FactoryRegistry::descriptor(name) && FactoryRegistry::descriptor("Seg." + name)) name = "Seg." + name;
  std::unique_ptr<Algorithm> algorithm = FactoryRegistry::instantiateAlgorithm(name, model_.selected());
  if (!algorithm) {
    LOG_ERROR("MainWindow", name << ": does not apply to the selected data");
    return false;
  }
  algorithm_ = std::move(algorithm);
  AlgorithmController* controller = FactoryRegistry::createController(algorithm_.get());
  auto* widget = dynamic_cast<QWidget*>(controller);
  if (!widget) {
    delete controller;
    // Algorithms without a panel of their own get the generated one.
    auto* generated = new DefaultAlgorithmController(algorithm_.get(), QString());
    controller = generated;
    widget = generated;
  }
  if (auto* dac = dynamic_cast<DefaultAlgorithmController*>(controller)) {
    dac->setDataModel(&model_);
    connect(dac, &DefaultAlgorithmController::computeStarted, this, [this] { views_->setFrozen(true); });
    connect(dac, &DefaultAlgorithmController::computeFinished, this, [this](int) {
      views_->setFrozen(false);
      // Algorithms may have written into their inputs (a label map filled in place).
      for (Data* d : model_.selected().items()) onDataChanged(d);
    });
  }
  controller->init();
  controller_ = controller;
  const auto* descriptor = FactoryRegistry::descriptor(name);
  const QString title = descriptor ? QString::fromStdString(descriptor->menuPath).split(';').back()
                                   : QString::fromStdString(name);
  auto* scroll = new QScrollArea(panelDock_);
  scroll->setWidgetResizable(true);
  scroll->setWidget(widget);
  QWidget* old = panelDock_->widget();
  panelDock_->setWidget(scroll);
  delete old;
  panelDock_->setWindowTitle(title);
  return true;
}

void MainWindow::configureOpenAlgorithm(const Properties& settings) {
  if (!algorithm_) return;
  algorithm_->configure(&settings);
  if (controller_) controller_->onAlgorithmParametersChanged();
}

int MainWindow::computeOpenAlgorithm() {
  auto* dac = dynamic_cast<DefaultAlgorithmController*>(controller_);
  if (!dac) {
    // A panel of its own: compute as a script would, behind the progress dialog.
    if (!algorithm_) return -1;
    Progress progress;
    algorithm_->setProgress(&progress);
    Algorithm* a = algorithm_.get();
    QtHelpers::runInBackground(this, tr("Computing"), [a] { a->compute(); }, &progress);
    algorithm_->setProgress(nullptr);
    const int status = algorithm_->status();
    if (status == Algorithm::statusSuccess || status == Algorithm::statusUnknown)
      model_.add(algorithm_->takeOutput());
    for (Data* d : model_.selected().items()) onDataChanged(d);
    return status;
  }
  QEventLoop loop;
  int status = -1;
  auto c = connect(dac, &DefaultAlgorithmController::computeFinished, &loop, [&](int s) {
    status = s;
    loop.quit();
  });
  dac->onCompute();
  if (dac->isComputing()) loop.exec();
  disconnect(c);
  return status;
}

void MainWindow::closeAlgorithm() {
  if (!algorithm_) return;
  if (auto* dac = dynamic_cast<DefaultAlgorithmController*>(controller_)) dac->cancelAndWait();
  views_->setFrozen(false);
  // The panel goes with the dock's widget; the algorithm after it.
  QWidget* old = panelDock_->widget();
  panelDock_->setWidget(new QLabel(tr("Choose an algorithm from the Algorithms menu."), panelDock_));
  delete old;
  controller_ = nullptr;
  algorithm_.reset();
}

QImage MainWindow::screenshot() {
  QApplication::processEvents();
  views_->grabViews();
  return grab().toImage();
}

void MainWindow::closeEvent(QCloseEvent* event) {
  // A running computation is cancelled and waited for before the data goes.
  closeAlgorithm();
  event->accept();
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
  if (event->mimeData()->hasUrls()) event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event) {
  for (const QUrl& url : event->mimeData()->urls())
    if (url.isLocalFile()) openFile(url.toLocalFile());
}

}  // namespace Merivane
