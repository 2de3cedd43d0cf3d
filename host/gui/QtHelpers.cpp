#include "QtHelpers.h"

#include <QApplication>
#include <QEventLoop>
#include <QFileDialog>
#include <QMessageBox>
#include <QMetaObject>
#include <QPushButton>
#include <QProgressDialog>
#include <QThread>
#include <QTimer>
#include <QtConcurrent/QtConcurrent>
#include <atomic>
#include <exception>

#include "Log.h"
#include "Progress.h"

namespace Merivane::QtHelpers {

bool runInBackground(QWidget* parent, const QString& title, const std::function<void()>& work,
                     Progress* progress) {
  std::atomic<bool> done{false};
  QFuture<void> future = QtConcurrent::run([&] {
    try {
      work();
    } catch (const std::exception& e) {
      LOG_ERROR("QtHelpers", "background work failed: " << e.what());
    } catch (...) {
      LOG_ERROR("QtHelpers", "background work failed");
    }
    done = true;
  });
  QProgressDialog dialog(title, QObject::tr("Cancel"), 0, 0, parent);
  dialog.setWindowModality(Qt::WindowModal);
  dialog.setMinimumDuration(300);
  dialog.setAutoClose(false);
  dialog.setAutoReset(false);
  bool canceled = false;
  QEventLoop loop;
  QTimer poll;
  poll.setInterval(10);
  QObject::connect(&poll, &QTimer::timeout, [&] {
    if (done) {
      loop.quit();
      return;
    }
    if (dialog.wasCanceled() && !canceled) {
      canceled = true;
      if (progress) progress->cancelAllTasks();
      dialog.setLabelText(QObject::tr("Cancelling..."));
    }
    if (progress) {
      const auto tasks = progress->tasks();
      for (const auto& t : tasks) {
        if (!t->visible) continue;
        dialog.setLabelText(QString::fromStdString(t->text));
        dialog.setMaximum(t->busy ? 0 : std::max(1, t->steps.load()));
        dialog.setValue(t->busy ? 0 : std::min(t->current.load(), std::max(1, t->steps.load())));
        break;
      }
    }
  });
  poll.start();
  if (!done) loop.exec();
  poll.stop();
  future.waitForFinished();
  dialog.reset();
  if (progress) progress->resetCancel();
  return !canceled;
}

void runOnMainThread(const std::function<void()>& f, bool wait) {
  QCoreApplication* app = QCoreApplication::instance();
  if (!app || QThread::currentThread() == app->thread()) {
    f();
    return;
  }
  QMetaObject::invokeMethod(app, f, wait ? Qt::BlockingQueuedConnection : Qt::QueuedConnection);
}

namespace {
std::function<int(const Question&)>& questionHook() {
  static std::function<int(const Question&)> hook;
  return hook;
}
}  // namespace

int ask(QWidget* parent, const Question& question) {
  if (const auto& hook = questionHook()) return hook(question);
  QMessageBox box(QMessageBox::Question, question.title, question.text,
                  static_cast<QMessageBox::StandardButtons>(question.buttons), parent);
  if (question.buttons == QMessageBox::Ok) box.setIcon(QMessageBox::Information);
  if (question.defaultButton) box.setDefaultButton(static_cast<QMessageBox::StandardButton>(question.defaultButton));
  for (const auto& [button, text] : question.relabel)
    if (QAbstractButton* b = box.button(static_cast<QMessageBox::StandardButton>(button))) b->setText(text);
  return box.exec();
}

void setQuestionHook(std::function<int(const Question&)> hook) { questionHook() = std::move(hook); }

QString getSaveFilename(QWidget* parent, const QString& caption, const QString& directory, const QString& filter) {
  return QFileDialog::getSaveFileName(parent, caption, directory, filter);
}

}  // namespace Merivane::QtHelpers
