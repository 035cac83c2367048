#include "transport/work_queue.h"

#include <gtest/gtest.h>
#include <tests/transport/event.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using tolk::Instant;
using tolk::instant_now;
using tolk::TaskQueue;
using tolk::WorkItem;
using tolk::WorkQueue;
using tolk::test::Event;
using Events = std::vector<std::string>;
using Function = std::function<void()>;

// As many as libuv has, unless the environment says otherwise.
constexpr int kWorkers = 4;

class Item final : public WorkItem {
 public:
  Item(Function run, Function end, Function fail)
      : run_(std::move(run)), end_(std::move(end)), fail_(std::move(fail)) {}

 private:
  void work() TOLK_WORKER override { run_(); }
  void end() TOLK_LOOP override { end_(); }
  void fail() TOLK_LOOP override { fail_(); }

  const Function run_;
  const Function end_;
  const Function fail_;
};

// Keeps workers from the queues until it is released.
class OtherWork {
 public:
  OtherWork(uv_loop_t* loop, int workers) : requests_(static_cast<std::size_t>(workers)) {
    missing_ = workers;
    for (uv_work_t& request : requests_) {
      request.data = this;
      uv_queue_work(
          loop, &request, [](uv_work_t* work) { static_cast<OtherWork*>(work->data)->block(); },
          [](uv_work_t*, int) {});
    }
    EXPECT_TRUE(begun_.wait());
  }
  ~OtherWork() { release(); }
  OtherWork(const OtherWork&) = delete;
  OtherWork& operator=(const OtherWork&) = delete;

  void release() { released_.set(); }

 private:
  void block() {
    if (--missing_ == 0) begun_.set();
    released_.wait();
  }

  std::vector<uv_work_t> requests_;
  std::atomic<int> missing_{0};
  Event begun_;
  Event released_;
};

// A queue whose ends go to a loop that is turned by hand, as that of a session.
class WorkQueues : public testing::Test {
 protected:
  WorkQueues() {
    uv_loop_init(&loop);
    uv_async_init(&loop, &wake_up, [](uv_async_t*) {});
    uv_timer_init(&loop, &limit);
    limit.data = this;
    uv_timer_start(
        &limit, [](uv_timer_t* timer) { static_cast<WorkQueues*>(timer->data)->gave_up = true; },
        std::chrono::milliseconds(tolk::test::kPatience).count(), 0);
    // A loop without runners has nothing left to wait for.
    uv_unref(reinterpret_cast<uv_handle_t*>(&wake_up));
    uv_unref(reinterpret_cast<uv_handle_t*>(&limit));
    tolk::enter_loop();
    ends.open(&wake_up);
  }
  ~WorkQueues() override {
    tolk::enter_loop();
    release_others();
    turn_until([] { return false; });
    ends.close();
    uv_close(reinterpret_cast<uv_handle_t*>(&wake_up), nullptr);
    uv_close(reinterpret_cast<uv_handle_t*>(&limit), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&loop), 0) << "all runners have left";
  }

  void leave_one_worker() { others = std::make_unique<OtherWork>(&loop, kWorkers - 1); }
  void release_others() {
    if (others) others->release();
    if (first_worker) first_worker->release();
  }
  void begin(
      Function run, Function end = [] {}) {
    begin_on(queue, std::move(run), std::move(end));
  }
  void begin_on(WorkQueue& on, Function run, Function end) {
    tolk::enter_loop();
    on.begin(&loop, std::make_unique<Item>(
                        std::move(run),
                        [this, end = std::move(end)] {
                          ++ended;
                          end();
                        },
                        [this] { ++failed; }));
  }
  // Until `done`, or until the loop has nothing to wait for, or too late.
  template <class Done>
  bool turn_until(Done done) {
    tolk::enter_loop();
    ends.stay_awake();
    while (true) {
      ends.drain();
      if (done()) return true;
      if (gave_up || uv_loop_alive(&loop) == 0) return false;
      const bool sleeps = ends.fall_asleep();
      uv_run(&loop, sleeps ? UV_RUN_ONCE : UV_RUN_NOWAIT);
      if (sleeps) ends.stay_awake();
    }
  }
  bool turn_until_ended(int count) {
    return turn_until([this, count] { return ended + failed == count; });
  }

  uv_loop_t loop{};
  uv_async_t wake_up{};
  uv_timer_t limit{};
  bool gave_up = false;
  int ended = 0;
  int failed = 0;
  // Until the loop has heard that their work is done.
  std::unique_ptr<OtherWork> others;
  std::unique_ptr<OtherWork> first_worker;
  TaskQueue ends;
  WorkQueue queue{ends};
  WorkQueue other_queue{ends};  // its runners may outlive the body of a test too
};

