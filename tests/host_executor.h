// An executor of a host of the C interface: one thread that runs what it gets, in that order.
//
// Thread: any. Owner: the test, beyond the objects that use it.
// Failure: what the library may not do is a trouble, in words.
#pragma once

#include <tolk/c.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace tolk::test {

class HostExecutor {
 public:
  HostExecutor() = default;
  ~HostExecutor() { end(); }
  HostExecutor(const HostExecutor&) = delete;
  HostExecutor& operator=(const HostExecutor&) = delete;

  // A tolk_execute, with the executor as its context.
  static void execute(void* executor, tolk_task* task) {
    static_cast<HostExecutor*>(executor)->add(task);
  }

  void add(tolk_task* task) {
    const std::lock_guard lock(mutex_);
    const bool is_there = std::find(tasks_.begin(), tasks_.end(), task) != tasks_.end();
    if (is_there) trouble_ = "a task comes twice";
    if (ends_) trouble_ = "a task comes after the end of its object";
    if (is_there || ends_) return;
    tasks_.push_back(task);
    changed_.notify_all();
  }

  // Runs what is left. The objects that use it have been freed before.
  void end() {
    {
      const std::lock_guard lock(mutex_);
      ends_ = true;
      changed_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
  }

  std::string trouble() const {
    const std::lock_guard lock(mutex_);
    return trouble_;
  }
  std::thread::id thread() const { return thread_.get_id(); }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return ends_ || !tasks_.empty(); });
      if (tasks_.empty()) return;
      tolk_task* const task = tasks_.front();
      tasks_.pop_front();
      lock.unlock();
      tolk_task_run(task);
      lock.lock();
    }
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<tolk_task*> tasks_;
  bool ends_ = false;
  std::string trouble_;
  std::thread thread_{[this] { run(); }};
};

}  // namespace tolk::test
