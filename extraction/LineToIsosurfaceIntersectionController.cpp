#include "LineToIsosurfaceIntersectionController.h"

#include <QFormLayout>
#include <QPushButton>

#include "AnnotationModel.h"
#include "GeometryLine.h"
#include "GlAnnotations.h"
#include "LineToIsosurfaceIntersectionAlgorithm.h"
#include "Log.h"
#include "MainWindowBase.h"
#include "PointPlacingManipulator.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.LineToIsosurfaceIntersectionController";

AnnotationModel* annotations() {
  MainWindowBase* window = MainWindowBase::instance();
  return window ? window->annotationModel() : nullptr;
}

}  // namespace

LineToIsosurfaceIntersectionController::LineToIsosurfaceIntersectionController(
    LineToIsosurfaceIntersectionAlgorithm* algorithm)
    : DefaultAlgorithmController(algorithm, "", true, false), intersection_(algorithm) {
  setObjectName("LineToIsosurfaceIntersectionController");
  auto* setLine = new QPushButton("Set Line", this);
  setLine->setObjectName("pushButtonSetLine");
  layout()->addRow(setLine);
  connect(setLine, &QPushButton::clicked, this, &LineToIsosurfaceIntersectionController::onSetLine);
  // Annotations the user deletes are no longer ours to touch.
  if (AnnotationModel* model = annotations())
    watch_ = model->annotationAboutToBeRemoved.connect([this](InteractiveObject* a) { forget(a); });
}

LineToIsosurfaceIntersectionController::~LineToIsosurfaceIntersectionController() {
  if (watch_) watch_->disconnect();
}

void LineToIsosurfaceIntersectionController::forget(InteractiveObject* annotation) {
  if (annotation == line_) line_ = nullptr;
  if (annotation == ball_) ball_ = nullptr;
}

void LineToIsosurfaceIntersectionController::onSetLine() {
  AnnotationModel* model = annotations();
  if (!model) return;
  if (line_) model->remove(line_);
  auto line = std::make_unique<GlPolyLine>();
  auto placer = std::make_unique<PointPlacingManipulator>(line->points, 2);
  auto annotation = std::make_unique<InteractiveObject>(std::move(line), std::move(placer));
  annotation->setName("Line");
  const DataList& input = intersection_->factoryInfo().input;
  line_ = model->add(std::move(annotation), input.size() > 0 ? input[0] : nullptr);
}

void LineToIsosurfaceIntersectionController::onCompute() {
  AnnotationModel* model = annotations();
  if (model && ball_) model->remove(ball_);
  auto* line = line_ ? dynamic_cast<GlPolyLine*>(line_->object()) : nullptr;
  if (!line) {
    LOG_WARN(kCategory, "Annotation Missing");
    return;
  }
  if (line->points.size() < 2) {
    LOG_WARN(kCategory, "Points Missing");
    return;
  }
  intersection_->setLineInWorldCoordinates(Geometry::LineSegment(line->points[0], line->points[1]));
  DefaultAlgorithmController::onCompute();
}

void LineToIsosurfaceIntersectionController::onComputeFinished(int) {
  AnnotationModel* model = annotations();
  const auto point = intersection_->getIntersectionInWorldCoordinates();
  if (!model || !point) return;
  const DataList& input = intersection_->factoryInfo().input;
  ball_ = model->add(std::make_unique<GlBall>(*point), "Intersection", input.size() > 0 ? input[0] : nullptr);
  if (MainWindowBase* window = MainWindowBase::instance()) window->updateViews();
}

}  // namespace Merivane
