#include "UndoSerializer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <istream>
#include <ostream>
#include <system_error>

#include "Compression.h"
#include "Log.h"
#include "ThreadPool.h"

namespace Merivane::Seg::internal {

namespace fs = std::filesystem;

namespace {

const char* const kCategory = "Seg.UndoRecorder";

// Integers are written byte by byte, least significant first, whatever the machine.
template <typename T>
void putInt(std::ostream& out, T value) {
  unsigned char bytes[sizeof(T)];
  for (size_t i = 0; i < sizeof(T); ++i) bytes[i] = static_cast<unsigned char>(static_cast<uint64_t>(value) >> (8 * i));
  out.write(reinterpret_cast<const char*>(bytes), sizeof(T));
}

template <typename T>
bool getInt(std::istream& in, T& value) {
  unsigned char bytes[sizeof(T)];
  if (!in.read(reinterpret_cast<char*>(bytes), sizeof(T))) return false;
  uint64_t v = 0;
  for (size_t i = 0; i < sizeof(T); ++i) v |= static_cast<uint64_t>(bytes[i]) << (8 * i);
  value = static_cast<T>(v);
  return true;
}

// Reads in slices, so that a size field damaged into gigabytes fails at the end of the stream
// instead of allocating what it claims.
bool getBytes(std::istream& in, size_t n, ByteBuffer& out) {
  constexpr size_t kSlice = size_t{1} << 24;
  out.clear();
  while (out.size() < n) {
    const size_t old = out.size();
    const size_t step = std::min(kSlice, n - old);
    out.resize(old + step);
    in.read(reinterpret_cast<char*>(out.data() + old), static_cast<std::streamsize>(step));
    if (static_cast<size_t>(in.gcount()) != step) return false;
  }
  return true;
}

bool fitsU32(uint64_t v) { return v <= 0xFFFFFFFFull; }

// A file name without its extension as a level id: decimal digits only.
std::optional<uint64_t> parseId(const std::string& stem) {
  if (stem.empty() || stem.size() > 20) return std::nullopt;
  uint64_t v = 0;
  for (char c : stem) {
    if (c < '0' || c > '9') return std::nullopt;
    const uint64_t d = static_cast<uint64_t>(c - '0');
    if (v > (UINT64_MAX - d) / 10) return std::nullopt;
    v = v * 10 + d;
  }
  return v;
}

bool isLeftoverTemporary(const fs::path& p) {
  const std::string name = p.filename().string();
  return name.size() > 1 && name[0] == '.' && p.extension() == ".tmp";
}

void removeFiles(const std::vector<std::string>& paths) {
  for (const auto& path : paths) {
    std::error_code ec;
    if (!fs::exists(path, ec)) continue;
    if (!fs::remove(path, ec) || ec)
      LOG_WARN(kCategory,
               "Could not remove undo file, restoring might not be correct: " << path << ": " << ec.message());
  }
}

// Flushes a written file, and the directory entry of its new name, to the disk.
bool syncPath(const std::string& path, bool directory) {
  int fd = ::open(path.c_str(), directory ? (O_RDONLY | O_DIRECTORY) : O_RDONLY);
  if (fd < 0) return false;
  bool ok = ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

// Why a level read from `path` cannot be used, or empty when it can. Frames equal to the
// previous level's frame at the same index were checked with that level and share its buffer.
std::string checkLevel(UndoLevel& level, uint64_t nameId, const UndoLevel* previous) {
  if (level.id != nameId) return "holds level id " + std::to_string(level.id) + ", not the id of its name";
  for (size_t i = 0; i < level.frames.size(); ++i) {
    auto& frame = level.frames[i];
    if (previous && i < previous->frames.size() && *previous->frames[i] == *frame) {
      frame = previous->frames[i];
      continue;
    }
    if (!Compression::zstd::verify(*frame)) return "frame " + std::to_string(i) + " is damaged";
  }
  for (size_t i = 0; i < level.components.size(); ++i)
    if (!Compression::zstd::verify(level.components[i])) return "component " + std::to_string(i) + " is damaged";
  return {};
}

}  // namespace

bool operator==(const UndoLevel& a, const UndoLevel& b) {
  if (a.frames.size() != b.frames.size()) return false;
  for (size_t i = 0; i < a.frames.size(); ++i) {
    const ByteBuffer* fa = a.frames[i].get();
    const ByteBuffer* fb = b.frames[i].get();
    if (fa != fb && (!fa || !fb || *fa != *fb)) return false;
  }
  return a.description == b.description && a.focus == b.focus && a.id == b.id && a.components == b.components;
}

UndoSerializer::UndoSerializer(const std::string& directory)
    : directory_(directory), pool_(std::make_unique<Threading::ThreadPool>(1)) {}

UndoSerializer::~UndoSerializer() {
  pool_->waitUntilFinished();
  pool_->join();
  pool_.reset();
}

std::string UndoSerializer::levelPath(uint64_t id) const { return directory_ + "/" + std::to_string(id) + ".bin"; }

void UndoSerializer::writeUndoFileAsync(UndoLevel level) {
  try {
    pool_->enqueue([this, level = std::move(level)] { writeFile(level); });
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory,
              "Could not enqueue write to undo file. Undo file might not be restorable. Details: " << e.what());
  }
}

void UndoSerializer::writeFile(const UndoLevel& level) const {
  const std::string path = levelPath(level.id);
  const std::string tmp = directory_ + "/." + std::to_string(level.id) + ".bin.tmp";
  try {
    {
      std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
      if (!out) {
        LOG_ERROR(kCategory, "Cannot open file to write undo stack: " << tmp << ": " << std::strerror(errno));
        return;
      }
      const bool written = writeOut(out, level);
      out.close();
      if (!written || !out) {
        LOG_ERROR(kCategory, "Cannot write undo file "
                                 << path << ": the write failed (disk full?); the level stays in memory only");
        std::remove(tmp.c_str());
        return;
      }
    }
    if (!syncPath(tmp, false))
      LOG_WARN(kCategory, "Could not flush undo file " << tmp << " to disk: " << std::strerror(errno));
    if (std::rename(tmp.c_str(), path.c_str()) != 0) {
      LOG_ERROR(kCategory, "Cannot write undo file " << path << ": rename failed: " << std::strerror(errno));
      std::remove(tmp.c_str());
      return;
    }
    syncPath(directory_, true);
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "Cannot write undo file " << path << ": " << e.what());
    std::remove(tmp.c_str());
  }
}

