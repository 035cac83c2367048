// The callbacks of one object: what waits to run, what runs, and who runs it.
//
// Thread: any. Owner: the object; a task that waits or runs keeps it. No host code runs under a
// lock. Failure: none; a task is made with all the memory that it needs to be listed.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <utility>

#include "capi/workers.h"
#include "transport/task_queue.h"
#include "transport/thread_safety.h"

namespace tolk {
class Callbacks;
class Core;
}  // namespace tolk

// One callback. It runs at most once.
struct tolk_task : std::enable_shared_from_this<tolk_task> {
 public:
  enum class Kind { outcome, hook, handler };

  // `core`: its object, unless that is told by the dispatch.
  tolk_task(Kind kind, bool runs_inline, std::shared_ptr<tolk::Core> core = nullptr);
  virtual ~tolk_task();
  tolk_task(const tolk_task&) = delete;
  tolk_task& operator=(const tolk_task&) = delete;

  // Unless somebody has claimed it.
  virtual void run();
  // After a run on a worker, for the only owner: drops what somebody may wait for. False: what is
  // left is more than some memory.
  virtual bool drop_all_but_memory() { return false; }
  // For a queue in which the task waits for its turn; a pool's, later.
  tolk::TaskPlace& queue_place() { return worker_place_; }

 protected:
  virtual void run_claimed() = 0;
  // Whether it runs no code of the host, so that it needs no executor.
  virtual bool is_for_workers() const { return false; }
  // A handler that does not begin.
  virtual void drop_claimed() {}

  const Kind kind_;
  const bool runs_inline_;
  std::shared_ptr<tolk::Core> core_;

 private:
  friend class tolk::Callbacks;
  friend void tolk_task_run(tolk_task* task);
  class OnLoop;

  tolk::Callbacks* expected_by_ = nullptr;  // who counts the task as unfinished
  tolk::TaskPlace place_;                   // in the row of Callbacks
  tolk::TaskPlace worker_place_;            // in that of the pool
  std::unique_ptr<tolk::Task> loop_task_;
  std::shared_ptr<tolk_task> held_by_host_;
  bool claimed_ = false;
};

namespace tolk {

class Callbacks {
 public:
  Callbacks(Core& core, tolk_execute execute, void* context, unsigned workers);
  ~Callbacks();

  enum class When {
    now,    // an inline task may run in here
    later,  // no task does
  };
  void dispatch(const std::shared_ptr<tolk_task>& task, When when);
  // The task is unfinished from here on, although nobody has dispatched it yet: end waits for it.
  // One that is dropped without a dispatch counts no longer.
  void expect(tolk_task& task);
  // Runs or drops what waits. Afterwards, unless the calling thread is in one of the callbacks,
  // none runs any more. The log gets no line afterwards; one that this thread is in goes on.
  void end();

  // While alive, a handler waits or runs. It counts from the arrival of its request on.
  class HandlerCount {
   public:
    explicit HandlerCount(Callbacks& callbacks) : callbacks_(&callbacks) { ++callbacks.handlers_; }
    HandlerCount(HandlerCount&& other) noexcept
        : callbacks_(std::exchange(other.callbacks_, nullptr)) {}
    HandlerCount& operator=(HandlerCount&&) = delete;
    ~HandlerCount() { end(); }

    void end();

   private:
    Callbacks* callbacks_;
  };
  std::size_t handlers() const { return handlers_; }
  void start_workers() { workers_->call_threads(); }

  // While alive, end waits for more.
  class Unfinished {
   public:
    explicit Unfinished(Callbacks& callbacks) : callbacks_(callbacks) {
      ++callbacks.state_.lock()->unfinished;
    }
    ~Unfinished() { callbacks_.count_down(); }
    Unfinished(const Unfinished&) = delete;
    Unfinished& operator=(const Unfinished&) = delete;

   private:
    Callbacks& callbacks_;
  };

  // While alive, a line of the log is told, unless the object has ended. The end waits for it.
  class Telling {
   public:
    explicit Telling(Callbacks& callbacks);
    ~Telling();
    Telling(const Telling&) = delete;
    Telling& operator=(const Telling&) = delete;

    bool is_allowed() const { return callbacks_ != nullptr; }

   private:
    Callbacks* callbacks_ = nullptr;
  };

  // Whether the calling thread is in a callback of the object, or in its log.
  static bool inside(const Core& core);
  static bool inside_log(const Core& core);
  // While alive, the calling thread is.
  class Scope;

 private:
  friend struct ::tolk_task;
  struct State {
    TaskRow waiting;
    TaskRow dropped;             // handlers that come after the end
    std::size_t unfinished = 0;  // expected, waiting or running; or the executor is being called
    std::size_t lines = 0;       // of the log, being told
    bool ended = false;
    bool is_silent = false;  // the log gets no more lines
    bool ending = false;     // a thread is in end() and takes what comes
    bool dropping = false;   // a thread drops handlers
  };

  void on_thread_lacking();

  class EndOfTurn;
  static constexpr int kMostQuiet = 16;

  void hand_over(const std::shared_ptr<tolk_task>& task, When when);
  void hand_to_others(const std::shared_ptr<tolk_task>& task, When when);
  void add_quietly(TaskPlace& place);
  void give_to_executor(const std::shared_ptr<tolk_task>& task);
  void drop_handlers();
  bool claim(tolk_task& task);
  static void claim_listed(State& state, tolk_task& task);
  void run_claimed(tolk_task& task, bool drop);
  void count_down();

  Core& core_;
  const tolk_execute execute_;
  void* const context_;
  const std::shared_ptr<WorkerPool> workers_;
  // The loop thread's: tasks of this turn for which no thread has been called.
  int quiet_ = 0;
  std::atomic<std::size_t> handlers_{0};
  Guarded<State> state_;
  std::condition_variable changed_;
};

class Callbacks::Scope {
 public:
  explicit Scope(const Core& core, bool is_log = false);
  ~Scope();
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

 private:
  friend class Callbacks;
  static thread_local const Scope* innermost;

  const Core& core_;
  const bool is_log_;
  const Scope* const outer_;
};

}  // namespace tolk
