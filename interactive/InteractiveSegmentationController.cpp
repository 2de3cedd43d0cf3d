#include "InteractiveSegmentationController.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QProgressDialog>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <limits>

#include "AnnotationModel.h"
#include "DataModel.h"
#include "GlAnnotations.h"
#include "GlCircle.h"
#include "GlLabelRenderer.h"
#include "GlMesh.h"
#include "GuiView.h"
#include "InteractiveSegmentationAlgorithm.h"
#include "InteractiveSegmentationWatershedAlgorithm.h"
#include "LabelDataComponent.h"
#include "LabelingManipulator.h"
#include "Log.h"
#include "MainWindowBase.h"
#include "Mesh.h"
#include "MeshProcessing.h"
#include "Progress.h"
#include "Properties.h"
#include "QtHelpers.h"
#include "SectionWidget.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.InteractiveSegmentationController";
constexpr const char* kTitle = "Interactive Segmentation";
constexpr int kOutline = 255;  // the value the run draws the object's outline with
const char* const kNoneAvailable = "<None available>";

using QtHelpers::named;

int askUser(QWidget* parent, const QString& title, const QString& text, int buttons, int defaultButton,
            std::vector<std::pair<int, QString>> relabel = {}) {
  QtHelpers::Question q;
  q.title = title;
  q.text = text;
  q.buttons = buttons;
  q.defaultButton = defaultButton;
  q.relabel = std::move(relabel);
  return QtHelpers::ask(parent, q);
}

double meanSpacing(const SharedImage* frame) {
  if (!frame) return 1.0;
  const ImageDescriptor& d = frame->descriptor();
  return d.slices() > 1 ? d.spacing.sum() / 3.0 : (d.spacing[0] + d.spacing[1]) / 2.0;
}

// Draws a contour (a polyline that follows the pointer) or a diameter (a line from press to
// release) with the left button in a slice view. Once a shape is drawn it lets every event by.
class ShapeDrawer : public GUI::ViewObject::EventHandler {
 public:
  ShapeDrawer(GlPolyLine& shape, bool line, std::function<void()> changed)
      : shape_(shape), line_(line), changed_(std::move(changed)) {}

  GUI::EventResult handleInputEvent(const GUI::InputEvent& e, const GlView& view) override {
    using GUI::InputEvent;
    if (done_ || !e.isMouse() || !e.position.allFinite() || !dynamic_cast<const GlSliceView*>(&view))
      return GUI::EventResult::Ignored;
    const Eigen::Vector3d p = view.viewState().unproject(e.position, 0.5);
    if (!drawing_) {
      if (e.type != InputEvent::MouseButtonPress || e.button != InputEvent::LeftButton || e.modifiers)
        return GUI::EventResult::Ignored;
      drawing_ = true;
      shape_.closed = false;
      shape_.points = line_ ? std::vector<Eigen::Vector3d>{p, p} : std::vector<Eigen::Vector3d>{p};
      last_ = e.position;
      changed_();
      return GUI::EventResult::Accepted;
    }
    const bool released = e.type == InputEvent::MouseButtonRelease && e.button == InputEvent::LeftButton;
    if (e.type == InputEvent::MouseMove || released) {
      if (line_) {
        shape_.points[1] = p;
      } else if ((e.position - last_).norm() >= 2.0) {  // screen pixels between points
        shape_.points.push_back(p);
        last_ = e.position;
      }
    }
    if (released) {
      drawing_ = false;
      // A click without a drag draws nothing: the next press starts again.
      done_ = line_ ? (shape_.points[1] - shape_.points[0]).norm() > 0 : shape_.points.size() >= 3;
      if (!line_ && done_) shape_.closed = true;
    }
    changed_();
    return GUI::EventResult::Accepted;
  }
  void reset() override { drawing_ = false; }

 private:
  GlPolyLine& shape_;
  bool line_;
  std::function<void()> changed_;
  bool drawing_ = false;
  bool done_ = false;
  Eigen::Vector2d last_ = Eigen::Vector2d::Zero();
};

// A source of "Initialize from Existing Segmentation": a surface, or the points of a curve.
struct RefinementSource {
  QString text;
  Mesh* mesh = nullptr;
  std::vector<Eigen::Vector3d> points;
};

std::vector<RefinementSource> collectSources(DataModel* model, AnnotationModel* annotations, bool planar) {
  std::vector<RefinementSource> out;
  auto unique = [&](QString text) {
    const QString base = text.isEmpty() ? QStringLiteral("Contour") : text;
    text = base;
    for (int n = 2; std::any_of(out.begin(), out.end(), [&](const auto& s) { return s.text == text; }); ++n)
      text = QString("%1 %2").arg(base).arg(n);
    return text;
  };
  if (planar && annotations)
    for (InteractiveObject* a : annotations->annotations()) {
      auto* curve = dynamic_cast<GlPolyLine*>(a->object());
      if (!curve || dynamic_cast<GlLine*>(curve) || curve->points.size() < 3) continue;
      RefinementSource s;
      s.text = unique(QString::fromStdString(a->name()));
      auto* spline = dynamic_cast<GlSpline*>(curve);
      s.points = spline ? spline->sampled() : curve->points;
      out.push_back(std::move(s));
    }
  if (model)
    for (Data* d : model->getAll(Data::kindMesh))
      if (Mesh* mesh = d->asMesh()) {
        RefinementSource s;
        s.text = unique(QString::fromStdString(d->name().empty() ? "Surface" : d->name()));
        s.mesh = mesh;
        out.push_back(std::move(s));
      }
  return out;
}

}  // namespace

// The painting tool's handler on the views, with the space bar in front of it.
class InteractiveSegmentationController::SpaceKeyHandler : public GUI::ViewObject::EventHandler {
 public:
  explicit SpaceKeyHandler(InteractiveSegmentationController& panel) : panel_(panel) {}
  GUI::EventResult handleInputEvent(const GUI::InputEvent& e, const GlView& view) override {
    if (e.type == GUI::InputEvent::KeyPress && e.key == Qt::Key_Space && e.modifiers == 0)
      return panel_.switchByKey() ? GUI::EventResult::Accepted : GUI::EventResult::Ignored;
    return panel_.manipulator_ ? panel_.manipulator_->handleInputEvent(e, view) : GUI::EventResult::Ignored;
  }
  void reset() override {
    if (panel_.manipulator_) panel_.manipulator_->reset();
  }

 private:
  InteractiveSegmentationController& panel_;
};

