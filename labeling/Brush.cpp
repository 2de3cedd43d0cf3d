#include "Brush.h"

#include <algorithm>

#include "DummyGlObject.h"
#include "GlCircle.h"
#include "GlLabelRenderer.h"
#include "GlSliceRendererImage.h"
#include "GlView.h"
#include "GuiView.h"
#include "LabelPainter.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "LambdaEventHandler.h"

namespace Merivane::Seg {

namespace {
constexpr double kIsolineThicknessPx = 8.0;
}

Brush::Brush(DisplayWidgetMultiAdapter& views, LabelPainter& painter) : adapter_(&views), painter_(painter) {
  connectPainter();
}

Brush::Brush(std::vector<GUI::View*> views, LabelPainter& painter)
    : ownAdapter_(std::make_unique<DisplayWidgetMultiAdapter>(std::move(views))),
      adapter_(ownAdapter_.get()),
      painter_(painter) {
  connectPainter();
}

Brush::~Brush() { disable(); }

void Brush::connectPainter() {
  circle_ = std::make_unique<GlCircle>();
  circle_->setRadius(5.0);
  circle_->setLineWidth(2.0f);
  isolines_ = std::make_unique<GlIsolineRenderer>();
  isolines_->setThicknessPx(kIsolineThicknessPx);
  setPreviewColor(Eigen::Vector4d(1.0, 1.0, 0.0, 1.0));
  dummy_ = std::make_unique<DummyGlObject>();
  handler_ = std::make_unique<LambdaEventHandler>(
      [this](bool first, bool second, const Eigen::Vector3d& world, const GlView& view) {
        return handleEvent(first, second, world, view);
      });
  viewObject_ = std::make_unique<GUI::TypedViewObject<DummyGlObject>>(*dummy_, handler_.get());

  // The renderer must let go of the stencil before the painter destroys it.
  painter_.stencilAboutToBeReplaced.connect(this, [this] { isolines_->setLabelMap(nullptr); });
  painter_.stencilReplaced.connect(this, [this] { isolines_->setLabelMap(painter_.stencil()); });
  painter_.settingsChanged.connect(this, [this] { circle_->setRadius(painter_.radiusMM()); });
  isolines_->setLabelMap(painter_.stencil());
  circle_->setRadius(painter_.radiusMM());
}

std::vector<GUI::View*> Brush::views(bool sliceViewsOnly) const {
  std::vector<GUI::View*> result;
  for (GUI::View* v : adapter_->views())
    if (v && (!sliceViewsOnly || v->sliceView())) result.push_back(v);
  return result;
}

void Brush::enable() {
  if (enabled_) return;
  enabled_ = true;
  // A curved view would get the handler alone; we have none.
  for (GUI::View* v : views(true)) attach(*v);
}

void Brush::disable() {
  lastPosition_.reset();
  lastSliceNormal_.reset();
  if (!enabled_) return;
  enabled_ = false;
  const auto attached = attached_;
  for (GUI::View* v : attached) detach(*v);
  attached_.clear();
  updateViews();
}

void Brush::attach(GUI::View& view) {
  view.addViewObject(viewObject_.get());
  if (showCirclePreview_) view.view().addObject(circle_.get());
  if (showIsolinePreview_) view.view().addObject(isolines_.get());
  if (std::find(attached_.begin(), attached_.end(), &view) == attached_.end()) attached_.push_back(&view);
}

void Brush::detach(GUI::View& view) {
  view.removeViewObject(viewObject_.get());
  view.view().removeObject(circle_.get());
  view.view().removeObject(isolines_.get());
}

void Brush::setShowIsolinePreview(bool show) {
  if (show == showIsolinePreview_) return;
  showIsolinePreview_ = show;
  for (GUI::View* v : attached_) {
    if (show) v->view().addObject(isolines_.get());
    else v->view().removeObject(isolines_.get());
  }
  if (!show) painter_.clearStencil();
  updateViews();
}

void Brush::setShowCirclePreview(bool show) {
  if (show == showCirclePreview_) return;
  showCirclePreview_ = show;
  for (GUI::View* v : attached_) {
    if (show) v->view().addObject(circle_.get());
    else v->view().removeObject(circle_.get());
  }
  updateViews();
}

void Brush::setPreviewColor(const Eigen::Vector4d& color) {
  circle_->setColor(color.cast<float>());
  // The isoline takes its colour from the stencil's value: 0 outside, 1 under the brush.
  isolines_->setColors({Eigen::Vector4f::Zero(), color.cast<float>()});
  updateViews();
}

void Brush::setLabel(int label) {
  painter_.setLabel(label);
  updateViews();
}

void Brush::setRadiusMM(float radius) {
  painter_.setRadiusMM(radius);
  updateViews();
}

void Brush::setAdaptiveness(float adaptiveness) {
  painter_.setAdaptiveness(adaptiveness);
  updateViews();
}

void Brush::setFilter(bool filter) {
  painter_.setFilter(filter);
  updateViews();
}

void Brush::updateViews() const { adapter_->update(); }

void Brush::showCircleOnView(const Eigen::Vector3d& world, const GlView& view) {
  // Axes along the screen at that point, so the circle lies face-on in this view.
  const ViewState& s = view.viewState();
  const Eigen::Vector3d p = s.project(world);
  const Eigen::Vector3d o = s.unproject(p.head<2>(), p.z());
  circle_->setAxes(s.unproject(p.head<2>() + Eigen::Vector2d::UnitX(), p.z()) - o,
                   s.unproject(p.head<2>() + Eigen::Vector2d::UnitY(), p.z()) - o);
  circle_->setCenter(world);
}

GUI::EventResult Brush::handleEvent(bool firstButton, bool secondButton, const Eigen::Vector3d& world,
                                    const GlView& view) {
  if (!enabled_) return GUI::EventResult::Ignored;
  if (!world.allFinite()) return GUI::EventResult::Accepted;

  std::optional<Eigen::Vector3d> normal;
  auto* sliceView = dynamic_cast<const GlSliceView*>(&view);
  if (sliceView && paintIn2D_) normal = sliceView->slice().slice().normal();

  bool ignoreMatrix = false;
  for (GlObject* o : view.activeRenderers())
    if (auto* r = dynamic_cast<GlSliceRendererImage*>(o)) {
      ignoreMatrix = r->ignoreMatrix();
      break;
    }
  painter_.setIgnoreMatrix(ignoreMatrix);

  showCircleOnView(world, view);
  updateViews();

  if (!firstButton && !secondButton) {
    lastPosition_ = world;
    lastSliceNormal_ = normal;
    if (showIsolinePreview_ && enabled_) {
      setPreviewRegion(world, world);
      if (!painter_.paint(world, world, false, true, normal)) painter_.clearStencil();
      updateViews();
    }
    if (painting_) {
      strokeFinished.emitSignal();
      painting_ = false;
    }
    return GUI::EventResult::Accepted;
  }

  Eigen::Vector3d from = world;
  if (!painting_) strokeStarted.emitSignal();
  else if (lastPosition_) from = *lastPosition_;
  painting_ = true;
  setPreviewRegion(from, world);
  if (painter_.paint(from, world, secondButton, false, normal)) {
    painted.emitSignal(!secondButton);
    if (linkViews_) adapter_->centerSliceViewsAt(world, painter_.input());
    updateViews();
  } else {
    painter_.clearStencil();
  }
  lastPosition_ = world;
  lastSliceNormal_ = normal;
  return GUI::EventResult::Accepted;
}

void Brush::setPreviewRegion(const Eigen::Vector3d& a, const Eigen::Vector3d& b) {
  const SharedImageSet* input = painter_.input();
  // With the matrix ignored the stencil lives in image space, not in world space.
  if (!input || !input->get() || painter_.isMatrixIgnored() || !a.allFinite() || !b.allFinite()) {
    isolines_->clearRegion();
    return;
  }
  const double margin = painter_.radiusMM() + 2.0 * input->get()->descriptor().spacing.maxCoeff();
  Geometry::AlignedBox box;
  for (int k = 0; k < 3; ++k) {
    box.min[static_cast<size_t>(k)] = std::min(a[k], b[k]) - margin;
    box.max[static_cast<size_t>(k)] = std::max(a[k], b[k]) + margin;
  }
  isolines_->setRegion(box);
}

}  // namespace Merivane::Seg
