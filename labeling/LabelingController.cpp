#include "LabelingController.h"

#include <QApplication>
#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QDialog>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QShortcut>
#include <QSignalBlocker>
#include <QSlider>
#include <QSpinBox>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <functional>

#include "DataModel.h"
#include "GlCircle.h"
#include "GlLabelRenderer.h"
#include "GuiView.h"
#include "LabelDataComponent.h"
#include "LabelMapRefinement.h"
#include "LabelStatisticsAlgorithm.h"
#include "LabelingAlgorithm.h"
#include "LabelingManipulator.h"
#include "Log.h"
#include "MainWindowBase.h"
#include "SharedImageSet.h"
#include "ThresholdTool.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.LabelingController";
constexpr float kFloodFillRadius = 2.5f;  // pixels; the circle only marks the seed

QColor toQColor(const Eigen::Vector4d& c) { return QColor::fromRgbF(c[0], c[1], c[2]); }

}  // namespace

LabelingController::LabelingController(LabelingAlgorithm* algorithm, DisplayWidgetMultiAdapter* views,
                                       DataModel* model)
    : QWidget(nullptr), AlgorithmController(algorithm), labeling_(algorithm), views_(views), model_(model) {
  setObjectName("LabelingWidget");
}

LabelingController::~LabelingController() {
  threshold_.reset();  // takes its preview off the views
  detach();
  if (ownOverlay_)
    if (DisplayWidgetMultiAdapter* v = views())
      for (GUI::View* view : v->views()) view->view().removeObject(ownOverlay_.get());
  updateViews();
}

DataModel* LabelingController::model() const {
  if (model_) return model_;
  MainWindowBase* window = MainWindowBase::instance();
  return window ? window->dataModel() : nullptr;
}

DisplayWidgetMultiAdapter* LabelingController::views() const {
  if (views_) return views_;
  MainWindowBase* window = MainWindowBase::instance();
  return window ? window->displayWidget() : nullptr;
}

void LabelingController::updateViews() const {
  if (DisplayWidgetMultiAdapter* v = views()) v->update();
}

int LabelingController::init() {
  buildPanel();
  // The overlay the window shows for this label map, or one of our own.
  if (labelImage() && !overlay())
    if (DisplayWidgetMultiAdapter* v = views()) {
      ownOverlay_ = std::make_unique<GlLabelRenderer>(labelImage());
      auto* set = labeling_->labelMap();
      ownOverlay_->setLabelDataComponent(set->components().getOrCreate<LabelDataComponent>(set));
      ownOverlay_->setOpacity(0.5);
      for (GUI::View* view : v->views())
        if (view->sliceView()) view->view().addObject(ownOverlay_.get());
    }
  if (GlLabelRenderer* o = overlay()) opacity_->setValue(static_cast<int>(std::lround(o->opacity() * 100)));
  initThresholdRange();
  if (!labeling_->labelMap()) say(tr("No label map: select an image and its label map, then open the tool."), true);
  updateLabelInfo();
  updateButtons();
  return 0;
}

