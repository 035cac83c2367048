/// @file
/// The threads of a client for asynchronous calls.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace tolk {
inline namespace v1 {

/// @cond internal
namespace detail {

// A task queue, and threads that are started when needed.
// Thread: any, except that a task must not call `stop`. Owner: the threads, which `stop` joins.
// Failure: std::system_error when not even one thread can start. A task that will not run is called
// with `false`. A task must not throw.
class Workers {
 public:
  using Task = std::function<void(bool wanted)>;

  explicit Workers(std::size_t most) : most_(most == 0 ? 1 : most) {}
  ~Workers() { stop(); }
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  void add(Task task) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!stopped_) {
        if (idle_ <= tasks_.size() && threads_.size() < most_) start_thread();
        tasks_.push_back(std::move(task));
        came_.notify_one();
        return;
      }
    }
    task(false);
  }

  // Cancels the queued tasks.
  void drop() {
    std::deque<Task> dropped;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      stopped_ = true;
      dropped.swap(tasks_);
      came_.notify_all();
    }
    for (const Task& task : dropped) task(false);
  }
  void stop() {
    drop();
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

 private:
  void start_thread() {
    try {
      threads_.emplace_back([this] { work(); });
    } catch (const std::system_error&) {
      if (threads_.empty()) throw;
    }
  }

  void work() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
      ++idle_;
      came_.wait(lock, [&] { return stopped_ || !tasks_.empty(); });
      --idle_;
      if (tasks_.empty()) return;
      const Task task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task(true);
      lock.lock();
    }
  }

  const std::size_t most_;
  std::mutex mutex_;
  std::condition_variable came_;
  std::deque<Task> tasks_;
  std::vector<std::thread> threads_;
  std::size_t idle_ = 0;
  bool stopped_ = false;
};

}  // namespace detail
/// @endcond

}  // namespace v1
}  // namespace tolk
