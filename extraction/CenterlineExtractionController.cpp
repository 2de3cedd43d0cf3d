#include "CenterlineExtractionController.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

#include "AnnotationModel.h"
#include "CenterlineExtractionAlgorithm.h"
#include "DataModel.h"
#include "GlAnnotations.h"
#include "Log.h"
#include "MainWindowBase.h"
#include "PointPlacingManipulator.h"
#include "Properties.h"
#include "QtHelpers.h"
#include "SharedImage.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.CenterlineExtractionController";

using QtHelpers::named;

QDoubleSpinBox* intensityBox(QWidget* parent, const char* name, double value) {
  auto* box = named(new QDoubleSpinBox(parent), name);
  box->setRange(-99999.0, 99999.0);
  box->setDecimals(1);
  box->setValue(value);
  return box;
}

const Data* firstInput(const Algorithm* algorithm) {
  const DataList& input = algorithm->factoryInfo().input;
  return input.size() > 0 ? input[0] : nullptr;
}

}  // namespace

CenterlineExtractionController::CenterlineExtractionController(CenterlineExtractionAlgorithm* algorithm)
    : QWidget(nullptr), AlgorithmController(algorithm), centerline_(algorithm) {
  setWindowTitle("Centerline Extraction");
  setObjectName("CenterlineExtractionController");
  auto* outer = new QVBoxLayout(this);

  auto* properties = named(new QGroupBox("Centerline Properties", this), "groupBoxCenterlineProperties");
  auto* form = new QFormLayout(properties);
  smoothness_ = named(new QDoubleSpinBox(properties), "doubleSpinBoxSmoothness");
  smoothness_->setDecimals(3);
  smoothness_->setRange(0.001, 1.0);
  smoothness_->setSingleStep(0.001);
  smoothness_->setValue(0.05);
  form->addRow("Smoothness", smoothness_);
  minIntensity_ = intensityBox(properties, "doubleSpinBoxMinI", 0.0);
  maxIntensity_ = intensityBox(properties, "doubleSpinBoxMaxI", 2000.0);
  auto* window = new QHBoxLayout;
  window->addWidget(minIntensity_);
  window->addWidget(maxIntensity_);
  form->addRow("Min/Max Intensity", window);
  samples_ = named(new QSpinBox(properties), "spinBoxSamples");
  samples_->setRange(2, 999);
  samples_->setValue(20);
  form->addRow("Centerline Samples", samples_);
  bright_ = named(new QCheckBox("Bright centerline", properties), "checkBoxBright");
  bright_->setChecked(true);
  form->addRow(bright_);
  outer->addWidget(properties);

  auto* computation = named(new QGroupBox("Computation Properties", this), "groupBoxComputationProperties");
  auto* form2 = new QFormLayout(computation);
  resolution_ = named(new QDoubleSpinBox(computation), "doubleSpinBoxResolution");
  resolution_->setMinimum(0.01);
  resolution_->setSingleStep(0.01);
  resolution_->setValue(0.5);
  form2->addRow("Working Resolution", resolution_);
  margins_ = named(new QDoubleSpinBox(computation), "doubleSpinBoxMargins");
  // Negative margins switch the crop off.
  margins_->setRange(-1.0, 100.0);
  margins_->setSingleStep(0.1);
  margins_->setValue(1.0);
  form2->addRow("Cropping Margins", margins_);
  outer->addWidget(computation);

  auto* compute = named(new QPushButton("Compute", this), "pushButtonCompute");
  outer->addWidget(compute);
  outer->addStretch(1);
  connect(compute, &QPushButton::clicked, this, &CenterlineExtractionController::onCompute);
}

int CenterlineExtractionController::init() {
  setParametersFromAlgorithm();
  return 0;
}

void CenterlineExtractionController::setParametersToAlgorithm() {
  if (!centerline_) return;
  Properties p;
  // The algorithm's key is "Isotropic Constant"; this one is read by nobody, so the slider
  // leaves the algorithm's floor as it was.
  p.setParam("Isotropic constant", smoothness_->value());
  p.setParam("Minimum LUT", static_cast<float>(minIntensity_->value()));
  p.setParam("Maximum LUT", static_cast<float>(maxIntensity_->value()));
  p.setParam("Centerline Samples", samples_->value());
  p.setParam("Bright", bright_->isChecked());
  p.setParam("Working Resolution", resolution_->value());
  p.setParam("Cropping Margin", margins_->value());
  centerline_->configure(&p);
}

void CenterlineExtractionController::setParametersFromAlgorithm() {
  if (!centerline_) return;
  smoothness_->setValue(centerline_->isotropicConstant.value());
  minIntensity_->setValue(centerline_->minimumLut.value());
  maxIntensity_->setValue(centerline_->maximumLut.value());
  samples_->setValue(centerline_->centerlineSamples.value());
  bright_->setChecked(centerline_->bright.value());
  resolution_->setValue(centerline_->workingResolution.value());
  margins_->setValue(centerline_->croppingMargin.value());
}

void CenterlineExtractionController::onCompute() {
  MainWindowBase* window = MainWindowBase::instance();
  if (!centerline_ || !window) return;
  AnnotationModel* model = window->annotationModel();
  const Data* image = firstInput(centerline_);
  for (InteractiveObject* annotation : model->annotations(image)) {
    auto* line = dynamic_cast<GlPolyLine*>(annotation->object());
    if (!line || line->points.size() < 2) continue;
    // A line still being drawn is done now.
    if (auto* placer = dynamic_cast<PointPlacingManipulator*>(annotation->eventHandler())) placer->finish();
    LOG_INFO(kCategory, "Using the annotation '" << annotation->name() << "' as initialization");
    centerline_->setInitPoints(line->points);
    setParametersToAlgorithm();
    // The convolution needs the GL context, which lives on this thread.
    centerline_->compute();
    onAlgorithmOutputChanged();
    return;
  }
  const int answer = QtHelpers::ask(
      this, {"Centerline Extraction",
             "The algorithm needs a line annotation as an initialization. Do you want to create one ? (you will "
             "have to click again on Compute after the line has been drawn)",
             QMessageBox::Yes | QMessageBox::No, QMessageBox::Yes, {}});
  if (answer != QMessageBox::Yes) return;
  auto line = std::make_unique<GlPolyLine>();
  auto placer = std::make_unique<PointPlacingManipulator>(line->points, 0);
  auto annotation = std::make_unique<InteractiveObject>(std::move(line), std::move(placer));
  annotation->setName("Centerline Initialization");
  model->add(std::move(annotation), image);
}

void CenterlineExtractionController::onAlgorithmOutputChanged() {
  MainWindowBase* window = MainWindowBase::instance();
  if (!window || !centerline_) return;
  const Data* image = firstInput(centerline_);
  if (!centerline_->resultSamples().empty()) {
    auto spline = std::make_unique<GlSpline>();
    spline->points = centerline_->resultSamples();
    spline->color = Eigen::Vector4f(0, 1, 0, 1);
    window->annotationModel()->add(std::move(spline), "Centerline", image);
    window->updateViews();
  }
  auto addMap = [window](std::unique_ptr<SharedImage> map, const char* name) {
    if (!map) return;
    window->dataModel()->add(std::make_unique<SharedImageSet>(std::shared_ptr<SharedImage>(std::move(map))), name);
    window->updateViews();
  };
  addMap(centerline_->retrieveProbability(), "Probability Map");
  addMap(centerline_->retrieveActionMap(), "Action Map");
}

}  // namespace Merivane
