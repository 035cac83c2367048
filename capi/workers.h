// The threads of one object that run its callbacks, where the host has no executor.
//
// A thread is started when a task waits and none is idle. One that waits in the library does not
// count, so that calls from handlers cannot use all of them up.
//
// Thread: any. Owner: the object and every thread of the pool, which are detached.
// Failure: a thread that cannot be started is started later. Who has a task for the pool, or is in
// one, is told.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <utility>

#include "transport/thread_safety.h"

struct tolk_task;

namespace tolk {

// One task in a list: an element that is made with the task, so that listing needs no memory.
using TaskPlace = std::list<std::shared_ptr<tolk_task>>;

class WorkerPool : public std::enable_shared_from_this<WorkerPool> {
 public:
  static constexpr unsigned kUsual = 4;
  static constexpr unsigned kMost = 256;

  // `thread_lacks`: a thread could not be started; start_threads is to be called soon.
  WorkerPool(unsigned workers, std::function<void()> thread_lacks)
      : workers_(workers == 0 ? kUsual : workers), thread_lacks_(std::move(thread_lacks)) {}

  // Runs the task that `place` holds.
  void add(TaskPlace& place);
  void start_threads() { start_if_needed(); }
  // Runs what waits on the calling thread: there may be no other.
  void run_here();
  // No task comes any more: idle threads end.
  void retire();
  // Whether the calling thread is one of any pool.
  static bool on_worker();

  // While alive, the calling thread waits in the library. If it is a thread of any pool, another
  // one may run meanwhile.
  class Blocked {
   public:
    Blocked();
    ~Blocked();
    Blocked(const Blocked&) = delete;
    Blocked& operator=(const Blocked&) = delete;
  };

 private:
  static constexpr std::chrono::seconds kIdleLimit{10};

  struct State {
    TaskPlace waiting;
    unsigned threads = 0;
    unsigned idle = 0;
    unsigned blocked = 0;
    bool retired = false;
  };

  bool needs_thread(const State& state) const;
  void start_if_needed();
  void run_thread();
  std::shared_ptr<tolk_task> next();
  void change_blocked(int by);

  const unsigned workers_;
  const std::function<void()> thread_lacks_;
  Guarded<State> state_;
  std::condition_variable changed_;
};

}  // namespace tolk
