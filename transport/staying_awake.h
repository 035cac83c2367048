// When a thread that has nothing to do stays awake for a moment, instead of going to sleep.
//
// To wake a thread costs its waker a system call, and the thread 2 to 50 µs: often more than all
// else that a call costs. A thread that polls pays with processor time. So it polls only while its
// waits have been short of late, and nobody on the machine polls while others need the processor.
//
// Thread: WaitScore is its user's; the functions are for any. Owner: none. Failure: none.
#pragma once

#include <uv.h>

#include <chrono>

namespace tolk {

using Instant = std::chrono::steady_clock::time_point;

inline Instant instant_now() { return std::chrono::steady_clock::now(); }

// Lets another thread run. A thread that gets the processor back late stops all polling of the
// process for a while.
void let_others_run();

// uv_sem_wait of a thread of the host, which stays awake while its waits are short.
void wait_awake(uv_sem_t* semaphore);

// How long a thread polls, at most, for what it waits for.
inline constexpr std::chrono::microseconds kStayAwake{50};

// What waits of one kind were worth of late.
class WaitScore {
 public:
  // Whether it pays to poll now.
  bool pays(Instant now) const;
  // A wait has ended after this time.
  void waited(std::chrono::nanoseconds time, Instant now);

 private:
  static constexpr int kMost = 16;
  static constexpr int kPays = 3;
  static constexpr int kShort = 1;
  static constexpr int kInVain = -2;
  static constexpr int kLong = -4;
  // A wait takes this long while all others sleep too. If all polled, it would be short.
  static constexpr std::chrono::microseconds kShortWithSleep{400};

  int score_ = 0;
};

}  // namespace tolk
