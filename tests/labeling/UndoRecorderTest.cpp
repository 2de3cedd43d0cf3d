#include "UndoRecorder.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "LabelDataComponent.h"
#include "Log.h"
#include "TestSupport.h"
#include "UndoSerializer.h"
#include "UndoTestKit.h"

using namespace Merivane;
using Merivane::Seg::UndoRecorder;
using Merivane::TestKit::LogCapture;
using Merivane::TestKit::ScratchDir;
using Merivane::TestKit::voxelCopy;

namespace {

const std::string kCategory = "Seg.UndoRecorder";

std::unique_ptr<SharedImageSet> makeFrames(int frames, const Eigen::Vector3i& dims, unsigned seed) {
  auto set = TestKit::makeSet(U8, dims, frames);
  std::mt19937 rng(seed);
  for (int f = 0; f < frames; ++f) TestKit::paintBox(*set, f, rng);
  return set;
}

// Bytes the levels really hold: every distinct frame buffer once, plus the component texts.
uint64_t heldBytes(const UndoRecorder& r) {
  std::set<const ByteBuffer*> seen;
  uint64_t bytes = 0;
  for (const auto& level : r.levels()) {
    for (const auto& f : level.frames)
      if (seen.insert(f.get()).second) bytes += f->size();
    for (const auto& c : level.components) bytes += c.size();
  }
  return bytes;
}

void zeroAll(SharedImageSet& set) {
  for (int i = 0; i < set.size(); ++i) std::memset(set.mem(i)->data(), 0, set.mem(i)->byteSize());
}

}  // namespace

TEST(UndoRecorder, FirstLevelStoresEveryFrameLaterEmptyListsNothing) {
  auto set = makeFrames(3, {9, 7, 5}, 1);
  const auto original = voxelCopy(*set);
  UndoRecorder r(*set, 1 << 20, {});
  EXPECT_TRUE(r.recordUndoLevel("first", 10, {}));
  ASSERT_EQ(r.levelCount(), 1u);
  zeroAll(*set);
  EXPECT_EQ(r.restoreUndoLevel(0), 0);
  EXPECT_EQ(voxelCopy(*set), original);
  // Later, an empty list records nothing.
  const auto size = r.currentSize();
  EXPECT_FALSE(r.recordUndoLevel("second", 11, {}));
  EXPECT_EQ(r.levelCount(), 1u);
  EXPECT_EQ(r.currentSize(), size);
}

TEST(UndoRecorder, OneChangedFrameOfHundredCostsOneFrame) {
  auto set = makeFrames(100, {16, 12, 1}, 3);
  UndoRecorder r(*set, 1ul << 30, {});
  ASSERT_TRUE(r.recordUndoLevel("all", 0));
  const auto before = r.currentSize();
  std::mt19937 rng(4);
  TestKit::paintBox(*set, 37, rng);
  ASSERT_TRUE(r.recordUndoLevel("one", 1, {37}));
  const auto& a = r.levels()[0];
  const auto& b = r.levels()[1];
  for (size_t i = 0; i < 100; ++i)
    if (i != 37) {
      EXPECT_EQ(a.frames[i], b.frames[i]) << i;
    }
  EXPECT_NE(a.frames[37], b.frames[37]);
  EXPECT_EQ(r.currentSize() - before, b.frames[37]->size());
  EXPECT_EQ(r.currentSize(), heldBytes(r));
}

TEST(UndoRecorder, ZeroLimitKeepsOnlyTheNewestLevel) {
  auto set = makeFrames(2, {12, 9, 4}, 7);
  UndoRecorder r(*set, 0, {});
  std::mt19937 rng(8);
  for (unsigned long k = 0; k < 6; ++k) {
    TestKit::paintBox(*set, static_cast<int>(k % 2), rng);
    ASSERT_TRUE(r.recordUndoLevel("edit", k, {k % 2}));
    ASSERT_EQ(r.levelCount(), 1u);
    EXPECT_EQ(r.levels()[0].id, k);
    EXPECT_EQ(r.currentSize(), heldBytes(r));
  }
  const auto last = voxelCopy(*set);
  zeroAll(*set);
  EXPECT_EQ(r.restoreUndoLevel(0), 0);
  EXPECT_EQ(voxelCopy(*set), last);
}