TEST_F(WorkQueues, RunEveryItemOnceOnAWorkerAndEndItOnTheLoop) {
  constexpr int kItems = 200;
  const auto loop_thread = std::this_thread::get_id();
  std::vector<std::atomic<int>> runs(kItems);
  for (std::atomic<int>& run : runs) {
    begin(
        [&, loop_thread] {
          EXPECT_NE(std::this_thread::get_id(), loop_thread);
          ++run;
        },
        [&, loop_thread] {
          EXPECT_EQ(std::this_thread::get_id(), loop_thread);
          EXPECT_EQ(run, 1) << "its end comes after it has run";
        });
  }
  EXPECT_EQ(ended, 0) << "nothing ends before the loop runs";
  EXPECT_TRUE(turn_until_ended(kItems));
  for (const std::atomic<int>& run : runs) EXPECT_EQ(run, 1);
}

TEST_F(WorkQueues, OneWorkerRunsAndEndsItemsInTheirOrder) {
  leave_one_worker();
  std::vector<int> expected;
  std::vector<int> ran;
  std::vector<int> ended_in;
  for (int i = 0; i < 50; ++i) {
    expected.push_back(i);
    begin([&, i] { ran.push_back(i); }, [&, i] { ended_in.push_back(i); });
  }
  EXPECT_TRUE(turn_until_ended(50));
  EXPECT_EQ(ran, expected);
  EXPECT_EQ(ended_in, expected);
}

TEST_F(WorkQueues, RunAsManyItemsAtOnceAsThereAreWorkers) {
  std::atomic<int> missing{kWorkers};
  Event all_begun;
  for (int i = 0; i < kWorkers; ++i) {
    begin([&] {
      if (--missing == 0) all_begun.set();
      EXPECT_TRUE(all_begun.wait());
      all_begun.set();  // one failure is enough
    });
  }
  EXPECT_TRUE(turn_until_ended(kWorkers));
}

TEST_F(WorkQueues, AnItemBehindABlockedOneIsTakenByAnotherWorker) {
  Event blocked;
  Event later_ran;
  begin([&] {
    blocked.set();
    EXPECT_TRUE(later_ran.wait());
  });
  ASSERT_TRUE(blocked.wait());
  begin([&] { later_ran.set(); });
  EXPECT_TRUE(turn_until_ended(2));
}

// The first runner may stay for a while, for the items that come: it counts for one of them only.
TEST_F(WorkQueues, ItemsThatComeWhileARunnerStaysAreTakenByAsManyWorkers) {
  for (int round = 0; round < 300; ++round) {
    begin([] {});
    ASSERT_TRUE(turn_until_ended(1 + 4 * round));
    std::atomic<int> missing{3};
    Event all_begun;
    for (int i = 0; i < 3; ++i) {
      begin([&] {
        if (--missing == 0) all_begun.set();
        EXPECT_TRUE(all_begun.wait());
        all_begun.set();
      });
    }
    ASSERT_TRUE(turn_until_ended(4 + 4 * round));
  }
}

TEST_F(WorkQueues, RunnersWhoseItemsOthersTookLeave) {
  leave_one_worker();
  for (int i = 0; i < 20; ++i) begin([] {});
  EXPECT_TRUE(turn_until_ended(20));
  release_others();
  EXPECT_FALSE(turn_until([] { return false; }));
  ASSERT_FALSE(gave_up);
  begin([] {});
  EXPECT_TRUE(turn_until_ended(21)) << "an item that comes later has a runner";
}

TEST_F(WorkQueues, AnEndComesWhileItsWorkerIsInsideTheNextItem) {
  leave_one_worker();
  Event quick_ended;
  begin([] {}, [&] { quick_ended.set(); });
  begin([&] { EXPECT_TRUE(quick_ended.wait()); });
  EXPECT_TRUE(turn_until_ended(2));
}

TEST_F(WorkQueues, AFailedItemDoesNotKeepTheNextOnesFromTheirWorker) {
  leave_one_worker();
  begin([] { throw std::bad_alloc(); });
  begin([] {}, [] { throw std::runtime_error("end"); });
  begin([] {});
  EXPECT_TRUE(turn_until([this] { return failed == 2 && ended == 2; }));
}

// Until `gap` has passed; short gaps cannot be slept.
void pass(std::chrono::nanoseconds gap) {
  const Instant end = instant_now() + gap;
  while (instant_now() < end) {
  }
}

