#pragma once
// Places points by left clicks in slice views: each click (no modifier) adds the world point
// under the pointer on the view's plane, until `maxPoints` are placed (0: no limit). The
// points live in the caller's vector, typically those of the annotation being drawn, so the
// drawing follows the clicks. `placing()` is false once the limit is reached or finish() was
// called; from then on events pass through to the view.
#include <Eigen/Core>
#include <functional>
#include <vector>

#include "ViewObject.h"

namespace Merivane {

class PointPlacingManipulator : public GUI::ViewObject::EventHandler {
 public:
  PointPlacingManipulator(std::vector<Eigen::Vector3d>& points, int maxPoints)
      : points_(points), maxPoints_(maxPoints) {}
  GUI::EventResult handleInputEvent(const GUI::InputEvent& event, const GlView& view) override;
  bool placing() const { return placing_; }
  void finish() { placing_ = false; }
  // Called after every placed point.
  std::function<void()> onPlaced;

 private:
  std::vector<Eigen::Vector3d>& points_;
  int maxPoints_;
  bool placing_ = true;
};

}  // namespace Merivane
