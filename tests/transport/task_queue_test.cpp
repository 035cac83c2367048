// What a task queue does with tasks: their order, the refusals of a closed queue.
#include <gtest/gtest.h>
#include <tests/transport/task_queues.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using tolk::Task;
using tolk::test::TaskQueues;
using tolk::test::Told;
using Events = std::vector<std::string>;

TEST(TaskLists, KnowTheirSizeAndOrderAlsoAfterASwap) {
  Events log;
  tolk::TaskList first;
  tolk::TaskList second;
  for (const char* const name : {"a", "b", "c"}) first.add(std::make_unique<Told>(log, name));
  second.add(std::make_unique<Told>(log, "d"));
  first.take().reset();
  first.swap(second);
  EXPECT_EQ(first.size(), 1u);
  EXPECT_EQ(second.size(), 2u);
  first.add(std::make_unique<Told>(log, "e"));
  second.add(std::make_unique<Told>(log, "f"));
  for (tolk::TaskList* const list : {&first, &second}) {
    while (list->take()) {
    }
    EXPECT_TRUE(list->empty());
    EXPECT_EQ(list->size(), 0u);
  }
  EXPECT_EQ(log, (Events{"a freed", "d freed", "e freed", "b freed", "c freed", "f freed"}));
}

TEST_F(TaskQueues, QueueThatNeverOpenedRefusesAtOnce) {
  EXPECT_FALSE(post("a"));
  EXPECT_EQ(log, (Events{"a refused", "a freed"}));
}

TEST_F(TaskQueues, TasksRunInOrderOnTheLoop) {
  open();
  EXPECT_TRUE(post("a"));
  EXPECT_TRUE(post("b"));
  EXPECT_TRUE(post("c"));
  EXPECT_TRUE(log.empty());
  turn();
  EXPECT_EQ(log, (Events{"a ran", "a freed", "b ran", "b freed", "c ran", "c freed"}));
}

TEST_F(TaskQueues, OneWakeUpServesAllThatStandInLine) {
  open();
  for (int i = 0; i < 10; ++i) post("x");
  turn();
  EXPECT_EQ(wake_ups, 1);
  EXPECT_EQ(log.size(), 20u);
}

TEST_F(TaskQueues, TaskAfterADrainWakesTheLoopAgain) {
  open();
  post("a");
  turn();
  post("b");
  turn();
  EXPECT_EQ(wake_ups, 2);
  EXPECT_EQ(log.back(), "b freed");
}

// Reads and timeouts have their turn in between, however fast others post.
TEST_F(TaskQueues, TaskThatATaskPostsRunsAtTheNextWakeUp) {
  open();
  post_function([this] { post("inner"); });
  turn();
  EXPECT_EQ(wake_ups, 1);
  EXPECT_TRUE(log.empty());
  turn();
  EXPECT_EQ(wake_ups, 2);
  EXPECT_EQ(log, (Events{"inner ran", "inner freed"}));
}

TEST_F(TaskQueues, CloseRefusesWhatStandsInLineInOrder) {
  open();
  post("a");
  post("b");
  close();
  EXPECT_EQ(log, (Events{"a refused", "a freed", "b refused", "b freed"}));
  turn();
  EXPECT_EQ(log.size(), 4u) << "nothing runs any more";
}

TEST_F(TaskQueues, ClosedQueueRefusesAtOnce) {
  open();
  close();
  EXPECT_FALSE(post("late"));
  EXPECT_EQ(log, (Events{"late refused", "late freed"}));
}

TEST_F(TaskQueues, ClosingTwiceIsHarmless) {
  open();
  post("a");
  close();
  close();
  EXPECT_EQ(log, (Events{"a refused", "a freed"}));
}

TEST_F(TaskQueues, TaskThatClosesEndsTheDrain) {
  open();
  post_function([this] { close(); });
  post("behind it");
  turn();
  EXPECT_EQ(log, (Events{"behind it refused", "behind it freed"}));
}

TEST_F(TaskQueues, RefusedTaskMayPostAgain) {
  class Stubborn final : public Task {
   public:
    explicit Stubborn(std::function<void()> refused) : refused_(std::move(refused)) {}
    void run() TOLK_LOOP override {}
    void refuse() override { refused_(); }

   private:
    const std::function<void()> refused_;
  };
  open();
  queue.post(std::make_unique<Stubborn>([this] { EXPECT_FALSE(post("again")); }));
  close();
  EXPECT_EQ(log, (Events{"again refused", "again freed"}));
}

TEST_F(TaskQueues, FunctionTaskIsSimplyDroppedWhenRefused) {
  bool ran = false;
  EXPECT_FALSE(post_function([&] { ran = true; }));
  EXPECT_FALSE(ran);
}

TEST_F(TaskQueues, TheReadyTaskRunsInItsPlaceAndOnce) {
  queue.prepare(std::make_unique<Told>(log, "prepared"));
  open();
  post("first");
  queue.post_prepared();
  queue.post_prepared();
  post("last");
  turn();
  EXPECT_EQ(log, (Events{"first ran", "first freed", "prepared ran", "prepared freed", "last ran",
                         "last freed"}));
}

TEST_F(TaskQueues, ThePreparedTaskStaysWhileTheQueueIsNotOpen) {
  queue.prepare(std::make_unique<Told>(log, "prepared"));
  queue.post_prepared();
  open();
  turn();
  EXPECT_EQ(log, Events{});
  queue.post_prepared();
  turn();
  EXPECT_EQ(log, (Events{"prepared ran", "prepared freed"}));
}

}  // namespace
