#include "platform/clock.h"

#include <gtest/gtest.h>

#include <chrono>

namespace tolk::platform {
namespace {

std::uint64_t steady_ms() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// How long a loop that only reads the clock may go on before the tick must have moved.
constexpr std::uint64_t kPatienceMs = 5'000;

TEST(Clock, TickNeverGoesBack) {
  std::uint32_t last = tick_ms();
  for (int i = 0; i < 100'000; ++i) {
    const std::uint32_t now = tick_ms();
    ASSERT_LT(now - last, 0x8000'0000u);
    last = now;
  }
}

TEST(Clock, TickCountsMilliseconds) {
  const std::uint64_t begin_ms = steady_ms();
  const std::uint32_t begin_tick = tick_ms();
  while (tick_ms() - begin_tick < 50 && steady_ms() - begin_ms < kPatienceMs) {
  }
  const std::uint32_t ticks = tick_ms() - begin_tick;
  const std::uint64_t passed_ms = steady_ms() - begin_ms;
  EXPECT_GE(ticks, 50u);
  EXPECT_LE(ticks, passed_ms + 16);  // 16: the coarsest tick among the supported systems
}

}  // namespace
}  // namespace tolk::platform
