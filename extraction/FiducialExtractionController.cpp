#include "FiducialExtractionController.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QProgressDialog>
#include <QPushButton>
#include <QSettings>
#include <QSpinBox>
#include <QThread>
#include <QThreadPool>
#include <QTimer>
#include <QVBoxLayout>
#include <QtConcurrent/QtConcurrentRun>
#include <algorithm>
#include <cmath>

#include "AnnotationModel.h"
#include "FiducialFile.h"
#include "GlAnnotations.h"
#include "GlCircle.h"
#include "GuiView.h"
#include "Log.h"
#include "MainWindowBase.h"
#include "PointPlacingManipulator.h"
#include "QtHelpers.h"
#include "SharedImage.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.FiducialExtractionController";
const Eigen::Vector4f kGreen(0, 1, 0, 1);
const Eigen::Vector4f kMagenta(1, 0, 1, 1);

using QtHelpers::named;

QDoubleSpinBox* fraction(QWidget* parent, const char* name, double value) {
  auto* box = named(new QDoubleSpinBox(parent), name);
  box->setMaximum(1.0);
  box->setSingleStep(0.05);
  box->setValue(value);
  return box;
}

const Data* firstInput(const Algorithm* algorithm) {
  const DataList& input = algorithm->factoryInfo().input;
  return input.size() > 0 ? input[0] : nullptr;
}

}  // namespace

FiducialExtractionController::FiducialExtractionController(FiducialExtractionAlgorithm* algorithm)
    : QWidget(nullptr), AlgorithmController(algorithm), extraction_(algorithm) {
  setWindowTitle("Fiducial Extraction");
  setObjectName("FiducialExtractionWidget");
  auto* outer = new QVBoxLayout(this);
  auto* form = new QFormLayout;
  outer->addLayout(form);

  mode_ = named(new QComboBox(this), "comboBoxMode");
  mode_->addItem("3D");
  mode_->addItem("2D");
  if (extraction_) mode_->setCurrentIndex(extraction_->mode() == FiducialExtractionAlgorithm::Mode3D ? 0 : 1);
  form->addRow(named(new QLabel("Mode", this), "labelMode"), mode_);
  minContrast_ = fraction(this, "doubleSpinBoxMinContrast", 0.1);
  form->addRow(named(new QLabel("Minimum contrast", this), "labelMinContrast"), minContrast_);
  scoreThreshold_ = fraction(this, "doubleSpinBoxScoreThreshold", 0.75);
  form->addRow(named(new QLabel("Score threshold", this), "labelScoreThreshold"), scoreThreshold_);
  minCoverage_ = fraction(this, "doubleSpinBoxMinCoverage", 0.8);
  form->addRow(named(new QLabel("Minimum coverage", this), "labelMinCoverage"), minCoverage_);
  roiSize_ = named(new QDoubleSpinBox(this), "doubleSpinBoxRoiSize");
  roiSize_->setRange(1.0, 10000.0);
  roiSize_->setSuffix(" mm");
  roiSize_->setValue(10.0);
  roiSizeLabel_ = named(new QLabel("Region size", this), "labelRoiSize");
  form->addRow(roiSizeLabel_, roiSize_);
  diameter_ = named(new QDoubleSpinBox(this), "doubleSpinBoxDiameter");
  diameter_->setRange(1.0, 100.0);
  diameter_->setSingleStep(0.5);
  diameter_->setDecimals(2);
  diameter_->setSuffix(" mm");
  diameter_->setValue(6.0);
  form->addRow(named(new QLabel("Diameter", this), "labelDiameter"), diameter_);
  sliceStep_ = named(new QSpinBox(this), "spinBoxSliceStep");
  sliceStep_->setRange(1, 20);
  sliceStep_->setValue(extraction_ ? extraction_->sliceStep.value() : 2);
  form->addRow(named(new QLabel("Slice step (3D)", this), "labelSliceStep"), sliceStep_);
  fixedDiameter_ = named(new QCheckBox("Fixed diameter", this), "checkBoxFixedDiameter");
  fixedDiameter_->setChecked(true);
  globalDetection_ = named(new QCheckBox("Global detection", this), "checkBoxGlobalDetection");
  globalDetection_->setChecked(true);
  onlyOnSlice_ = named(new QCheckBox("Only on slice", this), "checkBoxOnlyOnSlice");
  form->addRow(fixedDiameter_);
  form->addRow(globalDetection_);
  form->addRow(onlyOnSlice_);

  auto* extract = named(new QPushButton("Extract fiducials", this), "pushButtonExtractFiducials");
  outer->addWidget(extract);
  list_ = named(new QListWidget(this), "listWidgetFiducials");
  list_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  outer->addWidget(list_, 1);
  auto* edits = new QGridLayout;
  auto* clear = named(new QPushButton("Clear", this), "pushButtonClearFiducials");
  auto* sort = named(new QPushButton("Sort", this), "pushButtonSortFiducials");
  auto* remove = named(new QPushButton("Delete", this), "pushButtonDeleteFiducials");
  auto* up = named(new QPushButton("Up", this), "pushButtonMoveFiducialsUp");
  auto* down = named(new QPushButton("Down", this), "pushButtonMoveFiducialsDown");
  auto* exportFile = named(new QPushButton("Export to file", this), "pushButtonExportFiducialsToFile");
  auto* exportLabels = named(new QPushButton("Export as labels", this), "pushButtonExportFiducialsAsLabels");
  auto* importFile = named(new QPushButton("Import from file", this), "pushButtonImportFiducialsFromFile");
  edits->addWidget(clear, 0, 0);
  edits->addWidget(sort, 0, 1);
  edits->addWidget(remove, 0, 2);
  edits->addWidget(up, 1, 0);
  edits->addWidget(down, 1, 1);
  edits->addWidget(exportFile, 2, 0);
  edits->addWidget(exportLabels, 2, 1);
  edits->addWidget(importFile, 2, 2);
  outer->addLayout(edits);
  message_ = named(new QLabel(this), "labelMessage");
  message_->setWordWrap(true);
  message_->hide();
  outer->addWidget(message_);
}

