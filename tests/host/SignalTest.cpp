#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Signal.h"

namespace {

using namespace Merivane;

struct Listener : SignalReceiver {
  explicit Listener(int* hits) : hits(hits) {}
  void onFire() { ++*hits; }
  int* hits;
};

TEST(Signal, SlotsRunInConnectionOrderWithTheArguments) {
  Signal<int> s;
  std::vector<int> seen;
  for (int id = 0; id < 3; ++id) s.connect([&, id](int v) { seen.push_back(id * 100 + v); });
  s.emitSignal(5);
  EXPECT_EQ(seen, (std::vector<int>{5, 105, 205}));
}

TEST(Signal, SlotEmittingItsOwnSignalDoesNotRecurse) {
  Signal<> s;
  int first = 0, second = 0;
  s.connect([&] {
    ++first;
    s.emitSignal();
  });
  s.connect([&] { ++second; });
  s.emitSignal();
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
  s.emitSignal();
  EXPECT_EQ(first, 2);
}

TEST(Signal, RequestedRepeatAllowsExactlyOneNestedEmission) {
  Signal<> s;
  int calls = 0;
  s.connect([&] {
    if (++calls > 1) return;
    s.requestRepeat();
    s.emitSignal();
    s.emitSignal();  // the repeat was used up by the call before
  });
  s.emitSignal();
  EXPECT_EQ(calls, 2);
}

TEST(Signal, ConnectionAddedDuringEmissionWaitsForNextEmission) {
  Signal<> s;
  int late = 0;
  bool added = false;
  s.connect([&] {
    if (!added) s.connect([&] { ++late; });
    added = true;
  });
  s.emitSignal();
  EXPECT_EQ(late, 0);
  EXPECT_EQ(s.connectionCount(), 2u);
  s.emitSignal();
  EXPECT_EQ(late, 1);
}

TEST(Signal, DisconnectDuringEmissionStopsLaterSlotAndDropsRecords) {
  Signal<> s;
  std::vector<char> seen;
  auto token = std::make_shared<int>(0);  // counts live copies of the slots
  std::shared_ptr<SignalConnection> self, later;
  self = s.connect([&, token] {
    seen.push_back('a');
    self->disconnect();
    later->disconnect();
  });
  s.connect([&] { seen.push_back('b'); });
  later = s.connect([&, token] { seen.push_back('c'); });
  ASSERT_EQ(token.use_count(), 3);

  s.emitSignal();
  EXPECT_EQ(seen, (std::vector<char>{'a', 'b'}));
  EXPECT_EQ(s.connectionCount(), 1u);
  EXPECT_FALSE(self->isActive());
  EXPECT_EQ(token.use_count(), 1) << "records of disconnected slots are still held";
  s.emitSignal();
  EXPECT_EQ(seen, (std::vector<char>{'a', 'b', 'b'}));
}

TEST(Signal, ThrowingSlotPropagatesAndLeavesSignalUsable) {
  Signal<> s;
  int before = 0, after = 0, nested = 0, added = 0;
  bool throwNow = true;
  s.connect([&] { ++before; });
  s.connect([&] {
    if (throwNow) {
      s.connect([&] { ++added; });
      throw std::runtime_error("boom");
    }
  });
  s.connect([&] { ++after; });
  EXPECT_THROW(s.emitSignal(), std::runtime_error);
  EXPECT_EQ(before, 1);
  EXPECT_EQ(after, 0);

  throwNow = false;
  s.emitSignal();
  EXPECT_EQ(before, 2);
  EXPECT_EQ(after, 1);
  EXPECT_EQ(added, 1) << "connection made before the throw was lost";

  // Recursion protection must still work after the unwinding.
  s.connect([&] {
    ++nested;
    s.emitSignal();
  });
  s.emitSignal();
  EXPECT_EQ(nested, 1);
  EXPECT_EQ(before, 3);
}

TEST(Signal, DestroyedReceiverIsNeverCalled) {
  Signal<> s;
  int hits = 0;
  auto listener = std::make_unique<Listener>(&hits);
  s.connect(listener.get(), &Listener::onFire);
  s.emitSignal();
  ASSERT_EQ(hits, 1);
  listener.reset();
  s.emitSignal();
  EXPECT_EQ(hits, 1);
  EXPECT_EQ(s.connectionCount(), 0u);

  // Also when an earlier slot of the same emission destroys it.
  listener = std::make_unique<Listener>(&hits);
  s.connect([&] { listener.reset(); });
  s.connect(listener.get(), &Listener::onFire);
  s.emitSignal();
  EXPECT_EQ(hits, 1);
  EXPECT_EQ(s.connectionCount(), 1u);
}

TEST(Signal, SignalDestroyedBeforeReceiverIsSafe) {
  int hits = 0;
  Listener listener(&hits);
  auto s = std::make_unique<Signal<>>();
  auto connection = s->connect(&listener, &Listener::onFire);
  auto other = std::make_unique<Signal<>>();
  other->connect(&listener, &Listener::onFire);
  s.reset();
  EXPECT_FALSE(connection->isActive());
  connection->disconnect();
  // The receiver's other connections are unaffected.
  other->emitSignal();
  EXPECT_EQ(hits, 1);
}

TEST(Signal, BlockerBlocksAndRestoresPreviousState) {
  Signal<> s;
  int hits = 0;
  s.connect([&] { ++hits; });
  {
    SignalBlocker outer(s);
    {
      SignalBlocker inner(s);
      s.emitSignal();
    }
    EXPECT_TRUE(s.isBlocked());
    s.emitSignal();
  }
  EXPECT_FALSE(s.isBlocked());
  s.emitSignal();
  EXPECT_EQ(hits, 1);

  auto c = s.connect([&] { hits += 10; });
  c->setBlocked(true);
  s.emitSignal();
  EXPECT_EQ(hits, 2);
}

TEST(Signal, LockedSignalDeliversEveryEmissionFromManyThreads) {
  LockedSignal<int> s;
  std::atomic<long> sum{0};
  std::atomic<int> calls{0};
  s.connect([&](int v) {
    sum += v;
    ++calls;
  });
  constexpr int kThreads = 8, kPerThread = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&s, t] {
      for (int i = 0; i < kPerThread; ++i) s.emitSignal(t * kPerThread + i);
    });
  for (auto& t : threads) t.join();
  constexpr long n = kThreads * kPerThread;
  EXPECT_EQ(calls.load(), n);
  EXPECT_EQ(sum.load(), n * (n - 1) / 2);
}

}  // namespace
