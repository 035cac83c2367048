// Waiting in tests: for a condition, for an event that the test itself sets, for a count.
//
// Every wait has a limit, so that a test fails rather than hangs; no test relies on how long a wait
// takes. What threads of the library may still use when a test ends (gates and counters in
// handlers) is shared: copies of one are the same thing.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace tolk::test {

using Milliseconds = std::chrono::milliseconds;

// Far beyond what any step takes, on a loaded machine and under sanitizers too.
inline constexpr Milliseconds kLimit{20000};
// For events that must not happen: long enough for them to be seen.
inline constexpr Milliseconds kQuiet{100};

// Polls until `condition()` holds. False if it did not within the limit.
template <class Condition>
bool eventually(const Condition& condition, Milliseconds limit = kLimit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// The time since it was made.
class Stopwatch {
 public:
  Milliseconds elapsed() const {
    return std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - start_);
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// A number that threads raise.
class Counter {
 public:
  void add() {
    const std::lock_guard<std::mutex> lock(shared_->mutex);
    ++shared_->value;
    shared_->changed.notify_all();
  }
  int value() const {
    const std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->value;
  }
  // Until the number is at least `value`.
  bool wait_for(int value, Milliseconds limit = kLimit) const {
    std::unique_lock<std::mutex> lock(shared_->mutex);
    return shared_->changed.wait_for(lock, limit, [&] { return shared_->value >= value; });
  }

 private:
  struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    int value = 0;
  };

  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

// Blocks each thread that passes until the test opens it.
class Gate {
 public:
  // In a handler: waits for open().
  void pass() {
    entered_.add();
    opened_.wait_for(1);
  }
  // In the test: until `count` threads have come.
  bool wait_entered(int count = 1, Milliseconds limit = kLimit) const {
    return entered_.wait_for(count, limit);
  }
  int entered() const { return entered_.value(); }
  void open() { opened_.add(); }

 private:
  Counter entered_;
  Counter opened_;
};

// Opens it when the test ends, however it ends, so that no handler stays blocked.
class OpenAtEnd {
 public:
  explicit OpenAtEnd(Gate gate) : gate_(std::move(gate)) {}
  ~OpenAtEnd() { gate_.open(); }
  OpenAtEnd(const OpenAtEnd&) = delete;
  OpenAtEnd& operator=(const OpenAtEnd&) = delete;

 private:
  Gate gate_;
};

}  // namespace tolk::test
