#include "transport/task_queue.h"

#include <gtest/gtest.h>
#include <tests/transport/event.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using tolk::FunctionTask;
using tolk::make_task;
using tolk::Task;
using tolk::TaskQueue;

// Tells what became of it.
class Told final : public Task {
 public:
  explicit Told(std::vector<std::string>& log, std::string name)
      : log_(log), name_(std::move(name)) {}
  ~Told() override { log_.push_back(name_ + " freed"); }
  void run() TOLK_LOOP override { log_.push_back(name_ + " ran"); }
  void refuse() override { log_.push_back(name_ + " refused"); }

 private:
  std::vector<std::string>& log_;
  const std::string name_;
};

// A queue whose loop is turned by hand, on the test's thread.
class TaskQueues : public testing::Test {
 protected:
  TaskQueues() {
    uv_loop_init(&loop);
    uv_async_init(&loop, &wake_up, [](uv_async_t* async) {
      auto* const self = static_cast<TaskQueues*>(async->data);
      ++self->wake_ups;
      tolk::enter_loop();
      self->queue.drain();
      if (!self->queue.fall_asleep()) uv_async_send(async);
    });
    wake_up.data = this;
  }
  ~TaskQueues() override {
    close();
    uv_close(reinterpret_cast<uv_handle_t*>(&wake_up), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
  }

  void open() {
    tolk::enter_loop();
    queue.open(&wake_up);
  }
  void close() {
    tolk::enter_loop();
    queue.close();
  }
  bool post(const std::string& name) { return queue.post(std::make_unique<Told>(log, name)); }
  template <class Function>
  bool post_function(Function function) {
    return queue.post(std::make_unique<FunctionTask<Function>>(std::move(function)));
  }
  void turn() { uv_run(&loop, UV_RUN_NOWAIT); }

  uv_loop_t loop{};
  uv_async_t wake_up{};
  std::vector<std::string> log;  // outlives the tasks that are left
  TaskQueue queue;
  int wake_ups = 0;
};
using Events = std::vector<std::string>;

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

struct Counts {
  std::atomic<int> ran{0};
  std::atomic<int> refused{0};
  std::atomic<int> freed{0};
};

class Counted final : public Task {
 public:
  explicit Counted(Counts& counts) : counts_(counts) {}
  ~Counted() override {
    EXPECT_TRUE(settled_);
    ++counts_.freed;
  }
  void run() TOLK_LOOP override { settle(counts_.ran); }
  void refuse() override { settle(counts_.refused); }

 private:
  void settle(std::atomic<int>& count) {
    EXPECT_FALSE(settled_) << "exactly one of the two, once";
    settled_ = true;
    ++count;
  }

  Counts& counts_;
  bool settled_ = false;
};

TEST_F(TaskQueues, EveryTaskIsAnsweredWhenTheQueueClosesUnderItsPosters) {
  constexpr int kThreads = 4;
  constexpr int kTasks = 500;
  for (int round = 0; round < 20; ++round) {
    open();
    Counts counts;
    std::atomic<int> accepted{0};
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
      posters.emplace_back([&] {
        for (int i = 0; i < kTasks; ++i) {
          if (queue.post(std::make_unique<Counted>(counts))) ++accepted;
        }
      });
    }
    while (accepted < round * 40) turn();
    close();
    for (std::thread& poster : posters) poster.join();
    EXPECT_EQ(counts.ran + counts.refused, kThreads * kTasks);
    EXPECT_EQ(counts.freed, kThreads * kTasks);
    EXPECT_GE(accepted, counts.ran.load());
    turn();
  }
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

// Nobody but the test drains; a wake-up is only counted.
class AwakeLoops : public TaskQueues {
 protected:
  AwakeLoops() {
    uv_close(reinterpret_cast<uv_handle_t*>(&wake_up), nullptr);
    turn();
    uv_async_init(&loop, &wake_up,
                  [](uv_async_t* async) { ++static_cast<AwakeLoops*>(async->data)->wake_ups; });
    wake_up.data = this;
    open();
  }