InteractiveSegmentationController::InteractiveSegmentationController(InteractiveSegmentationAlgorithm* algorithm,
                                                                     DisplayWidgetMultiAdapter* views,
                                                                     DataModel* model, AnnotationModel* annotations)
    : QWidget(nullptr),
      AlgorithmController(algorithm),
      segmentation_(algorithm),
      views_(views),
      model_(model),
      annotations_(annotations) {
  setObjectName("InteractiveSegmentationController");
  setWindowTitle(kTitle);
  // Without a label map of the user's, the panel paints into one of its own (kept by the
  // algorithm, so that it lives as long as the result).
  labelsInDataList_ = segmentation_->labelsGiven();
  if (!segmentation_->labels()) segmentation_->createLabels();
  if (SharedImageSet* image = segmentation_->image()) image->properties().setParam("ClassData", 1);
  if (SharedImageSet* labels = segmentation_->labels()) labels->properties().setParam("ClassLabels", 1);
  buildPanel();
}

InteractiveSegmentationController::~InteractiveSegmentationController() {
  detachManipulator();
  if (AnnotationModel* am = annotations()) {
    if (diagonalObject_) am->remove(diagonalObject_);
    if (contourObject_) am->remove(contourObject_);
  }
  showRenderer(false);
  if (DisplayWidgetMultiAdapter* v = views()) v->update();
}

DataModel* InteractiveSegmentationController::model() const {
  if (model_) return model_;
  MainWindowBase* window = MainWindowBase::instance();
  return window ? window->dataModel() : nullptr;
}

DisplayWidgetMultiAdapter* InteractiveSegmentationController::views() const {
  if (views_) return views_;
  MainWindowBase* window = MainWindowBase::instance();
  return window ? window->displayWidget() : nullptr;
}

AnnotationModel* InteractiveSegmentationController::annotations() const {
  if (annotations_) return annotations_;
  MainWindowBase* window = MainWindowBase::instance();
  return window ? window->annotationModel() : nullptr;
}

SharedImageSet* InteractiveSegmentationController::labelSet() const { return segmentation_->labels(); }

GlLabelRenderer* InteractiveSegmentationController::labelRenderer() const {
  return ownRenderer_ ? ownRenderer_.get() : windowRenderer_;
}

bool InteractiveSegmentationController::is3D() const {
  const SharedImageSet* image = segmentation_->image();
  const SharedImage* frame = image ? image->get() : nullptr;
  return frame && frame->descriptor().slices() > 1;
}

int InteractiveSegmentationController::objectLabel() const { return segmentation_->objectLabel(); }

