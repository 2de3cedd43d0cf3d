#pragma once
// Small Qt services for panels: long work off the interface thread behind a modal progress
// dialog, calls onto the interface thread, and a save dialog that asks before overwriting.
#include <QString>
#include <functional>
#include <utility>
#include <vector>

class QWidget;

namespace Merivane {
class Progress;
}

namespace Merivane::QtHelpers {

// Gives a widget its object name, by which tests and style find it, and returns it, so that a
// form reads as one expression per control.
template <typename W>
W* named(W* widget, const char* name) {
  widget->setObjectName(name);
  return widget;
}

// Runs `work` on a worker thread while a modal progress dialog, polled every 10 ms, shows the
// tasks of `progress` (when given) and offers Cancel, which cancels the progress's tasks.
// Events keep flowing meanwhile. Returns false when the user cancelled. Exceptions of `work`
// are caught and logged, and count as done.
bool runInBackground(QWidget* parent, const QString& title, const std::function<void()>& work,
                     Progress* progress = nullptr);

// Runs f on the interface thread; `wait` blocks until it has run (never from that thread's own
// event loop: a call already on the interface thread runs f at once).
void runOnMainThread(const std::function<void()>& f, bool wait = true);

// A question or a message in a modal box. `buttons` and the answer are QMessageBox standard
// buttons; `relabel` shows some of them with other texts ("Export Seeds" on No).
struct Question {
  QString title;
  QString text;
  int buttons = 0;
  int defaultButton = 0;
  std::vector<std::pair<int, QString>> relabel;
};
// Shows the box and returns the button chosen, or, while a hook is set, returns what the hook
// answers without showing anything: how tests and scripts answer the panels' questions.
int ask(QWidget* parent, const Question& question);
// Null gives the boxes back to the user.
void setQuestionHook(std::function<int(const Question&)> hook);

// A save dialog; empty when cancelled. `filter` as Qt writes it: "Images (*.nii.gz *.nrrd)".
QString getSaveFilename(QWidget* parent, const QString& caption, const QString& directory, const QString& filter);

}  // namespace Merivane::QtHelpers
