#include "transport/work_queue.h"

#include <stdexcept>
#include <utility>

#include "transport/pause_point.h"
#include "transport/process_exit.h"

namespace tolk {
namespace {

// Whether libuv's workers still take work. When the process exits, libuv ends them and destroys the
// lock of their queue while loop threads may still read calls: touching that lock aborts the
// process.
class Workers {
 public:
  bool enqueue(uv_loop_t* loop, uv_work_t* work, uv_work_cb run, uv_after_work_cb end) {
    const MutexLock lock(mutex_);
    return open_ && uv_queue_work(loop, work, run, end) == 0;
  }
  void close() {
    const MutexLock lock(mutex_);
    open_ = false;
  }

 private:
  Mutex mutex_;
  bool open_ TOLK_GUARDED_BY(mutex_) = true;
};

constinit Workers call_workers;
const AtProcessExit close_workers([] { call_workers.close(); });

}  // namespace

// Loop.

void WorkQueue::begin(uv_loop_t* loop, std::unique_ptr<WorkItem> item) {
  if (process_exits()) return;
  note_gap();
  std::unique_ptr<Runner> runner;
  if (!add(item, nullptr)) {
    runner = std::make_unique<Runner>(*this);
    add(item, &runner);
  }
  if (runner) start(loop, std::move(runner));
}

// Also of runners that did not stay: otherwise they would never learn that it pays.
void WorkQueue::note_gap() {
  const Instant::rep done_at = done_at_.exchange(0, std::memory_order_relaxed);
  if (done_at == 0) return;
  const Instant now = instant_now();
  gaps_.waited(now - Instant(Instant::duration(done_at)), now);
  staying_pays_.store(gaps_.pays(now), std::memory_order_relaxed);
}

// False when the item needs a runner and there is none. A runner that it does not need goes.
bool WorkQueue::add(std::unique_ptr<WorkItem>& item, std::unique_ptr<Runner>* runner) {
  auto state = state_.lock();
  if (state->waiting.size() == state->idle) {
    if (runner == nullptr) return false;
    ++state->idle;
  } else if (runner != nullptr) {
    runner->reset();
  }
  state->waiting.add(std::move(item));
  waiting_count_.store(state->waiting.size(), std::memory_order_relaxed);
  return true;
}

// Without the lock: the runner would begin by waiting for it.
void WorkQueue::start(uv_loop_t* loop, std::unique_ptr<Runner> runner) {
  if (call_workers.enqueue(loop, &runner->work, run_items, on_runner_done)) {
    static_cast<void>(runner.release());  // on_runner_done owns it
  } else if (take_back() && !process_exits()) {
    throw std::runtime_error("no worker");
  }
}

// Takes back the item that was added last. False when another runner has it, or is going to.
bool WorkQueue::take_back() {
  auto state = state_.lock();
  if (state->waiting.size() < state->idle--) return false;
  TaskList others;
  while (state->waiting.size() > 1) others.add(state->waiting.take());
  state->waiting.take();
  state->waiting.swap(others);
  waiting_count_.store(state->waiting.size(), std::memory_order_relaxed);
  return true;
}

// The items that the runner did last end here.
void WorkQueue::on_runner_done(uv_work_t* work, int) {
  enter_loop();
  const std::unique_ptr<Runner> runner(static_cast<Runner*>(work->data));
  runner->queue.ends_.drain();
}

// Worker.

void WorkQueue::run_items(uv_work_t* work) {
  enter_worker();
  auto* const runner = static_cast<Runner*>(work->data);
  runner->queue.run_until(runner->latest);
}

void WorkQueue::run_until(Instant latest) {
  auto item = begin_run();
  while (item) {
    item->work_here();
    done_at_.store(instant_now().time_since_epoch().count(), std::memory_order_relaxed);
    const bool stays = may_stay(latest);
    const bool open = ends_.post_end(std::move(item), stays);
    item = stays && open ? next() : nullptr;
  }
}

// Without the lock: a runner that does not stay leaves nothing undone.
bool WorkQueue::may_stay(Instant latest) const {
  if (process_exits() || instant_now() > latest) return false;
  return waiting_count_.load(std::memory_order_relaxed) > 0 ||
         staying_pays_.load(std::memory_order_relaxed);
}

std::unique_ptr<WorkItem> WorkQueue::begin_run() {
  auto state = state_.lock();
  --state->idle;
  return take_first(*state);
}

std::unique_ptr<WorkItem> WorkQueue::next() {
  {
    auto state = state_.lock();
    if (auto item = take_first(*state)) return item;
    ++state->idle;
  }
  TOLK_PAUSE_POINT("worker.stays_awake");
  watch_for_items();
  return begin_run();
}

void WorkQueue::watch_for_items() const {
  const Instant until = instant_now() + kStayAwake;
  while (waiting_count_.load(std::memory_order_relaxed) == 0 && !process_exits() &&
         instant_now() < until) {
    let_others_run();
  }
}

std::unique_ptr<WorkItem> WorkQueue::take_first(State& state) {
  std::unique_ptr<Task> first = state.waiting.take();
  waiting_count_.store(state.waiting.size(), std::memory_order_relaxed);
  return std::unique_ptr<WorkItem>(static_cast<WorkItem*>(first.release()));
}

}  // namespace tolk
