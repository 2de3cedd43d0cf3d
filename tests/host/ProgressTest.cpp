#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

#include "Progress.h"

namespace {

using namespace Merivane;

// Records what a progress display would be told.
class RecordingProgress : public Progress {
 public:
  std::vector<std::pair<int, int>> updates;  // (current, steps)
  int added = 0, removed = 0;

 protected:
  void onTaskAdded(TaskState&) override { ++added; }
  void onTaskUpdated(TaskState& t) override { updates.emplace_back(t.current.load(), t.steps.load()); }
  void onTaskRemoved(TaskState&) override { ++removed; }
};

TEST(Progress, TaskWithoutProgressCountsAndCancelsLocally) {
  Progress::Task t(nullptr, 10, "alone");
  EXPECT_FALSE(t.wasCanceled());
  t.incrementStep(3);
  t.incrementStep();
  t.setNumSteps(20);
  EXPECT_EQ(t.currentStep(), 4);
  EXPECT_EQ(t.numSteps(), 20);
  t.cancel();
  EXPECT_TRUE(t.wasCanceled());

  Progress::Task empty;
  empty.incrementStep();
  EXPECT_FALSE(empty.wasCanceled());
  EXPECT_EQ(empty.currentStep(), 0);
}

TEST(Progress, SubclassSeesAddUpdatesAndOneRemovalAcrossMoves) {
  RecordingProgress p;
  {
    Progress::Task t = p.addTask(5, "work");
    t.setCurrentStep(2);
    t.incrementStep(2);
    t.setNumSteps(8);
    Progress::Task moved = std::move(t);
    moved.incrementStep();
    EXPECT_EQ(p.tasks().size(), 1u);
  }
  EXPECT_EQ(p.added, 1);
  EXPECT_EQ(p.removed, 1);
  EXPECT_TRUE(p.tasks().empty());
  EXPECT_EQ(p.updates, (std::vector<std::pair<int, int>>{{2, 5}, {4, 5}, {4, 8}, {5, 8}}));
}

TEST(Progress, CancelAllReachesRunningAndLaterTasksUntilReset) {
  Progress p;
  Progress::Task running = p.addTask(0, "loop");
  std::thread worker([&] {
    while (!running.wasCanceled()) std::this_thread::yield();
  });
  p.cancelAllTasks();
  worker.join();  // hangs if the cancel never reaches the task
  EXPECT_TRUE(p.addTask(1, "late").wasCanceled());
  p.resetCancel();
  EXPECT_FALSE(p.addTask(1, "fresh").wasCanceled());
}

TEST(Progress, NestedTaskIsForwardedToParentAndRemovedWithIt) {
  RecordingProgress parent;
  NestedProgress nested(&parent);
  {
    Progress::Task inner = nested.addTask(10, "inner");
    ASSERT_EQ(parent.tasks().size(), 1u);
    EXPECT_EQ(parent.tasks()[0]->text, "inner");
    EXPECT_EQ(parent.tasks()[0]->steps, 10);
    inner.setCurrentStep(4);
    inner.setNumSteps(12);
    EXPECT_EQ(parent.tasks()[0]->current, 4);
    EXPECT_EQ(parent.tasks()[0]->steps, 12);
  }
  EXPECT_TRUE(parent.tasks().empty());
  EXPECT_EQ(parent.removed, 1);
}

TEST(Progress, ParentCancelReachesNestedTask) {
  Progress parent;
  NestedProgress nested(&parent);
  Progress::Task inner = nested.addTask(10, "inner");
  inner.incrementStep();
  EXPECT_FALSE(inner.wasCanceled());
  parent.cancelAllTasks();
  inner.incrementStep();
  EXPECT_TRUE(inner.wasCanceled());
  // A nested task begun while the parent is canceled starts canceled.
  EXPECT_TRUE(nested.addTask(3, "late").wasCanceled());
}

TEST(Progress, HiddenOrParentlessNestedProgressForwardsNothing) {
  Progress parent;
  NestedProgress hidden(&parent, NestedProgress::TaskMode::Hidden);
  NestedProgress orphan(nullptr);
  Progress::Task a = hidden.addTask(2, "a");
  Progress::Task b = orphan.addTask(2, "b");
  a.incrementStep();
  b.incrementStep();
  EXPECT_TRUE(parent.tasks().empty());
  EXPECT_EQ(b.currentStep(), 1);
  EXPECT_FALSE(b.wasCanceled());
}

}  // namespace
