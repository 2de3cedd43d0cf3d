// Records the crash scenario's levels with a serializer as fast as it can, until it is
// killed: `UndoCrashWriter DIRECTORY LEVELS`.
#include <cstdlib>
#include <iostream>

#include "Log.h"
#include "UndoRecorder.h"
#include "UndoTestKit.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: UndoCrashWriter DIRECTORY LEVELS\n";
    return 2;
  }
  using namespace Merivane;
  auto set = TestKit::CrashScenario::makeSet();
  Seg::UndoRecorder recorder(*set, ~0ul, {});
  recorder.setupSerializer(argv[1]);
  const unsigned levels = static_cast<unsigned>(std::atoi(argv[2]));
  for (unsigned step = 0; step < levels; ++step) {
    const int frame = TestKit::CrashScenario::applyStep(*set, step);
    if (!recorder.recordUndoLevel("step", step, {static_cast<unsigned long>(frame)})) return 1;
  }
  recorder.waitWritingDone();
  return 0;
}