FiducialExtractionController::~FiducialExtractionController() {
  if (MainWindowBase* window = MainWindowBase::instance()) {
    for (auto& [id, circle] : circles_) window->removeObject(circle.get());
    window->updateViews();
  }
}

int FiducialExtractionController::init() {
  auto button = [this](const char* name) { return findChild<QPushButton*>(name); };
  connect(button("pushButtonExtractFiducials"), &QPushButton::clicked, this, &FiducialExtractionController::onCompute);
  connect(button("pushButtonClearFiducials"), &QPushButton::clicked, this, &FiducialExtractionController::onClearFiducials);
  connect(button("pushButtonSortFiducials"), &QPushButton::clicked, this, &FiducialExtractionController::onSortFiducials);
  connect(button("pushButtonDeleteFiducials"), &QPushButton::clicked, this,
          &FiducialExtractionController::onDeleteFiducials);
  connect(button("pushButtonMoveFiducialsUp"), &QPushButton::clicked, this,
          &FiducialExtractionController::onMoveFiducialsUp);
  connect(button("pushButtonMoveFiducialsDown"), &QPushButton::clicked, this,
          &FiducialExtractionController::onMoveFiducialsDown);
  connect(button("pushButtonExportFiducialsToFile"), &QPushButton::clicked, this,
          &FiducialExtractionController::onExportFiducialsToFile);
  connect(button("pushButtonExportFiducialsAsLabels"), &QPushButton::clicked, this,
          &FiducialExtractionController::onExportFiducialsAsLabels);
  connect(button("pushButtonImportFiducialsFromFile"), &QPushButton::clicked, this,
          &FiducialExtractionController::onImportFiducialsFromFile);
  connect(list_, &QListWidget::itemSelectionChanged, this, &FiducialExtractionController::onFiducialSelectionChanged);
  connect(list_, &QListWidget::itemDoubleClicked, this, &FiducialExtractionController::onCenterOnFiducial);
  // The region size matters only to a search round a fixed-size marker.
  for (QWidget* w : std::initializer_list<QWidget*>{globalDetection_, roiSize_, roiSizeLabel_}) {
    connect(fixedDiameter_, &QCheckBox::toggled, w, &QWidget::setEnabled);
    w->setEnabled(fixedDiameter_->isChecked());
  }
  return 0;
}