  bool post_end(const std::string& name, bool wakes = true) {
    return queue.post_end(std::make_unique<Told>(log, name), wakes);
  }
  bool drain() {
    tolk::enter_loop();
    return queue.drain();
  }
  bool fall_asleep() {
    tolk::enter_loop();
    return queue.fall_asleep();
  }
  void stay_awake() {
    tolk::enter_loop();
    queue.stay_awake();
  }
  int wake_ups_so_far() {
    turn();
    return wake_ups;
  }
};

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

// Every poster waits for what it posted, so that the loop sleeps in between. Behind a lone task of
// a lone poster nothing comes that would wake the loop for it.
class SleepyLoops : public AwakeLoops, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Posters, SleepyLoops, testing::Values(1, 4));

TEST_P(SleepyLoops, LeaveNoTaskBehindWhileTheyFallAsleepAndWake) {
  const int threads = GetParam();
  constexpr int kBatches = 3000;
  std::atomic<int> ran{0};
  std::atomic<int> posting{threads};
  std::atomic<bool> gave_up{false};
  const auto post_batches = [&] {
    for (int i = 0; i < kBatches; ++i) {
      std::atomic<int> left{1 + i % 3};
      const auto count_down = [&] {
        ++ran;
        --left;
      };
      for (int posts = 1 + i % 3; posts > 0; --posts) {
        auto task = make_task(count_down);
        (i + posts) % 2 == 0 ? queue.post(std::move(task)) : queue.post_end(std::move(task), true);
      }
      while (left > 0 && !gave_up) std::this_thread::yield();
      if (gave_up) break;
    }
    --posting;
    queue.post(make_task([] {}));
  };
  uv_timer_t limit;
  uv_timer_init(&loop, &limit);
  limit.data = &gave_up;
  uv_timer_start(
      &limit, [](uv_timer_t* timer) { *static_cast<std::atomic<bool>*>(timer->data) = true; },
      std::chrono::milliseconds(tolk::test::kPatience).count(), 0);
  std::vector<std::thread> posters;
  for (int t = 0; t < threads; ++t) posters.emplace_back(post_batches);
  int turns = 0;
  stay_awake();
  while (posting > 0 && !gave_up) {
    drain();
    for (int yields = ++turns % 4; yields > 0; --yields) std::this_thread::yield();
    const bool sleeps = fall_asleep();
    uv_run(&loop, sleeps ? UV_RUN_ONCE : UV_RUN_NOWAIT);
    if (sleeps) stay_awake();
  }
  EXPECT_FALSE(gave_up) << "a task is queued, and nobody woke the loop";
  for (std::thread& poster : posters) poster.join();
  drain();
  EXPECT_EQ(ran, threads * kBatches * 2) << "each once";
  uv_close(reinterpret_cast<uv_handle_t*>(&limit), nullptr);
  turn();
}

// The poster that wakes the loop uses the handle without the lock.
TEST_F(AwakeLoops, NobodyTouchesTheWakeUpOnceTheQueueIsClosed) {
  for (int round = 0; round < 200; ++round) {
    uv_async_t handle;
    uv_async_init(&loop, &handle, [](uv_async_t*) {});
    TaskQueue closing;
    tolk::enter_loop();
    closing.open(&handle);
    std::atomic<bool> begins{false};
    std::thread poster([&] {
      begins = true;
      while (closing.post(make_task([] {}))) {
      }
    });
    while (!begins) std::this_thread::yield();
    closing.drain();
    closing.fall_asleep();
    closing.close();
    const uv_async_t closed = std::exchange(handle, uv_async_t{});  // a wake-up would crash
    poster.join();
    handle = closed;
    uv_close(reinterpret_cast<uv_handle_t*>(&handle), nullptr);
    turn();
  }
}

}  // namespace