void LabelingController::buildPanel() {
  auto* form = new QFormLayout(this);
  auto named = [](auto* w, const char* name) {
    w->setObjectName(name);
    return w;
  };
  opacity_ = named(new QSlider(Qt::Horizontal, this), "sliderOpacity");
  opacity_->setRange(0, 100);
  opacity_->setValue(50);
  form->addRow(tr("Opacity"), opacity_);

  auto* adaptRow = new QHBoxLayout;
  adaptiveness_ = named(new QSlider(Qt::Horizontal, this), "sliderAdaptiveness");
  adaptiveness_->setRange(0, 100);
  adaptiveness_->setValue(0);
  adaptivenessValue_ = named(new QLabel("0", this), "labelAdaptiveness");
  adaptRow->addWidget(adaptiveness_, 1);
  adaptRow->addWidget(adaptivenessValue_);
  form->addRow(tr("Adaptiveness"), adaptRow);

  avoidOthers_ = named(new QCheckBox(tr("Avoid Other Labels"), this), "checkBoxAvoidOtherLabels");
  form->addRow(avoidOthers_);

  size_ = named(new QSpinBox(this), "spinBoxSize");
  size_->setRange(1, 500);
  size_->setValue(20);
  size_->setToolTip(tr("Brush diameter in pixels; Shift + wheel over a view changes it"));
  form->addRow(tr("Size"), size_);

  label_ = named(new QSpinBox(this), "spinBoxLabel");
  label_->setRange(0, 255);
  label_->setValue(1);
  form->addRow(tr("Label"), label_);
  auto* nameRow = new QHBoxLayout;
  labelName_ = named(new QLineEdit(this), "lineEditLabelName");
  labelName_->setPlaceholderText(tr("Name of the label"));
  labelColor_ = named(new QPushButton(tr("Colour..."), this), "pushButtonLabelColor");
  nameRow->addWidget(labelName_, 1);
  nameRow->addWidget(labelColor_);
  form->addRow(tr("Name"), nameRow);
  underCursor_ = named(new QLabel(this), "labelUnderCursor");
  form->addRow(tr("Under pointer"), underCursor_);

  auto* statistics = named(new QPushButton(tr("Statistics"), this), "pushButtonStatistics");
  form->addRow(statistics);

  // The threshold tool (Seg::ThresholdTool): a preview of the range on the slice views, and
  // Apply, which gives the current label to the voxels of the focused frame within the range.
  auto* thresholdGroup = named(new QGroupBox(tr("Threshold"), this), "groupBoxThreshold");
  auto* thresholdForm = new QFormLayout(thresholdGroup);
  thresholdLow_ = named(new QDoubleSpinBox(thresholdGroup), "doubleSpinBoxThresholdLow");
  thresholdHigh_ = named(new QDoubleSpinBox(thresholdGroup), "doubleSpinBoxThresholdHigh");
  for (QDoubleSpinBox* box : {thresholdLow_, thresholdHigh_}) {
    box->setDecimals(2);
    box->setRange(-1e9, 1e9);
  }
  thresholdLow_->setToolTip(tr("Lowest intensity taken, in the image's original units (included)"));
  thresholdHigh_->setToolTip(tr("Highest intensity taken, in the image's original units (included)"));
  thresholdForm->addRow(tr("Low"), thresholdLow_);
  thresholdForm->addRow(tr("High"), thresholdHigh_);
  thresholdPreview_ = named(new QCheckBox(tr("Preview"), thresholdGroup), "checkBoxThresholdPreview");
  thresholdForm->addRow(thresholdPreview_);
  auto* thresholdApply = named(new QPushButton(tr("Apply Threshold"), thresholdGroup), "pushButtonThresholdApply");
  thresholdForm->addRow(thresholdApply);
  form->addRow(thresholdGroup);

  // Refinement of the current label in the focused frame (Seg::LabelMapRefinement).
  refineGroup_ = named(new QGroupBox(tr("Refinement"), this), "groupBoxRefine");
  auto* refineForm = new QFormLayout(refineGroup_);
  refineOperation_ = named(new QComboBox(refineGroup_), "comboBoxRefineOperation");
  refineOperation_->addItems({tr("Snap to Image Edges"), tr("Smooth (Median)"), tr("Smooth (Gaussian)"),
                              tr("Fill Holes"), tr("Remove Small Components"), tr("Keep Largest Component"),
                              tr("Dilate"), tr("Erode")});
  refineOperation_->setToolTip(
      tr("Snap: a watershed of the image moves the border to the strongest edge within about twice the "
         "size; Smooth: median or Gaussian of the label's outline; Fill Holes: background enclosed by the "
         "label; Remove Small Components: parts of fewer voxels than the minimum; Keep Largest Component; "
         "Dilate and Erode: by a ball of the size"));
  refineForm->addRow(tr("Operation"), refineOperation_);
  refineSize_ = named(new QSpinBox(refineGroup_), "spinBoxRefineSize");
  refineSize_->setRange(1, 100);
  refineSize_->setValue(3);
  refineSize_->setSuffix(tr(" voxels"));
  refineSize_->setToolTip(tr("Band of the snap, window of the smoothing, radius of dilation and erosion"));
  refineForm->addRow(tr("Size"), refineSize_);
  refineMinSize_ = named(new QSpinBox(refineGroup_), "spinBoxRefineMinSize");
  refineMinSize_->setRange(1, 1000000000);
  refineMinSize_->setValue(100);
  refineMinSize_->setSuffix(tr(" voxels"));
  refineMinSize_->setToolTip(tr("Remove Small Components drops the parts of the label with fewer voxels"));
  refineForm->addRow(tr("Minimum component"), refineMinSize_);
  // The matting parameters of the host's closed-form matting. This host has no matting, so
  // they are shown for configurations that carry them and stay disabled; the operations above
  // are what Refine runs.
  auto* matting = named(new QGroupBox(tr("Image matting"), refineGroup_), "groupBoxMatting");
  auto* mattingForm = new QFormLayout(matting);
  auto* patchSize = named(new QSpinBox(matting), "spinBoxPatchSize");
  patchSize->setRange(0, 999);
  patchSize->setValue(100);
  mattingForm->addRow(tr("Patch size"), patchSize);
  auto* smoothness = named(new QDoubleSpinBox(matting), "doubleSpinBoxSmoothness");
  smoothness->setDecimals(3);
  smoothness->setRange(0.001, 9.99);
  smoothness->setSingleStep(0.05);
  smoothness->setValue(0.01);
  mattingForm->addRow(tr("Smoothness"), smoothness);
  auto* filterings = named(new QSpinBox(matting), "spinBoxFilterings");
  filterings->setRange(0, 999);
  filterings->setValue(1);
  mattingForm->addRow(tr("Number of filterings"), filterings);
  auto* workingSize = named(new QSpinBox(matting), "spinBoxWorkingSize");
  workingSize->setRange(0, 1000);
  workingSize->setSingleStep(2);
  workingSize->setValue(21);
  mattingForm->addRow(tr("Working size"), workingSize);
  matting->setEnabled(false);
  matting->setToolTip(tr("Closed-form matting is not available in this host; Refine runs the operation above"));
  refineForm->addRow(matting);
  auto* refine = named(new QPushButton(tr("Refine"), refineGroup_), "pushButtonRefine");
  refineForm->addRow(refine);
  refineGroup_->setVisible(false);
  form->addRow(refineGroup_);
  auto* showSettings = named(new QPushButton(tr("Show Settings"), this), "pushButtonShowSettings");
  form->addRow(showSettings);

  stop_ = named(new QPushButton(tr("Stop"), this), "pushButtonStop");
  form->addRow(stop_);
  fillScope_ = named(new QComboBox(this), "comboBoxFill");
  fillScope_->addItems({tr("Fill Current Image"), tr("Fill All Labeled Images"), tr("Fill All Images")});
  form->addRow(fillScope_);
  auto* fill = named(new QPushButton(tr("Fill Unlabeled Pixels"), this), "pushButtonFill");
  form->addRow(fill);
  start_ = named(new QPushButton(tr("Start"), this), "pushButtonStart");
  form->addRow(start_);
  auto* copy = named(new QPushButton(tr("Export as Data"), this), "pushButtonCopy");
  form->addRow(copy);
  floodFill_ = named(new QPushButton(tr("Flood Fill"), this), "pushButtonFloodFill");
  form->addRow(floodFill_);
  tolerance_ = named(new QDoubleSpinBox(this), "doubleSpinBoxTolerance");
  tolerance_->setRange(-1, 1e6);
  tolerance_->setDecimals(1);
  tolerance_->setSpecialValueText(tr("Off"));
  tolerance_->setValue(-1);
  tolerance_->setToolTip(tr("Flood fill keeps to intensities within this distance of the clicked voxel's"));
  form->addRow(tr("Fill tolerance"), tolerance_);
  auto* undoRow = new QHBoxLayout;
  undo_ = named(new QPushButton(tr("Undo"), this), "pushButtonUndo");
  redo_ = named(new QPushButton(tr("Redo"), this), "pushButtonRedo");
  undo_->setToolTip(tr("Ctrl+Z"));
  redo_->setToolTip(tr("Ctrl+Shift+Z or Ctrl+Y"));
  undoRow->addWidget(undo_);
  undoRow->addWidget(redo_);
  form->addRow(undoRow);
  auto* clear = named(new QPushButton(tr("Clear"), this), "pushButtonClear");
  form->addRow(clear);
  status_ = named(new QLabel(this), "labelStatus");
  status_->setWordWrap(true);
  form->addRow(status_);

  connect(opacity_, &QSlider::valueChanged, this, &LabelingController::onSetTransparency);
  connect(adaptiveness_, &QSlider::valueChanged, this, &LabelingController::onSetAdaptiveness);
  connect(avoidOthers_, &QCheckBox::toggled, this, &LabelingController::onToggleAvoidOtherLabels);
  connect(size_, QOverload<int>::of(&QSpinBox::valueChanged), this, &LabelingController::onSetSize);
  connect(label_, QOverload<int>::of(&QSpinBox::valueChanged), this, &LabelingController::onSetLabel);
  connect(labelName_, &QLineEdit::textEdited, this, &LabelingController::onSetLabelName);
  connect(labelColor_, &QPushButton::clicked, this, [this] {
    const QColor chosen = QColorDialog::getColor(labelColor_->palette().button().color(), this,
                                                 tr("Colour of label %1").arg(currentLabel()));
    if (chosen.isValid()) onSetLabelColor(chosen);
  });
  connect(statistics, &QPushButton::clicked, this, &LabelingController::onStatistics);
  connect(refine, &QPushButton::clicked, this, &LabelingController::onRefine);
  connect(thresholdLow_, QOverload<double>::of(&QDoubleSpinBox::valueChanged), this,
          [this](double) { syncThreshold(); });
  connect(thresholdHigh_, QOverload<double>::of(&QDoubleSpinBox::valueChanged), this,
          [this](double) { syncThreshold(); });
  connect(thresholdPreview_, &QCheckBox::toggled, this, &LabelingController::onThresholdPreview);
  connect(thresholdApply, &QPushButton::clicked, this, &LabelingController::onApplyThreshold);
  connect(showSettings, &QPushButton::clicked, this, &LabelingController::onShowRefineOptions);
  connect(stop_, &QPushButton::clicked, this, &LabelingController::onStopLabeling);
  connect(fill, &QPushButton::clicked, this, &LabelingController::onFill);
  connect(start_, &QPushButton::clicked, this, &LabelingController::onStartLabeling);
  connect(copy, &QPushButton::clicked, this, &LabelingController::onCopy);
  connect(floodFill_, &QPushButton::clicked, this, &LabelingController::onFloodFill);
  connect(tolerance_, QOverload<double>::of(&QDoubleSpinBox::valueChanged), this,
          &LabelingController::onSetTolerance);
  connect(undo_, &QPushButton::clicked, this, &LabelingController::onUndo);
  connect(redo_, &QPushButton::clicked, this, &LabelingController::onRedo);
  connect(clear, &QPushButton::clicked, this, &LabelingController::onClear);

  // Anywhere in the window, also while a view has the keyboard.
  for (const auto& [keys, slot] : {std::pair{QKeySequence("Ctrl+Z"), &LabelingController::onUndo},
                                   std::pair{QKeySequence("Ctrl+Shift+Z"), &LabelingController::onRedo},
                                   std::pair{QKeySequence("Ctrl+Y"), &LabelingController::onRedo}}) {
    auto* shortcut = new QShortcut(keys, this);
    shortcut->setContext(Qt::WindowShortcut);
    connect(shortcut, &QShortcut::activated, this, slot);
  }
}