void UndoSerializer::deleteUndoFilesAsync(std::vector<uint64_t> ids) {
  if (ids.empty()) return;
  std::vector<std::string> paths;
  paths.reserve(ids.size());
  for (uint64_t id : ids) paths.push_back(levelPath(id));
  try {
    pool_->enqueue([paths = std::move(paths)] { removeFiles(paths); });
  } catch (const std::exception& e) {
    LOG_WARN(kCategory, "Could not remove undo file, restoring might not be correct: " << e.what());
  }
}

void UndoSerializer::waitUntilWriterFinished() { pool_->waitUntilFinished(); }

bool UndoSerializer::writeOut(std::ostream& out, const UndoLevel& level) {
  if (level.frames.empty()) return true;
  uint64_t total = 12 + level.description.size();
  for (const auto& f : level.frames) {
    if (!f || !fitsU32(f->size())) return false;
    total += f->size();
  }
  for (const auto& c : level.components) {
    if (!fitsU32(c.size())) return false;
    total += c.size();
  }
  if (!fitsU32(total) || !fitsU32(level.frames.size()) || !fitsU32(level.components.size())) return false;

  putInt<uint32_t>(out, static_cast<uint32_t>(total));
  putInt<uint32_t>(out, static_cast<uint32_t>(level.frames.size()));
  for (const auto& f : level.frames) {
    putInt<uint32_t>(out, static_cast<uint32_t>(f->size()));
    out.write(reinterpret_cast<const char*>(f->data()), static_cast<std::streamsize>(f->size()));
  }
  putInt<uint64_t>(out, level.id);
  putInt<uint32_t>(out, static_cast<uint32_t>(level.focus));
  putInt<uint32_t>(out, static_cast<uint32_t>(level.description.size()));
  out.write(level.description.data(), static_cast<std::streamsize>(level.description.size()));
  putInt<uint32_t>(out, static_cast<uint32_t>(level.components.size()));
  for (const auto& c : level.components) {
    putInt<uint32_t>(out, static_cast<uint32_t>(c.size()));
    out.write(reinterpret_cast<const char*>(c.data()), static_cast<std::streamsize>(c.size()));
  }
  return static_cast<bool>(out);
}

