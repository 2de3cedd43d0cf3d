// Kills a process while its serializer writes, and reads the history back.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

#include "Compression.h"
#include "Log.h"
#include "TestSupport.h"
#include "UndoSerializer.h"
#include "UndoTestKit.h"

extern char** environ;

using namespace Merivane;
using Merivane::TestKit::ScratchDir;

namespace {

size_t countLevelFiles(const ScratchDir& dir) {
  size_t n = 0;
  for (const auto& name : dir.names())
    if (name.size() > 4 && name.substr(name.size() - 4) == ".bin" && name[0] != '.') ++n;
  return n;
}

}  // namespace

class UndoCrash : public testing::TestWithParam<int> {};

// Every level file that exists after the kill reads, and every level that reads equals the
// state its step left; the ids run without a gap from 0.
TEST_P(UndoCrash, EveryLevelThatReadsIsExact) {
  const size_t killAfter = static_cast<size_t>(GetParam());
  ScratchDir dir("crash");
  const std::string levels = "100000";
  char* args[] = {const_cast<char*>(MERIVANE_UNDO_CRASH_WRITER), const_cast<char*>(dir.path().c_str()),
                  const_cast<char*>(levels.c_str()), nullptr};
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, MERIVANE_UNDO_CRASH_WRITER, nullptr, nullptr, args, environ), 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (countLevelFiles(dir) < killAfter && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended before it was killed";

  const size_t files = countLevelFiles(dir);
  TestKit::LogCapture log;
  Seg::internal::UndoSerializer serializer(dir.path());
  auto read = serializer.restoreUndoStack(false);
  ASSERT_GE(read.size(), killAfter);
  EXPECT_EQ(read.size(), files) << "a level file under its final name did not read";
  EXPECT_EQ(log.count(Log::Warning) + log.count(Log::Error), 0);

  auto set = TestKit::CrashScenario::makeSet();
  for (unsigned step = 0; step < read.size(); ++step) {
    TestKit::CrashScenario::applyStep(*set, step);
    const auto& level = read[step];
    ASSERT_EQ(level.id, step);
    ASSERT_EQ(level.frames.size(), 2u);
    for (int f = 0; f < 2; ++f) {
      const ByteBuffer voxels = Compression::zstd::decompress(*level.frames[f]);
      const MemImage* m = set->mem(f);
      ASSERT_EQ(voxels.size(), m->byteSize());
      ASSERT_EQ(std::memcmp(voxels.data(), m->data(), voxels.size()), 0) << "level " << step << " frame " << f;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(KillPoints, UndoCrash, testing::Values(1, 4, 9));
