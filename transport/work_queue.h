// The calls of one session's peers on their way to workers: libuv's, which the host may use too.
//
// Each item that waits has a runner, which is a work item of libuv that takes the first item of the
// queue, whichever that is. A runner that is done takes the next one at once and, while calls come
// quickly, stays awake for the next: neither costs a wake-up. It goes after kStayLongest, so that
// other work of the process gets its turn.
//
//   waiting ≤ idle, always: as many runners as items wait are in libuv's queue, or stay awake.
//
// A runner that stays awake therefore never goes while an item waits that may count on it.
//
// Thread: begin on the loop thread; runners on workers.
// Owner: the queue owns an item until its work is done, the session's task queue until its end.
// The queue outlives its runners, since its loop does.
// Failure: begin throws when the item cannot be queued. While the process exits, items are dropped
// silently.
#pragma once

#include <uv.h>

#include <atomic>
#include <chrono>
#include <memory>

#include "transport/staying_awake.h"
#include "transport/task_queue.h"
#include "transport/thread_safety.h"
#include "transport/work_item.h"

namespace tolk {

class WorkQueue {
 public:
  // `ends`: the queue of the loop thread, on which items end.
  explicit WorkQueue(TaskQueue& ends) : ends_(ends) {}
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  void begin(uv_loop_t* loop, std::unique_ptr<WorkItem> item) TOLK_LOOP;

 private:
  struct Runner {
    explicit Runner(WorkQueue& works_for) : queue(works_for) { work.data = this; }

    uv_work_t work{};
    WorkQueue& queue;
    // From when it counts in libuv's queue: one that comes late has one item, so that items that
    // came after it do not overtake other work.
    const Instant latest = instant_now() + kStayLongest;
  };
  struct State {
    TaskList waiting;
    std::size_t idle = 0;  // runners that are going to look at `waiting`
  };

  static constexpr std::chrono::milliseconds kStayLongest{1};

  static void run_items(uv_work_t* work);
  static void on_runner_done(uv_work_t* work, int status);

  // Loop.
  void note_gap() TOLK_LOOP;
  bool add(std::unique_ptr<WorkItem>& item, std::unique_ptr<Runner>* runner) TOLK_LOOP;
  void start(uv_loop_t* loop, std::unique_ptr<Runner> runner) TOLK_LOOP;
  bool take_back() TOLK_LOOP;
  // Worker.
  void run_until(Instant latest) TOLK_WORKER;
  bool may_stay(Instant latest) const;
  std::unique_ptr<WorkItem> begin_run() TOLK_WORKER;
  std::unique_ptr<WorkItem> next() TOLK_WORKER;
  void watch_for_items() const;
  std::unique_ptr<WorkItem> take_first(State& state);

  TaskQueue& ends_;
  Guarded<State> state_;
  // How long workers have had nothing to do when a call comes.
  WaitScore gaps_ TOLK_GUARDED_BY(loop_role);
  // For runners that look without the lock.
  std::atomic<std::size_t> waiting_count_{0};
  std::atomic<bool> staying_pays_{false};
  // When a worker was done with an item since the last one came; 0: none was.
  std::atomic<Instant::rep> done_at_{0};
};

}  // namespace tolk
