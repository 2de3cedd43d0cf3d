#include "GraphBasedSegmentationController.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

#include "AnnotationModel.h"
#include "DataModel.h"
#include "GlAnnotations.h"
#include "GlMesh.h"
#include "GraphBasedSegmentation.h"
#include "Log.h"
#include "MainWindowBase.h"
#include "Mesh.h"
#include "Progress.h"
#include "Properties.h"
#include "QtHelpers.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.GraphBasedSegmentation";
const char* const kSolvers[] = {"LLT-Float",
                                "[Eigen] LLT (LGPL)",
                                "[Eigen] CG",
                                "BiCGSTAB-Float",
                                "[Eigen] BiCGSTAB",
                                "[Eigen] BiCGSTAB-Float",
                                "[Vienna] BiCGSTAB-CPU (LGPL)",
                                "[Vienna] BiCGSTAB-GPU (LGPL)"};

using QtHelpers::named;

}  // namespace

GraphBasedSegmentationController::GraphBasedSegmentationController(GraphBasedSegmentation* algorithm)
    : QWidget(nullptr), AlgorithmController(algorithm), segmentation_(algorithm) {
  setWindowTitle("Graph Segmentation");
  setObjectName("GraphSegmentationWidget");
  auto* outer = new QVBoxLayout(this);
  auto* form = new QFormLayout;
  outer->addLayout(form);
  solver_ = named(new QComboBox(this), "comboBoxSolver");
  for (const char* s : kSolvers) solver_->addItem(s);
  solver_->setCurrentIndex(4);
  form->addRow("Solver:", solver_);
  adaptiveness_ = named(new QDoubleSpinBox(this), "doubleSpinBoxAdaptiveness");
  adaptiveness_->setRange(0, 999);
  adaptiveness_->setDecimals(1);
  adaptiveness_->setValue(100.0);
  form->addRow("Adaptiveness:", adaptiveness_);
  iterations_ = named(new QSpinBox(this), "spinBoxIterations");
  iterations_->setRange(1, 9999);
  iterations_->setSingleStep(10);
  iterations_->setValue(200);
  iterationsLabel_ = named(new QLabel("Iterations:", this), "labelIterations");
  form->addRow(iterationsLabel_, iterations_);
  autoCrop_ = named(new QCheckBox("Crop", this), "checkBoxAutoCrop");
  autoCrop_->setChecked(true);
  form->addRow(autoCrop_);
  minLevel_ = named(new QSpinBox(this), "spinBoxMinLevel");
  minLevel_->setRange(1, 99);
  minLevel_->setValue(1);
  form->addRow("Min Level", minLevel_);
  numLevels_ = named(new QSpinBox(this), "spinBoxNumLevels");
  numLevels_->setRange(1, 99);
  numLevels_->setValue(1);
  form->addRow("Num. Levels", numLevels_);
  superpixels_ = named(new QCheckBox("Superpixels", this), "checkBoxSuperpixels");
  superpixelsNumber_ = named(new QSpinBox(this), "spinBoxSuperpixels");
  superpixelsNumber_->setRange(1, 9999999);
  superpixelsNumber_->setValue(2000);
  form->addRow(superpixels_, superpixelsNumber_);
  spAdaptiveness_ = named(new QDoubleSpinBox(this), "doubleSpinBoxSPAdaptiveness");
  spAdaptiveness_->setRange(0, 99);
  spAdaptiveness_->setSingleStep(0.1);
  spAdaptiveness_->setDecimals(1);
  spAdaptiveness_->setValue(2.0);
  spAdaptivenessLabel_ = named(new QLabel("Adaptiveness", this), "labelSpAdaptiveness");
  form->addRow(spAdaptivenessLabel_, spAdaptiveness_);
  smoothness_ = named(new QDoubleSpinBox(this), "doubleSpinBoxSmoothness");
  smoothness_->setRange(0, 1000);
  smoothness_->setValue(1.0);
  form->addRow("Smoothness", smoothness_);
  exportResolution_ = named(new QDoubleSpinBox(this), "doubleSpinBoxExportResolution");
  exportResolution_->setDecimals(3);
  exportResolution_->setRange(0, 1e6);
  exportResolution_->setValue(0);
  form->addRow("Export Resolution", exportResolution_);

  auto* row1 = new QHBoxLayout;
  auto* clear = named(new QPushButton("Clear", this), "pushButtonClear");
  auto* compute = named(new QPushButton("Compute", this), "pushButtonCompute");
  row1->addWidget(clear);
  row1->addWidget(compute);
  outer->addLayout(row1);
  auto* row2 = new QHBoxLayout;
  auto* setLabel = named(new QPushButton("Set As Label", this), "pushButtonSetLabel");
  auto* probabilities = named(new QPushButton("Probabilities", this), "pushButtonProbabilities");
  auto* annotation = named(new QPushButton("Extract Annotation", this), "pushButtonAnnotation");
  row2->addWidget(setLabel);
  row2->addWidget(probabilities);
  row2->addWidget(annotation);
  outer->addLayout(row2);
  outer->addStretch(1);
  connect(clear, &QPushButton::clicked, this, &GraphBasedSegmentationController::onClear);
  connect(compute, &QPushButton::clicked, this, &GraphBasedSegmentationController::onCompute);
  connect(setLabel, &QPushButton::clicked, this, &GraphBasedSegmentationController::onSetAsLabel);
  connect(probabilities, &QPushButton::clicked, this, &GraphBasedSegmentationController::onProbabilities);
  connect(annotation, &QPushButton::clicked, this, &GraphBasedSegmentationController::onExtractAnnotation);
}

