#pragma once
// Progress reporting with cancellation. A Progress* may be null everywhere; Task accepts that.
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Flags.h"

namespace Merivane {

class Progress {
 public:
  // Shared state of one task; the Progress keeps it while the task lives.
  struct TaskState {
    std::string text;
    std::atomic<int> steps{0};
    std::atomic<int> current{0};
    std::atomic<bool> visible{true};
    std::atomic<bool> canceled{false};
    bool busy = false;  // endless indicator
  };

  class Task {
   public:
    Task() = default;
    Task(Progress* progress, int steps, std::string text);
    Task(Task&& other) noexcept;
    Task& operator=(Task&& other) noexcept;
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task();

    void setCurrentStep(int step);
    void incrementStep(int by = 1);
    void setNumSteps(int steps);
    int currentStep() const;
    int numSteps() const;
    void setVisible(bool visible);
    bool wasCanceled() const;
    // Asks the task to stop; wasCanceled() says true from then on.
    void cancel();
    const std::shared_ptr<TaskState>& state() const { return state_; }

   private:
    void finish();
    Progress* progress_ = nullptr;
    std::shared_ptr<TaskState> state_;
  };

  Progress() = default;
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  virtual ~Progress();

  Task addTask(int steps, std::string text);
  Task addBusyIndicator(std::string text);

  // Cancels every running task and every task started until resetCancel().
  void cancelAllTasks();
  void resetCancel() { canceled_.store(false); }
  bool isCanceled() const { return canceled_.load(); }

  std::vector<std::shared_ptr<TaskState>> tasks() const;

 protected:
  friend class Task;
  virtual void onTaskAdded(TaskState& task) {}
  virtual void onTaskUpdated(TaskState& task) {}
  virtual void onTaskRemoved(TaskState& task) {}

 private:
  void add(const std::shared_ptr<TaskState>& state);
  void remove(TaskState* state);

  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<TaskState>> tasks_;
  std::atomic<bool> canceled_{false};
};

// A Progress that forwards every task to a parent (which may be null) as a task of its own.
class NestedProgress : public Progress {
 public:
  enum class TaskMode : uint32_t { Forward = 1, Hidden = 2 };
  explicit NestedProgress(Progress* parent, Flags<TaskMode> mode = TaskMode::Forward);
  ~NestedProgress() override;

  Progress* parent() const { return parent_; }

 protected:
  void onTaskAdded(TaskState& task) override;
  void onTaskUpdated(TaskState& task) override;
  void onTaskRemoved(TaskState& task) override;

 private:
  Progress* parent_;
  Flags<TaskMode> mode_;
  std::mutex mutex_;
  std::vector<std::pair<TaskState*, Task>> forwarded_;
};

}  // namespace Merivane
