#include "LambdaEventHandler.h"

#include <QMouseEvent>

#include "GlView.h"

namespace Merivane::Seg {

namespace {
// A curved view would map through its panorama coordinates here; the views we have all
// unproject through their camera.
Eigen::Vector3d worldAt(const GlView& view, const Eigen::Vector2d& pixel) {
  return view.viewState().unproject(pixel, 0.5);
}
}  // namespace

GUI::EventResult LambdaEventHandler::handleInputEvent(const GUI::InputEvent& event, const GlView& view) {
  if (!event.isMouse() || !function_) return GUI::EventResult::Ignored;
  const bool press = event.type == GUI::InputEvent::MouseButtonPress;
  if (press || event.type == GUI::InputEvent::MouseButtonRelease) {
    if (event.button == GUI::InputEvent::LeftButton) firstButton_ = press;
    if (event.button == GUI::InputEvent::MiddleButton) secondButton_ = press;
  }
  if (!event.position.allFinite()) return GUI::EventResult::Ignored;
  return function_(firstButton_, secondButton_, worldAt(view, event.position), view);
}

bool LambdaManipulator::sceneEvent(QEvent* event, const GlView& view) {
  if (!event || !function_) return false;
  const QEvent::Type type = event->type();
  if (type != QEvent::MouseButtonPress && type != QEvent::MouseButtonRelease && type != QEvent::MouseMove)
    return false;
  const auto* mouse = static_cast<const QMouseEvent*>(event);
  const bool press = type == QEvent::MouseButtonPress;
  if (press || type == QEvent::MouseButtonRelease) {
    if (mouse->button() == Qt::LeftButton) firstButton_ = press;
    if (mouse->button() == Qt::MiddleButton) secondButton_ = press;
  }
  const Eigen::Vector2d pixel(mouse->localPos().x(), mouse->localPos().y());
  return function_(firstButton_, secondButton_, worldAt(view, pixel), view);
}

}  // namespace Merivane::Seg