void InteractiveSegmentationController::buildPanel() {
  const SharedImage* frame = segmentation_->image() ? segmentation_->image()->get() : nullptr;
  auto* outer = new QVBoxLayout(this);
  sections_ = named(new SectionWidget(this), "sectionWidget");
  outer->addWidget(sections_);

  // Seeds: paint them, draw a shape, or start from an existing segmentation.
  tabs_ = named(new QTabWidget, "tabWidget");
  auto* paint = new QWidget;
  auto* paintForm = new QFormLayout(paint);
  brushSize_ = named(new QSpinBox(paint), "spinBoxSize");
  brushSize_->setRange(1, 999);
  brushSize_->setValue(20);
  brushSize_->setToolTip(tr("Brush diameter in pixels; Shift + wheel over a view changes it"));
  paintForm->addRow(tr("Brush Size"), brushSize_);
  auto* brushRow = new QHBoxLayout;
  brushAdaptiveness_ = named(new QSlider(Qt::Horizontal, paint), "horizontalSliderBrushAdaptiveness");
  brushAdaptiveness_->setRange(0, 100);
  brushAdaptiveness_->setValue(50);
  brushAdaptivenessLabel_ = named(new QLabel("50", paint), "labelAdaptiveness");
  brushRow->addWidget(brushAdaptiveness_, 1);
  brushRow->addWidget(brushAdaptivenessLabel_);
  paintForm->addRow(tr("Adaptive Brush"), brushRow);
  auto* transparencyRow = new QHBoxLayout;
  transparency_ = named(new QSlider(Qt::Horizontal, paint), "horizontalSliderTransparency");
  transparency_->setRange(0, 100);
  transparency_->setValue(50);
  transparencyLabel_ = named(new QLabel("50", paint), "labelTransparency");
  transparencyRow->addWidget(transparency_, 1);
  transparencyRow->addWidget(transparencyLabel_);
  paintForm->addRow(tr("Transparency"), transparencyRow);
  avoidOtherLabels_ = named(new QCheckBox(tr("Avoid Other Labels"), paint), "checkBoxAvoidOtherLabels");
  avoidOtherLabels_->setToolTip(tr("Strokes spare the labels of objects accepted before"));
  paintForm->addRow(avoidOtherLabels_);
  auto* modes = new QHBoxLayout;
  drawIn_ = named(new QPushButton(tr("Paint Object"), paint), "pushButtonDrawIn");
  drawOut_ = named(new QPushButton(tr("Paint Background"), paint), "pushButtonDrawOut");
  erase_ = named(new QPushButton(tr("Erase"), paint), "pushButtonErase");
  for (QPushButton* b : {drawIn_, drawOut_, erase_}) {
    b->setCheckable(true);
    modes->addWidget(b);
  }
  drawIn_->setToolTip(tr("Space switches between object and background while painting"));
  drawOut_->setToolTip(drawIn_->toolTip());
  paintForm->addRow(modes);
  auto* editRow = new QHBoxLayout;
  auto* undo = named(new QPushButton(tr("Undo"), paint), "pushButtonUndo");
  auto* clear = named(new QPushButton(tr("Clear"), paint), "pushButtonClear");
  editRow->addWidget(undo);
  editRow->addWidget(clear);
  paintForm->addRow(editRow);
  tabs_->addTab(paint, tr("Paint"));

  auto* draw = new QWidget;
  auto* drawLayout = new QVBoxLayout(draw);
  auto* contour = named(new QPushButton(tr("Draw Contour"), draw), "pushButtonContour");
  contour->setToolTip(frame && frame->descriptor().slices() > 1
                          ? tr("Drag a diameter of the object across it in a slice view")
                          : tr("Draw the object's outline with the left button"));
  removeContour_ = named(new QPushButton(tr("Remove Contour"), draw), "pushButtonRemoveContour");
  removeContour_->setEnabled(false);
  removeContour_->setVisible(false);
  convertContour_ = named(new QPushButton(tr("Convert To Label Estimates"), draw), "pushButtonConvertContour");
  convertContour_->setEnabled(false);
  drawLayout->addWidget(contour);
  drawLayout->addWidget(removeContour_);
  drawLayout->addWidget(convertContour_);
  drawLayout->addStretch(1);
  tabs_->addTab(draw, tr("Draw"));

  auto* refineTab = new QWidget;
  auto* refineForm = new QFormLayout(refineTab);
  refine_ = named(new QPushButton(tr("Initialize from Existing Segmentation"), refineTab), "pushButtonRefine");
  refineForm->addRow(refine_);
  narrowBand_ = named(new QDoubleSpinBox(refineTab), "doubleSpinBoxNarrowBand");
  narrowBand_->setDecimals(2);
  narrowBand_->setRange(0.0, 1e5);
  narrowBand_->setValue(meanSpacing(frame) * 15.0);
  narrowBand_->setToolTip(tr("Width of the free band round the existing border, left for the segmentation to decide"));
  refineForm->addRow(tr("Narrow Band Width (mm)"), narrowBand_);
  tabs_->addTab(refineTab, tr("Refine"));
  sections_->addSection(QString(), tabs_);

  // Processing: run, accept, and the random walk's settings.
  auto* processing = new QWidget;
  auto* processingLayout = new QVBoxLayout(processing);
  auto* run = named(new QPushButton(tr("Run Segmentation"), processing), "pushButtonRunSeg");
  accept_ = named(new QPushButton(tr("Accept Segmentation"), processing), "pushButtonAccept");
  acceptContinue_ = named(new QPushButton(tr("Accept && Segment New Object"), processing), "pushButtonAcceptContinue");
  accept_->setVisible(false);
  acceptContinue_->setVisible(false);
  processingLayout->addWidget(run);
  processingLayout->addWidget(accept_);
  processingLayout->addWidget(acceptContinue_);
  parametersWidget_ = named(new QWidget(processing), "SegmentationParametersWidget");
  auto* parameters = new QFormLayout(parametersWidget_);
  parameters->setContentsMargins(0, 0, 0, 0);
  auto* resolutionRow = new QHBoxLayout;
  resolution_ = named(new QSlider(Qt::Horizontal, parametersWidget_), "sliderResolution");
  resolution_->setRange(1, 4);
  resolution_->setValue(3);
  resolution_->setPageStep(1);
  resolution_->setToolTip(tr("The finest level computed: 4 is full resolution, 1 the coarsest"));
  computationSize_ = named(new QLabel(tr("~100MB"), parametersWidget_), "labelComputationSize");
  computationSize_->setToolTip(tr("Memory the next run takes"));
  resolutionRow->addWidget(resolution_, 1);
  resolutionRow->addWidget(computationSize_);
  parameters->addRow(tr("Resolution"), resolutionRow);
  auto* adaptivenessRow = new QHBoxLayout;
  adaptiveness_ = named(new QSlider(Qt::Horizontal, parametersWidget_), "horizontalSliderAdaptiveness");
  adaptiveness_->setRange(1, 150);
  adaptiveness_->setPageStep(10);
  adaptiveness_->setValue(75);
  adaptivenessBox_ = named(new QSpinBox(parametersWidget_), "spinBoxAdaptiveness");
  adaptivenessBox_->setRange(1, 150);
  adaptivenessBox_->setSuffix("%");
  adaptivenessBox_->setValue(75);
  adaptivenessRow->addWidget(adaptiveness_, 1);
  adaptivenessRow->addWidget(adaptivenessBox_);
  parameters->addRow(tr("Adaptiveness"), adaptivenessRow);
  auto* superpixelsRow = new QHBoxLayout;
  superpixels_ = named(new QSlider(Qt::Horizontal, parametersWidget_), "horizontalSliderSuperpixels");
  superpixels_->setRange(0, 100);
  superpixels_->setValue(0);
  superpixelsLabel_ = named(new QLabel(parametersWidget_), "labelSuperpixels");
  superpixelsRow->addWidget(superpixels_, 1);
  superpixelsRow->addWidget(superpixelsLabel_);
  auto* superpixelsTitle = new QLabel(tr("Superpixels"), parametersWidget_);
  parameters->addRow(superpixelsTitle, superpixelsRow);
  for (QWidget* w : std::initializer_list<QWidget*>{superpixels_, superpixelsLabel_, superpixelsTitle}) w->setVisible(false);
  processingLayout->addWidget(parametersWidget_);
  // Adaptiveness and resolution mean nothing to the watershed.
  parametersWidget_->setVisible(!dynamic_cast<InteractiveSegmentationWatershedAlgorithm*>(segmentation_));
  processingLayout->addStretch(1);
  sections_->addSection(tr("Processing"), processing);

  // Export: as a label map into the data list, or as an annotation (surface or contours).
  auto* exportPage = new QWidget;
  auto* exportForm = new QFormLayout(exportPage);
  auto* exportResolutionRow = new QHBoxLayout;
  exportResolution_ = named(new QSlider(Qt::Horizontal, exportPage), "horizontalSliderResolution");
  exportResolution_->setRange(1, 100);
  exportResolution_->setValue(frame && frame->descriptor().slices() == 1 ? 80 : 20);
  exportResolutionLabel_ = named(new QLabel(exportPage), "labelResolution");
  exportResolutionRow->addWidget(exportResolution_, 1);
  exportResolutionRow->addWidget(exportResolutionLabel_);
  exportForm->addRow(tr("Export Resolution"), exportResolutionRow);
  auto* smoothnessRow = new QHBoxLayout;
  smoothness_ = named(new QSlider(Qt::Horizontal, exportPage), "horizontalSliderSmoothness");
  smoothness_->setRange(1, 100);
  smoothness_->setValue(20);
  smoothnessLabel_ = named(new QLabel("20", exportPage), "labelSmoothness");
  smoothnessRow->addWidget(smoothness_, 1);
  smoothnessRow->addWidget(smoothnessLabel_);
  exportForm->addRow(tr("Smoothness"), smoothnessRow);
  closeAnnotation_ = named(new QCheckBox(tr("Close Annotation"), exportPage), "checkBoxCloseAnnotation");
  closeAnnotation_->setChecked(true);
  exportForm->addRow(closeAnnotation_);
  auto* exportLabelMap = named(new QPushButton(tr("Export as Label Map"), exportPage), "pushButtonExportLabelMap");
  auto* exportAnnotation = named(new QPushButton(tr("Export as Annotation"), exportPage), "pushButtonExportAnnotation");
  exportForm->addRow(exportLabelMap);
  exportForm->addRow(exportAnnotation);
  sections_->addSection(tr("Export"), exportPage);
  sections_->setWorkflowMode(true);

  // Statistics of the result, below the steps.
  statistics_ = named(new QGroupBox(tr("Show Segmentation Statistics")), "groupBoxShowStatistics");
  statistics_->setCheckable(true);
  statistics_->setChecked(false);
  auto* statisticsLayout = new QVBoxLayout(statistics_);
  auto* statisticsContent = new QWidget(statistics_);
  auto* statisticsForm = new QFormLayout(statisticsContent);
  statisticsForm->setContentsMargins(0, 0, 0, 0);
  statisticsEntry_ = named(new QComboBox(statisticsContent), "comboBox_stats");
  statisticsEntry_->addItems({tr("Object"), tr("Background")});
  statisticsForm->addRow(statisticsEntry_);
  surfaceName_ = named(new QLabel(frame && frame->descriptor().slices() > 1 ? tr("Volume") : tr("Area"),
                                  statisticsContent),
                       "labelSurfaceName");
  surfaceValue_ = named(new QLabel(tr("N/A"), statisticsContent), "labelSurface");
  statisticsForm->addRow(surfaceName_, surfaceValue_);
  meanValue_ = named(new QLabel(tr("N/A"), statisticsContent), "labelMeanStd");
  statisticsForm->addRow(tr("Intensity"), meanValue_);
  rangeValue_ = named(new QLabel(tr("N/A"), statisticsContent), "labelMinMax");
  statisticsForm->addRow(QString(), rangeValue_);
  statisticsLayout->addWidget(statisticsContent);
  statisticsContent->setVisible(false);
  outer->addWidget(statistics_);
  outer->addStretch(1);

  connect(brushSize_, QOverload<int>::of(&QSpinBox::valueChanged), this,
          &InteractiveSegmentationController::onSetSize);
  connect(brushAdaptiveness_, &QSlider::valueChanged, this, &InteractiveSegmentationController::onSetBrushAdaptiveness);
  connect(transparency_, &QSlider::valueChanged, this, &InteractiveSegmentationController::onSetTransparency);
  connect(avoidOtherLabels_, &QCheckBox::toggled, this, &InteractiveSegmentationController::onToggleAvoidOtherLabels);
  connect(drawIn_, &QPushButton::clicked, this, &InteractiveSegmentationController::onDrawIn);
  connect(drawOut_, &QPushButton::clicked, this, &InteractiveSegmentationController::onDrawOut);
  connect(erase_, &QPushButton::clicked, this, &InteractiveSegmentationController::onDrawErase);
  connect(undo, &QPushButton::clicked, this, &InteractiveSegmentationController::onUndo);
  connect(clear, &QPushButton::clicked, this, &InteractiveSegmentationController::onClear);
  connect(contour, &QPushButton::clicked, this, &InteractiveSegmentationController::onDrawContour);
  connect(removeContour_, &QPushButton::clicked, this, &InteractiveSegmentationController::onRemoveContour);
  connect(convertContour_, &QPushButton::clicked, this, &InteractiveSegmentationController::onConvertContour);
  connect(refine_, &QPushButton::clicked, this, &InteractiveSegmentationController::onInitFromSegmentation);
  connect(run, &QPushButton::clicked, this, [this] { onRunSeg(true); });
  connect(accept_, &QPushButton::clicked, this, [this] { onAcceptSeg(true); });
  connect(acceptContinue_, &QPushButton::clicked, this, &InteractiveSegmentationController::onAcceptSegAndContinue);
  connect(resolution_, &QSlider::valueChanged, this, &InteractiveSegmentationController::onMemoryEstimationChange);
  connect(adaptiveness_, &QSlider::valueChanged, this, &InteractiveSegmentationController::onAdaptivenessChange);
  connect(adaptivenessBox_, QOverload<int>::of(&QSpinBox::valueChanged), adaptiveness_, &QSlider::setValue);
  connect(superpixels_, &QSlider::valueChanged, this, &InteractiveSegmentationController::onSuperpixelsChange);
  connect(exportResolution_, &QSlider::valueChanged, this, &InteractiveSegmentationController::onResolutionChange);
  connect(smoothness_, &QSlider::valueChanged, this, &InteractiveSegmentationController::onSmoothnessChange);
  connect(exportLabelMap, &QPushButton::clicked, this, &InteractiveSegmentationController::onExportLabelMap);
  connect(exportAnnotation, &QPushButton::clicked, this, &InteractiveSegmentationController::onExportAnnotation);
  connect(statistics_, &QGroupBox::toggled, this, [this, statisticsContent](bool on) {
    statisticsContent->setVisible(on);
    if (on) onChangeStats();
  });
  connect(statisticsEntry_, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
          [this](int) { onChangeStats(); });

  // A focused paint button would take the space bar as a click.
  for (QObject* o : std::initializer_list<QObject*>{this, drawIn_, drawOut_, erase_}) o->installEventFilter(this);
}

