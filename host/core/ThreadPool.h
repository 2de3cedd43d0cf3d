#pragma once
// A fixed pool of worker threads with a FIFO queue.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace Merivane::Threading {

class ThreadPool {
 public:
  explicit ThreadPool(int threads);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  template <typename F>
  auto enqueue(F&& f) -> std::future<std::invoke_result_t<F>> {
    using R = std::invoke_result_t<F>;
    auto task = std::make_shared<std::packaged_task<R()>>(std::forward<F>(f));
    std::future<R> result = task->get_future();
    push([task] { (*task)(); });
    return result;
  }

  // True when the queue is empty and no task runs, within the given time.
  bool waitUntilFinished(std::chrono::milliseconds timeout = std::chrono::milliseconds::max());
  // Drops queued tasks that have not started; their futures report a broken promise.
  void cancelTasks();
  // Finishes the queue and joins the workers; enqueue afterwards runs nothing.
  void join();
  int threadCount() const { return static_cast<int>(workers_.size()); }

 private:
  void push(std::function<void()> task);
  void run();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> queue_;
  std::vector<std::thread> workers_;
  int active_ = 0;
  bool stopping_ = false;
};

}  // namespace Merivane::Threading
