#pragma once
// The flooding's queues, in a header of their own so that tests can drive them directly.
// Internal to the watershed: nothing outside Watershed.cpp and its tests includes this.
#include <cstdint>
#include <exception>
#include <vector>

#include "Watershed.h"

namespace Merivane::Watershed::detail {

struct Queue {
  uint32_t first = 0;  // 0 while empty
  uint32_t last = 0;   // 0 at first; a drained queue keeps it while its chunk has room
};

// Strictly FIFO bucket queues over the 256 priorities, as chains of nodes linked through
// `next`. A queue takes its nodes eight at a time, as one run of consecutive indices (a chunk,
// one cache line), so that a pop mostly reads the cache line of the previous one:
// the flooding order hops across the volume and single recycled nodes would scatter every
// queue over the whole vector. A chunk goes back to the free chain when its last node is
// popped; the free chain links chunks through the `next` of their last node.
//
// Which queue a voxel goes to, and whether a chunk is full, follow the noise of the image, so
// push and pop are written without branches: a mispredicted branch costs about as much as the
// rest of a push. The caller keeps enough chunks free for one pop's pushes (ensureFree).
class Queues {
 public:
  static constexpr uint32_t kChunk = 8;

  uint32_t freeChunks() const { return freeChunks_; }
  size_t nodeCount() const { return nodes_.size(); }

  // Every voxel is queued at most once, so the nodes in use stay below one per voxel plus a
  // part-used chunk per queue; growth by half again may overshoot that by half. Reserving that
  // much address space up front keeps growth from copying, and only the nodes in use are ever
  // touched.
  explicit Queues(size_t voxels) {
    try {
      nodes_.reserve((voxels + 2 * 256 * kChunk) / 2 * 3 + 256);
    } catch (const std::exception&) {
      // Growth then copies, which costs time and peak memory but nothing else.
    }
  }

  // At least `chunks` free chunks, so that as many pushes need no growth.
  void ensureFree(uint32_t chunks) {
    while (freeChunks_ < chunks) grow();
  }

  // Appends `pos` to queue `priority`; needs a free chunk.
  void push(int priority, int32_t pos) {
    Queue& q = queues_[priority];
    WSNode* n = nodes_.data();
    const uint32_t last = q.last;
    const bool fresh = (last == 0) | (slot(last + 1) == 0);
    const uint32_t chunk = free_;
    const uint32_t node = fresh ? chunk : last + 1;
    free_ = fresh ? n[chunk + kChunk - 1].next : chunk;
    freeChunks_ -= fresh;
    n[node] = {0, pos};
    // With last == 0 this writes the sentinel's link, which nobody reads; a drained queue
    // keeps its part-used chunk, whose popped nodes are read no more either.
    n[last].next = node;
    q.first = q.first == 0 ? node : q.first;
    q.last = node;
  }

  bool empty(int priority) const { return queues_[priority].first == 0; }

  int32_t pop(int priority) {
    Queue& q = queues_[priority];
    WSNode* n = nodes_.data();
    const uint32_t node = q.first;
    const WSNode head = n[node];
    q.first = head.next;
    cursors_[priority] = cursors_[priority] == node ? 0 : cursors_[priority];  // never at a popped node
    // The last node of a chunk hands the whole chunk back.
    const bool end = slot(node) == kChunk - 1;
    n[node].next = end ? free_ : head.next;
    free_ = end ? node - (kChunk - 1) : free_;
    freeChunks_ += end;
    q.last = (end & (head.next == 0)) ? 0 : q.last;  // the chunk of `last` is free now
    return head.pos;
  }

  // A position some pops further on in queue `priority`, to be called after each pop from that
  // queue: each queue keeps a cursor up to kAhead nodes ahead of its head, which moves on one
  // node per pop and waits at the tail when the queue is short; coming back to a queue after
  // a detour through lower ones therefore costs no walk. It also fetches the chunk after the
  // cursor's, so that the cursor finds it in cache.
  int32_t lookAhead(int priority) {
    const WSNode* n = nodes_.data();
    uint32_t node = cursors_[priority];
    if (node != 0) {
      const uint32_t next = n[node].next;
      node = next != 0 ? next : node;
    } else {
      node = queues_[priority].first;
      if (node == 0) return -1;
      for (int i = 0; i < kAhead && n[node].next != 0; ++i) node = n[node].next;
    }
    cursors_[priority] = node;
    __builtin_prefetch(&n[n[node + (kChunk - 1 - slot(node))].next]);
    return n[node].pos;
  }

 private:
  // Where a node lies in its chunk. Chunks start at a cache line, which the first growth
  // fixes; should the vector move later, they only straddle lines.
  uint32_t slot(uint32_t node) const { return (node + shift_) % kChunk; }

  // allocWSNodes chains the new nodes in ascending order; whole chunks of them join the free
  // chain, in front of the chunks free already.
  void grow() {
    const bool first = nodes_.empty();
    const uint32_t from = allocWSNodes(nodes_);
    if (first) {
      const auto misalign = reinterpret_cast<uintptr_t>(nodes_.data()) % (kChunk * sizeof(WSNode));
      shift_ = static_cast<uint32_t>(misalign / sizeof(WSNode));
    }
    const auto size = static_cast<uint32_t>(nodes_.size());
    const uint32_t begin = from + (kChunk - slot(from)) % kChunk;
    const uint32_t end = size - slot(size);
    if (end < begin + kChunk) return;  // no whole chunk this time
    // The new nodes are chained in ascending order already, so each chunk's last node leads to
    // the next chunk; the last one leads on to the chunks that were free before.
    nodes_[end - 1].next = free_;
    free_ = begin;
    freeChunks_ += (end - begin) / kChunk;
  }

  static constexpr int kAhead = 32;

  std::vector<WSNode> nodes_;
  uint32_t free_ = 0;        // first node of the first free chunk
  uint32_t freeChunks_ = 0;  // chunks on the free chain
  uint32_t shift_ = 0;       // makes slot() count from a cache line
  Queue queues_[256];
  uint32_t cursors_[256] = {};
};

}  // namespace Merivane::Watershed::detail
