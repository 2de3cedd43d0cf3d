#pragma once
// A linear undo history of an image set. Each level holds the voxel memory of every frame as
// a zstd frame, plus the property text of selected data components. A frame that did not
// change since the newest level shares that level's buffer, so a stroke on one slice of a
// sweep costs one compressed frame. A memory budget evicts the oldest levels, though the
// newest always stays. Optionally every level is mirrored to a file by an UndoSerializer,
// so that the history survives a crash or a restart (loadHistory).
//
// The recorder keeps no cursor: the caller knows which level the set shows, restores levels
// to go back and forth, and calls deleteLevelsAfter before it records over a fork. Used from
// one thread; only the file writes run in the background.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "UndoLevel.h"

namespace Merivane {
class SharedImageSet;
}

namespace Merivane::Seg {

namespace internal {
class UndoSerializer;
}

class UndoRecorder {
 public:
  // `images` must outlive the recorder; its frame count and frame sizes are taken as final
  // here. `memoryLimit` is in bytes. `componentIds` name the set's data components to record.
  UndoRecorder(SharedImageSet& images, unsigned long memoryLimit, std::vector<std::string> componentIds);
  ~UndoRecorder();
  UndoRecorder(const UndoRecorder&) = delete;
  UndoRecorder& operator=(const UndoRecorder&) = delete;

  // Records a level in which the listed frames changed since the newest level; the others
  // share its buffers. The first level stores every frame whatever the list says. Later, an
  // empty list records nothing. Returns true when a level was recorded; a set whose frames
  // no longer match the recorder's, a frame without memory or an id already in the history
  // records nothing and logs why.
  bool recordUndoLevel(const std::string& description, unsigned long id,
                       const std::vector<unsigned long>& changedFrames);
  // Every frame changed.
  bool recordUndoLevel(const std::string& description, unsigned long id);

  // Writes level `index` (0 = oldest) back into the set and its components. Returns the
  // level's focus, which the caller applies, or -1 with the set untouched when the index is
  // out of range or the level does not fit the set.
  int restoreUndoLevel(unsigned long index);
  // Drops every level above `index`, and their files.
  void deleteLevelsAfter(unsigned long index);

  // Mirrors every following level to "<directory>/<id>.bin", creating the directory.
  void setupSerializer(const std::string& directory);
  void setupSerializer(std::unique_ptr<internal::UndoSerializer> serializer);
  // Reads the level files of the serializer's directory into the history, replacing it:
  // the levels that fit the set, oldest first, up to the first that is damaged. Returns how
  // many levels the history then holds. Ids of new levels must not repeat theirs.
  size_t loadHistory();
  // Replaces the history by these levels, as loadHistory does with the levels it read.
  size_t adoptLevels(std::vector<internal::UndoLevel> levels);

  // Blocks until the serializer has written and deleted everything queued.
  void waitWritingDone() const;
  // Bytes held by the levels: each distinct frame buffer once, plus the component texts.
  unsigned long currentSize() const { return currentSize_; }
  unsigned long memoryLimit() const { return memoryLimit_; }
  // When set, evicting or forking waits until the level files are removed.
  void setWaitDeletingDone(bool wait) { waitDeletingDone_ = wait; }

  size_t levelCount() const { return levels_.size(); }
  const std::vector<internal::UndoLevel>& levels() const { return levels_; }
  const std::string& undoDirectory() const { return undoDirectory_; }

 private:
  // Bytes that go when level `index` goes: its components and the frames no neighbour shares.
  uint64_t bytesOnlyIn(size_t index) const;
  bool fitsImages(const internal::UndoLevel& level, std::string& why) const;
  bool compressFrames(const std::vector<size_t>& todo, internal::UndoLevel& level, uint64_t& bytes);
  void recordComponents(internal::UndoLevel& level);
  void restoreComponents(const internal::UndoLevel& level) const;
  void evictOverBudget();
  void deleteUndoFilesAsync(std::vector<uint64_t> ids);

  SharedImageSet& images_;
  std::vector<size_t> frameBytes_;  // byteSize() of each frame at construction
  uint64_t largestFrameBytes_ = 0;
  uint64_t memoryLimit_;
  uint64_t currentSize_ = 0;
  std::vector<internal::UndoLevel> levels_;
  std::vector<std::string> componentIds_;
  ByteBuffer scratch_;
  std::unique_ptr<internal::UndoSerializer> serializer_;
  std::string undoDirectory_;
  std::vector<unsigned char> unrecorded_;  // frames changed in recordings that were refused
  bool waitDeletingDone_ = false;
};

}  // namespace Merivane::Seg
