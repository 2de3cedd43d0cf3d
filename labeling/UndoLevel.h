#pragma once
// One level of the undo history: the compressed voxel memory of every frame of an image set,
// the compressed property text of the recorded data components, and the caller's id, focus
// and description.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ByteBuffer.h"

namespace Merivane::Seg::internal {

struct UndoLevel {
  // One zstd frame per image of the set, in the set's order. Frames that did not change
  // between levels are the same buffer; buffers are never written after they are shared.
  std::vector<std::shared_ptr<ByteBuffer>> frames;
  // zstd frames of the components' property text, in the order of the set's component list.
  std::vector<ByteBuffer> components;
  uint64_t id = 0;  // the caller's identifier; names the level's file
  int32_t focus = 0;
  std::string description;
};

// Compares frame bytes (not buffer identity), description, focus, id and component bytes.
bool operator==(const UndoLevel& a, const UndoLevel& b);

}  // namespace Merivane::Seg::internal