int InteractiveSegmentationController::init() {
  SharedImageSet* labels = labelSet();
  // The overlay the window already shows for a label map of the data list, or one of our own.
  if (labels && labelsInDataList_)
    if (DisplayWidgetMultiAdapter* v = views())
      for (GUI::View* view : v->views())
        for (GlObject* o : view->view().objects())
          if (auto* r = dynamic_cast<GlLabelRenderer*>(o))
            for (int i = 0; i < labels->size(); ++i)
              if (r->labelMap() == labels->get(i)) windowRenderer_ = r;
  if (labels && !windowRenderer_) {
    ownRenderer_ = std::make_unique<GlLabelRenderer>();
    ownRenderer_->setLabelDataComponent(labels->components().getOrCreate<LabelDataComponent>(labels));
  }
  selectionChanged();
  showRenderer(true);
  onSetTransparency(transparency_->value());
  onAdaptivenessChange(adaptiveness_->value());
  onMemoryEstimationChange();
  onSuperpixelsChange();
  onResolutionChange();
  onSmoothnessChange(smoothness_->value());
  if (DataModel* dm = model()) dm->dataAboutToBeRemoved.connect(this, [this](Data* d) { dataDeleted(d); });
  if (AnnotationModel* am = annotations())
    am->annotationAboutToBeRemoved.connect(this, [this](InteractiveObject* a) {
      if (a == contourObject_) contourObject_ = nullptr;
      if (a == diagonalObject_) diagonalObject_ = nullptr;
    });
  refresh();
  return 0;
}

void InteractiveSegmentationController::configure(const Properties* properties) {
  if (!properties) return;
  double adaptiveness = 0.0;
  if (properties->param("adaptiveness", adaptiveness)) adaptiveness_->setValue(static_cast<int>(std::lround(adaptiveness)));
  int minLevel = 0;
  if (properties->param("pyramidMinLevel", minLevel)) resolution_->setValue(segmentation_->numLevels - minLevel + 1);
}

void InteractiveSegmentationController::configuration(Properties*) const {}

void InteractiveSegmentationController::setAllowMultipleLabels(bool allow) {
  allowMultipleLabels_ = allow;
  if (!allow) acceptContinue_->setVisible(false);
}

int InteractiveSegmentationController::exportResolution() const { return exportResolution_->value(); }
void InteractiveSegmentationController::setExportResolution(int value) { exportResolution_->setValue(value); }
int InteractiveSegmentationController::exportSmoothness() const { return smoothness_->value(); }
void InteractiveSegmentationController::setExportSmoothness(int value) { smoothness_->setValue(value); }

void InteractiveSegmentationController::cleanLabels() {
  labelMap_ = nullptr;
  if (ownRenderer_) ownRenderer_->setLabelMap(nullptr);
}

