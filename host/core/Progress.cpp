#include "Progress.h"

#include <algorithm>

namespace Merivane {

Progress::Task::Task(Progress* progress, int steps, std::string text) : progress_(progress) {
  state_ = std::make_shared<TaskState>();
  state_->text = std::move(text);
  state_->steps = steps;
  if (progress_) {
    if (progress_->isCanceled()) state_->canceled = true;
    progress_->add(state_);
  }
}

Progress::Task::Task(Task&& other) noexcept : progress_(other.progress_), state_(std::move(other.state_)) {
  other.progress_ = nullptr;
}

Progress::Task& Progress::Task::operator=(Task&& other) noexcept {
  if (this != &other) {
    finish();
    progress_ = other.progress_;
    state_ = std::move(other.state_);
    other.progress_ = nullptr;
  }
  return *this;
}

Progress::Task::~Task() { finish(); }

void Progress::Task::finish() {
  if (progress_ && state_) progress_->remove(state_.get());
  progress_ = nullptr;
  state_.reset();
}

void Progress::Task::setCurrentStep(int step) {
  if (!state_) return;
  state_->current = step;
  if (progress_) progress_->onTaskUpdated(*state_);
}

void Progress::Task::incrementStep(int by) {
  if (!state_) return;
  state_->current += by;
  if (progress_) progress_->onTaskUpdated(*state_);
}

void Progress::Task::setNumSteps(int steps) {
  if (!state_) return;
  state_->steps = steps;
  if (progress_) progress_->onTaskUpdated(*state_);
}

int Progress::Task::currentStep() const { return state_ ? state_->current.load() : 0; }
int Progress::Task::numSteps() const { return state_ ? state_->steps.load() : 0; }

void Progress::Task::setVisible(bool visible) {
  if (!state_) return;
  state_->visible = visible;
  if (progress_) progress_->onTaskUpdated(*state_);
}

bool Progress::Task::wasCanceled() const {
  if (!state_) return false;
  return state_->canceled.load(std::memory_order_relaxed) || (progress_ && progress_->isCanceled());
}

void Progress::Task::cancel() {
  if (state_) state_->canceled = true;
}

Progress::~Progress() = default;

Progress::Task Progress::addTask(int steps, std::string text) { return Task(this, steps, std::move(text)); }

Progress::Task Progress::addBusyIndicator(std::string text) {
  Task t(this, 0, std::move(text));
  t.state()->busy = true;
  return t;
}

void Progress::cancelAllTasks() {
  canceled_ = true;
  std::lock_guard lock(mutex_);
  for (auto& t : tasks_) t->canceled = true;
}

std::vector<std::shared_ptr<Progress::TaskState>> Progress::tasks() const {
  std::lock_guard lock(mutex_);
  return tasks_;
}

void Progress::add(const std::shared_ptr<TaskState>& state) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(state);
  }
  onTaskAdded(*state);
}

void Progress::remove(TaskState* state) {
  onTaskRemoved(*state);
  std::lock_guard lock(mutex_);
  std::erase_if(tasks_, [state](auto& t) { return t.get() == state; });
}

NestedProgress::NestedProgress(Progress* parent, Flags<TaskMode> mode) : parent_(parent), mode_(mode) {}

NestedProgress::~NestedProgress() {
  std::lock_guard lock(mutex_);
  forwarded_.clear();
}

void NestedProgress::onTaskAdded(TaskState& task) {
  if (!parent_ || mode_.test(TaskMode::Hidden)) return;
  Task t = parent_->addTask(task.steps, task.text);
  if (t.wasCanceled()) task.canceled = true;
  std::lock_guard lock(mutex_);
  forwarded_.emplace_back(&task, std::move(t));
}

void NestedProgress::onTaskUpdated(TaskState& task) {
  std::lock_guard lock(mutex_);
  for (auto& [state, t] : forwarded_)
    if (state == &task) {
      if (t.numSteps() != task.steps) t.setNumSteps(task.steps);
      t.setCurrentStep(task.current);
      // Cancellation travels downwards: the parent's user stops the nested work.
      if (t.wasCanceled()) task.canceled = true;
    }
}

void NestedProgress::onTaskRemoved(TaskState& task) {
  std::lock_guard lock(mutex_);
  std::erase_if(forwarded_, [&task](auto& p) { return p.first == &task; });
}

}  // namespace Merivane