// Runners wait for the worker, the other's one among them. Those before it do not use their places
// for items that have come after it.
TEST_F(WorkQueues, ItemsThatComeLaterDoNotOvertakeTheOtherQueue) {
  first_worker = std::make_unique<OtherWork>(&loop, 1);
  leave_one_worker();  // the one that is taken
  std::atomic<bool> other_ran{false};
  std::atomic<int> overtaking{0};
  for (int i = 0; i < 20; ++i) begin([] {});
  begin_on(
      other_queue, [&] { other_ran = true; }, [] {});
  for (int i = 0; i < 20; ++i) begin([&] { overtaking += other_ran ? 0 : 1; });
  pass(2ms);  // longer than a runner stays
  first_worker->release();
  EXPECT_TRUE(turn_until_ended(41));
  EXPECT_EQ(overtaking, 0);
}

// Each item is done only when a further one waits: a runner would never be without work.
TEST_F(WorkQueues, AFullQueueLeavesAnotherItsTurn) {
  leave_one_worker();
  std::atomic<int> begun{0};
  std::atomic<bool> other_ran{false};
  const Function begin_next = [&] {
    const int next = begun + 1;
    begin([&, next] {
      while (begun <= next && !other_ran) std::this_thread::yield();
    });
    ++begun;  // it waits now
  };
  begin_next();
  begin_next();
  begin_on(
      other_queue, [&] { other_ran = true; }, [] {});
  EXPECT_TRUE(turn_until([&] {
    while (!other_ran && !gave_up && begun < ended + 3) begin_next();
    return other_ran.load();
  })) << "the other queue has no turn";
  other_ran = true;
  turn_until_ended(begun + 1);  // they use what is here
}

// Gaps around the time for which a runner stays: it leaves, or the item comes, or both at once.
TEST_F(WorkQueues, NoItemIsLeftBehindWhileRunnersStayAndLeave) {
  constexpr int kItems = 6000;
  std::mt19937 random(20);
  const auto below = [&](unsigned most) { return static_cast<int>(random() % most); };
  std::atomic<int> ran{0};
  int begun = 0;
  while (begun < kItems && !gave_up) {
    for (int batch = 1 + below(3); batch > 0; --batch, ++begun) {
      const std::chrono::nanoseconds takes = 100ns * below(100);
      begin([&ran, takes] {
        pass(takes);
        ++ran;
      });
    }
    if (below(2) == 0) {
      ASSERT_TRUE(turn_until_ended(begun)) << ended << " of " << begun;
    }
    pass(1us * below(40));
  }
  EXPECT_TRUE(turn_until_ended(begun));
  EXPECT_EQ(ran, begun);
}

// The loop has closed its queue: it hears of an end only from the runner, which leaves.
TEST_F(WorkQueues, AClosedLoopHearsOfEachEndByARunnerThatLeaves) {
  leave_one_worker();
  tolk::enter_loop();
  ends.close();
  Event first_ended;
  begin([] {}, [&] { first_ended.set(); });
  begin([&] { EXPECT_TRUE(first_ended.wait()); });
  begin([] {});
  while (ended < 3 && !gave_up) uv_run(&loop, UV_RUN_ONCE);
  EXPECT_EQ(ended, 3);
}

class WorkItems : public testing::Test {
 protected:
  WorkItems() { uv_loop_init(&loop); }
  ~WorkItems() override { EXPECT_EQ(uv_loop_close(&loop), 0); }

  // Its end logs "freed" when the item, which holds it, is freed.
  void begin(Function run, Function end) {
    tolk::enter_loop();
    const std::shared_ptr<void> freed(nullptr, [this](void*) { log.emplace_back("freed"); });
    queue.begin(&loop, std::make_unique<Item>(
                           std::move(run), [end = std::move(end), freed] { end(); },
                           [this] { log.emplace_back("failed"); }));
  }

  uv_loop_t loop{};
  TaskQueue ends;
  WorkQueue queue{ends};
  Events log;
};

TEST_F(WorkItems, RunEndAndAreFreed) {
  begin([&] { log.emplace_back("run"); }, [&] { log.emplace_back("end"); });
  uv_run(&loop, UV_RUN_DEFAULT);
  EXPECT_EQ(log, (Events{"run", "end", "freed"}));
}

TEST_F(WorkItems, ExceptionOutOfTheWorkIsToldInPlaceOfTheEnd) {
  begin([] { throw std::bad_alloc(); }, [this] { log.emplace_back("end"); });
  uv_run(&loop, UV_RUN_DEFAULT);
  EXPECT_EQ(log, (Events{"failed", "freed"}));
}

TEST_F(WorkItems, ExceptionOutOfTheEndIsTold) {
  begin([] {}, [] { throw std::runtime_error("end"); });
  uv_run(&loop, UV_RUN_DEFAULT);
  EXPECT_EQ(log, (Events{"failed", "freed"}));
}

}  // namespace
