#include "transport/task_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using tolk::FunctionTask;
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
  TaskQueue queue;
  int wake_ups = 0;
  std::vector<std::string> log;
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

}  // namespace
