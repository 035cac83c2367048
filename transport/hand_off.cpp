#include "transport/hand_off.h"

#include "transport/invoke_guarded.h"
#include "transport/pause_point.h"

namespace tolk {

void TaskLine::add(std::unique_ptr<LoopTask> task) noexcept {
  LoopTask* const added = task.get();
  (last_ == nullptr ? first_ : last_->next_) = std::move(task);
  last_ = added;
  ++size_;
}

std::unique_ptr<LoopTask> TaskLine::take() noexcept {
  std::unique_ptr<LoopTask> task = std::move(first_);
  if (!task) return nullptr;
  first_ = std::move(task->next_);
  if (!first_) last_ = nullptr;
  --size_;
  return task;
}

void TaskLine::swap(TaskLine& other) noexcept {
  std::swap(first_, other.first_);
  std::swap(last_, other.last_);
  std::swap(size_, other.size_);
}

void HandOff::make_ready(std::unique_ptr<LoopTask> task) { line_.lock()->ready = std::move(task); }

void HandOff::open(uv_async_t* wake_up) { line_.lock()->wake_up = wake_up; }

bool HandOff::post(std::unique_ptr<LoopTask> task) {
  {
    auto line = line_.lock();
    if (line->wake_up != nullptr) {
      stand_in_line(*line, std::move(task));
      return true;
    }
  }
  task->refuse();
  return false;
}

void HandOff::post_ready() {
  auto line = line_.lock();
  if (line->wake_up != nullptr && line->ready) stand_in_line(*line, std::move(line->ready));
}

void HandOff::stand_in_line(Line& line, std::unique_ptr<LoopTask> task) {
  line.tasks.add(std::move(task));
  if (!std::exchange(line.woken, true)) uv_async_send(line.wake_up);
}

std::unique_ptr<LoopTask> HandOff::next() { return line_.lock()->tasks.take(); }

void HandOff::drain() {
  // Not more than what stood in line: reads and time-outs have their turn, however fast others
  // post.
  for (std::size_t left = length(); left > 0; --left) {
    const auto task = next();
    if (!task) return;
    invoke_guarded([&] { task->run(); });
  }
  auto line = line_.lock();
  line->woken = !line->tasks.empty();
  if (line->woken && line->wake_up != nullptr) uv_async_send(line->wake_up);
}

std::size_t HandOff::length() { return line_.lock()->tasks.size(); }

void HandOff::close() {
  TaskLine left;
  {
    auto line = line_.lock();
    line->wake_up = nullptr;
    left.swap(line->tasks);
  }
  TOLK_PAUSE_POINT("handoff.before_refusals");
  while (const auto task = left.take()) task->refuse();
}

}  // namespace tolk
