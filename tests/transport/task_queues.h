// A task queue whose loop is turned by hand, on the test's thread.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "transport/task_queue.h"

namespace tolk::test {

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

class TaskQueues : public testing::Test {
 protected:
  TaskQueues() {
    uv_loop_init(&loop);
    uv_async_init(&loop, &wake_up, [](uv_async_t* async) {
      auto* const self = static_cast<TaskQueues*>(async->data);
      ++self->wake_ups;
      enter_loop();
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
    enter_loop();
    queue.open(&wake_up);
  }
  void close() {
    enter_loop();
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
    enter_loop();
    return queue.drain();
  }
  bool fall_asleep() {
    enter_loop();
    return queue.fall_asleep();
  }
  void stay_awake() {
    enter_loop();
    queue.stay_awake();
  }
  int wake_ups_so_far() {
    turn();
    return wake_ups;
  }
};

}  // namespace tolk::test
