#include "UndoSerializer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "Compression.h"
#include "TestSupport.h"
#include "UndoTestKit.h"

using namespace Merivane;
using Merivane::Seg::internal::UndoLevel;
using Merivane::Seg::internal::UndoSerializer;
using Merivane::TestKit::LogCapture;
using Merivane::TestKit::ScratchDir;

namespace {

std::shared_ptr<ByteBuffer> bytes(std::initializer_list<unsigned char> b) { return std::make_shared<ByteBuffer>(b); }

ByteBuffer compressed(const ByteBuffer& raw) {
  ByteBuffer out(Compression::zstd::getMaxCompressedSize(raw.size()));
  Compression::zstd::Context c;
  out.resize(c.compressTo(raw, out, 1));
  return out;
}

// A level whose frames and components are real zstd frames, as the recorder makes them.
UndoLevel realLevel(uint64_t id, unsigned seed) {
  std::mt19937 rng(seed);
  UndoLevel level;
  for (int f = 0; f < 3; ++f) {
    ByteBuffer raw(500 + rng() % 500, static_cast<unsigned char>(f));
    for (int k = 0; k < 40; ++k) raw[rng() % raw.size()] = static_cast<unsigned char>(rng());
    level.frames.push_back(std::make_shared<ByteBuffer>(compressed(raw)));
  }
  level.components.push_back(compressed(ByteBuffer(100, 'x')));
  level.id = id;
  level.focus = static_cast<int32_t>(seed % 3);
  level.description = "stroke " + std::to_string(id);
  return level;
}

std::string serialized(const UndoLevel& level) {
  std::ostringstream out;
  EXPECT_TRUE(UndoSerializer::writeOut(out, level));
  return out.str();
}

std::optional<UndoLevel> parse(const std::string& data, std::string* error = nullptr) {
  std::istringstream in(data);
  return UndoSerializer::readIn(in, error);
}

void writeLevels(const ScratchDir& dir, const std::vector<UndoLevel>& levels) {
  UndoSerializer s(dir.path());
  for (const auto& l : levels) s.writeUndoFileAsync(l);
  s.waitUntilWriterFinished();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void writeFile(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

}  // namespace

TEST(UndoSerializer, FileLayoutByHand) {
  UndoLevel level;
  level.frames = {bytes({1, 2, 3}), bytes({4})};
  level.id = 0x0102030405060708ull;
  level.focus = 2;
  level.description = "ab";
  level.components = {ByteBuffer{9, 9}};
  const unsigned char expected[] = {
      20, 0, 0, 0,                      // 12 + 2 + 3 + 1 + 2
      2,  0, 0, 0,                      // frames
      3,  0, 0, 0, 1, 2, 3,             //
      1,  0, 0, 0, 4,                   //
      8,  7, 6, 5, 4, 3, 2, 1,          // id
      2,  0, 0, 0,                      // focus
      2,  0, 0, 0, 'a', 'b',            // description
      1,  0, 0, 0, 2, 0, 0, 0, 9, 9};  // components
  const std::string data = serialized(level);
  EXPECT_EQ(data, std::string(reinterpret_cast<const char*>(expected), sizeof(expected)));
  auto back = parse(data);
  ASSERT_TRUE(back);
  EXPECT_TRUE(*back == level);
}

TEST(UndoSerializer, LevelWithoutFramesWritesNothing) {
  UndoLevel level;
  level.description = "empty";
  EXPECT_EQ(serialized(level), "");
}

// Every cut is refused, except one: a level without components cut before its component
// count is the earlier form of the file and reads whole.
TEST(UndoSerializer, CutFilesAreRefusedExceptTheEarlierForm) {
  for (bool withComponents : {false, true}) {
    UndoLevel level = realLevel(7, 1);
    if (!withComponents) level.components.clear();
    const std::string data = serialized(level);
    const size_t afterDescription = data.size() - 4 - (withComponents ? 4 + 4 + level.components[0].size() : 0);
    LogCapture log;
    for (size_t cut = 0; cut < data.size(); ++cut) {
      auto back = parse(data.substr(0, cut));
      if (cut == afterDescription && !withComponents) {
        ASSERT_TRUE(back) << cut;
        EXPECT_TRUE(*back == level);
      } else {
        EXPECT_FALSE(back) << "cut at " << cut << " of " << data.size();
      }
    }
  }
}

TEST(UndoSerializer, ChangedTotalSizeIsACorruptLevel) {
  std::string data = serialized(realLevel(3, 2));
  data[1] = static_cast<char>(data[1] ^ 0x10);
  LogCapture log;
  std::string why;
  EXPECT_FALSE(parse(data, &why));
  EXPECT_TRUE(log.contains("Found corrupted undo level"));
  EXPECT_NE(why.find("header says"), std::string::npos) << why;
}

TEST(UndoSerializer, EmptyComponentIsLeftOutAndReadingGoesOn) {
  UndoLevel level = realLevel(4, 3);
  level.components.insert(level.components.begin(), ByteBuffer{});
  const std::string data = serialized(level);
  LogCapture log;
  auto back = parse(data);
  ASSERT_TRUE(back);
  EXPECT_TRUE(log.contains("Could not restore component"));
  level.components.erase(level.components.begin());
  EXPECT_TRUE(*back == level);
}

TEST(UndoSerializer, StackReadsBackWhatWasWritten) {
  ScratchDir dir("stack");
  std::vector<UndoLevel> levels;
  for (uint64_t id : {3, 10, 2, 7}) levels.push_back(realLevel(id, static_cast<unsigned>(id)));
  writeLevels(dir, levels);
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"10.bin", "2.bin", "3.bin", "7.bin"}));  // no temporaries left

  UndoSerializer s(dir.path());
  auto back = s.restoreUndoStack(false);
  ASSERT_EQ(back.size(), 4u);
  std::sort(levels.begin(), levels.end(), [](auto& a, auto& b) { return a.id < b.id; });
  for (size_t k = 0; k < 4; ++k) EXPECT_TRUE(back[k] == levels[k]) << k;
  // Each file stands alone; the files equal writeOut's bytes.
  EXPECT_EQ(readFile(dir.file("7.bin")), serialized(levels[2]));
}

