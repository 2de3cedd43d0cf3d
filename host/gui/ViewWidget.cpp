#include "ViewWidget.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QWheelEvent>
#include <vector>

#include "GuiView.h"

namespace Merivane::GUI {

namespace {

int buttonsOf(Qt::MouseButtons b) {
  int r = 0;
  if (b & Qt::LeftButton) r |= InputEvent::LeftButton;
  if (b & Qt::RightButton) r |= InputEvent::RightButton;
  if (b & Qt::MiddleButton) r |= InputEvent::MiddleButton;
  return r;
}

int modifiersOf(Qt::KeyboardModifiers m) {
  int r = 0;
  if (m & Qt::ShiftModifier) r |= InputEvent::Shift;
  if (m & Qt::ControlModifier) r |= InputEvent::Control;
  if (m & Qt::AltModifier) r |= InputEvent::Alt;
  return r;
}

InputEvent mouseEvent(InputEvent::Type type, const QMouseEvent* e) {
  InputEvent ev;
  ev.type = type;
  ev.button = buttonsOf(e->button());
  ev.buttons = buttonsOf(e->buttons());
  ev.modifiers = modifiersOf(e->modifiers());
  ev.position = Eigen::Vector2d(e->localPos().x(), e->localPos().y());
  return ev;
}

}  // namespace

ViewWidget::ViewWidget(View* view, QWidget* parent) : QWidget(parent), view_(view) {
  setMouseTracking(true);
  setFocusPolicy(Qt::StrongFocus);
  setAttribute(Qt::WA_OpaquePaintEvent);
  setMinimumSize(64, 64);
  view_->onUpdate = [this] { update(); };
}

void ViewWidget::setTitle(const QString& text) {
  title_ = text;
  update();
}

void ViewWidget::setReadout(const QString& text) {
  readout_ = text;
  update();
}

void ViewWidget::setFrozen(bool frozen) {
  frozen_ = frozen;
  update();
}

void ViewWidget::redraw() {
  std::vector<unsigned char> rgba;
  GlView& v = view_->view();
  if (v.width() != width() || v.height() != height()) v.resize(width(), height());
  if (!v.render(rgba)) {
    frame_ = QImage(width(), height(), QImage::Format_RGBA8888);
    frame_.fill(Qt::black);
    return;
  }
  frame_ = QImage(rgba.data(), v.width(), v.height(), v.width() * 4, QImage::Format_RGBA8888).copy();
}

QImage ViewWidget::renderNow() {
  redraw();
  return frame_;
}

void ViewWidget::paintEvent(QPaintEvent*) {
  if (!frozen_ || frame_.isNull()) redraw();
  QPainter p(this);
  p.drawImage(0, 0, frame_);
  p.setPen(QColor(230, 230, 230));
  if (!title_.isEmpty()) p.drawText(rect().adjusted(6, 4, -6, -4), Qt::AlignLeft | Qt::AlignTop, title_);
  if (!readout_.isEmpty()) p.drawText(rect().adjusted(6, 4, -6, -4), Qt::AlignLeft | Qt::AlignBottom, readout_);
  if (hasFocus()) {
    p.setPen(QColor(80, 140, 220));
    p.drawRect(rect().adjusted(0, 0, -1, -1));
  }
}

void ViewWidget::resizeEvent(QResizeEvent*) { view_->view().resize(width(), height()); }

void ViewWidget::mousePressEvent(QMouseEvent* e) {
  setFocus();
  view_->dispatch(mouseEvent(InputEvent::MouseButtonPress, e));
  update();
}

void ViewWidget::mouseReleaseEvent(QMouseEvent* e) {
  view_->dispatch(mouseEvent(InputEvent::MouseButtonRelease, e));
  update();
}

void ViewWidget::mouseMoveEvent(QMouseEvent* e) { view_->dispatch(mouseEvent(InputEvent::MouseMove, e)); }

void ViewWidget::wheelEvent(QWheelEvent* e) {
  // One step per notch (120 units); touch pads send fractions, kept until a step is full.
  wheelRemainder_ += e->angleDelta().y() / 120.0;
  const double steps = std::trunc(wheelRemainder_);
  if (steps == 0) return;
  wheelRemainder_ -= steps;
  InputEvent ev;
  ev.type = InputEvent::Wheel;
  ev.wheelSteps = steps;
  ev.buttons = buttonsOf(e->buttons());
  ev.modifiers = modifiersOf(e->modifiers());
  ev.position = Eigen::Vector2d(e->position().x(), e->position().y());
  view_->dispatch(ev);
}

void ViewWidget::keyPressEvent(QKeyEvent* e) {
  InputEvent ev;
  ev.type = InputEvent::KeyPress;
  ev.key = e->key();
  ev.modifiers = modifiersOf(e->modifiers());
  if (view_->dispatch(ev) == EventResult::Ignored) QWidget::keyPressEvent(e);
}

}  // namespace Merivane::GUI