void InteractiveSegmentationController::selectionChanged() {
  SharedImageSet* labels = labelSet();
  SharedImageSet* image = segmentation_->image();
  if (!labels || !image) return;
  labels->selection().setFocus(image->selection().focus());
  labelMap_ = labels->get();
  labelsModified_ = true;
  updateStats();
  ensureLabelColors();
  if (ownRenderer_) ownRenderer_->setLabelMap(labelMap_);
  surfaceName_->setText(is3D() ? tr("Volume") : tr("Area"));
  hideAcceptButtons();
}

void InteractiveSegmentationController::dataDeleted(const Data* data) {
  SharedImageSet* labels = labelSet();
  if (!data || data != labels) return;
  LOG_WARN(kCategory, "Labels Deleted ! Restarting from scratch...");
  // Everything that points into the old label set goes with it.
  drawMode_ = -1;
  for (QPushButton* b : {drawIn_, drawOut_, erase_}) b->setChecked(false);
  detachManipulator();
  manipulatorObject_.reset();
  keyHandler_.reset();
  manipulator_.reset();
  cursor_.reset();
  showRenderer(false);
  windowRenderer_ = nullptr;
  labelMap_ = nullptr;
  segmentation_->setLabels(nullptr);
  labelsInDataList_ = false;
  if (SharedImageSet* fresh = segmentation_->createLabels()) {
    fresh->properties().setParam("ClassLabels", 1);
    ownRenderer_ = std::make_unique<GlLabelRenderer>();
    ownRenderer_->setLabelDataComponent(fresh->components().getOrCreate<LabelDataComponent>(fresh));
  }
  selectionChanged();
  showRenderer(true);
  refresh();
}

void InteractiveSegmentationController::ensureLabelColors() {
  SharedImageSet* labels = labelSet();
  if (!labels) return;
  auto* ldc = labels->components().getOrCreate<LabelDataComponent>(labels);
  const int L = objectLabel();
  for (int value : {L, L + 1})
    if (value >= 1 && value < kOutline && !ldc->hasLabel(value))
      ldc->setLabelConfig(value, LabelDataComponent::defaultLabelConfig(value));
  if (!ldc->hasLabel(kOutline)) {
    auto outline = LabelDataComponent::defaultLabelConfig(kOutline);
    outline.name = "Outline";
    outline.color = Eigen::Vector4d(1.0, 0.85, 0.0, 1.0);
    ldc->setLabelConfig(kOutline, outline);
  }
}

// ---------------------------------------------------------------------------------------------
// Painting

bool InteractiveSegmentationController::ensureManipulator() {
  if (manipulator_) return true;
  SharedImageSet* labels = labelSet();
  SharedImageSet* image = segmentation_->image();
  if (!labels || !image) return false;
  cursor_ = std::make_unique<GlCircle>();
  cursor_->setLineWidth(2.0f);
  manipulator_ = std::make_unique<Seg::LabelingManipulator>(*image, *labels, cursor_.get(), false);
  if (!manipulator_->isValid()) {
    LOG_WARN(kCategory, "The label map does not fit the image (another grid, or not a U8 label map)");
    manipulator_.reset();
    cursor_.reset();
    return false;
  }
  keyHandler_ = std::make_unique<SpaceKeyHandler>(*this);
  manipulatorObject_ = std::make_unique<GUI::TypedViewObject<GlCircle>>(*cursor_, keyHandler_.get());
  Seg::LabelingManipulator& m = *manipulator_;
  m.setUpdateViews([this] {
    if (DisplayWidgetMultiAdapter* v = views()) v->update();
  });
  m.labelsChanged.connect(this, [this] {
    if (DisplayWidgetMultiAdapter* v = views()) v->update();
  });
  m.sizeChanged.connect(this, [this](int size) { brushSize_->setValue(size); });
  m.painter().setAdaptiveness(brushAdaptiveness_->value() / 100.0f);
  onToggleAvoidOtherLabels(avoidOtherLabels_->isChecked());
  return true;
}

void InteractiveSegmentationController::attachManipulator() {
  if (DisplayWidgetMultiAdapter* v = views())
    for (GUI::View* view : v->views()) view->addViewObject(manipulatorObject_.get());
}

void InteractiveSegmentationController::detachManipulator() {
  if (!manipulatorObject_) return;
  if (DisplayWidgetMultiAdapter* v = views())
    for (GUI::View* view : v->views()) view->removeViewObject(manipulatorObject_.get());
}

void InteractiveSegmentationController::onDrawIn() { toggleMode(1); }
void InteractiveSegmentationController::onDrawOut() { toggleMode(2); }
void InteractiveSegmentationController::onDrawErase() { toggleMode(0); }

void InteractiveSegmentationController::toggleMode(int mode) {
  if (drawMode_ == mode) {
    stopDrawing(true, true);
    return;
  }
  if (drawMode_ != -1) stopDrawing(true, false);
  QPushButton* button = mode == 1 ? drawIn_ : mode == 2 ? drawOut_ : erase_;
  button->setChecked(true);
  startDrawing(mode);
}

void InteractiveSegmentationController::startDrawing(int mode) {
  if (drawMode_ != -1) stopDrawing(true, true);
  if (!ensureManipulator()) {
    for (QPushButton* b : {drawIn_, drawOut_, erase_}) b->setChecked(false);
    return;
  }
  drawMode_ = mode;
  manipulator_->setModified(false);
  const int L = objectLabel();
  const int label = mode == 1 ? L : mode == 2 ? L + 1 : 0;
  manipulator_->setLabel(label);
  Eigen::Vector4f color(1, 1, 1, 1);
  if (label > 0) {
    const auto* ldc = labelSet()->components().get<LabelDataComponent>();
    const auto config = ldc ? ldc->labelConfig(label) : std::nullopt;
    const Eigen::Vector4d c = config ? config->color : LabelDataComponent::defaultLabelConfig(label).color;
    color = Eigen::Vector4f(static_cast<float>(c[0]), static_cast<float>(c[1]), static_cast<float>(c[2]), 1.0f);
  }
  cursor_->setColor(color);
  onToggleAvoidOtherLabels(avoidOtherLabels_->isChecked());
  manipulator_->setRadiusPixels(brushSize_->value() * 0.5f);
  attachManipulator();
  resetStats();
  refresh();
}

void InteractiveSegmentationController::stopDrawing(bool updateStatistics, bool prepare) {
  drawMode_ = -1;
  for (QPushButton* b : {drawIn_, drawOut_, erase_}) b->setChecked(false);
  labelsModified_ = manipulator_ && manipulator_->isModified();
  staleRun_ = staleRun_ || labelsModified_;
  detachManipulator();
  QProgressDialog dialog(tr("Updating..."), QString(), 0, 0, this);
  dialog.setWindowTitle(kTitle);
  dialog.setMinimumDuration(0);
  dialog.show();
  QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents);
  if (prepare) {
    prepareAlgorithm();
    onMemoryEstimationChange();
  }
  if (labelsModified_ && updateStatistics) updateStats();
  dialog.close();
  refresh();
}