int GraphBasedSegmentationController::init() {
  connect(solver_, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
          &GraphBasedSegmentationController::onSetSolver);
  connect(superpixels_, &QCheckBox::toggled, this, &GraphBasedSegmentationController::onSuperpixelsChecked);
  onSetSolver(solver_->currentIndex());
  onSuperpixelsChecked(superpixels_->isChecked());
  return 0;
}

void GraphBasedSegmentationController::onSetSolver(int index) {
  // The direct solver takes no iteration limit.
  iterationsLabel_->setEnabled(index != 0);
  iterations_->setEnabled(index != 0);
}

void GraphBasedSegmentationController::onSuperpixelsChecked(bool on) {
  superpixelsNumber_->setEnabled(on);
  spAdaptivenessLabel_->setEnabled(on);
  spAdaptiveness_->setEnabled(on);
}

void GraphBasedSegmentationController::onCompute() {
  GraphBasedSegmentation& s = *segmentation_;
  s.solverId = solver_->currentIndex();
  s.adaptiveness = adaptiveness_->value();
  s.solverIterations = iterations_->value();
  s.autoCrop = autoCrop_->isChecked();
  s.minLevel = minLevel_->value();
  s.numLevels = numLevels_->value();
  s.useSuperpixels = superpixels_->isChecked();
  s.solverTolerance = 1e-8;
  Properties superpixels;
  superpixels.setParam("Superpixels Number", superpixelsNumber_->value());
  superpixels.setParam("Superpixels Adaptiveness", spAdaptiveness_->value());
  s.setSuperpixelsConfiguration(&superpixels);
  // Long on volumes: off the interface thread, behind a progress dialog that can cancel.
  Progress progress;
  s.setProgress(&progress);
  QtHelpers::runInBackground(this, "Graph Segmentation", [&s] { s.compute(); }, &progress);
  s.setProgress(nullptr);
  lastStatus_ = s.status();
  refresh();
}

void GraphBasedSegmentationController::onClear() {
  segmentation_->clearResult();
  refresh();
}

void GraphBasedSegmentationController::onSetAsLabel() {
  segmentation_->convertToLabels(true);
  refresh();
}

void GraphBasedSegmentationController::onProbabilities() {
  std::unique_ptr<SharedImageSet> probability = segmentation_->probabilityImage();
  if (!probability) return;
  if (MainWindowBase* window = MainWindowBase::instance())
    window->dataModel()->add(std::move(probability), tr("Probability").toStdString());
}

void GraphBasedSegmentationController::onExtractAnnotation() {
  MainWindowBase* window = MainWindowBase::instance();
  const double smoothness = smoothness_->value(), resolution = exportResolution_->value();
  const SharedImageSet* input = segmentation_->factoryInfo().input.getImage();
  const bool planar = input && input->get() && input->get()->descriptor().dimension() == 2;
  if (!planar) {
    std::unique_ptr<Mesh> mesh = segmentation_->extractSegmentation3D(smoothness, resolution, true);
    if (!mesh || mesh->faces.empty()) {
      LOG_ERROR(kCategory, "Impossible to generate mesh - please run the segmentation first");
      return;
    }
    if (window) window->annotationModel()->add(std::make_unique<GlMesh>(std::shared_ptr<const Mesh>(std::move(mesh))), "Segmentation");
    return;
  }
  const auto contours = segmentation_->extractSegmentation2D(smoothness, resolution, true);
  if (contours.empty()) {
    LOG_ERROR(kCategory, "Impossible to generate contours - please run the segmentation first");
    return;
  }
  if (!window) return;
  for (const auto& contour : contours) {
    auto spline = std::make_unique<GlSpline>();
    spline->points = contour;
    spline->closed = true;
    window->annotationModel()->add(std::move(spline), "Contour");
  }
}

void GraphBasedSegmentationController::refresh() {
  MainWindowBase* window = MainWindowBase::instance();
  if (!window) return;
  // The label map and the image were written in place: their views draw them again.
  for (Data* d : segmentation_->factoryInfo().input.items()) window->dataModel()->notifyChanged(d);
  window->updateViews();
}

}  // namespace Merivane
