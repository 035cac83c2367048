// The way from any thread to one loop thread: a queue of things to do there, in order.
//
// Thread: post from any; drain and close on the loop thread.
// Owner: the queue owns a task from post until it ran or was refused, exactly one of the two.
// Standing in line takes no memory, and the session's own stop is made beforehand: a session can be
// ended also when there is none.
// A closed queue answers at once. The wake-up handle is only ever touched under the lock that also
// guards "closed", so it is never used once closing has begun.
// Failure: post says false when the queue is closed; the task is then refused by the caller's side.
#pragma once

#include <uv.h>

#include <memory>
#include <utility>

#include "transport/thread_safety.h"

namespace tolk {

class LoopTask {
 public:
  virtual ~LoopTask() = default;
  // Loop thread.
  virtual void run() = 0;
  // In place of run, when the loop ends first: on the thread that closes the queue, or that posted.
  virtual void refuse() {}

 private:
  friend class TaskLine;
  std::unique_ptr<LoopTask> next_;
};

// Tasks in the order in which they came.
class TaskLine {
 public:
  TaskLine() = default;
  TaskLine(TaskLine&&) = delete;
  ~TaskLine() {
    while (take()) {
    }
  }

  bool empty() const { return first_ == nullptr; }
  std::size_t size() const { return size_; }
  void add(std::unique_ptr<LoopTask> task) noexcept;
  // The first; null when there is none.
  std::unique_ptr<LoopTask> take() noexcept;
  void swap(TaskLine& other) noexcept;

 private:
  std::unique_ptr<LoopTask> first_;
  LoopTask* last_ = nullptr;
  std::size_t size_ = 0;
};

// A task without a waiter.
template <class Function>
class FunctionTask final : public LoopTask {
 public:
  explicit FunctionTask(Function function) : function_(std::move(function)) {}
  void run() override { function_(); }

 private:
  Function function_;
};

class HandOff {
 public:
  // Before anybody posts: what post_ready puts in line, once.
  void make_ready(std::unique_ptr<LoopTask> task);
  // Loop thread, before anybody posts: `wake_up` is initialised and calls drain.
  void open(uv_async_t* wake_up);
  // Queues the task, or refuses it. One wake-up serves all that stand in line.
  bool post(std::unique_ptr<LoopTask> task);
  // Without effect while the queue is closed, and when the task stands in line already.
  void post_ready();
  // Runs what stands in line now, in order; who comes meanwhile causes another wake-up.
  void drain();
  // Refuses what stands in line and all that comes. Before the wake-up handle is closed.
  void close();

 private:
  struct Line {
    uv_async_t* wake_up = nullptr;  // null while closed
    TaskLine tasks;
    std::unique_ptr<LoopTask> ready;
    bool woken = false;  // the loop thread will look at the line again
  };

  static void stand_in_line(Line& line, std::unique_ptr<LoopTask> task);
  std::unique_ptr<LoopTask> next();
  std::size_t length();

  Guarded<Line> line_;
};

}  // namespace tolk
