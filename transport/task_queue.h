// The way from any thread to one loop thread: a queue of tasks, run there in order.
//
// Thread: post from any; open, drain and close on the loop thread.
// Owner: the queue owns a task from post until it ran or was refused, exactly one of the two.
// Queueing allocates nothing, and one task is prepared when the session is made: a session can end
// without memory.
// A closed queue answers at once. The wake-up handle is only touched under the lock that also
// guards "closed", so it is never used once closing has begun. Failure: post returns false when the
// queue is closed; the task has been refused then.
#pragma once

#include <uv.h>

#include <memory>
#include <utility>

#include "transport/thread_safety.h"

namespace tolk {

class Task {
 public:
  virtual ~Task() = default;
  virtual void run() TOLK_LOOP = 0;
  // Instead of run, when the loop ends first: on the thread that closes the queue or that posted.
  virtual void refuse() {}

 private:
  friend class TaskList;
  std::unique_ptr<Task> next_;
};

// Tasks in the order in which they came.
class TaskList {
 public:
  TaskList() = default;
  TaskList(TaskList&&) = delete;
  ~TaskList() {
    while (take()) {
    }
  }

  bool empty() const { return first_ == nullptr; }
  std::size_t size() const { return size_; }
  void add(std::unique_ptr<Task> task) noexcept;
  // The first; null when there is none.
  std::unique_ptr<Task> take() noexcept;
  void swap(TaskList& other) noexcept;

 private:
  std::unique_ptr<Task> first_;
  Task* last_ = nullptr;
  std::size_t size_ = 0;
};

// A task for which nobody waits.
template <class Function>
class FunctionTask final : public Task {
 public:
  explicit FunctionTask(Function function) : function_(std::move(function)) {}
  void run() TOLK_LOOP override { function_(); }

 private:
  Function function_;
};

template <class Function>
std::unique_ptr<Task> make_task(Function function) {
  return std::make_unique<FunctionTask<Function>>(std::move(function));
}

class TaskQueue {
 public:
  // Before anybody posts: what post_prepared enqueues, once.
  void prepare(std::unique_ptr<Task> task);
  // Before anybody posts: `wake_up` is initialised and its callback calls drain.
  void open(uv_async_t* wake_up) TOLK_LOOP;
  // Enqueues the task or refuses it. One wake-up serves all that is queued.
  bool post(std::unique_ptr<Task> task);
  // Has no effect while the queue is closed, or when the task is queued already.
  void post_prepared();
  // Runs what is queued now, in order; what comes meanwhile causes another wake-up.
  void drain() TOLK_LOOP;
  // Refuses what is queued and all that comes. To be called before the wake-up handle is closed.
  void close() TOLK_LOOP;

 private:
  struct State {
    uv_async_t* wake_up = nullptr;  // null while closed
    TaskList tasks;
    std::unique_ptr<Task> prepared;
    bool woken = false;  // the loop thread is going to look at the queue
  };

  bool enqueue_if_open(std::unique_ptr<Task>& task);
  static void enqueue(State& state, std::unique_ptr<Task> task);
  std::unique_ptr<Task> next();
  std::size_t size();

  Guarded<State> state_;
};

}  // namespace tolk
