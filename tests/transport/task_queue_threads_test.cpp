// A task queue under the posts of several threads.
#include <gtest/gtest.h>
#include <tests/transport/event.h>
#include <tests/transport/task_queues.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace {

using tolk::make_task;
using tolk::Task;
using tolk::TaskQueue;
using tolk::test::AwakeLoops;
using tolk::test::TaskQueues;

struct Settlements {
  std::atomic<int> ran{0};
  std::atomic<int> refused{0};
  std::atomic<int> freed{0};
};

class SettledOnce final : public Task {
 public:
  explicit SettledOnce(Settlements& counts) : counts_(counts) {}
  ~SettledOnce() override {
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

  Settlements& counts_;
  bool settled_ = false;
};

TEST_F(TaskQueues, EveryTaskIsAnsweredWhenTheQueueClosesUnderItsPosters) {
  constexpr int kThreads = 4;
  constexpr int kTasks = 500;
  for (int round = 0; round < 20; ++round) {
    open();
    Settlements counts;
    std::atomic<int> accepted{0};
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
      posters.emplace_back([&] {
        for (int i = 0; i < kTasks; ++i) {
          if (queue.post(std::make_unique<SettledOnce>(counts))) ++accepted;
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
