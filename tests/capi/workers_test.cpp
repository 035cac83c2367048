#include "capi/workers.h"

#include <gtest/gtest.h>
#include <tests/transport/event.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "capi/callbacks.h"

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
  }

  void start(unsigned workers) {
    pool = std::make_shared<WorkerPool>(workers, [] { FAIL() << "a thread could not be started"; });
  }
  void add(std::function<void()> function) {
    const auto task = std::make_shared<PoolTask>(std::move(function));
    task->queue_place().front() = task;
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
  std::shared_ptr<WorkerPool> pool;
};

TEST_F(WorkerPools, HandlerThatBlocksDelaysOneOtherAtMost) {
  start(2);
  Event blocked;
  Event released;
  add([&] {
    blocked.set();
    released.wait();
  });
  ASSERT_TRUE(blocked.wait());
  for (int i = 0; i < 100; ++i) {
    Event ran;
    add([&] { ran.set(); });
    ASSERT_TRUE(ran.wait());
    // A thread that polls would hide how the next task gets a thread.
    ASSERT_TRUE(comes([this] { return pool->watched() || pool->idle() > 0; }));
  }
  EXPECT_LE(pool->late_rounds(), 1U);
  released.set();
}

// The third thread was needed while a handler waited. The thread that is called may be one too
// many, and end.
TEST_F(WorkerPools, ThreadThatIsNotNeededLeavesItsTaskToAnother) {
  start(2);
  Event waits;
  Event waited;
  Event runs_on;
  Event released;
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
  Event both;
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
  Event ran;
  add([&] { ran.set(); });
  EXPECT_TRUE(ran.wait(std::chrono::seconds(5)));
  released.set();
}

}  // namespace