bool FiducialExtractionController::needsStartPoint() const {
  return !(fixedDiameter_->isChecked() && globalDetection_->isChecked());
}

int FiducialExtractionController::currentSlice() const {
  MainWindowBase* window = MainWindowBase::instance();
  DisplayWidgetMultiAdapter* display = window ? window->displayWidget() : nullptr;
  if (!display || display->sliceViews().empty()) return extraction_ ? extraction_->slice.value() : -1;
  const Data* data = firstInput(extraction_);
  auto* set = data ? const_cast<Data*>(data)->asImageSet() : nullptr;
  const SharedImage* frame = set && !set->empty() ? set->get(0) : nullptr;
  if (!frame) return extraction_->slice.value();
  const Slice& plane = display->sliceViews().front()->slice().slice();
  // The image axis closest to the plane's normal, and the voxel the plane's centre lies in.
  const Eigen::Matrix3d rotation = frame->matrix().topLeftCorner<3, 3>();
  Eigen::Index axis = 0;
  (rotation.transpose() * plane.normal()).cwiseAbs().maxCoeff(&axis);
  const Eigen::Vector3d pixel = frame->worldToPixel(plane.center());
  return static_cast<int>(std::floor(pixel[axis] + 0.5));
}

bool FiducialExtractionController::waitForStartPoint(Eigen::Vector3d& point) {
  MainWindowBase* window = MainWindowBase::instance();
  if (!window) return false;
  auto points = std::make_shared<std::vector<Eigen::Vector3d>>();
  auto placer = std::make_unique<PointPlacingManipulator>(*points, 1);
  PointPlacingManipulator* raw = placer.get();
  auto marker = std::make_unique<GlPoint>();
  GlPoint* shown = marker.get();
  raw->onPlaced = [points, shown] { shown->position = points->back(); };
  auto annotation = std::make_unique<InteractiveObject>(std::move(marker), std::move(placer));
  annotation->setName("Fiducial start point");
  InteractiveObject* added = window->annotationModel()->add(std::move(annotation), firstInput(extraction_));
  bool removed = false;
  auto connection = window->annotationModel()->annotationAboutToBeRemoved.connect(
      [&removed, added](InteractiveObject* a) { removed = removed || a == added; });
  showMessage("Click on the marker in a slice view");
  while (!removed && raw->placing()) {
    QApplication::processEvents();
    QThread::msleep(10);
  }
  connection->disconnect();
  message_->hide();
  if (removed) return false;
  point = points->back();
  window->annotationModel()->remove(added);
  return true;
}

void FiducialExtractionController::setParametersToAlgorithm() {
  FiducialExtractionAlgorithm& a = *extraction_;
  a.setMode(mode_->currentIndex() == 0 ? FiducialExtractionAlgorithm::Mode3D : FiducialExtractionAlgorithm::Mode2D);
  a.setMinContrast(minContrast_->value());
  a.scoreThreshold = scoreThreshold_->value();
  a.minCoverage = minCoverage_->value();
  a.roiSize = roiSize_->value();
  a.diameter = diameter_->value();
  a.sliceStep = sliceStep_->value();
  a.fixedDiameter = fixedDiameter_->isChecked();
  a.globalDetection = fixedDiameter_->isChecked() && globalDetection_->isChecked();
  a.sliceSphere = onlyOnSlice_->isChecked();
}

