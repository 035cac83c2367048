// The callbacks of one object: what waits to run, what runs, and who runs it.
//
// Thread: any. Owner: the object; a task that waits or runs keeps it. No host code runs under a
// lock. Failure: none; a task is made with all the memory that it needs to be listed.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <condition_variable>
#include <memory>

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

  tolk_task(Kind kind, bool runs_inline);
  virtual ~tolk_task();
  tolk_task(const tolk_task&) = delete;
  tolk_task& operator=(const tolk_task&) = delete;

  // Unless somebody has claimed it.
  void run();

 protected:
  virtual void run_claimed() = 0;
  // Whether it runs no code of the host, so that it needs no executor.
  virtual bool is_for_workers() const { return false; }
  // A handler that does not begin.
  virtual void drop_claimed() {}

  const Kind kind_;
  const bool runs_inline_;

 private:
  friend class tolk::Callbacks;
  friend void tolk_task_run(tolk_task* task);
  class OnLoop;

  std::shared_ptr<tolk::Core> core_;  // from the dispatch on
  tolk::TaskPlace place_;             // in the list of Callbacks
  tolk::TaskPlace::iterator waiting_at_;
  tolk::TaskPlace worker_place_;  // in the list of the pool
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
  // Runs or drops what waits. Afterwards, unless the calling thread is in one of the callbacks,
  // none runs any more.
  void end();

  // Handlers that wait or run.
  std::size_t handlers() const { return state_.lock()->handlers; }
  // Whether the calling thread is in a callback of the object.
  static bool inside(const Core& core);

 private:
  friend struct ::tolk_task;
  class Scope;
  struct State {
    TaskPlace waiting;
    std::size_t running = 0;
    std::size_t handlers = 0;
    bool ended = false;
    bool ending = false;  // a thread is in end() and takes what comes
  };

  void hand_over(tolk_task& task, When when, bool ended);
  void hand_to_others(tolk_task& task);
  bool claim(tolk_task& task);
  static void claim_listed(State& state, tolk_task& task);
  void run_claimed(tolk_task& task, bool drop);
  void on_finished(const tolk_task& task);

  Core& core_;
  const tolk_execute execute_;
  void* const context_;
  const std::shared_ptr<WorkerPool> workers_;
  Guarded<State> state_;
  std::condition_variable changed_;
};

}  // namespace tolk
