// Runs an operation of a host of the required interface with failures, on the calling thread. When
// it does not come back, ends its waits; when that does not help either, ends the process.
// Thread: one that is Exempt. Failure: ends the process.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "client/large_wait.h"
#include "tests/e2e/support/waiting.h"
#include "tests/seam/faults.h"
#include "transport/wait_list.h"

namespace tolk::test {

class Operation {
 public:
  explicit Operation(int& ended_waits) : ended_waits_(ended_waits) {}

  template <class Work>
  auto operator()(const Work& work) {
    const Exempt watcher_is_made_without_failures;
    std::thread watcher([this] { watch(); });
    const Ended ended(*this, watcher);
    const Subject subject;
    return work();
  }

 private:
  struct Ended {
    Ended(Operation& operation, std::thread& watcher) : operation_(operation), watcher_(watcher) {}
    ~Ended() {
      operation_.done_.add();
      watcher_.join();
      operation_.done_ = Counter();
    }
    Operation& operation_;
    std::thread& watcher_;
  };

  // After this long the waits of a call are ended, as the loss of a server would.
  static constexpr Milliseconds kPatience{1000};
  static constexpr Milliseconds kHang{20'000};

  void watch() {
    const Exempt this_thread;
    if (done_.wait_for(1, kPatience)) return;
    ++ended_waits_;
    const Stopwatch since;
    while (!done_.wait_for(1, Milliseconds(20))) {
      client_waits().wake_all();
      server_waits().wake_all();
      large_wait().post_and_forget();
      if (since.elapsed() < kHang) continue;
      std::fputs("an operation hangs\n", stderr);
      std::abort();
    }
  }

  int& ended_waits_;
  Counter done_;
};

}  // namespace tolk::test