void LabelingController::initThresholdRange() {
  // From the middle of the focused frame's range to its top, in original units.
  const MemImage* mem = labeling_->image() ? labeling_->image()->mem() : nullptr;
  if (!mem) return;
  double lo = 0, hi = 0;
  bool found = false;
  dispatchPixelType(mem->type(), [&](auto tag) {
    using T = decltype(tag);
    T a, b;
    if (const auto* t = dynamic_cast<const TypedImage<T>*>(mem); t && t->getRange(a, b)) {
      lo = mem->descriptor().toPhysical(static_cast<double>(a));
      hi = mem->descriptor().toPhysical(static_cast<double>(b));
      found = true;
    }
  });
  if (!found || !std::isfinite(lo) || !std::isfinite(hi)) return;
  if (lo > hi) std::swap(lo, hi);
  const QSignalBlocker blockLow(thresholdLow_), blockHigh(thresholdHigh_);
  thresholdLow_->setValue((lo + hi) * 0.5);
  thresholdHigh_->setValue(hi);
}

QString LabelingController::message() const { return status_ ? status_->text() : QString(); }

void LabelingController::say(const QString& text, bool refusal) {
  if (status_) {
    status_->setText(text);
    status_->setStyleSheet(refusal ? "color: #c03030;" : QString());
  }
}

