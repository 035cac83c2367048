// The way from any thread to one loop thread: a queue of tasks, run there in order.
//
// A loop that is awake is going to look: a post leaves its task there. Only a loop that has said
// that it falls asleep is woken. It says so under the lock of the queue, so that no task comes
// between its last look and its sleep.
//
// Thread: post from any; open, drain and close on the loop thread.
// Owner: the queue owns a task from post until it ran or was refused, exactly one of the two.
// Queueing allocates nothing, and one task is prepared when the session is made: a session can end
// without memory.
// A closed queue answers at once. A thread that is about to send a wake-up counts itself under the
// lock that also guards "closed", and close waits for it, so the handle is never used once closing
// has begun. Failure: post returns false when the queue is closed; the task has been refused then.
#pragma once

#include <uv.h>

#include <memory>
#include <utility>

#include "transport/thread_safety.h"
#include "transport/unlocked_users.h"

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
  // Before anybody posts. The loop counts as asleep: the first post wakes it.
  void open(uv_async_t* wake_up) TOLK_LOOP;
  // Enqueues the task or refuses it. One wake-up serves all that is queued.
  bool post(std::unique_ptr<Task> task);
  // Has no effect while the queue is closed, or when the task is queued already.
  void post_prepared();
  // The end of a call that a worker has run: it is never refused. False when the queue is closed;
  // the loop thread then has to be brought to drain otherwise. `wakes`: as post does.
  bool post_end(std::unique_ptr<Task> task, bool wakes);

  // Runs what is queued now, in order. True when there was something.
  bool drain() TOLK_LOOP;
  // From here on posts wake the loop up. False, and nothing changes, when something is queued.
  bool fall_asleep() TOLK_LOOP;
  // From here on posts do not: the loop is going to drain.
  void stay_awake() TOLK_LOOP;
  // Refuses what is queued and all that comes; ends stay. To be called before the wake-up handle is
  // closed.
  void close() TOLK_LOOP;

 private:
  struct State {
    uv_async_t* wake_up = nullptr;  // null while closed
    TaskList tasks;
    TaskList ends;
    std::unique_ptr<Task> prepared;
    bool asleep = true;
  };

  bool enqueue_if_open(std::unique_ptr<Task>& task);
  uv_async_t* sleeper(State& state);
  void wake(uv_async_t* sleeper);
  static bool run_all(TaskList& batch) TOLK_LOOP;

  Guarded<State> state_;
  UnlockedUsers wakers_;  // threads that are about to touch the wake-up handle
  TaskList running_ TOLK_GUARDED_BY(loop_role);  // taken by drain
};

}  // namespace tolk