bool InteractiveSegmentationController::switchByKey() {
  if (drawMode_ == 1) {
    onDrawOut();
    return true;
  }
  if (drawMode_ == 2) {
    onDrawIn();
    return true;
  }
  return false;
}

bool InteractiveSegmentationController::eventFilter(QObject* watched, QEvent* event) {
  if (event->type() == QEvent::KeyPress) {
    auto* key = static_cast<QKeyEvent*>(event);
    if (key->key() == Qt::Key_Space && key->modifiers() == Qt::NoModifier && switchByKey()) return true;
  }
  return QWidget::eventFilter(watched, event);
}

void InteractiveSegmentationController::onUndo() {
  if (manipulator_ && manipulator_->undo()) {
    staleRun_ = true;
    refresh();
  }
}

void InteractiveSegmentationController::onSetSize(int size) {
  if (manipulator_) manipulator_->setRadiusPixels(size * 0.5f);
}

void InteractiveSegmentationController::onSetBrushAdaptiveness(int value) {
  brushAdaptivenessLabel_->setText(QString::number(value));
  if (manipulator_) manipulator_->painter().setAdaptiveness(value / 100.0f);
}

void InteractiveSegmentationController::onSetTransparency(int value) {
  transparencyLabel_->setText(QString::number(value));
  if (GlLabelRenderer* r = labelRenderer()) r->setOpacity(value / 100.0);
  if (DisplayWidgetMultiAdapter* v = views()) v->update();
}

void InteractiveSegmentationController::onToggleAvoidOtherLabels(bool checked) {
  if (!manipulator_) return;
  // The seeds of the object worked on, and the outline, stay paintable.
  const int L = objectLabel();
  for (int l = 1; l <= 255; ++l)
    manipulator_->painter().setPreserveLabel(static_cast<unsigned char>(l),
                                             checked && l != L && l != L + 1 && l != kOutline);
}

// ---------------------------------------------------------------------------------------------
// Run, accept, clear

void InteractiveSegmentationController::prepareAlgorithm() { segmentation_->prepareForComputation(); }

void InteractiveSegmentationController::computeAlgorithm() {
  DataModel* dm = model();
  SharedImageSet* labels = labelSet();
  const bool listed = dm && labels && dm->contains(labels);
  if (listed) dm->setBusy(labels, true);
  Progress progress;
  segmentation_->setProgress(&progress);
  InteractiveSegmentationAlgorithm* a = segmentation_;
  QtHelpers::runInBackground(this, kTitle, [a] { a->compute(); }, &progress);
  segmentation_->setProgress(nullptr);
  if (listed) dm->setBusy(labels, false);
}

void InteractiveSegmentationController::recordStep(const char* what, const std::function<void()>& change,
                                                   bool isSeedEdit) {
  const bool wasModified = manipulator_ && manipulator_->isModified();
  if (ensureManipulator())
    manipulator_->edit(what, change, false);
  else
    change();
  if (manipulator_) manipulator_->setModified(wasModified || isSeedEdit);
  if (isSeedEdit) {
    labelsModified_ = true;
    staleRun_ = true;
  }
}

void InteractiveSegmentationController::onRunSeg(bool stopFirst) {
  if (stopFirst) stopDrawing(true, true);
  refresh();
  SharedImageSet* labels = labelSet();
  const MemImage* mem = labelMap_ ? labelMap_->mem() : nullptr;
  if (!labels || !mem || mem->type() != U8) return;
  const int L = objectLabel();
  const auto* p = static_cast<const unsigned char*>(mem->data());
  const size_t n = mem->descriptor().elementCount();
  bool object = false, background = false;
  for (size_t i = 0; i < n && !(object && background); ++i) {
    object |= p[i] == L;
    background |= p[i] == L + 1;
  }
  if (!object || !background) {
    LOG_WARN(kCategory, "You must define both inside and outside labels before refining the segmentation.");
    return;
  }
  segmentation_->minLevel = std::max(1, segmentation_->numLevels - resolution_->value() + 1);
  recordStep(
      "Run Segmentation",
      [this] {
        prepareAlgorithm();
        computeAlgorithm();
      },
      false);
  labelsModified_ = true;
  updateStats();
  labelsModified_ = false;
  staleRun_ = false;
  if (manipulator_) manipulator_->setModified(false);
  onMemoryEstimationChange();
  if (segmentation_->status() == Algorithm::statusSuccess) {
    accept_->setVisible(true);
    acceptContinue_->setVisible(allowMultipleLabels_);
  }
  refresh();
}

bool InteractiveSegmentationController::acceptStep(bool accept, bool andContinue) {
  stopDrawing(true, true);
  if (segmentation_->status() == Algorithm::statusError || !segmentation_->hasSegmentationToAccept()) return false;
  if (staleRun_) {
    const int answer = askUser(this, kTitle,
                               tr("Labels have been modified since the last algorithm run. Do you want to run it again ?"),
                               QMessageBox::Yes | QMessageBox::No, QMessageBox::Yes);
    if (answer == QMessageBox::Yes) {
      onRunSeg(true);
      return false;
    }
  }
  bool accepted = false;
  if (accept) {
    recordStep(
        andContinue ? "Accept and Segment New Object" : "Accept Segmentation",
        [&] {
          if (andContinue)
            accepted = segmentation_->acceptSegmentationAndContinue() > 0;
          else {
            segmentation_->acceptSegmentation();
            accepted = true;
          }
        },
        false);
    if (accepted) {
      hideAcceptButtons();
      staleRun_ = false;
    }
    labelsModified_ = true;
  }
  if (accepted && andContinue) {
    // The next object: L + 1, with L + 2 round it.
    ensureLabelColors();
    onToggleAvoidOtherLabels(avoidOtherLabels_->isChecked());
  }
  updateStats();
  labelsModified_ = false;
  refresh();
  return accepted;
}

void InteractiveSegmentationController::onAcceptSeg(bool accept) { acceptStep(accept, false); }

void InteractiveSegmentationController::onAcceptSegAndContinue() { acceptStep(true, true); }

void InteractiveSegmentationController::onClear() {
  if (askUser(this, kTitle, tr("Do you really want to clear the labels ?"), QMessageBox::Yes | QMessageBox::No,
              QMessageBox::No) == QMessageBox::No)
    return;
  stopDrawing(true, true);
  SharedImage* frame = labelMap_;
  recordStep(
      "Clear",
      [frame] {
        MemImage* mem = frame ? frame->mem() : nullptr;
        if (!mem) return;
        std::fill_n(static_cast<unsigned char*>(mem->data()), mem->byteSize(), 0);
        frame->setDirtyMem();
      },
      true);
  hideAcceptButtons();
  refresh();
}

