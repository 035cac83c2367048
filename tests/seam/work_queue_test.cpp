// What becomes of the calls that wait when libuv takes no work for a further one.
#include "transport/work_queue.h"

#include <gtest/gtest.h>
#include <tests/transport/event.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/seam/faults.h"

namespace tolk::test {
namespace {

constexpr int kWorkersOfLibuv = 4;

class WorkOnly final : public WorkItem {
 public:
  explicit WorkOnly(std::function<void()> run) : run_(std::move(run)) {}

 private:
  void work() TOLK_WORKER override { run_(); }
  void end() TOLK_LOOP override {}
  void fail() TOLK_LOOP override { ADD_FAILURE(); }

  const std::function<void()> run_;
};

class QueueWithoutWorkers : public testing::Test {
 protected:
  QueueWithoutWorkers() {
    uv_loop_init(&loop);
    for (int i = 0; i < kWorkersOfLibuv; ++i) {
      begin([this] {
        if (--missing == 0) all_blocked.set();
        released.wait();
      });
    }
    EXPECT_TRUE(all_blocked.wait());
  }
  ~QueueWithoutWorkers() override { EXPECT_EQ(uv_loop_close(&loop), 0); }

  void begin(std::function<void()> run) {
    enter_loop();
    queue.begin(&loop, std::make_unique<WorkOnly>(std::move(run)));
  }
  void begin_named(char name) {
    begin([this, name] {
      const std::lock_guard<std::mutex> lock(mutex);
      ran += name;
    });
  }

  uv_loop_t loop{};
  TaskQueue ends;  // not open: each runner leaves after its item
  WorkQueue queue{ends};
  std::atomic<int> missing{kWorkersOfLibuv};
  Event all_blocked;
  Event released;
  std::mutex mutex;
  std::string ran;
};

TEST_F(QueueWithoutWorkers, RefusesTheItemThatGetsNoneAndRunsAllOthers) {
  begin_named('a');
  begin_named('b');
  {
    const NextFails next("uv_queue_work");
    EXPECT_THROW(begin_named('x'), std::runtime_error);
  }
  begin_named('c');
  released.set();
  uv_run(&loop, UV_RUN_DEFAULT);
  std::sort(ran.begin(), ran.end());
  EXPECT_EQ(ran, "abc");
}

}  // namespace
}  // namespace tolk::test
