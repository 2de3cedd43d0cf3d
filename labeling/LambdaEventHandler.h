#pragma once
// Adapters that let a tool take a view's pointer events as one function of the two button
// states and the world position under the pointer. LambdaEventHandler serves views that hand
// out GUI::InputEvents; LambdaManipulator serves code that still sees Qt events.
//
// The first button is the left one, the second the middle one (the right one stays with the
// view for window and level). Both are tracked from presses and releases; moves change
// nothing. The world position is the pointer's at half depth, which on a slice view lies on
// the slice shown.
#include <Eigen/Core>
#include <functional>

#include "ViewObject.h"

class QEvent;

namespace Merivane {
class GlView;
}

namespace Merivane::Seg {

class LambdaEventHandler : public GUI::ViewObject::EventHandler {
 public:
  using Function = std::function<GUI::EventResult(bool firstButton, bool secondButton,
                                                  const Eigen::Vector3d& worldPosition, const GlView& view)>;

  LambdaEventHandler() = default;
  explicit LambdaEventHandler(Function f) : function_(std::move(f)) {}
  void setFunction(Function f) { function_ = std::move(f); }

  // Pointer events only (press, release, move); anything else, and every event while there
  // is no function, is ignored.
  GUI::EventResult handleInputEvent(const GUI::InputEvent& event, const GlView& view) override;
  void reset() override { firstButton_ = secondButton_ = false; }

  bool firstButton() const { return firstButton_; }
  bool secondButton() const { return secondButton_; }

 private:
  Function function_;
  bool firstButton_ = false;
  bool secondButton_ = false;
};

class LambdaManipulator {
 public:
  using Function = std::function<bool(bool firstButton, bool secondButton, const Eigen::Vector3d& worldPosition,
                                      const GlView& view)>;

  LambdaManipulator() = default;
  explicit LambdaManipulator(Function f) : function_(std::move(f)) {}
  void setFunction(Function f) { function_ = std::move(f); }

  // A QMouseEvent in the view's viewport pixels; true when the function used it.
  bool sceneEvent(QEvent* event, const GlView& view);
  void reset() { firstButton_ = secondButton_ = false; }

  bool firstButton() const { return firstButton_; }
  bool secondButton() const { return secondButton_; }

 private:
  Function function_;
  bool firstButton_ = false;
  bool secondButton_ = false;
};

}  // namespace Merivane::Seg