// A damaged level ends the history: the levels before it read, it and those after it are
// removed when asked, and the warning names the file and what is wrong.
enum class Damage { FlippedFrameByte, CutInHalf, TotalSize, Empty, WrongId, FlippedComponentByte };

const char* const kDamageNames[] = {"FlippedFrameByte", "CutInHalf", "TotalSize",
                                    "Empty",            "WrongId",   "FlippedComponentByte"};
std::string damageName(Damage d) { return kDamageNames[static_cast<int>(d)]; }
void PrintTo(Damage d, std::ostream* os) { *os << damageName(d); }

class UndoStackDamage : public testing::TestWithParam<Damage> {};

TEST_P(UndoStackDamage, EndsTheHistoryAtTheDamagedFile) {
  ScratchDir dir("damage");
  std::vector<UndoLevel> levels;
  for (uint64_t id = 1; id <= 5; ++id) levels.push_back(realLevel(id, static_cast<unsigned>(id)));
  writeLevels(dir, levels);

  const std::string path = dir.file("3.bin");
  std::string data = readFile(path);
  switch (GetParam()) {
    case Damage::FlippedFrameByte: data[8 + 20] = static_cast<char>(data[8 + 20] ^ 0x55); break;
    case Damage::CutInHalf: data.resize(data.size() / 2); break;
    case Damage::TotalSize: data[0] = static_cast<char>(data[0] + 1); break;
    case Damage::Empty: data.clear(); break;
    case Damage::WrongId: data = readFile(dir.file("4.bin")); break;
    case Damage::FlippedComponentByte: data[data.size() - 6] = static_cast<char>(data[data.size() - 6] ^ 0x55); break;
  }
  writeFile(path, data);

  for (bool remove : {false, true}) {
    LogCapture log;
    UndoSerializer s(dir.path());
    auto back = s.restoreUndoStack(remove);
    s.waitUntilWriterFinished();
    ASSERT_EQ(back.size(), 2u);
    EXPECT_TRUE(back[0] == levels[0]);
    EXPECT_TRUE(back[1] == levels[1]);
    EXPECT_TRUE(log.contains("Interrupt reading at corrupt undo level. Error: " + path));
  }
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"1.bin", "2.bin"}));
}

