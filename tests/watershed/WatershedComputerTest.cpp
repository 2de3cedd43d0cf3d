#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "WatershedComputer.h"
#include "WatershedTestImages.h"

using namespace Merivane;
using namespace Merivane::TestKit;
using Reason = WatershedComputer::StopReason;
using Stops = std::vector<std::pair<Reason, int>>;
using Eigen::Vector3i;

namespace {

constexpr auto kPatience = std::chrono::seconds(20);
const Vector3i kDims(14, 13, 12);

std::unique_ptr<U8Image> twoSeeds(unsigned char a, unsigned char b, const Vector3i& dims = kDims) {
  auto img = filled(dims);
  img->setValue(a, 2, 2, 2);
  img->setValue(b, dims[0] - 3, dims[1] - 3, dims[2] - 3);
  return img;
}

// Records the computer's signals, which arrive on its worker thread. Declared before the
// computer, so that it outlives the worker.
struct Record {
  std::mutex mutex;
  std::condition_variable cv;
  Stops stops;
  std::vector<std::pair<int, int>> progress;
  int starts = 0;
  bool entered = false;  // a blocking seeds function has been called

  void attach(WatershedComputer& c) {
    c.started.connect([this] { note([&] { ++starts; }); });
    c.stopped.connect([this](Reason r, int v) { note([&] { stops.emplace_back(r, v); }); });
    c.progressChanged.connect([this](int cur, int n) { note([&] { progress.emplace_back(cur, n); }); });
  }
  template <typename F>
  void note(F f) {
    std::lock_guard lock(mutex);
    f();
    cv.notify_all();
  }
  // `stopped` comes after the state turns idle, so a caller waits for it on its own.
  Stops waitStops(size_t n) {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(cv.wait_for(lock, kPatience, [&] { return stops.size() >= n; }));
    return stops;
  }
  void waitEntered() {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(cv.wait_for(lock, kPatience, [&] { return entered; }));
  }
  // A seeds function that says it was called, then waits until `release` holds.
  WatershedComputer::ImageFunc blockingSeeds(std::shared_ptr<U8Image> seeds, std::function<bool(Progress*)> release) {
    return [this, seeds, release](Progress* p) {
      note([&] { entered = true; });
      for (auto until = std::chrono::steady_clock::now() + kPatience;
           !release(p) && std::chrono::steady_clock::now() < until;)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      return seeds->cloneTyped();
    };
  }
};

}  // namespace

TEST(WatershedComputer, FinishedRunEqualsDirectFloodAndHandsResultOverOnce) {
  const Vector3i dims(24, 24, 24);
  auto source = noise(dims, 1);
  const auto expected = flooded(*source, *twoSeeds(1, 2, dims));
  Record rec;
  WatershedComputer c;
  rec.attach(c);
  c.setSource(std::move(source));
  c.setSeeds(twoSeeds(1, 2, dims));
  c.start(true);
  auto result = c.getResult(true);
  ASSERT_TRUE(result);
  EXPECT_EQ(bytes(*result), expected);
  EXPECT_EQ(rec.waitStops(1), (Stops{{Reason::Finished, 0}}));
  EXPECT_FALSE(c.getResult());
  EXPECT_EQ(c.state(), WatershedComputer::State::Idle);
  std::lock_guard lock(rec.mutex);
  EXPECT_EQ(rec.starts, 1);
  EXPECT_GE(rec.progress.size(), 2u);  // 22^3 pops: polled, then the final step
  EXPECT_EQ(rec.progress.back(), std::make_pair(100, 105));
}

enum class Setup { NoSource, NoSeedsFunction, NullSeeds, Incompatible, CheckFailed, PostProcessFailed };

class WatershedComputerStops : public testing::TestWithParam<std::pair<Setup, Reason>> {};

TEST_P(WatershedComputerStops, ReportReasonAndLeaveNoResult) {
  const auto [setup, reason] = GetParam();
  Record rec;
  WatershedComputer c;
  rec.attach(c);
  if (setup != Setup::NoSource) c.setSource(noise(kDims, 1));
  if (setup == Setup::NullSeeds) c.setSeedsFunc([](Progress*) { return nullptr; });
  if (setup != Setup::NoSeedsFunction && setup != Setup::NullSeeds)
    c.setSeeds(setup == Setup::Incompatible ? twoSeeds(1, 2, {14, 13, 11})
                                            : twoSeeds(1, setup == Setup::CheckFailed ? 1 : 2));
  c.setCheckFunction([](const U8Image&, const U8Image& s) { return Watershed::seedsValid(s) ? 0 : 7; });
  if (setup == Setup::PostProcessFailed) c.setPostProcess([](std::unique_ptr<U8Image>&) { return false; });
  c.start(true);
  EXPECT_FALSE(c.getResult(true));
  EXPECT_EQ(rec.waitStops(1), (Stops{{reason, reason == Reason::CheckFailed ? 7 : 0}}));
}