int LabelingController::currentLabel() const { return label_ ? label_->value() : 1; }
void LabelingController::setLabelIndex(int label) {
  if (label_) label_->setValue(label);
}
SharedImage* LabelingController::labelImage() const {
  return labeling_->labelMap() ? labeling_->labelMap()->get() : nullptr;
}

GlLabelRenderer* LabelingController::overlay() const {
  if (ownOverlay_) return ownOverlay_.get();
  const SharedImageSet* set = labeling_->labelMap();
  DisplayWidgetMultiAdapter* v = views();
  if (!set || !v) return nullptr;
  for (GUI::View* view : v->views())
    for (GlObject* o : view->view().objects())
      if (auto* r = dynamic_cast<GlLabelRenderer*>(o))
        for (int i = 0; i < set->size(); ++i)
          if (r->labelMap() == set->get(i)) return r;
  return nullptr;
}

bool LabelingController::ensureManipulator() {
  if (manipulator_) return true;
  SharedImageSet* labels = labeling_->labelMap();
  SharedImageSet* image = labeling_->image();
  if (!labels || !image) {
    LOG_WARN(kCategory, "no label map to edit");
    say(tr("No label map: select an image and its label map, then open the tool."), true);
    return false;
  }
  circle_ = std::make_unique<GlCircle>();
  circle_->setLineWidth(2.0f);
  manipulator_ = std::make_unique<Seg::LabelingManipulator>(*image, *labels, circle_.get(), false);
  if (!manipulator_->isValid()) {
    LOG_WARN(kCategory, "the label map does not share the image's grid");
    say(tr("The label map does not share the image's grid (size or spacing), or is not a U8 label map."), true);
    manipulator_.reset();
    circle_.reset();
    return false;
  }
  viewObject_ = std::make_unique<GUI::TypedViewObject<GlCircle>>(*circle_, manipulator_.get());
  Seg::LabelingManipulator& m = *manipulator_;
  m.setBusyCheck([this]() -> std::string {
    DataModel* dm = model();
    if (dm && (dm->isBusy(labeling_->image()) || dm->isBusy(labeling_->labelMap())))
      return "An algorithm is working on this data; edit it when it has finished";
    return {};
  });
  m.setUpdateViews([this] { updateViews(); });
  m.refused.connect(this, [this](const std::string& why) { say(QString::fromStdString(why), true); });
  m.undoAvailable.connect(this, [this](bool) { updateButtons(); });
  m.redoAvailable.connect(this, [this](bool) { updateButtons(); });
  m.labelsChanged.connect(this, [this] { updateViews(); });
  m.strokeFinished.connect(this, [this](int) {
    if (status_->styleSheet().isEmpty()) say(QString());
  });
  m.sizeChanged.connect(this, [this](int size) { size_->setValue(size); });
  m.labelUnderCursor.connect(this, [this](int value) {
    if (value < 0) return underCursor_->setText(QString());
    const auto* ldc = labeling_->labelMap()->components().get<LabelDataComponent>();
    const auto config = ldc ? ldc->labelConfig(value) : std::nullopt;
    underCursor_->setText(config && !config->name.empty() && value > 0
                              ? tr("%1 (%2)").arg(value).arg(QString::fromStdString(config->name))
                              : QString::number(value));
  });
  m.painter().setAdaptiveness(adaptiveness_->value() / 100.0f);
  onToggleAvoidOtherLabels(avoidOthers_->isChecked());
  m.setLabel(currentLabel());
  m.setRadiusPixels(size_->value() * 0.5f);
  onSetTolerance(tolerance_->value());
  updateLabelInfo();
  return true;
}