INSTANTIATE_TEST_SUITE_P(Kinds, UndoStackDamage,
                         testing::Values(Damage::FlippedFrameByte, Damage::CutInHalf, Damage::TotalSize, Damage::Empty,
                                         Damage::WrongId, Damage::FlippedComponentByte),
                         [](const testing::TestParamInfo<Damage>& info) { return damageName(info.param); });

TEST(UndoSerializer, StrayFilesAreSkippedAndLeftoverTemporariesRemoved) {
  ScratchDir dir("stray");
  writeLevels(dir, {realLevel(1, 1), realLevel(2, 2)});
  writeFile(dir.file("notes.bin"), "hello");
  writeFile(dir.file("3.txt"), "hello");
  writeFile(dir.file(".3.bin.tmp"), serialized(realLevel(3, 3)).substr(0, 40));
  std::filesystem::create_directory(dir.file("4.bin"));
  LogCapture log;
  UndoSerializer s(dir.path());
  auto back = s.restoreUndoStack(true);
  s.waitUntilWriterFinished();
  EXPECT_EQ(back.size(), 2u);
  EXPECT_TRUE(log.contains("notes.bin"));
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"1.bin", "2.bin", "3.txt", "4.bin", "notes.bin"}));
}

TEST(UndoSerializer, MissingDirectoryGivesAnEmptyHistory) {
  LogCapture log;
  UndoSerializer s("/nonexistent/merivane/undo");
  EXPECT_TRUE(s.restoreUndoStack(true).empty());
  EXPECT_TRUE(log.contains("Trying to restore from non-existing file"));
}

// Beyond the kept count the oldest files go, the newest stay; every level is still returned.
TEST(UndoSerializer, TidyingKeepsTheNewestFiles) {
  ScratchDir dir("many");
  std::vector<UndoLevel> levels;
  for (uint64_t id = 0; id < 25; ++id) levels.push_back(realLevel(id, 7));
  writeLevels(dir, levels);
  UndoSerializer s(dir.path());
  auto back = s.restoreUndoStack(true);
  s.waitUntilWriterFinished();
  EXPECT_EQ(back.size(), 25u);
  auto names = dir.names();
  EXPECT_EQ(names.size(), 20u);
  for (int id = 0; id < 5; ++id) EXPECT_FALSE(std::filesystem::exists(dir.file(std::to_string(id) + ".bin")));
  EXPECT_TRUE(std::filesystem::exists(dir.file("24.bin")));
}

// A deletion queued before a write of the same id does not take the new file.
TEST(UndoSerializer, DeletionRunsInOrderWithWrites) {
  ScratchDir dir("order");
  UndoSerializer s(dir.path());
  s.writeUndoFileAsync(realLevel(1, 1));
  s.deleteUndoFilesAsync({1});
  s.writeUndoFileAsync(realLevel(1, 2));
  s.waitUntilWriterFinished();
  EXPECT_EQ(readFile(dir.file("1.bin")), serialized(realLevel(1, 2)));
}

TEST(UndoSerializer, UnwritableDirectoryReportsAndKeepsRunning) {
  LogCapture log;
  {
    UndoSerializer s("/nonexistent/merivane/undo");
    s.writeUndoFileAsync(realLevel(1, 1));
    s.waitUntilWriterFinished();
  }
  EXPECT_TRUE(log.contains("Cannot open file to write undo stack"));
}
