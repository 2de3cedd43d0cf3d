#include "UndoRecorder.h"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <filesystem>

#include "Compression.h"
#include "Log.h"
#include "Properties.h"
#include "SharedImageSet.h"
#include "UndoSerializer.h"

namespace Merivane::Seg {

using internal::UndoLevel;
namespace zstd = Compression::zstd;

namespace {

const char* const kCategory = "Seg.UndoRecorder";
// Recording runs between two strokes on the user's thread: the fastest level.
constexpr int kCompressionLevel = 1;
// Below this many bytes a parallel region costs more than it saves (waking threads on busy
// cores takes longer than compressing a few small frames).
constexpr size_t kParallelBytes = size_t{1} << 20;

ByteBufferView bytesOf(const MemImage& image) {
  return {static_cast<const unsigned char*>(image.data()), image.byteSize()};
}

// Compresses into `scratch`, doubling it up to `bound` while it is too small, and returns an
// exact-size copy; null when even `bound` bytes do not suffice (a library failure).
std::shared_ptr<ByteBuffer> compressFrame(zstd::Context& context, ByteBuffer& scratch, size_t bound,
                                          ByteBufferView input) {
  while (true) {
    const size_t n = context.compressTo(input, scratch, kCompressionLevel);
    if (n > 0) return std::make_shared<ByteBuffer>(scratch.begin(), scratch.begin() + static_cast<ptrdiff_t>(n));
    if (scratch.size() >= bound) return nullptr;
    ByteBuffer(std::min(bound, 2 * scratch.size())).swap(scratch);
  }
}

}  // namespace

UndoRecorder::UndoRecorder(SharedImageSet& images, unsigned long memoryLimit, std::vector<std::string> componentIds)
    : images_(images), memoryLimit_(memoryLimit), componentIds_(std::move(componentIds)) {
  frameBytes_.resize(static_cast<size_t>(std::max(0, images_.size())));
  for (size_t i = 0; i < frameBytes_.size(); ++i) {
    frameBytes_[i] = images_.get(static_cast<int>(i))->descriptor().byteSize();
    largestFrameBytes_ = std::max<uint64_t>(largestFrameBytes_, frameBytes_[i]);
  }
  unrecorded_.assign(frameBytes_.size(), 0);
}

UndoRecorder::~UndoRecorder() {
  // The writer still holds copies of levels: it finishes before the buffers go.
  serializer_.reset();
}

bool UndoRecorder::recordUndoLevel(const std::string& description, unsigned long id) {
  std::vector<unsigned long> all(frameBytes_.size());
  for (size_t i = 0; i < all.size(); ++i) all[i] = i;
  return recordUndoLevel(description, id, all);
}

bool UndoRecorder::recordUndoLevel(const std::string& description, unsigned long id,
                                   const std::vector<unsigned long>& changedFrames) {
  if (changedFrames.empty() && !levels_.empty()) return false;

  const size_t count = frameBytes_.size();
  auto refuse = [&](const auto&... why) {
    // The changes stay owed to the next level, so that it does not share stale frames.
    for (unsigned long f : changedFrames)
      if (f < count) unrecorded_[f] = 1;
    std::ostringstream s;
    (s << ... << why);
    LOG_ERROR(kCategory, "Level " << id << " (" << description << ") not recorded: " << s.str());
    return false;
  };
  if (count == 0) return refuse("the image set has no frames");
  if (images_.size() != static_cast<int>(count))
    return refuse("the image set has ", images_.size(), " frames, the history ", count);
  for (size_t i = 0; i < count; ++i)
    if (images_.get(static_cast<int>(i))->descriptor().byteSize() != frameBytes_[i])
      return refuse("frame ", i, " changed its size since the history began");
  for (size_t k = 0; k < levels_.size(); ++k)
    if (levels_[k].id == id) return refuse("level ", k, " has the same id");

  std::vector<size_t> todo;
  if (levels_.empty()) {
    for (size_t i = 0; i < count; ++i) todo.push_back(i);
  } else {
    std::vector<unsigned char> wanted = unrecorded_;
    for (unsigned long f : changedFrames)
      if (f < count) wanted[f] = 1;  // indices beyond the set are skipped
    for (size_t i = 0; i < count; ++i)
      if (wanted[i]) todo.push_back(i);
  }

  UndoLevel level;
  level.frames.resize(count);
  uint64_t bytes = 0;
  if (!compressFrames(todo, level, bytes)) return refuse("a frame could not be read or compressed");
  if (!levels_.empty()) {
    const UndoLevel& newest = levels_.back();
    for (size_t i = 0; i < count; ++i)
      if (!level.frames[i]) level.frames[i] = newest.frames[i];
  }
  level.id = id;
  level.focus = images_.selection().focus();
  level.description = description;
  currentSize_ += bytes;
  recordComponents(level);
  levels_.push_back(std::move(level));
  std::fill(unrecorded_.begin(), unrecorded_.end(), 0);

  evictOverBudget();
  if (serializer_) serializer_->writeUndoFileAsync(levels_.back());
  return true;
}

bool UndoRecorder::compressFrames(const std::vector<size_t>& todo, UndoLevel& level, uint64_t& bytes) {
  if (todo.empty()) return true;
  // Memory copies are fetched on this thread: a frame whose texture is newer downloads here.
  std::vector<const MemImage*> mems(todo.size());
  for (size_t k = 0; k < todo.size(); ++k)
    if (!(mems[k] = images_.mem(static_cast<int>(todo[k])))) return false;

  const size_t bound = zstd::getMaxCompressedSize(largestFrameBytes_);
  if (scratch_.empty()) scratch_.resize(std::max<size_t>(bound / 20, 64));

  std::vector<std::shared_ptr<ByteBuffer>> out(todo.size());
  const int n = static_cast<int>(todo.size());
  size_t total = 0;
  for (const MemImage* m : mems) total += m->byteSize();
  if (n == 1 || total < kParallelBytes || omp_get_max_threads() == 1) {
    zstd::Context context;
    for (int k = 0; k < n; ++k) out[k] = compressFrame(context, scratch_, bound, bytesOf(*mems[k]));
  } else {
    // Each frame is compressed alone with the same settings, so the bytes do not depend on
    // the thread that did it.
#pragma omp parallel
    {
      zstd::Context context;
      ByteBuffer scratch(scratch_.size());
#pragma omp for schedule(dynamic)
      for (int k = 0; k < n; ++k) out[k] = compressFrame(context, scratch, bound, bytesOf(*mems[k]));
    }
  }
  for (size_t k = 0; k < todo.size(); ++k) {
    if (!out[k]) return false;
    bytes += out[k]->size();
    level.frames[todo[k]] = std::move(out[k]);
  }
  return true;
}

void UndoRecorder::recordComponents(UndoLevel& level) {
  if (componentIds_.empty()) return;
  zstd::Context context;
  for (DataComponentBase* component : images_.components().getAll()) {
    if (!component) continue;
    const std::string cid = component->id();
    if (std::find(componentIds_.begin(), componentIds_.end(), cid) == componentIds_.end()) continue;
    Properties properties;
    component->configuration(&properties);
    properties.setParam("id", cid);
    std::string text;
    ByteBuffer compressed;
    size_t n = 0;
    if (PropertiesIO::saveToString(properties, PropertiesIO::Format::Xml, text)) {
      compressed.resize(zstd::getMaxCompressedSize(text.size()));
      n = context.compressTo({reinterpret_cast<const unsigned char*>(text.data()), text.size()}, compressed,
                             kCompressionLevel);
    }
    if (n == 0) {
      LOG_WARN(kCategory, "Could not serialize component with ID: " << cid);
      continue;
    }
    compressed.resize(n);
    compressed.shrink_to_fit();
    currentSize_ += n;
    level.components.push_back(std::move(compressed));
  }
}

bool UndoRecorder::fitsImages(const UndoLevel& level, std::string& why) const {
  const size_t count = level.frames.size();
  if (images_.size() != static_cast<int>(count) || frameBytes_.size() != count) {
    why = "the level has " + std::to_string(count) + " frames, the image set " + std::to_string(images_.size());
    return false;
  }
  for (size_t i = 0; i < count; ++i) {
    const auto& frame = level.frames[i];
    const SharedImage* image = images_.get(static_cast<int>(i));
    const auto size = frame ? zstd::frameContentSize(*frame) : std::nullopt;
    if (!size || *size != image->descriptor().byteSize()) {
      why = "frame " + std::to_string(i) + " does not hold " + std::to_string(image->descriptor().byteSize()) +
            " bytes of voxels";
      return false;
    }
  }
  return true;
}

int UndoRecorder::restoreUndoLevel(unsigned long index) {
  if (index >= levels_.size()) {
    LOG_WARN(kCategory, "Cannot restore level " << index << ": the history holds " << levels_.size());
    return -1;
  }
  const UndoLevel& level = levels_[index];
  std::string why;
  if (!fitsImages(level, why)) {
    LOG_ERROR(kCategory, "Cannot restore level " << index << " (id " << level.id << "): " << why);
    return -1;
  }
  const int n = static_cast<int>(level.frames.size());
  std::vector<MemImage*> mems(level.frames.size());
  for (int i = 0; i < n; ++i)
    if (!(mems[i] = images_.mem(i))) {
      LOG_ERROR(kCategory, "Cannot restore level " << index << ": frame " << i << " has no memory copy");
      return -1;
    }

  // Straight into the image memory. The frames were checked above, so a failure here means a
  // buffer was damaged in memory; the frames before it stay restored.
  std::atomic<int> failed{n};
  auto restoreFrame = [&](zstd::Context& context, int i) {
    MemImage* m = mems[i];
    const size_t size = m->byteSize();
    if (context.decompressTo(*level.frames[i], {static_cast<unsigned char*>(m->data()), size}) != size) {
      int expected = failed.load();
      while (i < expected && !failed.compare_exchange_weak(expected, i)) {
      }
    }
  };
  size_t total = 0;
  for (const MemImage* m : mems) total += m->byteSize();
  if (n == 1 || total < kParallelBytes) {
    zstd::Context context;
    for (int i = 0; i < n; ++i) restoreFrame(context, i);
  } else {
#pragma omp parallel
    {
      zstd::Context context;
#pragma omp for schedule(dynamic)
      for (int i = 0; i < n; ++i) restoreFrame(context, i);
    }
  }
  const int firstFailed = failed.load();
  for (int i = 0; i < std::min(n, firstFailed); ++i) images_.get(i)->setDirtyMem();
  if (firstFailed < n) {
    for (int i = firstFailed; i < n; ++i) images_.get(i)->setDirtyMem();
    LOG_ERROR(kCategory, "Cannot restore level " << index << ": frame " << firstFailed << " is damaged");
    return -1;
  }
  restoreComponents(level);
  std::fill(unrecorded_.begin(), unrecorded_.end(), 0);
  for (int i = 0; i < n; ++i) images_.contentChanged.emitSignal(i);
  return level.focus;
}

void UndoRecorder::restoreComponents(const UndoLevel& level) const {
  for (const ByteBuffer& compressed : level.components) {
    const ByteBuffer text = zstd::decompress(compressed);
    if (text.empty()) {
      LOG_WARN(kCategory, "Could not decompress component. Skipping.");
      continue;
    }
    auto properties = PropertiesIO::loadFromString(
        std::string_view(reinterpret_cast<const char*>(text.data()), text.size()), PropertiesIO::Format::Xml);
    if (!properties) {
      LOG_WARN(kCategory, "Could not restore component");
      continue;
    }
    std::string cid;
    if (!properties->param("id", cid)) continue;
    for (DataComponentBase* component : images_.components().getAll())
      if (component && component->id() == cid) {
        component->configure(properties.get());
        break;
      }
  }
}

uint64_t UndoRecorder::bytesOnlyIn(size_t index) const {
  // Levels share a frame only with their neighbours: each level takes the unchanged frames
  // of the newest level, and levels go only from either end.
  const UndoLevel& level = levels_[index];
  const UndoLevel* before = index > 0 ? &levels_[index - 1] : nullptr;
  const UndoLevel* after = index + 1 < levels_.size() ? &levels_[index + 1] : nullptr;
  uint64_t bytes = 0;
  for (size_t i = 0; i < level.frames.size(); ++i) {
    const auto& f = level.frames[i];
    if (!f) continue;
    const bool shared = (before && i < before->frames.size() && before->frames[i] == f) ||
                        (after && i < after->frames.size() && after->frames[i] == f);
    if (!shared) bytes += f->size();
  }
  for (const auto& c : level.components) bytes += c.size();
  return bytes;
}

void UndoRecorder::evictOverBudget() {
  std::vector<uint64_t> ids;
  size_t drop = 0;
  while (currentSize_ > memoryLimit_ && levels_.size() - drop > 1) {
    // Level `drop` is the oldest left; the ones before it are about to go with it.
    const UndoLevel& oldest = levels_[drop];
    const UndoLevel* after = &levels_[drop + 1];
    uint64_t bytes = 0;
    for (size_t i = 0; i < oldest.frames.size(); ++i)
      if (oldest.frames[i] && !(i < after->frames.size() && after->frames[i] == oldest.frames[i]))
        bytes += oldest.frames[i]->size();
    for (const auto& c : oldest.components) bytes += c.size();
    currentSize_ -= bytes;
    ids.push_back(oldest.id);
    ++drop;
  }
  if (drop == 0) return;
  levels_.erase(levels_.begin(), levels_.begin() + static_cast<ptrdiff_t>(drop));
  deleteUndoFilesAsync(std::move(ids));
}

void UndoRecorder::deleteLevelsAfter(unsigned long index) {
  if (index >= levels_.size() || index + 1 >= levels_.size()) return;
  std::vector<uint64_t> ids;
  while (levels_.size() > index + 1) {
    currentSize_ -= bytesOnlyIn(levels_.size() - 1);
    ids.push_back(levels_.back().id);
    levels_.pop_back();
  }
  deleteUndoFilesAsync(std::move(ids));
}

void UndoRecorder::deleteUndoFilesAsync(std::vector<uint64_t> ids) {
  if (!serializer_ || ids.empty()) return;
  serializer_->deleteUndoFilesAsync(std::move(ids));
  if (waitDeletingDone_) waitWritingDone();
}

void UndoRecorder::setupSerializer(const std::string& directory) {
  if (serializer_) {
    LOG_INFO(kCategory, "UndoSerializer already set");
    return;
  }
  std::error_code ec;
  if (directory.empty() || (!std::filesystem::is_directory(directory, ec) &&
                            (!std::filesystem::create_directories(directory, ec) || ec))) {
    LOG_ERROR(kCategory, "Could not create directory for undo files: " << directory
                                                                       << (ec ? ": " + ec.message() : std::string()));
    return;
  }
  undoDirectory_ = directory;
  serializer_ = std::make_unique<internal::UndoSerializer>(directory);
}

void UndoRecorder::setupSerializer(std::unique_ptr<internal::UndoSerializer> serializer) {
  if (!serializer) {
    LOG_ERROR(kCategory, "No serializer");
    return;
  }
  serializer_ = std::move(serializer);
  undoDirectory_ = serializer_->directory();
}

void UndoRecorder::waitWritingDone() const {
  if (!serializer_) return;
  try {
    serializer_->waitUntilWriterFinished();
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "Waiting for thread failed with: " << e.what());
  }
}