void LabelingController::attach() {
  DisplayWidgetMultiAdapter* v = views();
  if (!v || attached_) return;
  for (GUI::View* view : v->views())
    if (view->sliceView()) view->addViewObject(viewObject_.get());
  attached_ = true;
}

void LabelingController::detach() {
  if (!attached_) return;
  if (DisplayWidgetMultiAdapter* v = views())
    for (GUI::View* view : v->views()) view->removeViewObject(viewObject_.get());
  if (manipulator_) manipulator_->reset();
  attached_ = false;
}

void LabelingController::start(bool floodFill) {
  onStopLabeling();
  if (!ensureManipulator()) return;
  manipulator_->setFloodFillMode(floodFill);
  manipulator_->setRadiusPixels(floodFill ? kFloodFillRadius : size_->value() * 0.5f);
  attach();
  say(floodFill ? tr("Click a region to fill it with label %1.").arg(currentLabel())
                : tr("Paint with the left button; erase with the middle one or Ctrl + left."));
  updateButtons();
  updateViews();
}

void LabelingController::onStartLabeling() { start(false); }
void LabelingController::onFloodFill() { start(true); }

void LabelingController::onStopLabeling() {
  detach();
  updateButtons();
  updateViews();
}

void LabelingController::updateButtons() {
  if (!start_) return;
  start_->setEnabled(!attached_);
  floodFill_->setEnabled(!attached_ || (manipulator_ && !manipulator_->floodFillMode()));
  stop_->setEnabled(attached_);
  undo_->setEnabled(manipulator_ && manipulator_->canUndo());
  redo_->setEnabled(manipulator_ && manipulator_->canRedo());
}

