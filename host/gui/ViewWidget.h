#pragma once
// Shows one GUI::View: draws it through the GL layer on each paint and turns Qt's pointer,
// wheel and key events into the view's input events.
#include <QImage>
#include <QWidget>

namespace Merivane::GUI {

class View;

class ViewWidget : public QWidget {
  Q_OBJECT
 public:
  explicit ViewWidget(View* view, QWidget* parent = nullptr);
  View* view() const { return view_; }
  // Text drawn in the corners: top left (view name) and bottom left (read-out).
  void setTitle(const QString& text);
  void setReadout(const QString& text);
  // While frozen, paints the last frame without drawing (data may be changing elsewhere).
  void setFrozen(bool frozen);
  // The last frame drawn, at the view's size.
  const QImage& lastFrame() const { return frame_; }
  // Draws now and returns the frame.
  QImage renderNow();

 protected:
  void paintEvent(QPaintEvent*) override;
  void resizeEvent(QResizeEvent*) override;
  void mousePressEvent(QMouseEvent*) override;
  void mouseReleaseEvent(QMouseEvent*) override;
  void mouseMoveEvent(QMouseEvent*) override;
  void wheelEvent(QWheelEvent*) override;
  void keyPressEvent(QKeyEvent*) override;

 private:
  void redraw();
  View* view_;
  QImage frame_;
  QString title_, readout_;
  bool frozen_ = false;
  double wheelRemainder_ = 0;
};

}  // namespace Merivane::GUI