void InteractiveSegmentationController::hideAcceptButtons() {
  accept_->setVisible(false);
  acceptContinue_->setVisible(false);
}

void InteractiveSegmentationController::refresh() {
  SharedImageSet* labels = labelSet();
  if (DataModel* dm = model(); dm && labels && dm->contains(labels)) dm->notifyChanged(labels);
  if (DisplayWidgetMultiAdapter* v = views()) v->update();
}

void InteractiveSegmentationController::showRenderer(bool show) {
  if (!ownRenderer_ || show == rendererShown_) return;
  DisplayWidgetMultiAdapter* v = views();
  if (!v) return;
  for (GUI::View* view : v->views()) {
    if (show)
      view->view().addObject(ownRenderer_.get());
    else
      view->view().removeObject(ownRenderer_.get());
  }
  rendererShown_ = show;
}

void InteractiveSegmentationController::onSelectedDataChanged(const DataList& selection) {
  bool ours = false;
  for (Data* d : selection.items()) ours = ours || d == segmentation_->image() || d == labelSet();
  if (cursor_) cursor_->setVisible(ours);
  showRenderer(ours);
  if (DisplayWidgetMultiAdapter* v = views()) v->update();
}

// ---------------------------------------------------------------------------------------------
// Seeds from shapes

void InteractiveSegmentationController::onDrawContour() {
  onRemoveContour();
  AnnotationModel* am = annotations();
  DisplayWidgetMultiAdapter* v = views();
  if (!am || !v || v->views().empty()) {
    askUser(this, tr("Add annotation"),
            tr("Cannot add annotation to data set. Selected data set is not displayed in any views"),
            QMessageBox::Ok, QMessageBox::Ok);
    return;
  }
  auto changed = [this] {
    if (DisplayWidgetMultiAdapter* views = this->views()) views->update();
  };
  const bool line = is3D();
  std::unique_ptr<GlPolyLine> shape = line ? std::make_unique<GlLine>() : std::make_unique<GlPolyLine>();
  shape->points.clear();
  shape->color = Eigen::Vector4f(1.0f, 0.85f, 0.0f, 1.0f);
  auto drawer = std::make_unique<ShapeDrawer>(*shape, line, changed);
  auto annotation = std::make_unique<InteractiveObject>(std::move(shape), std::move(drawer));
  annotation->setName(line ? "Diagonal" : "Contour");
  InteractiveObject* added = am->add(std::move(annotation), segmentation_->image());
  (line ? diagonalObject_ : contourObject_) = added;
  removeContour_->setVisible(true);
  removeContour_->setEnabled(true);
  convertContour_->setEnabled(true);
  refresh();
}

void InteractiveSegmentationController::onConvertContour() {
  if (!contourObject_ && !diagonalObject_) return;
  if (!is3D() && contourObject_) {
    const std::vector<Eigen::Vector3d> points = static_cast<GlPolyLine*>(contourObject_->object())->points;
    if (points.size() < 3) return;
    Eigen::Vector3d lo = points.front(), hi = points.front();
    for (const auto& p : points) {
      lo = lo.cwiseMin(p);
      hi = hi.cwiseMax(p);
    }
    const double width = std::min(hi[0] - lo[0], hi[1] - lo[1]) / 5.0;
    SharedImage* frame = labelMap_;
    recordStep(
        "Convert Contour",
        [this, points, frame, width] { segmentation_->convertContourToLabels2D(points, frame, width); }, true);
  } else if (diagonalObject_) {
    const std::vector<Eigen::Vector3d> points = static_cast<GlPolyLine*>(diagonalObject_->object())->points;
    if (points.size() != 2) return;
    SharedImage* frame = labelMap_;
    recordStep(
        "Convert Diameter", [this, points, frame] { segmentation_->convertDiameterToLabels3D(points, frame); }, true);
  } else {
    return;
  }
  convertContour_->setEnabled(false);
  hideAcceptButtons();
  refresh();
}

void InteractiveSegmentationController::onRemoveContour() {
  AnnotationModel* am = annotations();
  if (diagonalObject_ && am) am->remove(diagonalObject_);
  diagonalObject_ = nullptr;
  if (contourObject_ && am) am->remove(contourObject_);
  contourObject_ = nullptr;
  removeContour_->setEnabled(false);
  removeContour_->setVisible(false);
  convertContour_->setEnabled(false);
}

QStringList InteractiveSegmentationController::refinementSources() const {
  QStringList out;
  for (const auto& s : collectSources(model(), annotations(), !is3D())) out << s.text;
  if (out.isEmpty()) out << kNoneAvailable;
  return out;
}

void InteractiveSegmentationController::onInitFromSegmentation() {
  QMenu menu(this);
  for (const QString& text : refinementSources()) menu.addAction(text)->setEnabled(text != kNoneAvailable);
  if (QAction* chosen = menu.exec(refine_->mapToGlobal(QPoint(0, refine_->height()))))
    initFromSegmentation(chosen->text());
}

bool InteractiveSegmentationController::initFromSegmentation(const QString& text) {
  const auto sources = collectSources(model(), annotations(), !is3D());
  const auto it = std::find_if(sources.begin(), sources.end(), [&](const auto& s) { return s.text == text; });
  if (it == sources.end() || !labelMap_) return false;
  const double band = narrowBand_->value();
  bool done = false;
  stopDrawing(false, false);
  if (it->mesh) {
    Mesh* mesh = it->mesh;
    recordStep(
        "Initialize from Segmentation", [&] { done = segmentation_->initFromSegmentation(mesh, band); }, true);
  } else {
    SharedImage* frame = labelMap_;
    const std::vector<Eigen::Vector3d> points = it->points;
    recordStep(
        "Initialize from Contour",
        [&] {
          segmentation_->convertContourToLabels2D(points, frame, band);
          done = true;
        },
        true);
  }
  if (done) {
    prepareAlgorithm();
    onMemoryEstimationChange();
    LOG_INFO(kCategory, "Initialized from " << text.toStdString());
    hideAcceptButtons();
  }
  refresh();
  return done;
}

// ---------------------------------------------------------------------------------------------
// Settings shown on the panel

QString InteractiveSegmentationController::memoryText(uint64_t bytes) {
  if (bytes == 0) return QStringLiteral("N/A");
  if (bytes <= 1000) return QString("~%1 B").arg(bytes);
  const uint64_t kilobytes = bytes / 1000;
  if (kilobytes <= 1000) return QString("~%1 KB").arg(kilobytes);
  const double megabytes = kilobytes / 1000.0;
  if (megabytes <= 1000) return QString("~%1 MB").arg(megabytes, 0, 'f', 0);
  return QString("~%1 GB").arg(kilobytes / 1e6, 0, 'f', 1);
}

