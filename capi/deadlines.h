// The times at which calls with a callback, and the first messages of clients, are too late.
//
// Thread: add from any; the rest on the loop thread. Owner: the object.
// Failure: std::bad_alloc from add.
#pragma once

#include <uv.h>

#include <cstdint>
#include <functional>
#include <queue>
#include <utility>
#include <vector>

#include "transport/thread_safety.h"

namespace tolk {

class Deadlines {
 public:
  // `expired(number)` on the loop thread.
  explicit Deadlines(std::function<void(std::uint64_t)> expired) : expired_(std::move(expired)) {}

  int open(uv_loop_t* loop) TOLK_LOOP;
  // True: it is the earliest, so the loop thread has to arm the timer.
  bool add(std::uint64_t deadline, std::uint64_t number);
  void arm() TOLK_LOOP;

 private:
  using Entry = std::pair<std::uint64_t, std::uint64_t>;
  using Heap = std::priority_queue<Entry, std::vector<Entry>, std::greater<>>;

  static void on_timer(uv_timer_t* timer);
  std::uint64_t take_expired();

  const std::function<void(std::uint64_t)> expired_;
  Guarded<Heap> heap_;
  uv_timer_t timer_ TOLK_GUARDED_BY(loop_role){};
};

}  // namespace tolk
