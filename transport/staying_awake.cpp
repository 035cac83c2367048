#include "transport/staying_awake.h"

#include <algorithm>
#include <atomic>
#include <thread>

namespace tolk {
namespace {

// A yield that takes longer has given the processor to another process.
constexpr std::chrono::microseconds kLateReturn{500};
constexpr std::chrono::milliseconds kRest{10};

constinit std::atomic<Instant::rep> rests_until{0};

bool processor_is_wanted(Instant now) {
  return now.time_since_epoch().count() < rests_until.load(std::memory_order_relaxed);
}

bool posted_within(uv_sem_t* semaphore, Instant end) {
  while (uv_sem_trywait(semaphore) != 0) {
    if (instant_now() > end) return false;
    let_others_run();
  }
  return true;
}

}  // namespace

void let_others_run() {
  const Instant before = instant_now();
  std::this_thread::yield();
  const Instant after = instant_now();
  if (after - before < kLateReturn) return;
  rests_until.store((after + kRest).time_since_epoch().count(), std::memory_order_relaxed);
}

void wait_awake(uv_sem_t* semaphore) {
  thread_local WaitScore waits;
  const Instant begin = instant_now();
  if (!waits.pays(begin) || !posted_within(semaphore, begin + kStayAwake)) {
    uv_sem_wait(semaphore);
  }
  const Instant end = instant_now();
  waits.waited(end - begin, end);
}

bool WaitScore::pays(Instant now) const { return score_ >= kPays && !processor_is_wanted(now); }

void WaitScore::waited(std::chrono::nanoseconds time, Instant now) {
  const bool polled = pays(now);
  int change = kLong;
  if (time <= kStayAwake) {
    change = kShort;
  } else if (time <= kShortWithSleep) {
    change = polled ? kInVain : kShort;
  }
  score_ = std::clamp(score_ + change, 0, kMost);
}

}  // namespace tolk
