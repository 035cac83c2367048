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
  auto state = state_.lock();
  if (state->wake_up == nullptr) return false;
  enqueue(*state, std::move(task));
  return true;
}

void TaskQueue::post_prepared() {
  auto state = state_.lock();
  if (state->wake_up != nullptr && state->prepared) enqueue(*state, std::move(state->prepared));
}

void TaskQueue::enqueue(State& state, std::unique_ptr<Task> task) {
  state.tasks.add(std::move(task));
  if (!std::exchange(state.woken, true)) uv_async_send(state.wake_up);
}

std::unique_ptr<Task> TaskQueue::next() { return state_.lock()->tasks.take(); }

void TaskQueue::drain() {
  // No more than what is queued now: reads and timers get their turn, however fast others post.
  for (std::size_t left = size(); left > 0; --left) {
    const auto task = next();
    if (!task) return;
    TOLK_PAUSE_POINT("queue.before_task");
    guarded([&] {
      enter_loop();
      task->run();
    });
    TOLK_PAUSE_POINT("queue.after_task");
  }
  auto state = state_.lock();
  state->woken = !state->tasks.empty();
  if (state->woken && state->wake_up != nullptr) uv_async_send(state->wake_up);
}

std::size_t TaskQueue::size() { return state_.lock()->tasks.size(); }

void TaskQueue::close() {
  TaskList left;
  {
    auto state = state_.lock();
    state->wake_up = nullptr;
    left.swap(state->tasks);
  }
  TOLK_PAUSE_POINT("queue.before_refusals");
  while (const auto task = left.take()) task->refuse();
}

}  // namespace tolk
