#!/usr/bin/env bash
# The undo serializer's writer pool and the thread pool under ThreadSanitizer, by hand (not
# part of scripts/test.sh). Builds LabelingTests and HostCoreTests into build-tsan/ and runs the
# tests that cross threads. Tests with OpenMP regions are left out: libgomp is not
# instrumented, so TSan reports its barriers as races.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ ! -f build-tsan/build.ninja ]; then
  cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMERIVANE_TSAN=ON -DMERIVANE_BUILD_BENCH=OFF
fi
cmake --build build-tsan -j "$(nproc)" --target LabelingTests UndoCrashWriter HostCoreTests
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
build-tsan/bin/LabelingTests \
  --gtest_filter='UndoSerializer.*:*UndoStackDamage.*:*UndoCrash.*:UndoRecorder.HistoryReadBackAfterRestartIsExact:UndoRecorder.LevelsThatDoNotFitTheSetAreNotTakenOver:UndoRecorder.DirectoryThatCannotBeMadeKeepsTheHistoryInMemory'
build-tsan/bin/HostCoreTests --gtest_filter='*ThreadPool*'
echo "tsan-undo: no data races reported"