void LabelingController::onClear() {
  if (!ensureManipulator()) return;
  manipulator_->clear();
  updateButtons();
}

void LabelingController::onUndo() {
  if (manipulator_ && manipulator_->undo()) say(tr("Undone."));
  updateButtons();
}

void LabelingController::onRedo() {
  if (manipulator_ && manipulator_->redo()) say(tr("Redone."));
  updateButtons();
}

void LabelingController::onSetLabel(int label) {
  if (manipulator_) manipulator_->setLabel(label);
  syncThreshold();
  updateLabelInfo();
  updateViews();
}

void LabelingController::updateLabelInfo() {
  const int label = currentLabel();
  SharedImageSet* set = labeling_->labelMap();
  Eigen::Vector4d color(1, 1, 1, 1);
  std::string name;
  if (set && label >= 1) {
    const auto* ldc = set->components().get<LabelDataComponent>();
    const auto config = ldc ? ldc->labelConfig(std::min(label, 255)) : std::nullopt;
    const auto shown = config ? *config : LabelDataComponent::defaultLabelConfig(std::min(label, 255));
    color = shown.color;
    name = config ? config->name : std::string();
  }
  if (circle_) circle_->setColor(Eigen::Vector4f(color[0], color[1], color[2], 1.0f));
  if (labelName_) {
    labelName_->setText(QString::fromStdString(name));
    labelName_->setEnabled(set && label >= 1);
    labelColor_->setEnabled(set && label >= 1);
    labelColor_->setStyleSheet(QString("background-color: %1;").arg(toQColor(color).name()));
  }
}

void LabelingController::onSetLabelName(const QString& name) {
  SharedImageSet* set = labeling_->labelMap();
  const int label = currentLabel();
  if (!set || label < 1) return;
  auto* ldc = set->components().getOrCreate<LabelDataComponent>(set);
  auto config = ldc->labelConfig(label).value_or(LabelDataComponent::defaultLabelConfig(label));
  config.name = name.toStdString();
  ldc->setLabelConfig(label, config);
  if (DataModel* dm = model(); dm && dm->contains(set)) dm->notifyChanged(set);
}

void LabelingController::onSetLabelColor(const QColor& color) {
  SharedImageSet* set = labeling_->labelMap();
  const int label = currentLabel();
  if (!set || label < 1 || !color.isValid()) return;
  auto* ldc = set->components().getOrCreate<LabelDataComponent>(set);
  if (!ldc->hasLabel(label)) ldc->setLabelConfig(label, LabelDataComponent::defaultLabelConfig(label));
  const double alpha = ldc->labelConfig(label)->color[3];
  ldc->setLabelColor(label, Eigen::Vector4d(color.redF(), color.greenF(), color.blueF(), alpha));
  updateLabelInfo();
  updateViews();
}

