#include "transport/task_queue.h"

#include "platform/guarded.h"
#include "transport/pause_point.h"

namespace tolk {

void TaskList::add(std::unique_ptr<Task> task) noexcept {
  Task* const added = task.get();
  (last_ == nullptr ? first_ : last_->next_) = std::move(task);
  last_ = added;
  ++size_;
}

std::unique_ptr<Task> TaskList::take() noexcept {
  std::unique_ptr<Task> task = std::move(first_);
  if (!task) return nullptr;
  first_ = std::move(task->next_);
  if (!first_) last_ = nullptr;
  --size_;
  return task;
}

void TaskList::swap(TaskList& other) noexcept {
  std::swap(first_, other.first_);
  std::swap(last_, other.last_);
  std::swap(size_, other.size_);
}

void TaskQueue::prepare(std::unique_ptr<Task> task) { state_.lock()->prepared = std::move(task); }

void TaskQueue::open(uv_async_t* wake_up) { state_.lock()->wake_up = wake_up; }

bool TaskQueue::post(std::unique_ptr<Task> task) {
  TOLK_PAUSE_POINT("queue.before_post");
  const bool queued = enqueue_if_open(task);
  TOLK_PAUSE_POINT("queue.posted");
  if (!queued) task->refuse();
  return queued;
}

bool TaskQueue::enqueue_if_open(std::unique_ptr<Task>& task) {
  uv_async_t* asleep = nullptr;
  {
    auto state = state_.lock();
    if (state->wake_up == nullptr) return false;
    state->tasks.add(std::move(task));
    asleep = sleeper(*state);
  }
  wake(asleep);
  return true;
}

void TaskQueue::post_prepared() {
  uv_async_t* asleep = nullptr;
  {
    auto state = state_.lock();
    if (state->wake_up == nullptr || !state->prepared) return;
    state->tasks.add(std::move(state->prepared));
    asleep = sleeper(*state);
  }
  wake(asleep);
}

bool TaskQueue::post_end(std::unique_ptr<Task> task, bool wakes) {
  uv_async_t* asleep = nullptr;
  {
    auto state = state_.lock();
    state->ends.add(std::move(task));
    if (state->wake_up == nullptr) return false;
    if (wakes) asleep = sleeper(*state);
  }
  wake(asleep);
  return true;
}

// Null when the loop is awake, or is being woken.
uv_async_t* TaskQueue::sleeper(State& state) {
  if (!std::exchange(state.asleep, false)) return nullptr;
  wakers_.enter();
  return state.wake_up;
}

// Without the lock: the loop thread would wake up only to wait for it.
void TaskQueue::wake(uv_async_t* sleeper) {
  if (sleeper == nullptr) return;
  uv_async_send(sleeper);
  wakers_.leave();
}

// No more than what is queued now: reads and timers get their turn, however fast others post.
bool TaskQueue::drain() {
  TaskList ends;
  {
    auto state = state_.lock();
    running_.swap(state->tasks);
    ends.swap(state->ends);
  }
  // The ends first: a task may close the queue, and the replies were there before it.
  const bool ran_ends = run_all(ends);
  return run_all(running_) || ran_ends;
}

bool TaskQueue::run_all(TaskList& batch) {
  if (batch.empty()) return false;
  while (const auto task = batch.take()) {
    TOLK_PAUSE_POINT("queue.before_task");
    guarded([&] {
      enter_loop();
      task->run();
    });
    TOLK_PAUSE_POINT("queue.after_task");
  }
  return true;
}

bool TaskQueue::fall_asleep() {
  auto state = state_.lock();
  if (!state->tasks.empty() || !state->ends.empty()) return false;
  state->asleep = true;
  return true;
}

void TaskQueue::stay_awake() { state_.lock()->asleep = false; }

void TaskQueue::close() {
  TaskList left;
  {
    auto state = state_.lock();
    state->wake_up = nullptr;
    left.swap(state->tasks);
  }
  wakers_.wait_until_left();
  TOLK_PAUSE_POINT("queue.before_refusals");
  while (const auto task = running_.take()) task->refuse();
  while (const auto task = left.take()) task->refuse();
}

}  // namespace tolk
