#include "PointPlacingManipulator.h"

#include "GlView.h"

namespace Merivane {

GUI::EventResult PointPlacingManipulator::handleInputEvent(const GUI::InputEvent& event, const GlView& view) {
  if (!placing_) return GUI::EventResult::Ignored;
  auto* sliceView = dynamic_cast<const GlSliceView*>(&view);
  if (!sliceView) return GUI::EventResult::Ignored;
  // Place on the press, swallow the release: the view must not move the crosshair meanwhile.
  const bool left = event.button == GUI::InputEvent::LeftButton && event.modifiers == GUI::InputEvent::NoModifier;
  if (event.type == GUI::InputEvent::MouseButtonRelease && left) return GUI::EventResult::Accepted;
  if (event.type != GUI::InputEvent::MouseButtonPress || !left) return GUI::EventResult::Ignored;
  const Slice& plane = sliceView->slice().slice();
  const Eigen::Vector3d onScreen = view.viewState().unproject(event.position);
  points_.push_back(plane.projectOnPlane(onScreen));
  if (maxPoints_ > 0 && static_cast<int>(points_.size()) >= maxPoints_) placing_ = false;
  if (onPlaced) onPlaced();
  return GUI::EventResult::Accepted;
}

}  // namespace Merivane