void FiducialExtractionController::onCompute() {
  if (!extraction_) return;
  message_->hide();
  extraction_->slice = currentSlice();
  if (needsStartPoint()) {
    if (!waitForStartPoint(clickedPoint_)) {
      showMessage("No start point: click on the marker to extract it");
      LOG_WARN(kCategory, "Fiducial extraction needs a start point; none was placed");
      return;
    }
    extraction_->point = clickedPoint_;
  }
  setParametersToAlgorithm();

  QProgressDialog dialog("Extracting fiducials", "Cancel", 0, 0, this);
  dialog.setWindowTitle("Fiducial extraction");
  dialog.setWindowModality(Qt::WindowModal);
  dialog.setSizeGripEnabled(false);
  dialog.setObjectName("topWidget");
  dialog.setStyleSheet("QWidget#topWidget { border:2px solid white; }");
  dialog.setMinimumDuration(0);
  dialog.show();
  FiducialExtractionAlgorithm* a = extraction_;
  QFuture<void> running = QtConcurrent::run(QThreadPool::globalInstance(), [a] {
    try {
      a->compute();
    } catch (const std::exception& e) {
      LOG_ERROR(kCategory, "Fiducial extraction failed: " << e.what());
    }
  });
  bool aborted = false;
  while (!running.isFinished()) {
    if (dialog.wasCanceled() && !aborted) {
      a->abort();
      aborted = true;
    }
    QThread::msleep(10);
    QApplication::processEvents();
  }
  dialog.close();
  lastStatus_ = a->status();
  if (lastStatus_ == Algorithm::statusSuccess) {
    onAlgorithmOutputChanged();
  } else {
    showMessage(QString("Fiducial extraction failed (status %1)").arg(lastStatus_));
  }
  refreshDisplay();
}

void FiducialExtractionController::onAlgorithmOutputChanged() {
  if (!MainWindowBase::instance() || !extraction_) return;
  std::vector<Fiducial> found = extraction_->fiducials();
  if (found.empty()) {
    if (fixedDiameter_->isChecked() && globalDetection_->isChecked()) {
      QTimer::singleShot(0, this, [this] {
        QtHelpers::ask(this, {"Fiducial extraction", "Couldn't extract any fiducials", QMessageBox::Ok, QMessageBox::Ok, {}});
      });
      return;
    }
    LOG_WARN(kCategory, "Couldn't extract fiducial, using clicked point");
    found.push_back({clickedPoint_, diameter_->value() / 2.0});
  }
  for (const Fiducial& f : FiducialFile::sortedWithoutOverlaps(std::move(found))) {
    if (!fixedDiameter_->isChecked()) LOG_INFO(kCategory, "Diameter " << 2.0 * f.radius << " mm");
    addFiducial(f);
  }
  refreshDisplay();
}

void FiducialExtractionController::addFiducial(const Fiducial& fiducial) {
  auto circle = std::make_unique<GlCircle>();
  circle->setCenter(fiducial.centre);
  circle->setRadius(fiducial.radius);
  circle->setAxes(Eigen::Vector3d::UnitX(), Eigen::Vector3d::UnitY());
  circle->setColor(kGreen);
  if (MainWindowBase* window = MainWindowBase::instance()) window->addSliceObject(circle.get());
  const int id = nextId_++;
  centres_[id] = fiducial.centre;
  circles_[id] = std::move(circle);
  cloud_.points().push_back(fiducial.centre);
  auto* item = new QListWidgetItem(QString("Fiducial #%1").arg(list_->count() + 1));
  item->setData(IdRole, id);
  list_->addItem(item);
}