size_t UndoRecorder::loadHistory() {
  if (!serializer_) {
    LOG_ERROR(kCategory, "Cannot read the history back: no undo directory is set");
    return 0;
  }
  if (!levels_.empty()) {
    LOG_ERROR(kCategory, "Cannot read the history back from " << undoDirectory_ << ": this history already holds "
                                                              << levels_.size() << " levels");
    return 0;
  }
  return adoptLevels(serializer_->restoreUndoStack(true));
}

size_t UndoRecorder::adoptLevels(std::vector<UndoLevel> levels) {
  if (!levels_.empty()) {
    LOG_ERROR(kCategory, "Cannot take over " << levels.size() << " levels: this history already holds "
                                             << levels_.size());
    return 0;
  }
  size_t fitting = 0;
  for (; fitting < levels.size(); ++fitting) {
    std::string why;
    if (!fitsImages(levels[fitting], why)) {
      LOG_ERROR(kCategory, "Level id " << levels[fitting].id << " does not fit the image set (" << why
                                       << "); the history ends before it");
      break;
    }
  }
  levels.resize(fitting);
  for (size_t k = 0; k < levels.size(); ++k) {
    UndoLevel& level = levels[k];
    for (size_t i = 0; i < level.frames.size(); ++i) {
      if (k > 0 && (levels[k - 1].frames[i] == level.frames[i] || *levels[k - 1].frames[i] == *level.frames[i]))
        level.frames[i] = levels[k - 1].frames[i];
      else
        currentSize_ += level.frames[i]->size();
    }
    for (const auto& c : level.components) currentSize_ += c.size();
  }
  levels_ = std::move(levels);
  evictOverBudget();
  return levels_.size();
}

}  // namespace Merivane::Seg