INSTANTIATE_TEST_SUITE_P(Reasons, WatershedComputerStops,
                         testing::Values(std::pair(Setup::NoSource, Reason::NoSource),
                                         std::pair(Setup::NoSeedsFunction, Reason::NoSeeds),
                                         std::pair(Setup::NullSeeds, Reason::NoSeeds),
                                         std::pair(Setup::Incompatible, Reason::Incompatible),
                                         std::pair(Setup::CheckFailed, Reason::CheckFailed),
                                         std::pair(Setup::PostProcessFailed, Reason::PostProcessFailed)));

// The source is produced once for both runs; each seeds function serves one run.
TEST(WatershedComputer, TwoStartsDuringARunGiveOneMoreRunWithTheSeedsInstalledMeanwhile) {
  std::shared_ptr<U8Image> source = noise(kDims, 5);
  const auto first = flooded(*source, *twoSeeds(1, 2)), second = flooded(*source, *twoSeeds(8, 9));
  std::atomic<bool> open{false};
  int sourceCalls = 0;
  std::vector<std::vector<unsigned char>> results;  // written by the worker, read once it is idle
  Record rec;
  WatershedComputer c;
  rec.attach(c);
  c.setSourceFunc([&](Progress*) {
    ++sourceCalls;
    return source->cloneTyped();
  });
  c.setPostProcess([&](std::unique_ptr<U8Image>& r) {
    results.push_back(bytes(*r));
    return true;
  });
  c.setSeedsFunc(rec.blockingSeeds(twoSeeds(1, 2), [&](Progress*) { return open.load(); }));
  c.start(true);
  rec.waitEntered();
  c.setSeeds(twoSeeds(8, 9));
  c.start(false);
  c.start(false);
  EXPECT_FALSE(c.getResult(false));  // running
  open = true;
  auto last = c.getResult(true);
  ASSERT_TRUE(last);
  EXPECT_EQ(bytes(*last), second);
  EXPECT_EQ(rec.waitStops(2).size(), 2u);
  EXPECT_EQ(results, (std::vector<std::vector<unsigned char>>{first, second}));
  EXPECT_EQ(sourceCalls, 1);
  c.start(true);
  EXPECT_FALSE(c.getResult(true));
  EXPECT_EQ(rec.waitStops(3).back().first, Reason::NoSeeds);
  std::lock_guard lock(rec.mutex);
  EXPECT_EQ(rec.starts, 3);
}

TEST(WatershedComputer, CancelWithdrawsPendingStartAndStopsTheRun) {
  Record rec;
  WatershedComputer c;
  rec.attach(c);
  EXPECT_FALSE(c.cancel(true));  // nothing running
  c.setSource(noise(kDims, 6));
  c.setSeedsFunc(rec.blockingSeeds(twoSeeds(1, 2), [](Progress* p) { return p->isCanceled(); }));
  c.start(true);
  rec.waitEntered();
  c.start(false);
  EXPECT_TRUE(c.cancel(true));
  EXPECT_FALSE(c.getResult(true));
  EXPECT_EQ(rec.waitStops(1), (Stops{{Reason::Cancelled, 0}}));
  std::lock_guard lock(rec.mutex);
  EXPECT_EQ(rec.starts, 1);
}

TEST(WatershedComputer, DestructorCancelsTheRunAndJoins) {
  Record rec;
  auto c = std::make_unique<WatershedComputer>();
  rec.attach(*c);
  c->setSource(noise(kDims, 7));
  c->setSeedsFunc(rec.blockingSeeds(twoSeeds(1, 2), [](Progress* p) { return p->isCanceled(); }));
  c->start(true);
  rec.waitEntered();
  c.reset();
  std::lock_guard lock(rec.mutex);
  EXPECT_EQ(rec.stops, (Stops{{Reason::Cancelled, 0}}));
}

TEST(WatershedComputer, RepeatedStartsAndCancelsSettleOnTheLastSeeds) {
  auto source = noise(kDims, 8);
  const auto expected = flooded(*source, *twoSeeds(3, 4));
  Record rec;
  WatershedComputer c;
  rec.attach(c);
  c.setSource(std::move(source));
  for (int i = 0; i < 40; ++i) {
    c.setSeeds(twoSeeds(1 + i % 5, 6 + i % 7));
    c.setROI(Vector3i::Zero(), Vector3i::Constant(i % 3 == 0 ? 0 : 9));
    c.start(i % 2 == 0);
    if (i % 3 == 0) c.cancel(i % 6 == 0);
    if (i % 4 == 0) c.getResult(i % 8 == 0);
  }
  c.cancel(true);
  c.setROI(Vector3i::Zero(), Vector3i::Zero());
  c.setSeeds(twoSeeds(3, 4));
  c.start(true);
  auto result = c.getResult(true);
  ASSERT_TRUE(result);
  EXPECT_EQ(bytes(*result), expected);
  std::lock_guard lock(rec.mutex);
  for (const auto& [r, v] : rec.stops)
    EXPECT_TRUE(r == Reason::Finished || r == Reason::Cancelled || r == Reason::NoSeeds);
}
