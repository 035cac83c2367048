// Counting the threads in user code, and waiting until there are none.
#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

void stay_busy_for(std::chrono::microseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < end) {
  }
}

// The last thread leaves at many moments of the other thread's wait: before, during and after its
// beginning. Each round has a new object, because a first wait takes the longest to begin.
TEST(LayerGate, LastThreadThatLeavesWakesAWaitThatJustBegins) {
  constexpr std::chrono::microseconds kStep{5};
  constexpr int kRounds = 64;
  constexpr int kStride = 29;  // so that the first rounds try short and long times
  std::array<detail::Gate, kRounds> gates;
  for (int round = 0; round < kRounds; ++round) {
    detail::Gate& gate = gates.at(static_cast<std::size_t>(round));
    std::optional<detail::Gate::Pass> pass(std::in_place, gate);
    std::atomic<bool> begins = false;
    Counter woken;
    std::thread waiter([&] {
      begins = true;
      gate.wait_until_empty();
      woken.add();
    });
    while (!begins) std::this_thread::yield();
    stay_busy_for(round * kStride % kRounds * kStep);
    pass.reset();
    const bool woke = woken.wait_for(1);
    if (!woke) {
      const detail::Gate::Pass another(gate);  // its end wakes the thread
    }
    waiter.join();
    ASSERT_TRUE(woke) << "round " << round;
  }
}

}  // namespace
}  // namespace tolk::test
