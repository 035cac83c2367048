#include "transport/work_queue.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using tolk::TaskQueue;
using tolk::WorkItem;
using tolk::WorkQueue;
using Events = std::vector<std::string>;

class Item final : public WorkItem {
 public:
  Item(std::function<void()> run, std::function<void()> end, Events& log)
      : run_(std::move(run)), end_(std::move(end)), log_(log) {}
  ~Item() override { log_.emplace_back("freed"); }

 private:
  void work() TOLK_WORKER override { run_(); }
  void end() TOLK_LOOP override { end_(); }
  void fail() TOLK_LOOP override { log_.emplace_back("failed"); }

  const std::function<void()> run_;
  const std::function<void()> end_;
  Events& log_;
};

class WorkItems : public testing::Test {
 protected:
  WorkItems() { uv_loop_init(&loop); }
  ~WorkItems() override { EXPECT_EQ(uv_loop_close(&loop), 0); }

  void begin(std::function<void()> run, std::function<void()> end) {
    tolk::enter_loop();
    queue.begin(&loop, std::make_unique<Item>(std::move(run), std::move(end), log));
  }

  uv_loop_t loop{};
  TaskQueue ends;
  WorkQueue queue{ends};
  Events log;
};

TEST_F(WorkItems, RunsOnAWorkerEndsOnTheLoopAndIsFreed) {
  std::thread::id ran_on;
  std::thread::id ended_on;
  begin(
      [&] {
        ran_on = std::this_thread::get_id();
        log.emplace_back("run");
      },
      [&] {
        ended_on = std::this_thread::get_id();
        log.emplace_back("end");
      });
  EXPECT_TRUE(ended_on == std::thread::id()) << "nothing ends before the loop runs";
  uv_run(&loop, UV_RUN_DEFAULT);
  EXPECT_EQ(log, (Events{"run", "end", "freed"}));
  EXPECT_NE(ran_on, std::this_thread::get_id());
  EXPECT_EQ(ended_on, std::this_thread::get_id());
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
