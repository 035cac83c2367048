#include "capi/workers.h"

#include <algorithm>
#include <exception>
#include <thread>
#include <utility>

#include "capi/callbacks.h"
#include "platform/thread.h"

namespace tolk {
namespace {

thread_local WorkerPool* pool_of_this_thread = nullptr;

}  // namespace

void WorkerPool::add(TaskPlace& place) {
  {
    const auto state = state_.lock();
    state->waiting.splice(state->waiting.end(), place);
    if (state->idle > 0) changed_.notify_one();
  }
  start_if_needed();
}

void WorkerPool::run_here() {
  TaskPlace tasks;
  tasks.swap(state_.lock()->waiting);
  for (const auto& task : tasks) task->run();
}

void WorkerPool::retire() {
  const auto state = state_.lock();
  state->retired = true;
  changed_.notify_all();
}

bool WorkerPool::needs_thread(const State& state) const {
  return state.waiting.size() > state.idle &&
         state.threads < std::min(workers_ + state.blocked, kMost);
}

bool WorkerPool::on_worker() { return pool_of_this_thread != nullptr; }

void WorkerPool::start_if_needed() {
  {
    const auto state = state_.lock();
    if (!needs_thread(*state)) return;
    ++state->threads;
  }
  platform::pin_library();
  const platform::SignalsBlocked inherited_by_the_thread;
  try {
    std::thread([self = shared_from_this()] { self->run_thread(); }).detach();
  } catch (const std::exception&) {
    --state_.lock()->threads;
    thread_lacks_();
  }
}

void WorkerPool::run_thread() {
  platform::name_this_thread("tolk-worker");
  pool_of_this_thread = this;
  while (const auto task = next()) task->run();
}

// Null: the thread is not needed any more, and counts no longer.
std::shared_ptr<tolk_task> WorkerPool::next() {
  auto state = state_.lock();
  const auto has_task = [](const State& now) { return !now.waiting.empty() || now.retired; };
  if (state->threads <= workers_ + state->blocked && state->waiting.empty()) {
    ++state->idle;
    state.wait_for(changed_, kIdleLimit, has_task);
    --state->idle;
  }
  if (state->waiting.empty() || state->threads > workers_ + state->blocked) {
    --state->threads;
    return nullptr;
  }
  std::shared_ptr<tolk_task> task = std::move(state->waiting.front());
  TaskPlace place;  // freed after the lock
  place.splice(place.end(), state->waiting, state->waiting.begin());
  return task;
}

void WorkerPool::change_blocked(int by) {
  state_.lock()->blocked += static_cast<unsigned>(by);
  if (by > 0) start_if_needed();
}

WorkerPool::Blocked::Blocked() {
  if (pool_of_this_thread != nullptr) pool_of_this_thread->change_blocked(1);
}

WorkerPool::Blocked::~Blocked() {
  if (pool_of_this_thread != nullptr) pool_of_this_thread->change_blocked(-1);
}

}  // namespace tolk
