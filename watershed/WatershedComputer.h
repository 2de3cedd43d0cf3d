#pragma once
// Runs the watershed flooding on a worker thread of its own, so that an interactive tool can
// restart it after every edit of the seeds.
//
// Callers install functions that produce the source and the seeds, then start(); the worker
// takes the request, runs source -> seeds -> compatibility -> check -> flooding -> post-process
// and reports the outcome through `stopped`. Requests made while a run is under way take
// effect at the next run; several of them make one run. The source is kept between runs, so a
// run that gets new seeds only does not pay for the source again.
#include <Eigen/Core>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "Image.h"
#include "Progress.h"
#include "Signal.h"

namespace Merivane {

class WatershedComputer : public NestedProgress {
 public:
  enum class StopReason : int {
    NoSource = 0,           // there is no source image
    NoSeeds = 1,            // no seeds function was set, or it returned null
    Incompatible = 2,       // source and seeds do not match
    CheckFailed = 3,        // the check function returned non-zero (second argument: that value)
    Cancelled = 4,          // the flooding was cancelled
    PostProcessFailed = 5,  // the post-process function returned false
    Finished = 6,           // a result is ready
  };
  enum class State : int { Idle = 0, Running = 1, Stopped = 2 };

  using ImageFunc = std::function<std::unique_ptr<TypedImage<unsigned char>>(Progress*)>;
  using CheckFunc = std::function<int(const TypedImage<unsigned char>& source, const TypedImage<unsigned char>& seeds)>;
  using PostProcessFunc = std::function<bool(std::unique_ptr<TypedImage<unsigned char>>&)>;

  // Starts the worker thread. Tasks are forwarded to `parent` when one is given.
  explicit WatershedComputer(Progress* parent = nullptr);
  // Cancels the run under way and joins the worker before anything else goes.
  ~WatershedComputer() override;
  WatershedComputer(const WatershedComputer&) = delete;
  WatershedComputer& operator=(const WatershedComputer&) = delete;

  // Each function is used by one run and then cleared.
  void setSourceFunc(ImageFunc func);
  void setSeedsFunc(ImageFunc func);
  // These stay until replaced.
  void setCheckFunction(CheckFunc func);
  void setPostProcess(PostProcessFunc func);
  // Install a function that hands out a copy of the image; null changes nothing.
  void setSource(std::unique_ptr<TypedImage<unsigned char>> image);
  void setSeeds(std::unique_ptr<TypedImage<unsigned char>> image);
  // Inclusive bounds as Watershed::run takes them; equal bounds mean the whole image.
  void setROI(const Eigen::Vector3i& min, const Eigen::Vector3i& max);

  // Asks for a run. With `wait`, returns once the worker has taken the request or has stopped.
  // Called from the computer's own signals, which run on the worker, no call waits.
  void start(bool wait = false);
  // Hands over the result of the last run, once. Null while running, unless `wait` blocks until
  // the runs are over.
  std::unique_ptr<TypedImage<unsigned char>> getResult(bool wait = false);
  // Withdraws a pending start and cancels the run under way; with `wait`, returns when it has
  // ended. True when a run was in progress.
  bool cancel(bool wait = false);
  State state() const { return state_.load(); }

  // Emitted on the worker thread with the computer's mutex held: slots may only call state().
  LockedSignal<> started;
  // Current step and number of steps of the flooding's task, on the worker thread.
  LockedSignal<int, int> progressChanged;
  // The outcome of a run, on the worker thread, without the mutex held.
  LockedSignal<StopReason, int> stopped;

 protected:
  void onTaskUpdated(TaskState& task) override;

 private:
  struct Job {
    ImageFunc sourceFunc;
    ImageFunc seedsFunc;
    CheckFunc check;
    PostProcessFunc postProcess;
    Eigen::Vector3i roiMin;
    Eigen::Vector3i roiMax;
  };

  void loop();
  bool onWorker() const;
  // One run, on the worker thread, without the mutex. Returns the reason and its argument.
  std::pair<StopReason, int> process(Job& job);

  // Touched by the worker only while running, otherwise under the mutex.
  std::unique_ptr<TypedImage<unsigned char>> source_;
  std::unique_ptr<TypedImage<unsigned char>> result_;

  ImageFunc sourceFunc_;
  ImageFunc seedsFunc_;
  CheckFunc checkFunc_;
  PostProcessFunc postProcess_;
  Eigen::Vector3i roiMin_ = Eigen::Vector3i::Zero();
  Eigen::Vector3i roiMax_ = Eigen::Vector3i::Zero();

  std::atomic<State> state_{State::Idle};
  bool startRequested_ = false;
  bool cancelPending_ = false;
  bool quit_ = false;

  mutable std::mutex mutex_;
  std::condition_variable wake_;     // the worker sleeps on it
  std::condition_variable changed_;  // callers wait on it
  std::thread worker_;               // last: it starts once everything above exists
};

}  // namespace Merivane
