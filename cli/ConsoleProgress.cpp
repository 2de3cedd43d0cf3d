#include "ConsoleProgress.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>

namespace Merivane::Cli {

namespace {
std::atomic<bool> g_interrupted{false};

extern "C" void onInterrupt(int) { g_interrupted.store(true); }
}  // namespace

void installInterruptHandler() {
  static const bool installed = [] {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND;  // a second Ctrl-C takes the default way out
    sigaction(SIGINT, &action, nullptr);
    return true;
  }();
  (void)installed;
}

bool interrupted() { return g_interrupted.load(); }
const std::atomic<bool>& interruptFlag() { return g_interrupted; }

ConsoleProgress::ConsoleProgress(bool enabled) : enabled_(enabled), terminal_(::isatty(STDERR_FILENO) == 1) {
  watcher_ = std::thread([this] {
    while (!stop_.load()) {
      if (g_interrupted.load()) {
        cancelAllTasks();
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
}

ConsoleProgress::~ConsoleProgress() {
  stop_.store(true);
  if (watcher_.joinable()) watcher_.join();
}

void ConsoleProgress::onTaskAdded(TaskState& task) {
  std::lock_guard lock(mutex_);
  lastShown_ = -1;
  draw(task, false);
}

void ConsoleProgress::onTaskUpdated(TaskState& task) {
  std::lock_guard lock(mutex_);
  draw(task, false);
}

void ConsoleProgress::onTaskRemoved(TaskState& task) {
  std::lock_guard lock(mutex_);
  draw(task, true);
  lastShown_ = -1;
}

void ConsoleProgress::draw(TaskState& task, bool final) {
  if (!enabled_ || !task.visible.load()) return;
  const int steps = task.steps.load();
  const int current = task.current.load();
  const int percent = steps > 0 ? std::min(100, std::max(0, static_cast<int>(100LL * current / steps))) : 0;
  if (terminal_) {
    if (!final && percent == lastShown_) return;
    lastShown_ = percent;
    constexpr int width = 30;
    const int filled = final && !(isCanceled() || task.canceled) ? width : percent * width / 100;
    std::string bar(static_cast<size_t>(filled), '#');
    bar.resize(width, '.');
    const bool canceled = final && (isCanceled() || task.canceled);
    std::fprintf(stderr, "\r[%s] %3d%% %s%s\033[K", bar.c_str(), final && !canceled ? 100 : percent, task.text.c_str(),
                 canceled ? " (canceled)" : "");
    if (final) std::fputc('\n', stderr);
  } else {
    const int tenth = percent / 10;
    if (final) {
      std::fprintf(stderr, "progress: %s: %s\n", task.text.c_str(), isCanceled() || task.canceled ? "canceled" : "done");
    } else if (tenth != lastShown_) {
      lastShown_ = tenth;
      std::fprintf(stderr, "progress: %s: %d%%\n", task.text.c_str(), tenth * 10);
    }
  }
  std::fflush(stderr);
}

}  // namespace Merivane::Cli
