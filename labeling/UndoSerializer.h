#pragma once
// Mirrors undo levels to files, one file per level, on a pool of one worker so that files are
// written in the order of recording, and reads a directory of them back after a restart.
//
// A level file is "<directory>/<id>.bin": u32 totalSize, u32 frameCount, per frame u32 size
// and its zstd bytes, u64 id, u32 focus, u32 descriptionLength and the description, u32
// componentCount, per component u32 size and its zstd bytes; all integers little-endian, no
// padding. totalSize is 12 + descriptionLength + every frame and component size. Each file
// is written under a hidden temporary name, flushed to disk and then renamed, so that a
// crash leaves either the whole level or no level under the final name.
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "UndoLevel.h"

namespace Merivane::Threading {
class ThreadPool;
}

namespace Merivane::Seg::internal {

class UndoSerializer {
 public:
  explicit UndoSerializer(const std::string& directory);
  // Waits for the queued writes and deletions.
  virtual ~UndoSerializer();
  UndoSerializer(const UndoSerializer&) = delete;
  UndoSerializer& operator=(const UndoSerializer&) = delete;

  const std::string& directory() const { return directory_; }
  std::string levelPath(uint64_t id) const;
  // How many of the newest level files restoreUndoStack keeps when it tidies up.
  int levelsKeptOnRestore() const { return levelsKept_; }

  // Queues the write of the level's file; the level is the task's own copy.
  void writeUndoFileAsync(UndoLevel level);
  // Queues the removal of the files of these ids behind every write queued so far, so that
  // no file is removed before it is written and a later write of a reused id survives.
  void deleteUndoFilesAsync(std::vector<uint64_t> ids);
  // Blocks until every queued write and deletion is done.
  void waitUntilWriterFinished();

  // Reads the level files of the directory in id order. A file that cannot be read, or that
  // is damaged or cut short, ends the history there: the levels before it are returned. With
  // `removeUnreadable` the damaged file and those after it are removed, and so are the
  // oldest files beyond the newest levelsKeptOnRestore() (their levels are still returned),
  // and temporary files that a killed writer left.
  std::vector<UndoLevel> restoreUndoStack(bool removeUnreadable);

  // The file format on any stream. writeOut writes nothing for a level without frames and
  // returns false when a stream error occurs or a size does not fit its field.
  static bool writeOut(std::ostream& out, const UndoLevel& level);
  // Empty on a damaged or truncated level; `error`, when given, says what is wrong. A stream
  // that ends right after the description is a level without components.
  static std::optional<UndoLevel> readIn(std::istream& in, std::string* error = nullptr);

 private:
  void writeFile(const UndoLevel& level) const;

  std::string directory_;
  int levelsKept_ = 20;
  std::unique_ptr<Threading::ThreadPool> pool_;
};

}  // namespace Merivane::Seg::internal