void LabelingController::onSetSize(int size) {
  if (manipulator_ && !manipulator_->floodFillMode()) manipulator_->setRadiusPixels(size * 0.5f);
}

void LabelingController::onSetTransparency(int value) {
  if (GlLabelRenderer* o = overlay()) o->setOpacity(value / 100.0);
  updateViews();
}

void LabelingController::onSetAdaptiveness(int value) {
  adaptivenessValue_->setText(QString::number(value));
  if (manipulator_) manipulator_->painter().setAdaptiveness(value / 100.0f);
}

void LabelingController::onToggleAvoidOtherLabels(bool checked) {
  syncThreshold();
  if (!manipulator_) return;
  for (int l = 1; l <= 255; ++l) manipulator_->painter().setPreserveLabel(static_cast<unsigned char>(l), checked);
}

void LabelingController::onSetTolerance(double tolerance) {
  if (manipulator_)
    manipulator_->setFloodFillTolerance(tolerance < 0 ? std::nullopt : std::optional<double>(tolerance));
}

void LabelingController::onShowRefineOptions() { refineGroup_->setVisible(!refineGroup_->isVisible()); }

void LabelingController::onFill() {
  if (!ensureManipulator()) return;
  SharedImageSet* labels = labeling_->labelMap();
  std::vector<int> frames;
  const int scope = fillScope_->currentIndex();
  for (int i = 0; i < labels->size(); ++i) {
    if (scope == 0 && i != std::max(0, labels->selection().focus())) continue;
    if (scope == 1) {
      const MemImage* mem = labels->mem(i);
      if (!mem) continue;
      const auto* p = static_cast<const uint8_t*>(mem->data());
      if (std::all_of(p, p + mem->descriptor().elementCount(), [](uint8_t v) { return v == 0; })) continue;
    }
    frames.push_back(i);
  }
  if (manipulator_->fillUnlabeled(frames)) say(tr("Unlabeled pixels filled with label %1.").arg(currentLabel()));
  updateButtons();
}

void LabelingController::onRefine() {
  if (!ensureManipulator()) return;
  using Refinement = Seg::LabelMapRefinement;
  const int size = refineSize_->value();
  const unsigned long minSize = static_cast<unsigned long>(refineMinSize_->value());
  std::function<void(Refinement&)> op;
  switch (refineOperation_->currentIndex()) {
    case 0: op = [size](Refinement& r) { r.imageBasedRefinement(size); }; break;
    case 1: op = [size](Refinement& r) { r.smooth(size, Refinement::Median); }; break;
    case 2: op = [size](Refinement& r) { r.smooth(size, Refinement::Gaussian); }; break;
    case 3: op = [](Refinement& r) { r.fillHoles(); }; break;
    case 4: op = [minSize](Refinement& r) { r.removeSmallComponents(std::nullopt, minSize); }; break;
    case 5: op = [](Refinement& r) { r.keepNLargestComponents(1); }; break;
    case 6: op = [size](Refinement& r) { r.dilate(size); }; break;
    case 7: op = [size](Refinement& r) { r.erode(size); }; break;
    default: return;
  }
  const QString what = refineOperation_->currentText();
  if (QApplication::instance()) QApplication::setOverrideCursor(Qt::WaitCursor);
  const bool changed = manipulator_->refine(what.toStdString(), op);
  if (QApplication::instance()) QApplication::restoreOverrideCursor();
  if (changed)
    say(tr("%1: label %2 refined.").arg(what).arg(currentLabel()));
  else if (manipulator_->lastRefusal().empty())
    say(tr("%1 left label %2 as it was.").arg(what).arg(currentLabel()));
  updateButtons();
  updateViews();
}

