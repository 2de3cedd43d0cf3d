#include "ThreadPool.h"

namespace Merivane::Threading {

ThreadPool::ThreadPool(int threads) {
  if (threads < 1) threads = 1;
  for (int i = 0; i < threads; ++i) workers_.emplace_back([this] { run(); });
}

ThreadPool::~ThreadPool() { join(); }

void ThreadPool::push(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    queue_.push_back(std::move(task));
  }
  wake_.notify_one();
}

void ThreadPool::run() {
  while (true) {
    std::function<void()> task;
    {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;  // stopping and drained
      task = std::move(queue_.front());
      queue_.pop_front();
      ++active_;
    }
    task();
    {
      std::lock_guard lock(mutex_);
      --active_;
    }
    idle_.notify_all();
  }
}

bool ThreadPool::waitUntilFinished(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  auto done = [this] { return queue_.empty() && active_ == 0; };
  if (timeout == std::chrono::milliseconds::max()) {
    idle_.wait(lock, done);
    return true;
  }
  return idle_.wait_for(lock, timeout, done);
}

void ThreadPool::cancelTasks() {
  std::deque<std::function<void()>> dropped;
  {
    std::lock_guard lock(mutex_);
    dropped.swap(queue_);
  }
  idle_.notify_all();
}

void ThreadPool::join() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_ && workers_.empty()) return;
    stopping_ = true;
  }
  wake_.notify_all();
  for (auto& w : workers_)
    if (w.joinable()) w.join();
  workers_.clear();
}

}  // namespace Merivane::Threading