std::vector<FiducialExtractionController::Fiducial> FiducialExtractionController::fiducials() const {
  std::vector<Fiducial> out;
  for (int row = 0; row < list_->count(); ++row) {
    const int id = list_->item(row)->data(IdRole).toInt();
    auto circle = circles_.find(id);
    auto centre = centres_.find(id);
    if (centre == centres_.end() || circle == circles_.end()) continue;
    out.push_back({centre->second, circle->second->radius()});
  }
  return out;
}

void FiducialExtractionController::onFiducialSelectionChanged() {
  for (int row = 0; row < list_->count(); ++row) {
    QListWidgetItem* item = list_->item(row);
    auto circle = circles_.find(item->data(IdRole).toInt());
    if (circle != circles_.end()) circle->second->setColor(item->isSelected() ? kMagenta : kGreen);
  }
  refreshDisplay();
}

void FiducialExtractionController::onCenterOnFiducial(QListWidgetItem* item) {
  if (!item) return;
  auto centre = centres_.find(item->data(IdRole).toInt());
  MainWindowBase* window = MainWindowBase::instance();
  DisplayWidgetMultiAdapter* display = window ? window->displayWidget() : nullptr;
  if (centre == centres_.end() || !display) return;
  display->centerSliceViewsAt(centre->second);
  display->update();
}

void FiducialExtractionController::removeCircle(int id) {
  auto circle = circles_.find(id);
  if (circle == circles_.end()) return;
  if (MainWindowBase* window = MainWindowBase::instance()) window->removeObject(circle->second.get());
  circles_.erase(circle);
}

void FiducialExtractionController::onClearFiducials() {
  list_->clear();
  while (!circles_.empty()) removeCircle(circles_.begin()->first);
  centres_.clear();
  cloud_.points().clear();
  refreshDisplay();
}

void FiducialExtractionController::onDeleteFiducials() {
  for (QListWidgetItem* item : list_->selectedItems()) {
    const int id = item->data(IdRole).toInt();
    centres_.erase(id);
    removeCircle(id);
    delete item;
  }
  rewritePointCloud();
  renumberRows();
  refreshDisplay();
}

void FiducialExtractionController::onMoveFiducialsUp() {
  // Top to bottom, so that a block of selected rows moves as one; the top row stays.
  for (int row = 1; row < list_->count(); ++row) {
    if (!list_->item(row)->isSelected() || list_->item(row - 1)->isSelected()) continue;
    QListWidgetItem* item = list_->takeItem(row);
    list_->insertItem(row - 1, item);
    item->setSelected(true);
  }
  rewritePointCloud();
  renumberRows();
}

void FiducialExtractionController::onMoveFiducialsDown() {
  for (int row = list_->count() - 2; row >= 0; --row) {
    if (!list_->item(row)->isSelected() || list_->item(row + 1)->isSelected()) continue;
    QListWidgetItem* item = list_->takeItem(row);
    list_->insertItem(row + 1, item);
    item->setSelected(true);
  }
  rewritePointCloud();
  renumberRows();
}

void FiducialExtractionController::onSortFiducials() {
  std::vector<QListWidgetItem*> items;
  while (list_->count() > 0) items.push_back(list_->takeItem(0));
  auto z = [this](QListWidgetItem* item) {
    auto centre = centres_.find(item->data(IdRole).toInt());
    return centre == centres_.end() ? -std::numeric_limits<double>::infinity() : centre->second.z();
  };
  std::stable_sort(items.begin(), items.end(), [&](QListWidgetItem* a, QListWidgetItem* b) { return z(a) > z(b); });
  for (QListWidgetItem* item : items) list_->addItem(item);
  renumberRows();
  rewritePointCloud();
  refreshDisplay();
}

std::vector<QListWidgetItem*> FiducialExtractionController::selectedOrAllRows() const {
  std::vector<QListWidgetItem*> rows;
  for (int row = 0; row < list_->count(); ++row)
    if (list_->item(row)->isSelected()) rows.push_back(list_->item(row));
  if (rows.empty())
    for (int row = 0; row < list_->count(); ++row) rows.push_back(list_->item(row));
  return rows;
}

