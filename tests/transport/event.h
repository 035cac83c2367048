// Something that one thread waits for and another makes happen, once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace tolk::test {

// An upper limit for what happens at once; only a failing test takes so long.
inline constexpr std::chrono::seconds kPatience{20};

class Event {
 public:
  void set() {
    const std::lock_guard<std::mutex> lock(mutex_);
    happened_ = true;
    changed_.notify_all();
  }

  // False when it did not happen within the limit.
  bool wait(std::chrono::milliseconds limit = kPatience) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return happened_; });
  }

  bool happened() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return happened_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool happened_ = false;
};

}  // namespace tolk::test
