#include "capi/workers.h"

#include <gtest/gtest.h>
#include <tests/transport/event.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "capi/callbacks.h"

#if !defined(_WIN32)
#include "tests/child_process.h"
#endif

namespace {

using tolk::Instant;
using tolk::instant_now;
using tolk::WorkerPool;
using tolk::test::Event;

// A task of no object.
class PoolTask final : public tolk_task {
 public:
  explicit PoolTask(std::function<void()> function)
      : tolk_task(Kind::handler, false), function_(std::move(function)) {}

  void run() override { function_(); }

 private:
  void run_claimed() override {}

  const std::function<void()> function_;
};

class WorkerPools : public testing::Test {
 protected:
  ~WorkerPools() override {
    pool->retire();
    EXPECT_TRUE(comes([this] { return pool.use_count() == 1; })) << "threads end";
    pool.reset();  // the threads' last steps come before this; a look at the count orders nothing
  }

  void start(unsigned workers) {
    pool = std::make_shared<WorkerPool>(workers, [] { FAIL() << "a thread could not be started"; });
  }
  void add(std::function<void()> function) {
    const auto task = std::make_shared<PoolTask>(std::move(function));
    task->queue_place().task = task;
    pool->add(task->queue_place());
  }
  static bool comes(const std::function<bool()>& condition) {
    const Instant end = instant_now() + tolk::test::kPatience;
    while (!condition()) {
      if (instant_now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }
  // One that lives until the threads have ended.
  Event& event() { return events_.emplace_back(); }

  std::shared_ptr<WorkerPool> pool;

 private:
  std::deque<Event> events_;
};

TEST_F(WorkerPools, HandlerThatBlocksDelaysOneOtherAtMost) {
  start(2);
  Event& blocked = event();
  Event& released = event();
  add([&] {
    blocked.set();
    released.wait();
  });
  ASSERT_TRUE(blocked.wait());
  for (int i = 0; i < 100; ++i) {
    Event& ran = event();
    add([&] { ran.set(); });
    ASSERT_TRUE(ran.wait());
    // A thread that polls would hide how the next task gets a thread.
    ASSERT_TRUE(comes([this] { return pool->watched() || pool->idle() > 0; }));
  }
  EXPECT_LE(pool->late_rounds(), 1U);
  released.set();
}

// Each thread has the pool.
TEST_F(WorkerPools, ThreadsAreNeverMoreThanTheirLimit) {
  constexpr unsigned kMany = WorkerPool::kMost + 20;
  for (const bool wait_in_the_library : {false, true}) {
    start(wait_in_the_library ? 1 : kMany);
    std::atomic<unsigned> running{0};
    std::atomic<unsigned> ended{0};
    Event& goes_on = event();
    for (unsigned i = 0; i < kMany; ++i) {
      add([&] {
        ++running;
        {
          std::optional<WorkerPool::Blocked> blocked;
          if (wait_in_the_library) blocked.emplace();
          goes_on.wait();
        }
        --running;
        ++ended;
      });
    }
    EXPECT_TRUE(comes([&] { return running >= WorkerPool::kMost; }));
    EXPECT_EQ(pool.use_count(), 1 + static_cast<long>(WorkerPool::kMost));
    goes_on.set();
    EXPECT_TRUE(comes([&] { return ended == kMany; }));
    pool->retire();
    EXPECT_TRUE(comes([this] { return pool.use_count() == 1; }));
  }
}

// The third thread was needed while a handler waited. The thread that is called may be one too
// many, and end.
TEST_F(WorkerPools, ThreadThatIsNotNeededLeavesItsTaskToAnother) {
  start(2);
  Event& waits = event();
  Event& waited = event();
  Event& runs_on = event();
  Event& released = event();
  add([&] {
    {
      const WorkerPool::Blocked blocked;
      waits.set();
      waited.wait();
    }
    runs_on.set();
    released.wait();
  });
  ASSERT_TRUE(waits.wait());
  std::atomic<int> together{0};
  Event& both = event();
  for (int i = 0; i < 2; ++i) {
    add([&] {
      if (++together == 2) both.set();
      both.wait();
    });
  }
  ASSERT_TRUE(both.wait());
  ASSERT_TRUE(comes([this] { return pool->idle() == 2; })) << "nobody watches";
  waited.set();
  ASSERT_TRUE(runs_on.wait());
  Event& ran = event();
  add([&] { ran.set(); });
  EXPECT_TRUE(ran.wait(std::chrono::seconds(5)));
  released.set();
}

#if !defined(_WIN32)
// The tasks that wait are the parent's, and a thread that starts would take one.
TEST_F(WorkerPools, AChildThatATaskForksIsNoWorker) {
  start(1);
  Event& second_waits = event();
  Event& ended = event();
  std::optional<int> wrong;
  add([&] {
    second_waits.wait();
    EXPECT_TRUE(WorkerPool::on_worker());
    EXPECT_TRUE(WorkerPool::more_waits());
    tolk::test::ChildProcess child([this] {
      const long users = pool.use_count();
      const WorkerPool::Blocked blocked;
      const int started = pool.use_count() == users ? 0 : 1;
      return started + (WorkerPool::on_worker() ? 2 : 0) + (WorkerPool::more_waits() ? 4 : 0);
    });
    wrong = child.wait();
  });
  add([&] { ended.set(); });
  second_waits.set();
  ASSERT_TRUE(ended.wait());
  EXPECT_EQ(wrong, 0);
}
#endif

}  // namespace
