#include "capi/workers.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <thread>
#include <utility>

#include "capi/callbacks.h"
#include "platform/guarded.h"
#include "platform/process.h"
#include "platform/thread.h"

namespace tolk {
namespace {

// The round in which the calling thread began its task.
constexpr unsigned kNoRound = std::numeric_limits<unsigned>::max();
thread_local WorkerPool* pool_of_this_thread = nullptr;
thread_local std::uint32_t process_of_this_thread = 0;
thread_local unsigned round_of_this_thread = kNoRound;

// Null: the thread is of no pool. That is also so in a child that a task has forked: the child has
// none of the pool's threads, and the tasks are its parent's.
WorkerPool* pool_here() {
  const bool is_here =
      pool_of_this_thread != nullptr && process_of_this_thread == platform::generation();
  return is_here ? pool_of_this_thread : nullptr;
}

}  // namespace

void WorkerPool::add(TaskPlace& place) {
  if (add_quietly(place)) call_threads();
}

bool WorkerPool::add_quietly(TaskPlace& place) {
  TaskRow done;  // freed without the lock
  auto state = state_.lock();
  state->done.swap(done);
  if (state->last_end != Instant()) {
    const Instant now = instant_now();
    state->gaps.waited(now - std::exchange(state->last_end, {}), now);
  }
  state->waiting.add(place);
  waiting_count_.store(state->waiting.size(), std::memory_order_relaxed);
  return lacks_threads(*state);
}

void WorkerPool::call_threads() {
  auto state = state_.lock();
  find_threads(state);
}

bool WorkerPool::more_waits() {
  const WorkerPool* const pool = pool_here();
  return pool != nullptr && pool->waiting_count_.load(std::memory_order_relaxed) > 0;
}

void WorkerPool::run_here() {
  TaskRow tasks;
  {
    const auto state = state_.lock();
    tasks.swap(state->waiting);
    waiting_count_.store(0, std::memory_order_relaxed);
  }
  while (!tasks.empty()) tasks.take_first()->run();
}

void WorkerPool::retire() {
  const auto state = state_.lock();
  state->retired = true;
  changed_.notify_all();
  watcher_called_.notify_all();
}

unsigned WorkerPool::most_threads(const State& state) const {
  return std::min(workers_ + state.blocked, kMost);
}

bool WorkerPool::on_worker() { return pool_here() != nullptr; }

// Threads that look at the tasks soon.
std::size_t WorkerPool::coming(const State& state) {
  return state.polling + state.woken + state.starting + (state.watcher_called ? 1 : 0);
}

// Whether threads that run, or are called, soon take what waits; and somebody watches that.
bool WorkerPool::can_wait(State& state) {
  const auto relied_on = static_cast<int>(state.quick + coming(state));
  if (relied_on == 0 || state.usual_run * state.waiting.size() > kStayAwake * relied_on) {
    return false;
  }
  state.watch_wanted = true;
  return state.watched;
}

bool WorkerPool::lacks_threads(State& state) {
  return state.waiting.size() > coming(state) && !can_wait(state);
}

// Threads are called without the lock, which they take first.
void WorkerPool::find_threads(Locked& state) {
  unsigned calls = 0;
  unsigned starts = 0;
  bool calls_watcher = false;
  while (lacks_threads(*state)) {
    if (state->woken < state->idle) {
      ++state->woken;
      ++calls;
    } else if (state->watched && !state->watcher_called) {
      state->watcher_called = calls_watcher = true;
    } else if (state->threads < most_threads(*state)) {
      ++state->threads;
      ++state->starting;
      ++starts;
    } else {
      break;
    }
  }
  state.unlock();
  for (; calls > 0; --calls) changed_.notify_one();
  if (calls_watcher) watcher_called_.notify_one();
  for (; starts > 0; --starts) start_thread();
}

void WorkerPool::start_thread() {
  platform::pin_library();
  const bool started = guarded_or(false, [this] {
    const platform::SignalsBlocked inherited_by_the_thread;
    std::thread([self = shared_from_this()] { self->run_thread(); }).detach();
    return true;
  });
  if (started) return;
  {
    const auto state = state_.lock();
    --state->threads;
    --state->starting;
  }
  thread_lacks_();
}

void WorkerPool::run_thread() {
  platform::name_this_thread("tolk-worker");
  process_of_this_thread = platform::generation();
  pool_of_this_thread = this;
  --state_.lock()->starting;
  Instant begin{};
  std::shared_ptr<tolk_task> task;
  while ((task = next(std::move(task), begin))) {
    begin = instant_now();
    task->run();
  }
}

void WorkerPool::rely_on_this_thread(State& state) {
  round_of_this_thread = state.round;
  ++state.quick;
}

void WorkerPool::no_longer_rely_on_this_thread(State& state) {
  if (std::exchange(round_of_this_thread, kNoRound) == state.round) --state.quick;
}

void WorkerPool::note_run(State& state, Instant begin) {
  constexpr int kWeight = 8;
  state.last_end = instant_now();
  const auto run = std::min<std::chrono::nanoseconds>(state.last_end - begin, kLongRun);
  state.usual_run += (run - state.usual_run) / kWeight;
}

// Null: the thread is not needed any more, and counts no longer. `begin`: of the task `before`.
// In a stream of tasks, the thread that adds them frees the memory of `before`: two threads that
// allocate and free in the same heap wait for each other.
std::shared_ptr<tolk_task> WorkerPool::next(std::shared_ptr<tolk_task> before, Instant begin) {
  if (before.use_count() != 1 || !before->drop_all_but_memory()) before.reset();
  auto state = state_.lock();
  if (before) {
    TaskPlace& place = before->queue_place();
    place.task = std::move(before);
    state->done.add(place);
  }
  if (state->waiting.empty()) free_done(state);
  no_longer_rely_on_this_thread(*state);
  if (begin != Instant()) note_run(*state, begin);
  const auto is_needed = [&] { return state->threads <= workers_ + state->blocked; };
  if (is_needed() && state->waiting.empty()) stay_awake(state);
  if (is_needed() && state->waiting.empty()) sleep(state);
  if (state->waiting.empty() || !is_needed()) {
    --state->threads;
    // It may have been called for a task, or have watched.
    if (!state->waiting.empty()) find_threads(state);
    return nullptr;
  }
  std::shared_ptr<tolk_task> task = state->waiting.take_first();
  waiting_count_.store(state->waiting.size(), std::memory_order_relaxed);
  ++state->taken;
  rely_on_this_thread(*state);
  // Nobody else looks after the others.
  if (!state->waiting.empty() && !state->watched) find_threads(state);
  return task;
}

// Nobody adds tasks any more.
void WorkerPool::free_done(Locked& state) {
  if (state->done.empty()) return;
  TaskRow done;
  done.swap(state->done);
  state.unlock();
  done.clear();
  state.relock();
}

// While tasks come quickly. One thread is enough.
void WorkerPool::stay_awake(Locked& state) {
  const Instant begin = instant_now();
  if (state->polling > 0 || state->retired || !state->gaps.pays(begin)) return;
  ++state->polling;
  state.unlock();
  while (waiting_count_.load(std::memory_order_relaxed) == 0 &&
         instant_now() - begin < kStayAwake) {
    let_others_run();
  }
  state.relock();
  --state->polling;
}

// The limit is for a thread that hears nothing at all.
void WorkerPool::sleep(Locked& state) {
  const Instant latest = instant_now() + kIdleLimit;
  while (!state->retired && instant_now() < latest) {
    const bool watches = !state->watched && (state->watch_wanted || !state->waiting.empty());
    if (watches ? watch(state) : is_called(state)) return;
  }
}

// Waits once, and tells whether there is a task for this thread.
bool WorkerPool::is_called(Locked& state) {
  const auto called = [](const State& now) { return now.woken > 0 || now.retired; };
  ++state->idle;
  if (state.wait_for(changed_, kIdleLimit, called) && state->woken > 0) --state->woken;
  --state->idle;
  return !state->waiting.empty();
}

// The same for the thread that watches: it leaves tasks to the threads that run as long as these
// take any. When they do not, they are late.
bool WorkerPool::watch(Locked& state) {
  const auto called = [](const State& now) { return now.watcher_called || now.retired; };
  const std::size_t taken = state->taken;
  state->watched = true;
  state->watch_wanted = false;
  const bool is_called = state.wait_for(watcher_called_, kWatchPeriod, called);
  state->watched = state->watcher_called = false;
  if (state->waiting.empty()) return false;
  if (is_called) return true;
  if (state->taken != taken) return false;
  ++state->round;
  state->quick = 0;
  return true;
}

void WorkerPool::change_blocked(int by) {
  auto state = state_.lock();
  state->blocked += static_cast<unsigned>(by);
  if (by < 0) return;
  no_longer_rely_on_this_thread(*state);
  find_threads(state);
}

WorkerPool::Blocked::Blocked() {
  if (WorkerPool* const pool = pool_here()) pool->change_blocked(1);
}

WorkerPool::Blocked::~Blocked() {
  if (WorkerPool* const pool = pool_here()) pool->change_blocked(-1);
}

}  // namespace tolk