std::optional<UndoLevel> UndoSerializer::readIn(std::istream& in, std::string* error) {
  auto fail = [&](std::string why) -> std::optional<UndoLevel> {
    if (error) *error = std::move(why);
    return std::nullopt;
  };
  try {
    UndoLevel level;
    uint32_t totalSize = 0, frameCount = 0;
    if (!getInt(in, totalSize)) return fail("no level header (empty or cut file)");
    if (!getInt(in, frameCount)) return fail("cut short in the frame count");
    uint64_t sum = 12;
    for (uint32_t i = 0; i < frameCount; ++i) {
      uint32_t size = 0;
      if (!getInt(in, size)) return fail("cut short at the size of frame " + std::to_string(i));
      auto frame = std::make_shared<ByteBuffer>();
      if (!getBytes(in, size, *frame))
        return fail("cut short inside frame " + std::to_string(i) + " (" + std::to_string(size) + " bytes announced)");
      sum += size;
      level.frames.push_back(std::move(frame));
    }
    uint32_t focus = 0, descriptionLength = 0;
    if (!getInt(in, level.id) || !getInt(in, focus) || !getInt(in, descriptionLength))
      return fail("cut short after the frames");
    level.focus = static_cast<int32_t>(focus);
    ByteBuffer description;
    if (!getBytes(in, descriptionLength, description)) return fail("cut short inside the description");
    level.description.assign(description.begin(), description.end());
    sum += descriptionLength;

    // Files of the earlier form end after the description.
    if (in.peek() != std::char_traits<char>::eof()) {
      uint32_t componentCount = 0;
      if (!getInt(in, componentCount)) return fail("cut short in the component count");
      for (uint32_t i = 0; i < componentCount; ++i) {
        uint32_t size = 0;
        if (!getInt(in, size)) return fail("cut short at the size of component " + std::to_string(i));
        ByteBuffer component;
        if (!getBytes(in, size, component)) return fail("cut short inside component " + std::to_string(i));
        sum += size;
        if (component.empty()) {
          LOG_WARN(kCategory, "Could not restore component");
          continue;
        }
        level.components.push_back(std::move(component));
      }
    }
    if (static_cast<uint32_t>(sum) != totalSize) {
      LOG_WARN(kCategory, "Found corrupted undo level");
      return fail("corrupted: the parts add up to " + std::to_string(static_cast<uint32_t>(sum)) +
                  " bytes, the header says " + std::to_string(totalSize));
    }
    return level;
  } catch (const std::exception& e) {
    return fail(std::string("read failed: ") + e.what());
  }
}

std::vector<UndoLevel> UndoSerializer::restoreUndoStack(bool removeUnreadable) {
  std::vector<UndoLevel> levels;
  std::error_code ec;
  if (!fs::is_directory(directory_, ec)) {
    LOG_ERROR(kCategory, "Trying to restore from non-existing file: " << directory_);
    return levels;
  }

  std::vector<std::pair<uint64_t, std::string>> files;
  std::vector<std::string> toRemove;
  for (fs::directory_iterator it(directory_, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path& p = it->path();
    std::error_code typeError;
    if (!it->is_regular_file(typeError)) continue;
    if (isLeftoverTemporary(p)) {
      if (removeUnreadable) toRemove.push_back(p.string());
      continue;
    }
    if (p.extension() != ".bin") continue;
    auto id = parseId(p.stem().string());
    if (!id) {
      LOG_WARN(kCategory, "Skipping " << p.string() << ": its name is not a level id");
      continue;
    }
    files.emplace_back(*id, p.string());
  }
  if (ec) LOG_ERROR(kCategory, "Could not list the undo directory " << directory_ << ": " << ec.message());
  std::sort(files.begin(), files.end());

  // The newest levels are the ones worth keeping: the oldest files beyond the count go, but
  // their levels are still read and returned.
  const size_t kept = static_cast<size_t>(levelsKept_);
  if (removeUnreadable && files.size() > kept)
    for (size_t i = 0; i + kept < files.size(); ++i) toRemove.push_back(files[i].second);

  for (size_t i = 0; i < files.size(); ++i) {
    const auto& [id, path] = files[i];
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      const std::error_code why(errno, std::generic_category());
      LOG_ERROR(kCategory, "Failed to open " << path << ".\n Exception: " << why.message()
                                             << ".\n Error Code: " << why.category().name() << ":" << why.value());
      continue;
    }
    std::string problem;
    auto level = readIn(in, &problem);
    if (level) problem = checkLevel(*level, id, levels.empty() ? nullptr : &levels.back());
    if (!level || !problem.empty()) {
      LOG_WARN(kCategory, "Interrupt reading at corrupt undo level. Error: " << path << ": " << problem);
      if (removeUnreadable)
        for (size_t j = i; j < files.size(); ++j) toRemove.push_back(files[j].second);
      break;
    }
    levels.push_back(std::move(*level));
  }

  if (!toRemove.empty()) {
    std::sort(toRemove.begin(), toRemove.end());
    toRemove.erase(std::unique(toRemove.begin(), toRemove.end()), toRemove.end());
    try {
      pool_->enqueue([paths = std::move(toRemove)] { removeFiles(paths); });
    } catch (const std::exception& e) {
      LOG_WARN(kCategory, "Could not remove undo file, restoring might not be correct: " << e.what());
    }
  }
  return levels;
}

}  // namespace Merivane::Seg::internal
