#pragma once
// Helpers of the tests that drive widgets and views: one application object per test program,
// menu entries by their text, and pointer events in viewport pixels.
#include <QAction>
#include <QApplication>
#include <QMenu>

#include "ViewObject.h"

namespace Merivane::TestKit {

// The program's QApplication, made on first use and kept (Qt wants one for the whole run).
inline QApplication& qtApp() {
  static int argc = 1;
  static char name[] = "tests";
  static char* argv[] = {name, nullptr};
  static QApplication* app = QApplication::instance() ? static_cast<QApplication*>(QApplication::instance())
                                                      : new QApplication(argc, argv);
  return *app;
}

// The first entry with this text in the menu or its sub-menus.
inline QAction* findAction(QMenu* menu, const QString& text) {
  for (QAction* a : menu->actions()) {
    if (a->text() == text) return a;
    if (a->menu())
      if (QAction* inner = findAction(a->menu(), text)) return inner;
  }
  return nullptr;
}

// A press, release or move at `pixel`; `button` is held after a press and during a move.
inline GUI::InputEvent pointerEvent(GUI::InputEvent::Type type, const Eigen::Vector2d& pixel,
                                    int button = GUI::InputEvent::NoButton, int modifiers = 0) {
  GUI::InputEvent e;
  e.type = type;
  e.button = type == GUI::InputEvent::MouseMove ? GUI::InputEvent::NoButton : button;
  e.buttons = type == GUI::InputEvent::MouseButtonRelease ? GUI::InputEvent::NoButton : button;
  e.modifiers = modifiers;
  e.position = pixel;
  return e;
}

}  // namespace Merivane::TestKit
