#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <thread>

#include "ThreadPool.h"

namespace {

using Merivane::Threading::ThreadPool;
using namespace std::chrono_literals;

// Runs `body` on its own thread; a hang fails the test instead of blocking the suite.
bool finishesWithin(std::chrono::seconds limit, std::function<void()> body) {
  auto done = std::make_shared<std::promise<void>>();
  auto future = done->get_future();
  std::thread([done, body = std::move(body)] {
    body();
    done->set_value();
  }).detach();
  return future.wait_for(limit) == std::future_status::ready;
}

void expectBrokenPromise(std::future<int>& f) {
  ASSERT_EQ(f.wait_for(5s), std::future_status::ready);
  try {
    f.get();
    ADD_FAILURE() << "dropped task ran";
  } catch (const std::future_error& e) {
    EXPECT_EQ(e.code(), std::future_errc::broken_promise);
  }
}

class ThreadPoolSizes : public testing::TestWithParam<int> {};

TEST_P(ThreadPoolSizes, ParallelResultsMatchSerialOnes) {
  ThreadPool pool(GetParam());
  EXPECT_EQ(pool.threadCount(), std::max(1, GetParam()));
  std::vector<std::future<long>> futures;
  for (long i = 0; i < 200; ++i) futures.push_back(pool.enqueue([i] { return i * i - 3; }));
  for (long i = 0; i < 200; ++i) EXPECT_EQ(futures[i].get(), i * i - 3);
}

TEST_P(ThreadPoolSizes, WaitUntilFinishedSeesEveryTaskDone) {
  ThreadPool pool(GetParam());
  EXPECT_TRUE(pool.waitUntilFinished(0ms));
  std::atomic<int> done{0};
  for (int i = 0; i < 50; ++i)
    pool.enqueue([&] {
      std::this_thread::sleep_for(100us);
      ++done;
    });
  EXPECT_TRUE(pool.waitUntilFinished());
  EXPECT_EQ(done.load(), 50);
}

INSTANTIATE_TEST_SUITE_P(Threads, ThreadPoolSizes, testing::Values(0, 1, 4));

TEST(ThreadPool, TimedWaitReportsBusyPool) {
  ThreadPool pool(2);
  std::promise<void> gate;
  auto released = gate.get_future().share();
  pool.enqueue([released] { released.wait(); });
  EXPECT_FALSE(pool.waitUntilFinished(30ms));
  gate.set_value();
  EXPECT_TRUE(pool.waitUntilFinished(5000ms));
}

TEST(ThreadPool, ThrowingTaskReachesItsFutureAndPoolGoesOn) {
  ThreadPool pool(1);
  auto bad = pool.enqueue([]() -> int { throw std::runtime_error("task failed"); });
  auto good = pool.enqueue([] { return 7; });
  EXPECT_THROW(bad.get(), std::runtime_error);
  EXPECT_EQ(good.get(), 7);
}

TEST(ThreadPool, CancelDropsQueuedTasksButNotTheRunningOne) {
  ThreadPool pool(1);
  std::promise<void> started, gate;
  auto released = gate.get_future().share();
  auto running = pool.enqueue([&started, released] {
    started.set_value();
    released.wait();
    return 1;
  });
  started.get_future().wait();
  std::atomic<int> ran{0};
  std::vector<std::future<int>> queued;
  for (int i = 0; i < 5; ++i) queued.push_back(pool.enqueue([&ran] { return ++ran; }));
  pool.cancelTasks();
  gate.set_value();
  EXPECT_EQ(running.get(), 1);
  for (auto& f : queued) expectBrokenPromise(f);
  EXPECT_TRUE(pool.waitUntilFinished(5000ms));
  EXPECT_EQ(ran.load(), 0);
  // The pool still takes work after a cancel.
  EXPECT_EQ(pool.enqueue([] { return 5; }).get(), 5);
}

TEST(ThreadPool, JoinFinishesQueuedWorkAndLaterEnqueueRunsNothing) {
  auto ran = std::make_shared<std::atomic<int>>(0);
  ASSERT_TRUE(finishesWithin(20s, [ran] {
    ThreadPool pool(1);
    for (int i = 0; i < 20; ++i)
      pool.enqueue([ran] {
        std::this_thread::sleep_for(200us);
        ++*ran;
      });
    pool.join();
    EXPECT_EQ(ran->load(), 20);
    auto late = pool.enqueue([] { return 1; });
    expectBrokenPromise(late);
    pool.join();
  }));
}

TEST(ThreadPool, DestructionWithPendingWorkDoesNotHang) {
  auto ran = std::make_shared<std::atomic<int>>(0);
  ASSERT_TRUE(finishesWithin(20s, [ran] {
    ThreadPool pool(3);
    for (int i = 0; i < 100; ++i)
      pool.enqueue([ran] {
        std::this_thread::sleep_for(100us);
        ++*ran;
      });
  }));
  EXPECT_EQ(ran->load(), 100);
}

}  // namespace