bool LabelingController::ensureThresholdTool() {
  if (threshold_) return true;
  if (!labeling_->labelMap() || !labeling_->image()) {
    say(tr("No label map: select an image and its label map, then open the tool."), true);
    return false;
  }
  DisplayWidgetMultiAdapter* v = views();
  threshold_ = v ? std::make_unique<Seg::ThresholdTool>(*v) : std::make_unique<Seg::ThresholdTool>();
  threshold_->setTargetLabelMap(labeling_->image(), labeling_->labelMap());
  if (!threshold_->labelMap()) {
    threshold_.reset();
    say(tr("The label map does not share the image's grid (size or spacing), or is not a U8 label map."), true);
    return false;
  }
  syncThreshold();
  return true;
}

void LabelingController::syncThreshold() {
  if (!threshold_) return;
  threshold_->setRangeOriginal(thresholdLow_->value(), thresholdHigh_->value());
  threshold_->setActiveLabel(static_cast<unsigned char>(std::clamp(currentLabel(), 0, 255)));
  // The same locks as the brush: "Avoid Other Labels" spares every other label.
  const bool avoid = avoidOthers_->isChecked();
  for (int l = 1; l <= 255; ++l)
    threshold_->setPreserveLabel(static_cast<unsigned char>(l), avoid && l != currentLabel());
}

void LabelingController::onThresholdPreview(bool on) {
  if (!on) {
    if (threshold_) threshold_->disable();
    updateViews();
    return;
  }
  if (!ensureThresholdTool()) {
    const QSignalBlocker block(thresholdPreview_);
    thresholdPreview_->setChecked(false);
    return;
  }
  threshold_->enable();
  updateViews();
}

void LabelingController::onApplyThreshold() {
  if (!ensureManipulator() || !ensureThresholdTool()) return;
  syncThreshold();
  SharedImageSet* labels = labeling_->labelMap();
  const int frame = std::max(0, labels->selection().focus());
  // The tool spares the locked labels but takes the current one (see syncThreshold).
  if (manipulator_->edit("Threshold", [&] { threshold_->apply(frame); }, false))
    say(tr("Voxels from %1 to %2 labelled %3.").arg(thresholdLow_->value()).arg(thresholdHigh_->value()).arg(currentLabel()));
  else if (manipulator_->lastRefusal().empty())
    say(tr("No voxel from %1 to %2 changed.").arg(thresholdLow_->value()).arg(thresholdHigh_->value()));
  updateButtons();
  updateViews();
}

void LabelingController::onStatistics() {
  SharedImageSet* image = labeling_->image();
  SharedImageSet* labels = labeling_->labelMap();
  Algorithm* created = nullptr;
  if (!labels || !LabelStatisticsAlgorithm::createCompatible(DataList{image, labels}, &created) || !created) {
    LOG_WARN(kCategory, "statistics need a one-frame, one-channel image and its label map");
    say(tr("Statistics need a one-frame, one-channel image and its label map."), true);
    return;
  }
  std::unique_ptr<Algorithm> statistics(created);
  statistics->compute();
  if (statistics->status() != Algorithm::statusSuccess) {
    say(tr("Statistics failed: see the log."), true);
    return;
  }
  auto* dialog = new QDialog(this);
  dialog->setObjectName("LabelingStatisticsDialog");
  dialog->setWindowTitle(tr("Label statistics"));
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  auto* layout = new QVBoxLayout(dialog);
  auto* text = new QPlainTextEdit(
      QString::fromStdString(static_cast<LabelStatisticsAlgorithm&>(*statistics).csv()), dialog);
  text->setReadOnly(true);
  layout->addWidget(text);
  dialog->resize(640, 320);
  dialog->show();
}

void LabelingController::onCopy() {
  SharedImageSet* labels = labeling_->labelMap();
  DataModel* dm = model();
  if (!labels || !dm) {
    say(tr(labels ? "There is no data list to export to." : "No label map to export."), true);
    return;
  }
  for (int i = 0; i < labels->size(); ++i) labels->mem(i);
  exported_ = dm->add(labels->clone(), "Labels");
  dm->dataAboutToBeRemoved.connect(this, [this](Data* d) {
    if (d == exported_) exported_ = nullptr;
  });
  say(tr("Exported as \"Labels\"."));
}

void LabelingController::selectionChanged() {
  updateLabelInfo();
  updateViews();
}

}  // namespace Merivane
