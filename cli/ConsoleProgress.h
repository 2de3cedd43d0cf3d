#pragma once
// Progress on stderr for the command line: a redrawn bar on a terminal, plain lines otherwise
// (at the start, every tenth and the end of each task). Ctrl-C sets a flag that a watcher
// turns into cancelAllTasks(), so algorithms stop at their next cancellation check; a second
// Ctrl-C ends the program at once.
#include <atomic>
#include <mutex>
#include <thread>

#include "Progress.h"

namespace Merivane::Cli {

// Installs the SIGINT handler (once); interrupted() tells whether Ctrl-C was pressed.
void installInterruptHandler();
bool interrupted();
const std::atomic<bool>& interruptFlag();

class ConsoleProgress : public Progress {
 public:
  // `enabled` false draws nothing but still turns Ctrl-C into cancellation.
  explicit ConsoleProgress(bool enabled = true);
  ~ConsoleProgress() override;

 protected:
  void onTaskAdded(TaskState& task) override;
  void onTaskUpdated(TaskState& task) override;
  void onTaskRemoved(TaskState& task) override;

 private:
  void draw(TaskState& task, bool final);

  bool enabled_;
  bool terminal_;
  std::mutex mutex_;
  int lastShown_ = -1;
  std::atomic<bool> stop_{false};
  std::thread watcher_;
};

}  // namespace Merivane::Cli
