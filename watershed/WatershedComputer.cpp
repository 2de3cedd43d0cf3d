#include "WatershedComputer.h"

#include <exception>
#include <utility>

#include "Log.h"
#include "Watershed.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "Seg.WatershedComputer";

WatershedComputer::ImageFunc copying(std::unique_ptr<TypedImage<unsigned char>> image) {
  std::shared_ptr<const TypedImage<unsigned char>> shared(std::move(image));
  return [shared](Progress*) { return shared->cloneTyped(); };
}
}  // namespace

WatershedComputer::WatershedComputer(Progress* parent) : NestedProgress(parent) {
  worker_ = std::thread([this] { loop(); });
}

WatershedComputer::~WatershedComputer() {
  {
    std::lock_guard lock(mutex_);
    quit_ = true;
  }
  cancel(false);
  wake_.notify_all();
  if (worker_.joinable()) worker_.join();
}

void WatershedComputer::setSourceFunc(ImageFunc func) {
  std::lock_guard lock(mutex_);
  sourceFunc_ = std::move(func);
}

void WatershedComputer::setSeedsFunc(ImageFunc func) {
  std::lock_guard lock(mutex_);
  seedsFunc_ = std::move(func);
}

void WatershedComputer::setCheckFunction(CheckFunc func) {
  std::lock_guard lock(mutex_);
  checkFunc_ = std::move(func);
}

void WatershedComputer::setPostProcess(PostProcessFunc func) {
  std::lock_guard lock(mutex_);
  postProcess_ = std::move(func);
}

void WatershedComputer::setSource(std::unique_ptr<TypedImage<unsigned char>> image) {
  if (image) setSourceFunc(copying(std::move(image)));
}

void WatershedComputer::setSeeds(std::unique_ptr<TypedImage<unsigned char>> image) {
  if (image) setSeedsFunc(copying(std::move(image)));
}

void WatershedComputer::setROI(const Eigen::Vector3i& min, const Eigen::Vector3i& max) {
  std::lock_guard lock(mutex_);
  roiMin_ = min;
  roiMax_ = max;
}

void WatershedComputer::start(bool wait) {
  std::unique_lock lock(mutex_);
  startRequested_ = true;
  wake_.notify_all();
  if (wait && !onWorker()) changed_.wait(lock, [this] { return !startRequested_ || state_ == State::Stopped; });
}

std::unique_ptr<TypedImage<unsigned char>> WatershedComputer::getResult(bool wait) {
  std::unique_lock lock(mutex_);
  if (wait && !onWorker()) {
    // A start not yet taken counts as running: its run is about to replace the result.
    changed_.wait(lock, [this] { return state_ == State::Stopped || (state_ == State::Idle && !startRequested_); });
  }
  if (state_ == State::Running) return nullptr;
  return std::move(result_);
}

bool WatershedComputer::cancel(bool wait) {
  std::unique_lock lock(mutex_);
  startRequested_ = false;
  changed_.notify_all();  // start(true) waits on a request that is now gone
  if (state_ != State::Running) return false;
  cancelPending_ = true;
  cancelAllTasks();
  if (wait && !onWorker()) changed_.wait(lock, [this] { return !cancelPending_ || state_ == State::Stopped; });
  return true;
}

// A slot of `stopped` or `progressChanged` runs on the worker, which would wait for itself.
bool WatershedComputer::onWorker() const { return std::this_thread::get_id() == worker_.get_id(); }

void WatershedComputer::onTaskUpdated(TaskState& task) {
  progressChanged.emitSignal(task.current.load(), task.steps.load());
}

void WatershedComputer::loop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.notify_all();
    while (!startRequested_) {
      if (quit_) {
        state_ = State::Stopped;
        changed_.notify_all();
        return;
      }
      wake_.wait(lock);
    }
    if (quit_) {
      state_ = State::Stopped;
      changed_.notify_all();
      return;
    }
    startRequested_ = false;
    resetCancel();  // a cancel of an earlier run must not reach this one
    started.emitSignal();
    state_ = State::Running;
    changed_.notify_all();  // start(true) returns once its request is taken
    Job job{std::exchange(sourceFunc_, nullptr),
            std::exchange(seedsFunc_, nullptr),
            checkFunc_,
            postProcess_,
            roiMin_,
            roiMax_};
    lock.unlock();

    const auto [reason, value] = process(job);
    job = Job{};  // the caller's functions, and what they hold, go before the run is reported

    lock.lock();
    state_ = State::Idle;
    cancelPending_ = false;
    lock.unlock();
    stopped.emitSignal(reason, value);
    lock.lock();
  }
}

std::pair<WatershedComputer::StopReason, int> WatershedComputer::process(Job& job) {
  // What an exception from the step under way stands for.
  StopReason failure = StopReason::NoSource;
  try {
    result_.reset();
    if (job.sourceFunc) source_ = job.sourceFunc(this);
    if (!source_) return {StopReason::NoSource, 0};

    failure = StopReason::NoSeeds;
    if (!job.seedsFunc) return {StopReason::NoSeeds, 0};
    std::unique_ptr<TypedImage<unsigned char>> seeds = job.seedsFunc(this);
    if (!seeds) return {StopReason::NoSeeds, 0};

    // One channel of seeds fits a source of any number of channels.
    if (!source_->compatible(*seeds, false, false, true) || seeds->channels() != 1)
      return {StopReason::Incompatible, 0};

    failure = StopReason::CheckFailed;
    if (job.check) {
      if (const int code = job.check(*source_, *seeds); code != 0) return {StopReason::CheckFailed, code};
    }

    failure = StopReason::Cancelled;
    // The flooding also answers false for images it cannot take (logged there): without a
    // cancel request that is a misfit of the two, not a cancellation.
    if (!Watershed::run(*source_, *seeds, this, job.roiMin, job.roiMax))
      return {isCanceled() ? StopReason::Cancelled : StopReason::Incompatible, 0};
    result_ = std::move(seeds);

    failure = StopReason::PostProcessFailed;
    if (job.postProcess && !job.postProcess(result_)) {
      result_.reset();
      return {StopReason::PostProcessFailed, 0};
    }
    return {StopReason::Finished, 0};
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "Watershed run failed: " << e.what());
  } catch (...) {
    LOG_ERROR(kCategory, "Watershed run failed with an unknown exception");
  }
  result_.reset();
  return {failure, 0};
}

}  // namespace Merivane