TEST(UndoRecorder, RestoreBeyondTheLastLevelLeavesTheImagesAlone) {
  auto set = makeFrames(2, {6, 6, 2}, 9);
  UndoRecorder r(*set, 1 << 20, {});
  ASSERT_TRUE(r.recordUndoLevel("a", 0));
  zeroAll(*set);
  const auto zeros = voxelCopy(*set);
  LogCapture log;
  EXPECT_EQ(r.restoreUndoLevel(1), -1);
  EXPECT_EQ(voxelCopy(*set), zeros);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(UndoRecorder, ComponentThatLeftTheSetIsSkippedInSilence) {
  auto set = makeFrames(1, {4, 4, 2}, 12);
  set->components().add(std::make_unique<LabelDataComponent>(set.get()))->setLabelName(1, "Liver");
  UndoRecorder r(*set, 1 << 20, {"LabelDataComponent"});
  ASSERT_TRUE(r.recordUndoLevel("a", 0));
  const auto voxels = voxelCopy(*set);
  set->components().clear();
  zeroAll(*set);
  LogCapture log;
  EXPECT_EQ(r.restoreUndoLevel(0), 0);
  EXPECT_EQ(voxelCopy(*set), voxels);
  EXPECT_TRUE(log.lines().empty());
}

// A set that changed its frames after the recorder was made: one line, nothing recorded,
// nothing restored.
TEST(UndoRecorder, SetThatChangedShapeIsRefused) {
  for (bool grow : {true, false}) {
    auto set = makeFrames(2, {6, 5, 3}, 13);
    UndoRecorder r(*set, 1 << 20, {});
    ASSERT_TRUE(r.recordUndoLevel("a", 0));
    if (grow)
      set->add(std::shared_ptr<Image>(MemImage::create(ImageDescriptor(U8, Eigen::Vector3i(6, 5, 3), 1))));
    else
      set->replace(1, std::make_shared<SharedImage>(
                          std::shared_ptr<Image>(MemImage::create(ImageDescriptor(U8, Eigen::Vector3i(6, 5, 2), 1)))));
    const auto now = voxelCopy(*set);
    const auto size = r.currentSize();
    LogCapture log;
    EXPECT_FALSE(r.recordUndoLevel("b", 1, {0}));
    EXPECT_EQ(log.count(Log::Error, kCategory), 1);
    EXPECT_EQ(r.levelCount(), 1u);
    EXPECT_EQ(r.currentSize(), size);
    EXPECT_EQ(r.restoreUndoLevel(0), -1);
    EXPECT_EQ(log.count(Log::Error, kCategory), 2);
    EXPECT_EQ(voxelCopy(*set), now);
  }
}

// A refused recording must not let the next level share the frame it failed to record.
TEST(UndoRecorder, RefusedChangeIsRecordedWithTheNextLevel) {
  auto set = makeFrames(3, {7, 7, 2}, 14);
  UndoRecorder r(*set, 1 << 20, {});
  ASSERT_TRUE(r.recordUndoLevel("a", 5));
  std::mt19937 rng(15);
  TestKit::paintBox(*set, 0, rng);
  {
    LogCapture log;
    EXPECT_FALSE(r.recordUndoLevel("same id", 5, {0}));
    EXPECT_EQ(log.count(Log::Error, kCategory), 1);
  }
  TestKit::paintBox(*set, 2, rng);
  ASSERT_TRUE(r.recordUndoLevel("b", 6, {2}));
  const auto expected = voxelCopy(*set);
  zeroAll(*set);
  ASSERT_EQ(r.restoreUndoLevel(1), 0);
  EXPECT_EQ(voxelCopy(*set), expected);
}

// Frames are compressed one by one whatever the threads, so the levels are the same bytes;
// 1, 7, 9 and 33 frames straddle the chunk edges of the loops, and are large enough to run
// in parallel.
TEST(UndoRecorder, SerialAndParallelGiveTheSameLevels) {
  const int threadsWas = omp_get_max_threads();
  for (int frames : {1, 7, 9, 33}) {
    std::vector<Seg::internal::UndoLevel> got;
    std::vector<std::vector<ByteBuffer>> restored;
    for (int threads : {1, 4}) {
      omp_set_num_threads(threads);
      auto set = makeFrames(frames, {128, 96, 16}, 16);
      UndoRecorder r(*set, 1ul << 30, {});
      ASSERT_TRUE(r.recordUndoLevel("a", 0));
      got.push_back(r.levels()[0]);
      zeroAll(*set);
      r.restoreUndoLevel(0);
      restored.push_back(voxelCopy(*set));
    }
    EXPECT_TRUE(got[0] == got[1]) << frames << " frames";
    EXPECT_EQ(restored[0], restored[1]);
  }
  omp_set_num_threads(threadsWas);
}

// Random edits, undo, redo and forks against a model that keeps full copies of every level.
struct ModelCase {
  int frames;
  Eigen::Vector3i dims;
  unsigned long limit;
  unsigned seed;
};

void PrintTo(const ModelCase& c, std::ostream* os) {
  *os << c.frames << " frames of " << c.dims.transpose() << ", budget " << c.limit << ", seed " << c.seed;
}

class UndoRecorderModel : public testing::TestWithParam<ModelCase> {};

TEST_P(UndoRecorderModel, EveryRestoredLevelEqualsItsCopyAndMemoryStaysInBudget) {
  const ModelCase c = GetParam();
  auto set = makeFrames(c.frames, c.dims, c.seed);
  auto* labels = set->components().add(std::make_unique<LabelDataComponent>(set.get()));
  UndoRecorder r(*set, c.limit, {"LabelDataComponent"});

  struct Copy {
    unsigned long id;
    int focus;
    std::vector<ByteBuffer> voxels;
    std::map<int, LabelDataComponent::LabelConfig> labels;
  };
  std::vector<Copy> model;
  std::mt19937 rng(c.seed);
  unsigned long nextId = 100;
  size_t cursor = 0;  // the level the set shows

  auto record = [&](std::vector<unsigned long> changed) {
    set->selection().setFocus(static_cast<int>(rng() % static_cast<unsigned>(c.frames)));
    ASSERT_TRUE(r.recordUndoLevel("edit", nextId, changed));
    model.push_back({nextId++, set->selection().focus(), voxelCopy(*set), labels->labelConfigs()});
    // Evicted levels are the oldest ones.
    while (model.size() > r.levelCount()) model.erase(model.begin());
    cursor = r.levelCount() - 1;
  };
  auto check = [&](size_t index) {
    const int focus = r.restoreUndoLevel(index);
    ASSERT_EQ(focus, model[index].focus);
    ASSERT_TRUE(voxelCopy(*set) == model[index].voxels) << "level " << index;
    ASSERT_TRUE(labels->labelConfigs() == model[index].labels);
  };

  record({});
  for (int step = 0; step < 2000; ++step) {
    const unsigned op = rng() % 10;
    if (op < 2 && cursor > 0) {
      check(--cursor);  // undo
    } else if (op < 4 && cursor + 1 < r.levelCount()) {
      check(++cursor);  // redo
    } else {
      // An edit; over a fork the levels above the cursor go first.
      r.deleteLevelsAfter(cursor);
      model.resize(cursor + 1);
      std::vector<unsigned long> changed;
      const int edits = 1 + static_cast<int>(rng() % 2);
      for (int e = 0; e < edits; ++e) {
        const int f = static_cast<int>(rng() % static_cast<unsigned>(c.frames));
        TestKit::paintBox(*set, f, rng);
        changed.push_back(static_cast<unsigned long>(f));
      }
      if (rng() % 8 == 0) labels->setLabelName(static_cast<int>(rng() % 5), "label " + std::to_string(step));
      if (rng() % 16 == 0) changed.push_back(static_cast<unsigned long>(c.frames) + 3);  // ignored
      record(changed);
    }
    if (HasFatalFailure()) return;
    ASSERT_EQ(r.levelCount(), model.size());
    for (size_t k = 0; k < model.size(); ++k) ASSERT_EQ(r.levels()[k].id, model[k].id);
    ASSERT_EQ(r.currentSize(), heldBytes(r));
    if (r.levelCount() > 1) {
      ASSERT_LE(r.currentSize(), c.limit);
    }
  }
  for (size_t k = model.size(); k-- > 0;) {
    check(k);
    if (HasFatalFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Histories, UndoRecorderModel,
                         testing::Values(ModelCase{1, {24, 20, 12}, 1ul << 30, 1},  // no eviction
                                         ModelCase{1, {24, 20, 12}, 6000, 2},       // a few levels
                                         ModelCase{9, {16, 12, 1}, 1ul << 30, 3},   // a sweep
                                         ModelCase{9, {16, 12, 1}, 1500, 4}),
                         [](const testing::TestParamInfo<ModelCase>& info) {
                           return "Frames" + std::to_string(info.param.frames) +
                                  (info.param.limit < (1ul << 30) ? "Budget" + std::to_string(info.param.limit)
                                                                  : std::string("Unlimited"));
                         });

// Files mirror the levels in memory: eviction and forks remove theirs, and a new recorder
// reads the history back with frames shared as before.
TEST(UndoRecorder, HistoryReadBackAfterRestartIsExact) {
  ScratchDir dir("restart");
  std::vector<std::vector<ByteBuffer>> copies;
  uint64_t sizeBefore = 0;
  std::vector<Seg::internal::UndoLevel> levelsBefore;
  {
    auto set = makeFrames(5, {12, 10, 1}, 20);
    set->components().add(std::make_unique<LabelDataComponent>(set.get()))->setLabelName(3, "Aorta");
    UndoRecorder r(*set, 1 << 20, {"LabelDataComponent"});
    r.setupSerializer(dir.path());
    r.setWaitDeletingDone(true);
    std::mt19937 rng(21);
    for (unsigned long k = 0; k < 8; ++k) {
      TestKit::paintBox(*set, static_cast<int>(k % 5), rng);
      ASSERT_TRUE(r.recordUndoLevel("edit", k, {k % 5}));
      copies.push_back(voxelCopy(*set));
    }
    r.deleteLevelsAfter(5);  // levels 6 and 7 go, with their files
    copies.resize(6);
    r.waitWritingDone();
    EXPECT_EQ(dir.names(), (std::vector<std::string>{"0.bin", "1.bin", "2.bin", "3.bin", "4.bin", "5.bin"}));
    sizeBefore = r.currentSize();
    levelsBefore = r.levels();
  }
  auto set = TestKit::makeSet(U8, {12, 10, 1}, 5);
  auto* labels = set->components().add(std::make_unique<LabelDataComponent>(set.get()));
  UndoRecorder r(*set, 1 << 20, {"LabelDataComponent"});
  r.setupSerializer(dir.path());
  ASSERT_EQ(r.loadHistory(), 6u);
  EXPECT_EQ(r.currentSize(), sizeBefore);
  for (size_t k = 0; k < 6; ++k) {
    EXPECT_TRUE(r.levels()[k] == levelsBefore[k]);
    for (size_t i = 0; i < 5; ++i)
      if (k > 0 && i != k % 5) {
        EXPECT_EQ(r.levels()[k].frames[i], r.levels()[k - 1].frames[i]);
      }
    ASSERT_EQ(r.restoreUndoLevel(k), 0);
    EXPECT_EQ(voxelCopy(*set), copies[k]) << k;
  }
  EXPECT_EQ(labels->labelConfig(3)->name, "Aorta");
}

TEST(UndoRecorder, LevelsThatDoNotFitTheSetAreNotTakenOver) {
  ScratchDir dir("misfit");
  {
    auto set = makeFrames(2, {6, 6, 1}, 22);
    UndoRecorder r(*set, 1 << 20, {});
    r.setupSerializer(dir.path());
    ASSERT_TRUE(r.recordUndoLevel("a", 0));
  }
  auto other = makeFrames(2, {6, 7, 1}, 23);
  const auto voxels = voxelCopy(*other);
  UndoRecorder r(*other, 1 << 20, {});
  r.setupSerializer(dir.path());
  LogCapture log;
  EXPECT_EQ(r.loadHistory(), 0u);
  EXPECT_EQ(r.levelCount(), 0u);
  EXPECT_EQ(log.count(Log::Error, kCategory), 1);
  EXPECT_EQ(voxelCopy(*other), voxels);
}

// Disk trouble never costs an edit: without a usable directory the history lives in memory.
TEST(UndoRecorder, DirectoryThatCannotBeMadeKeepsTheHistoryInMemory) {
  ScratchDir dir("blocked");
  std::ofstream(dir.file("plain")) << "x";
  auto set = makeFrames(1, {5, 5, 5}, 24);
  UndoRecorder r(*set, 1 << 20, {});
  {
    LogCapture log;
    r.setupSerializer(dir.file("plain") + "/undo");
    EXPECT_TRUE(log.contains("Could not create directory for undo files"));
  }
  EXPECT_TRUE(r.recordUndoLevel("a", 0));
  r.waitWritingDone();
  EXPECT_EQ(r.levelCount(), 1u);
}
