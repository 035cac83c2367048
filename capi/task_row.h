// Tasks in a row, chained by places that they bring along: a row allocates nothing.
//
// Thread: one at a time. Owner: a row owns the tasks in it. Failure: none.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>

struct tolk_task;

namespace tolk {

// A task's place in one row at a time.
struct TaskPlace {
  std::shared_ptr<tolk_task> task;
  TaskPlace* before = nullptr;
  TaskPlace* next = nullptr;
};

class TaskRow {
 public:
  TaskRow() = default;
  TaskRow(const TaskRow&) = delete;
  TaskRow& operator=(const TaskRow&) = delete;
  ~TaskRow() { clear(); }

  bool empty() const noexcept { return first_ == nullptr; }
  std::size_t size() const noexcept { return size_; }
  // `place` has its task.
  void add(TaskPlace& place) noexcept {
    place.before = last_;
    place.next = nullptr;
    (empty() ? first_ : last_->next) = &place;
    last_ = &place;
    ++size_;
  }
  // The place keeps its task.
  void remove(TaskPlace& place) noexcept {
    (place.before == nullptr ? first_ : place.before->next) = place.next;
    (place.next == nullptr ? last_ : place.next->before) = place.before;
    --size_;
  }
  // Of a row that is not empty:
  const std::shared_ptr<tolk_task>& first() const noexcept { return first_->task; }
  std::shared_ptr<tolk_task> take_first() noexcept {
    TaskPlace& place = *first_;
    remove(place);
    return std::move(place.task);
  }
  void clear() noexcept {
    while (!empty()) take_first();
  }
  void swap(TaskRow& other) noexcept {
    std::swap(first_, other.first_);
    std::swap(last_, other.last_);
    std::swap(size_, other.size_);
  }

 private:
  TaskPlace* first_ = nullptr;
  TaskPlace* last_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace tolk
