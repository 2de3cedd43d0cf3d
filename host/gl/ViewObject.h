#pragma once
// What a view accepts besides plain GlObjects: an object paired with an event handler that
// sees the view's pointer events before the view's own navigation does.
#include <Eigen/Core>

#include "GlObject.h"

namespace Merivane {
class GlView;
}

namespace Merivane::GUI {

enum class EventResult { Ignored, Accepted };

// A pointer event in viewport pixels (top left origin) of the view it happened in.
struct InputEvent {
  enum Type { MouseButtonPress, MouseButtonRelease, MouseMove, Wheel, KeyPress };
  enum Button : int { NoButton = 0, LeftButton = 1, RightButton = 2, MiddleButton = 4 };
  enum Modifier : int { NoModifier = 0, Shift = 1, Control = 2, Alt = 4 };
  Type type = MouseMove;
  int button = NoButton;   // the button that changed (press, release)
  int buttons = NoButton;  // buttons held after the event
  int modifiers = NoModifier;
  Eigen::Vector2d position = Eigen::Vector2d::Zero();
  double wheelSteps = 0;  // positive away from the user
  int key = 0;

  bool isMouse() const { return type == MouseButtonPress || type == MouseButtonRelease || type == MouseMove; }
};

class ViewObject {
 public:
  class EventHandler {
   public:
    virtual ~EventHandler();
    virtual EventResult handleInputEvent(const InputEvent& event, const GlView& view) = 0;
    // Drops any state kept between events (buttons held).
    virtual void reset() {}
  };

  virtual ~ViewObject();
  virtual GlObject* object() const = 0;
  virtual EventHandler* eventHandler() const = 0;
};

// A GlObject and its handler, neither owned.
template <typename T>
class TypedViewObject : public ViewObject {
 public:
  TypedViewObject(T& object, EventHandler* handler = nullptr) : object_(&object), handler_(handler) {}
  GlObject* object() const override { return object_; }
  T& typedObject() const { return *object_; }
  EventHandler* eventHandler() const override { return handler_; }
  void setEventHandler(EventHandler* handler) { handler_ = handler; }

 private:
  T* object_;
  EventHandler* handler_;
};

}  // namespace Merivane::GUI
