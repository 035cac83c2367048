// Threads that call and call, and watch that no call outlasts its timeout.
//
// Thread: the object from one; the callers are its own threads.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/stress/frame/run.h"

namespace tolk::stress {

// How late calls returned, compared with the latest allowed moment: the timeout of a call, but not
// before the first sweep.
class Punctuality {
 public:
  using Clock = std::chrono::steady_clock;

  // From when on the sweep counts: a connect, or a server's first call.
  void sweeping_from(Clock::time_point when) { sweeping_from_ = when; }
  void note(Clock::time_point begin, int time_out_ms);  // a call that has just returned
  int worst_late_ms() const { return worst_late_ms_; }

 private:
  Clock::time_point sweeping_from_ = Clock::now();
  std::atomic<int> worst_late_ms_{0};
};

class Callers {
 public:
  // One call with a random timeout; false when there is no peer left.
  using Call = std::function<bool(int caller, Random& random)>;

  Callers(int count, std::uint64_t seed, const Call& call);
  ~Callers();
  Callers(const Callers&) = delete;
  Callers& operator=(const Callers&) = delete;

  // Until every caller has ended; false when one did not.
  bool wait_ended(Milliseconds limit) const;
  // Waits until every caller has returned from its current call, or has ended.
  bool wait_each_returned(Milliseconds limit) const;
  long calls() const;

 private:
  struct Caller {
    std::atomic<long> calls{0};
    std::atomic<bool> ended{false};
    std::thread thread;
  };

  std::atomic<bool> stop_{false};
  std::vector<std::unique_ptr<Caller>> callers_;
};

}  // namespace tolk::stress
