#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>

#include "WatershedQueues.h"

using namespace Merivane;
using Watershed::detail::Queues;

// Random pushes and pops on a few priorities against one std::deque each. Phases of mostly
// pushing outgrow the room reserved for an empty region, so the node vector moves, and phases of
// mostly popping drain queues at every slot of a chunk before they fill again.
class QueuesModel : public ::testing::TestWithParam<unsigned> {};

TEST_P(QueuesModel, StrictlyFifoPerPriorityThroughGrowthAndRecycling) {
  std::mt19937 rng(GetParam());
  Queues queues(0);
  const int priorities[4] = {0, 7, 100, 255};
  std::deque<int32_t> model[4];
  int32_t next = 0;
  auto popAndCompare = [&](int k) {
    ASSERT_FALSE(queues.empty(priorities[k]));
    ASSERT_EQ(queues.pop(priorities[k]), model[k].front());
    model[k].pop_front();
    queues.lookAhead(priorities[k]);
  };
  size_t reserved = 0;
  bool moved = false;
  for (int step = 0; step < 60000; ++step) {
    const int k = static_cast<int>(rng() % 4);
    const bool filling = (step / 10000) % 2 == 0;
    if (step == 0) reserved = queues.nodeCount();
    if (rng() % 6 != 0 ? filling : !filling) {
      queues.ensureFree(1);
      queues.push(priorities[k], next);
      model[k].push_back(next++);
      moved = moved || queues.nodeCount() > 6400;
    } else if (!model[k].empty()) {
      popAndCompare(k);
    } else {
      ASSERT_TRUE(queues.empty(priorities[k]));
    }
    // The look-ahead only ever names a position still waiting in that queue.
    if (rng() % 7 == 0 && !model[k].empty()) {
      const int32_t ahead = queues.lookAhead(priorities[k]);
      ASSERT_NE(std::find(model[k].begin(), model[k].end(), ahead), model[k].end());
    }
  }
  for (int k = 0; k < 4; ++k) {
    while (!model[k].empty()) popAndCompare(k);
    EXPECT_TRUE(queues.empty(priorities[k]));
    EXPECT_EQ(queues.lookAhead(priorities[k]), -1);
  }

  EXPECT_EQ(reserved, 0u);
  EXPECT_TRUE(moved);  // past the reserved room of (0 + 2 * 256 * 8) / 2 * 3 + 256 nodes

  // Drained, every chunk but the part-used ones the four queues keep is free again: one queue
  // refilled with that many nodes, less the chunk that ensureFree keeps in hand, takes no new
  // ones.
  const size_t nodes = queues.nodeCount();
  ASSERT_GT(queues.freeChunks(), 1u);
  const uint32_t reusable = (queues.freeChunks() - 1) * Queues::kChunk;
  for (uint32_t i = 0; i < reusable; ++i) {
    queues.ensureFree(1);
    queues.push(priorities[0], static_cast<int32_t>(i));
  }
  EXPECT_EQ(queues.nodeCount(), nodes);
  for (uint32_t i = 0; i < reusable; ++i) EXPECT_EQ(queues.pop(priorities[0]), static_cast<int32_t>(i));
}

INSTANTIATE_TEST_SUITE_P(Seeds, QueuesModel, ::testing::Values(1u, 2u, 3u));
