// Whether it pays to poll for a while instead of sleeping. A thread that waits for a short time
// saves both the sleep and the other side's wake-up; a thread that waits for long only burns its
// core.
//
// Thread: any; several threads may share one.
#pragma once

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>

namespace bench {

class Polling {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::microseconds kWindow{50};

  explicit Polling(bool allowed) : allowed_(allowed) {}

  // Recent waits were short, and nobody else wanted the core. All processes try again at the same
  // moments, as waits are short only if both sides poll.
  bool pays() {
    if (!allowed_) return false;
    const Clock::rep now = Clock::now().time_since_epoch().count();
    if (pause_until_.load(std::memory_order_relaxed) > now) return false;
    const Clock::rep period = now / Clock::duration(kRetry).count();
    if (period_.load(std::memory_order_relaxed) != period) {
      period_.store(period, std::memory_order_relaxed);
      score_.store(kMost / 2, std::memory_order_relaxed);
    }
    return score_.load(std::memory_order_relaxed) >= kEnough;
  }

  // How long a wait took in the end.
  void waited(Clock::duration time) {
    const int score = score_.load(std::memory_order_relaxed);
    score_.store(time < kWindow ? std::min(kMost, score + 1) : std::max(0, score - kPenalty),
                 std::memory_order_relaxed);
  }

  // One turn of a poll. If another process had the core, nobody polls for a while, and for longer
  // each time.
  static void give_way() {
    const Clock::time_point begin = Clock::now();
    sched_yield();
    const Clock::time_point now = Clock::now();
    if (now - begin > kCoreTaken) {
      const Clock::rep time = now.time_since_epoch().count();
      const bool again = time - pause_until_.load() < Clock::duration(kRetry).count();
      pause_ = again ? std::min<Clock::rep>(2 * pause_, kLongest.count()) : kShortest.count();
      pause_until_.store(time + pause_, std::memory_order_relaxed);
    }
  }

 private:
  static constexpr int kEnough = 3;
  static constexpr int kMost = 16;
  static constexpr int kPenalty = 4;
  static constexpr std::chrono::microseconds kCoreTaken{500};
  static constexpr std::chrono::nanoseconds kShortest{10'000'000};
  static constexpr std::chrono::nanoseconds kLongest{1'000'000'000};
  static constexpr std::chrono::milliseconds kRetry{20};

  const bool allowed_;
  std::atomic<int> score_{kEnough};
  std::atomic<Clock::rep> period_{0};
  static inline std::atomic<Clock::rep> pause_until_{0};
  static inline std::atomic<Clock::rep> pause_{0};
};

}  // namespace bench