QString InteractiveSegmentationController::sizeText(double value, bool volume) {
  // Divided by 1000 for areas too, as the panel always showed them.
  if (value > 10000) return (volume ? QString::fromUtf8("%1 cm\u00b3") : QString::fromUtf8("%1 cm\u00b2")).arg(value / 1000);
  return (volume ? QString::fromUtf8("%1 mm\u00b3") : QString::fromUtf8("%1 mm\u00b2")).arg(value);
}

void InteractiveSegmentationController::onMemoryEstimationChange() {
  const int level = segmentation_->numLevels - resolution_->value() + 1;
  computationSize_->setText(memoryText(segmentation_->memoryEstimation(level)));
}

void InteractiveSegmentationController::onAdaptivenessChange(int value) {
  const QSignalBlocker block(adaptivenessBox_);
  adaptivenessBox_->setValue(value);
  segmentation_->adaptiveness = value;
}

double InteractiveSegmentationController::getExportResolutionSetting() const {
  const SharedImageSet* image = segmentation_->image();
  const SharedImage* frame = image ? image->get() : nullptr;
  if (!frame) return 1.0;
  return ((exportResolution_->value() - 1) / 2.5 + 1.0) * meanSpacing(frame);
}

int InteractiveSegmentationController::getSuperpixelsSetting() const {
  const SharedImageSet* image = segmentation_->image();
  const SharedImage* frame = image ? image->get() : nullptr;
  if (!frame) return 0;
  const double p = superpixels_->value() / 100.0;
  return static_cast<int>(static_cast<double>(frame->descriptor().elementCount()) * std::pow(p, 4) + 0.5);
}

void InteractiveSegmentationController::onSuperpixelsChange() {
  superpixelsLabel_->setText(QString::number(getSuperpixelsSetting()));
}

void InteractiveSegmentationController::onResolutionChange() {
  exportResolutionLabel_->setText(QString("%1 mm").arg(getExportResolutionSetting(), 0, 'f', 2));
}

void InteractiveSegmentationController::onSmoothnessChange(int value) { smoothnessLabel_->setText(QString::number(value)); }

// ---------------------------------------------------------------------------------------------
// Export

void InteractiveSegmentationController::onExportLabelMap() {
  if (!accept_->isHidden()) {
    const int answer = askUser(
        this, kTitle,
        tr("A segmentation has been run but not accepted. Do you want to accept it before the exportation ?") +
            "\n" + tr("(Important: If you accept the segmentation, the manual seeds will be lost)"),
        QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel, QMessageBox::Yes,
        {{QMessageBox::Yes, tr("Accept and Export Label Map")}, {QMessageBox::No, tr("Export Seeds")}});
    if (answer == QMessageBox::Cancel) return;
    if (answer == QMessageBox::Yes) onAcceptSeg(true);
  }
  if (labelsInDataList_) {
    LOG_WARN(kCategory, "The label map is already in the data list.");
    return;
  }
  DataModel* dm = model();
  SharedImageSet* labels = labelSet();
  if (!dm || !labels) {
    LOG_WARN(kCategory, "There is no data list to export the label map to");
    return;
  }
  for (int i = 0; i < labels->size(); ++i) labels->mem(i);  // the painted strokes into memory
  dm->add(segmentation_->exportLabelMap(), tr("Labels").toStdString());
  if (MainWindowBase* window = MainWindowBase::instance()) window->requestCloseAlgorithm(this);
}

void InteractiveSegmentationController::onExportAnnotation() {
  onAcceptSeg(false);
  const double smoothness = smoothness_->value();
  const double resolution = getExportResolutionSetting();
  const bool closeBorder = closeAnnotation_->isChecked();
  AnnotationModel* am = annotations();
  InteractiveSegmentationAlgorithm* a = segmentation_;
  Progress progress;
  if (!is3D()) {
    std::vector<std::vector<Eigen::Vector3d>> contours;
    QtHelpers::runInBackground(
        this, kTitle,
        [&] {
          Progress::Task task(&progress, 100, "Exporting as annotation...");
          task.setCurrentStep(10);
          contours = a->extractSegmentation2D(smoothness, resolution, closeBorder);
        },
        &progress);
    if (contours.empty()) LOG_ERROR(kCategory, "Error in the contour generation");
    for (const auto& contour : contours) {
      auto spline = std::make_unique<GlSpline>();
      spline->points = contour;
      spline->closed = closeBorder;
      if (am) am->add(std::move(spline), "Contour", segmentation_->image());
    }
  } else {
    std::unique_ptr<Mesh> mesh;
    QtHelpers::runInBackground(
        this, kTitle,
        [&] {
          Progress::Task task(&progress, 100, "Exporting as annotation...");
          task.setCurrentStep(10);
          mesh = a->extractSegmentation3D(smoothness, resolution, closeBorder);
          task.setCurrentStep(80);
        },
        &progress);
    if (!mesh || mesh->faces.empty()) {
      LOG_ERROR(kCategory, "Error in the mesh generation");
    } else {
      LOG_INFO(kCategory, "Volume of the mesh: " << MeshProcessing::Statistics::computeVolume(*mesh));
      if (am) am->add(std::make_unique<GlMesh>(std::shared_ptr<const Mesh>(std::move(mesh))), "Segmentation",
                      segmentation_->image());
    }
  }
  if (!am) LOG_WARN(kCategory, "There is no annotation list to export to");
  refresh();
}

// ---------------------------------------------------------------------------------------------
// Statistics

void InteractiveSegmentationController::updateStats() {
  if (!labelsModified_ || !statistics_->isChecked()) return;
  const auto stats = segmentation_->getStatistics(labelMap_);
  const int index = statisticsEntry_->currentIndex();
  if (index < 0 || static_cast<size_t>(index) >= stats.size() || stats[static_cast<size_t>(index)].size() < 5) {
    resetStats();
  } else {
    std::vector<double> v = stats[static_cast<size_t>(index)];
    for (double& x : v) x = std::trunc(x * 100.0 + 0.5) / 100.0;
    surfaceValue_->setText(sizeText(v[0], is3D()));
    if (v[0] > 0) {
      meanValue_->setText(QString("Mean: %1  / S. Dev.: %2").arg(v[1]).arg(v[2]));
      rangeValue_->setText(QString("Minimum: %1  /  Maximum:  %2").arg(v[3]).arg(v[4]));
    } else {
      meanValue_->setText(tr("N/A"));
      rangeValue_->setText(tr("N/A"));
    }
  }
  labelsModified_ = false;
}

void InteractiveSegmentationController::resetStats() {
  for (QLabel* l : {surfaceValue_, meanValue_, rangeValue_}) l->setText(tr("N/A"));
}

void InteractiveSegmentationController::onChangeStats() {
  labelsModified_ = true;
  updateStats();
}

}  // namespace Merivane
