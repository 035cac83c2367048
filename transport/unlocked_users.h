// Threads that use an object for a moment after they have left the lock that guards it: to wake
// somebody who would only wait for that lock.
//
// Thread: enter under the lock, leave by the same thread without it. wait_until_left is for the
// thread that ends the object, after it has made sure, under the lock, that nobody enters any more.
// Failure: none.
#pragma once

#include <atomic>
#include <chrono>
#include <thread>

namespace tolk {

class UnlockedUsers {
 public:
  void enter() { count_.fetch_add(1, std::memory_order_relaxed); }
  // The last touch of the object.
  void leave() { count_.fetch_sub(1, std::memory_order_release); }

  // A user only has to come back from one system call. The sleep is for one that gets no processor
  // as long as the thread that waits yields to it: it has a lower priority.
  void wait_until_left() const {
    for (int yields = 0; count_.load(std::memory_order_acquire) != 0; ++yields) {
      if (yields < kYields) {
        std::this_thread::yield();
      } else {
        std::this_thread::sleep_for(kSleep);
      }
    }
  }

 private:
  static constexpr int kYields = 1000;
  static constexpr std::chrono::microseconds kSleep{100};

  std::atomic<int> count_{0};
};

}  // namespace tolk
