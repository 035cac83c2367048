// The times at which calls with a callback, and the first messages of clients, are too late.
//
// A call that ends in time leaves its entry here: to find it would cost more than to keep it. When
// there are twice as many entries as live ones, the others are dropped.
//
// Thread: add from any; the rest on the loop thread. Owner: the object.
// Failure: std::bad_alloc from add.
#pragma once

#include <uv.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "transport/thread_safety.h"

namespace tolk {

inline constexpr std::uint64_t kNanosecondsPerMs = 1000000;

// By uv_hrtime; a negative limit is none.
inline std::uint64_t deadline_after(std::int32_t limit_ms) {
  return limit_ms < 0 ? UINT64_MAX
                      : uv_hrtime() + static_cast<std::uint64_t>(limit_ms) * kNanosecondsPerMs;
}

class Deadlines {
 public:
  // `expired(number)` on the loop thread. `is_live(number)`, on any: whether somebody still waits
  // for it.
  Deadlines(std::function<void(std::uint64_t)> expired, std::function<bool(std::uint64_t)> is_live)
      : expired_(std::move(expired)), is_live_(std::move(is_live)) {}

  int open(uv_loop_t* loop) TOLK_LOOP;
  // True: the loop thread has to arm the timer. If it cannot be told to, arming_failed.
  bool add(std::uint64_t deadline, std::uint64_t number);
  void arming_failed() { state_.lock()->is_asked = false; }
  void arm() TOLK_LOOP;
  // With those that nobody waits for any more.
  std::size_t size() const { return state_.lock()->heap.size(); }

 private:
  using Entry = std::pair<std::uint64_t, std::uint64_t>;
  static constexpr std::size_t kFewEntries = 64;

  struct State {
    std::vector<Entry> heap;  // the earliest is the first
    std::size_t compact_at = kFewEntries;
    std::uint64_t armed_for = UINT64_MAX;
    bool is_asked = false;  // the loop thread is going to arm the timer
  };

  static void on_timer(uv_timer_t* timer);
  std::uint64_t take_expired();
  void compact(State& state);

  const std::function<void(std::uint64_t)> expired_;
  const std::function<bool(std::uint64_t)> is_live_;
  Guarded<State> state_;
  uv_timer_t timer_ TOLK_GUARDED_BY(loop_role){};
};

}  // namespace tolk
