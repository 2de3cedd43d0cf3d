#include "FreeformSelector.h"

#include "DummyGlObject.h"
#include "GlFreeform.h"
#include "GlView.h"
#include "GuiView.h"
#include "LambdaEventHandler.h"
#include "Log.h"
#include "Mask.h"
#include "SharedImageSet.h"
#include "Spline.h"
#include "VolumeFreeformCroppingAlgorithm.h"

namespace Merivane::Seg {

namespace {
constexpr const char* kCategory = "Seg.FreeformSelector";
}

FreeformSelector::FreeformSelector(DisplayWidgetMultiAdapter& views) : adapter_(&views) { init(); }

FreeformSelector::FreeformSelector(std::vector<GUI::View*> views)
    : ownAdapter_(std::make_unique<DisplayWidgetMultiAdapter>(std::move(views))), adapter_(ownAdapter_.get()) {
  init();
}

FreeformSelector::~FreeformSelector() { disable(); }

void FreeformSelector::init() {
  freeform_ = std::make_unique<GlFreeform>();
  freeform_->setClosed(true);
  dummy_ = std::make_unique<DummyGlObject>();
  handler_ = std::make_unique<LambdaEventHandler>(
      [this](bool first, bool second, const Eigen::Vector3d& world, const GlView& view) {
        return handleEvent(first, second, world, view);
      });
  viewObject_ = std::make_unique<GUI::TypedViewObject<DummyGlObject>>(*dummy_, handler_.get());
}

std::vector<GUI::View*> FreeformSelector::views() const {
  std::vector<GUI::View*> result;
  for (GUI::View* v : adapter_->views())
    if (v) result.push_back(v);
  return result;
}

void FreeformSelector::enable() {
  if (enabled_) return;
  enabled_ = true;
  for (GUI::View* v : views()) {
    v->addViewObject(viewObject_.get());
    v->view().addObject(freeform_.get());
    attached_.push_back(v);
  }
}

void FreeformSelector::disable() {
  if (!enabled_) return;
  enabled_ = false;
  for (GUI::View* v : attached_) {
    v->removeViewObject(viewObject_.get());
    v->view().removeObject(freeform_.get());
  }
  attached_.clear();
  cutting_ = false;
  freeform_->clear();
  updateViews();
}

void FreeformSelector::updateViews() const { adapter_->update(); }

GUI::EventResult FreeformSelector::handleEvent(bool firstButton, bool, const Eigen::Vector3d& world,
                                               const GlView& view) {
  if (!image_ || !enabled_) return GUI::EventResult::Ignored;
  if (firstButton) {
    selected_.reset();
    if (!cutting_) {
      cutting_ = true;
      cuttingStarted.emitSignal();
    }
    freeform_->addPoint(world);
    updateViews();
    return GUI::EventResult::Accepted;
  }
  if (!cutting_) return GUI::EventResult::Ignored;
  selected_ = cutVolume(image_, view, freeform_->spline());
  cutting_ = false;
  freeform_->clear();
  selectionFinished.emitSignal();
  updateViews();
  return GUI::EventResult::Accepted;
}

std::unique_ptr<SharedImageSet> FreeformSelector::cutVolume(const SharedImageSet* image, const GlView& view,
                                                            const Spline& spline) {
  if (!image || image->empty()) return nullptr;
  if (spline.numberOfPoints() < 3) {
    LOG_WARN(kCategory, "An outline needs at least three points, not " << spline.numberOfPoints());
    return nullptr;
  }
  std::unique_ptr<SharedImageSet> copy = image->clone();
  if (!copy) return nullptr;
  const bool volume = image->img()->descriptor().slices() > 1;
  if (!volume) {
    for (int f = 0; f < copy->size(); ++f) {
      SharedImage* frame = copy->get(f);
      ImageDescriptor d(U8, frame->descriptor().dimensions, 1);
      d.spacing = frame->descriptor().spacing;
      std::shared_ptr<TypedImage<unsigned char>> inside = TypedImage<unsigned char>::zeros(d);
      SharedImage labels(inside);
      labels.setMatrix(frame->matrix());
      if (!spline.convertToLabelMap(labels, 255)) return nullptr;
      frame->setMask(std::make_shared<ExplicitMask>(inside));
    }
    return copy;
  }
  // Through the view's depth: the outline in viewport pixels, every voxel tested where the
  // view shows it.
  const ViewState& state = view.viewState();
  std::vector<Eigen::Vector2d> outline;
  for (const Eigen::Vector3d& p : spline.polyline()) outline.push_back(state.project(p).head<2>());
  VolumeFreeformCroppingAlgorithm cropping(copy.get());
  cropping.setOutline(std::move(outline), state.worldToViewportMatrix());
  for (int f = 0; f < copy->size(); ++f)
    if (!cropping.addSelectionMask(*copy->get(f))) {
      LOG_WARN(kCategory, "The outline encloses nothing on the view");
      return nullptr;
    }
  return copy;
}

}  // namespace Merivane::Seg