bool FiducialExtractionController::exportFiducialsToFile(const QString& path) {
  std::vector<Fiducial> rows;
  for (QListWidgetItem* item : selectedOrAllRows()) {
    auto centre = centres_.find(item->data(IdRole).toInt());
    if (centre == centres_.end()) {
      LOG_ERROR(kCategory, "Inconsistent point cloud");
      continue;
    }
    rows.push_back({centre->second, 0.0});
  }
  std::string error;
  if (!FiducialFile::write(path.toStdString(), rows, false, &error)) {
    LOG_ERROR(kCategory, error);
    showMessage(QString::fromStdString(error));
    return false;
  }
  return true;
}

bool FiducialExtractionController::importFiducialsFromFile(const QString& path) {
  std::vector<Fiducial> read;
  std::string error;
  if (!FiducialFile::read(path.toStdString(), diameter_->value() / 2.0, read, &error)) {
    LOG_ERROR(kCategory, error);
    showMessage(QString::fromStdString(error));
    return false;
  }
  for (const Fiducial& f : read) addFiducial(f);
  refreshDisplay();
  return true;
}

void FiducialExtractionController::exportFiducialsAsLabels(const QString& baseName) {
  MainWindowBase* window = MainWindowBase::instance();
  if (!window) return;
  const QString base = baseName + " ";
  const Data* image = firstInput(extraction_);
  int position = 0;
  for (QListWidgetItem* item : selectedOrAllRows()) {
    ++position;
    auto centre = centres_.find(item->data(IdRole).toInt());
    if (centre == centres_.end()) {
      LOG_ERROR(kCategory, "Inconsistent point cloud");
      continue;
    }
    auto point = std::make_unique<GlPoint>(centre->second);
    window->annotationModel()->add(std::move(point), QString("%1%2").arg(base).arg(position).toStdString(), image);
  }
  window->updateViews();
}

void FiducialExtractionController::onExportFiducialsToFile() {
  QSettings settings;
  const QString path = QtHelpers::getSaveFilename(this, "Export fiducial points",
                                                  settings.value("exportFiducialsFile").toString(), "All files (*)");
  if (path.isEmpty()) return;
  settings.setValue("exportFiducialsFile", path);
  exportFiducialsToFile(path);
}

void FiducialExtractionController::onImportFiducialsFromFile() {
  QSettings settings;
  const QString path = QFileDialog::getOpenFileName(this, "Import fiducial points",
                                                    settings.value("fiducials/import").toString(), "All files (*)");
  if (path.isEmpty()) return;
  settings.setValue("fiducials/import", path);
  importFiducialsFromFile(path);
}

void FiducialExtractionController::onExportFiducialsAsLabels() {
  bool ok = false;
  const QString base = QInputDialog::getText(this, "Fiducials base name", "Enter fiducials base name",
                                             QLineEdit::Normal, "Fiducial", &ok);
  if (ok) exportFiducialsAsLabels(base);
}

void FiducialExtractionController::renumberRows() {
  for (int row = 0; row < list_->count(); ++row) list_->item(row)->setText(QString("Fiducial #%1").arg(row + 1));
}

void FiducialExtractionController::rewritePointCloud() {
  std::vector<Eigen::Vector3d> points;
  for (int row = 0; row < list_->count(); ++row) {
    auto centre = centres_.find(list_->item(row)->data(IdRole).toInt());
    if (centre != centres_.end()) points.push_back(centre->second);
  }
  cloud_.points() = std::move(points);
}

void FiducialExtractionController::refreshDisplay() {
  if (MainWindowBase* window = MainWindowBase::instance()) window->updateViews();
}

void FiducialExtractionController::showMessage(const QString& text) {
  message_->setText(text);
  message_->show();
}

QString FiducialExtractionController::message() const { return message_->isHidden() ? QString() : message_->text(); }

}  // namespace Merivane
