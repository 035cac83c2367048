// When a task queue wakes its loop, and what it does with the ends of calls.
#include <gtest/gtest.h>
#include <tests/transport/task_queues.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using tolk::test::AwakeLoops;
using tolk::test::Told;
using Events = std::vector<std::string>;

TEST_F(AwakeLoops, AreSentNoWakeUp) {
  queue.prepare(std::make_unique<Told>(log, "prepared"));
  stay_awake();
  EXPECT_TRUE(post("task"));
  EXPECT_TRUE(post_end("end"));
  queue.post_prepared();
  EXPECT_EQ(wake_ups_so_far(), 0);
  EXPECT_TRUE(drain());
  EXPECT_EQ(log.size(), 6u);
}

TEST_F(AwakeLoops, AreWokenAsSoonAsTheySleep) {
  stay_awake();
  ASSERT_TRUE(fall_asleep());
  EXPECT_TRUE(post("task"));
  EXPECT_EQ(wake_ups_so_far(), 1);
  drain();
  ASSERT_TRUE(fall_asleep());
  EXPECT_TRUE(post_end("end"));
  EXPECT_EQ(wake_ups_so_far(), 2);
}

TEST_F(AwakeLoops, AreWokenOnceForAllThatComes) {
  EXPECT_TRUE(post("first"));
  EXPECT_EQ(wake_ups_so_far(), 1);
  EXPECT_TRUE(post("second"));
  EXPECT_TRUE(post_end("end"));
  EXPECT_EQ(wake_ups_so_far(), 1);
}

TEST_F(AwakeLoops, DoNotFallAsleepWhileSomethingIsQueued) {
  stay_awake();
  for (const bool task : {true, false}) {
    task ? post("x") : post_end("x");
    EXPECT_FALSE(fall_asleep());
    EXPECT_FALSE(fall_asleep());
    post("y");
    EXPECT_EQ(wake_ups_so_far(), 0) << "they are as awake as before";
    drain();
  }
  EXPECT_TRUE(fall_asleep());
}

TEST_F(AwakeLoops, DrainTellsWhetherThereWasSomething) {
  EXPECT_FALSE(drain());
  post("task");
  EXPECT_TRUE(drain());
  post_end("end");
  EXPECT_TRUE(drain());
  EXPECT_FALSE(drain());
}

// A close that is queued refuses no reply that was there before it.
TEST_F(AwakeLoops, EndsRunBeforeTheTasksInTheirOrder) {
  post_end("end 1");
  post("task 1");
  post_end("end 2");
  post("task 2");
  drain();
  EXPECT_EQ(log, (Events{"end 1 ran", "end 1 freed", "end 2 ran", "end 2 freed", "task 1 ran",
                         "task 1 freed", "task 2 ran", "task 2 freed"}));
}

TEST_F(AwakeLoops, AnEndThatDoesNotWakeLeavesTheLoopAsleep) {
  EXPECT_TRUE(post_end("quiet", false));
  EXPECT_EQ(wake_ups_so_far(), 0);
  EXPECT_TRUE(post("task"));
  EXPECT_EQ(wake_ups_so_far(), 1) << "others still wake it";
  drain();
  EXPECT_EQ(log, (Events{"quiet ran", "quiet freed", "task ran", "task freed"}));
}

TEST_F(AwakeLoops, AClosedQueueKeepsAnEndForTheNextDrain) {
  close();
  EXPECT_FALSE(post_end("end"));
  EXPECT_FALSE(post_end("quiet", false));
  EXPECT_EQ(log, Events{}) << "it is not refused";
  EXPECT_EQ(wake_ups_so_far(), 0);
  EXPECT_TRUE(drain());
  EXPECT_EQ(log, (Events{"end ran", "end freed", "quiet ran", "quiet freed"}));
}

TEST_F(AwakeLoops, CloseRefusesTasksAndKeepsEnds) {
  post_end("end");
  post("task");
  close();
  EXPECT_EQ(log, (Events{"task refused", "task freed"}));
  drain();
  EXPECT_EQ(log.back(), "end freed");
  EXPECT_EQ(log.size(), 4u);
}

TEST_F(AwakeLoops, ATaskThatClosesRefusesTheRestInOrder) {
  post_function([this] {
    post("last");
    close();
    log.emplace_back("closed");
  });
  post("second");
  post("third");
  post_end("end");
  EXPECT_TRUE(drain());
  EXPECT_EQ(log, (Events{"end ran", "end freed", "second refused", "second freed", "third refused",
                         "third freed", "last refused", "last freed", "closed"}));
}

}  // namespace
