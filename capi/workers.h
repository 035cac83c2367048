// The threads of one object that run its callbacks, where the host has no executor.
//
// A thread is started when a task waits and none is idle. One that waits in the library does not
// count, so that calls from handlers cannot use all of them up.
//
// A thread takes one task after the other. While handlers are short, a task that comes waits for
// the threads that run, which costs less than to wake another. An idle thread watches meanwhile:
// when none takes a task for kWatchPeriod, it does. The threads that run are late then: no task
// relies on them until they begin another.
//
// Thread: any. Owner: the object and every thread of the pool, which are detached.
// Failure: a thread that cannot be started is started later. Who has a task for the pool, or is in
// one, is told.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>

#include "capi/task_row.h"
#include "transport/staying_awake.h"
#include "transport/thread_safety.h"

namespace tolk {

class WorkerPool : public std::enable_shared_from_this<WorkerPool> {
 public:
  static constexpr unsigned kUsual = 4;
  static constexpr unsigned kMost = 256;

  // `thread_lacks`: a thread could not be started; call_threads or run_here is to be called soon.
  WorkerPool(unsigned workers, std::function<void()> thread_lacks)
      : workers_(workers == 0 ? kUsual : workers), thread_lacks_(std::move(thread_lacks)) {}

  // Runs the task that `place` holds.
  void add(TaskPlace& place);
  // The same for one of several that come together. True: call_threads must follow.
  bool add_quietly(TaskPlace& place);
  void call_threads();
  // Runs what waits on the calling thread: there may be no other.
  void run_here();
  // No task comes any more: idle threads end.
  void retire();
  // For tests: threads that sleep; whether one more watches; how often threads were late.
  unsigned idle() const { return state_.lock()->idle; }
  bool watched() const { return state_.lock()->watched; }
  unsigned late_rounds() const { return state_.lock()->round; }
  // Whether the calling thread is one of any pool.
  static bool on_worker();
  // Whether it is, and takes another task at once when its task returns.
  static bool more_waits();

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
  static constexpr std::chrono::milliseconds kWatchPeriod{1};
  static constexpr std::chrono::nanoseconds kLongRun{1000000};

  struct State {
    TaskRow waiting;
    TaskRow done;  // their memory is freed by the thread that has allocated it: it adds the next
    unsigned threads = 0;
    unsigned starting = 0;
    unsigned idle = 0;     // asleep, without the one that watches
    unsigned woken = 0;    // of the idle ones, those that are called
    unsigned polling = 0;  // look at the tasks soon
    unsigned blocked = 0;
    unsigned round = 0;  // begins when threads are found to be late
    unsigned quick = 0;  // run a task that they began in this round, without a wait in the library
    bool retired = false;
    bool watched = false;  // a thread without a task watches
    bool watcher_called = false;
    bool watch_wanted = false;  // a task relies on it
    std::size_t taken = 0;
    std::chrono::nanoseconds usual_run{0};
    Instant last_end{};
    WaitScore gaps;  // between the last task and the next
  };
  using Locked = Guarded<State>::Locked;

  unsigned most_threads(const State& state) const;
  static std::size_t coming(const State& state);
  static bool can_wait(State& state);
  static bool lacks_threads(State& state);
  void find_threads(Locked& state);
  void start_thread();
  void run_thread();
  std::shared_ptr<tolk_task> next(std::shared_ptr<tolk_task> before, Instant begin);
  static void free_done(Locked& state);
  static void rely_on_this_thread(State& state);
  static void no_longer_rely_on_this_thread(State& state);
  static void note_run(State& state, Instant begin);
  void stay_awake(Locked& state);
  void sleep(Locked& state);
  bool is_called(Locked& state);
  bool watch(Locked& state);
  void change_blocked(int by);

  const unsigned workers_;
  const std::function<void()> thread_lacks_;
  Guarded<State> state_;
  std::condition_variable changed_;
  std::condition_variable watcher_called_;
  std::atomic<std::size_t> waiting_count_{0};  // for a thread that looks without the lock
};

}  // namespace tolk
