#include "capi/deadlines.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace {

TEST(CapiDeadlines, EntriesOfEndedCallsAreDropped) {
  std::set<std::uint64_t> live{1, 3};
  tolk::Deadlines deadlines([](std::uint64_t) {},
                            [&](std::uint64_t number) { return live.contains(number); });
  for (std::uint64_t number = 1; number < 20001; number += 2) {
    deadlines.add(UINT64_MAX - number, number);
  }
  EXPECT_LT(deadlines.size(), 100U);
}

TEST(CapiDeadlines, OnlyAnEarlierOneAsksForTheLoop) {
  tolk::Deadlines deadlines([](std::uint64_t) {}, [](std::uint64_t) { return true; });
  EXPECT_TRUE(deadlines.add(1000, 1));
  EXPECT_FALSE(deadlines.add(2000, 3));
  EXPECT_FALSE(deadlines.add(500, 5));  // the loop is going to look
  deadlines.arming_failed();
  EXPECT_TRUE(deadlines.add(3000, 7));
}

// The timer of the deadlines, which is the only one of the loop.
uv_timer_t* timer_of(uv_loop_t& loop) {
  uv_timer_t* found = nullptr;
  uv_walk(
      &loop,
      [](uv_handle_t* handle, void* to) {
        *static_cast<uv_timer_t**>(to) = reinterpret_cast<uv_timer_t*>(handle);
      },
      &found);
  return found;
}

// The system decides how late the loop thread runs then.
TEST(CapiDeadlines, TheTimerIsDueAMillisecondAfterTheEarliestAndNothingExpiresBefore) {
  tolk::enter_loop();
  constexpr std::uint64_t kMs = 1000000;
  uv_loop_t loop{};
  ASSERT_EQ(uv_loop_init(&loop), 0);
  std::map<std::uint64_t, std::uint64_t> expired_at;
  tolk::Deadlines deadlines([&](std::uint64_t number) { expired_at[number] = uv_hrtime(); },
                            [](std::uint64_t) { return true; });
  ASSERT_EQ(deadlines.open(&loop), 0);
  uv_timer_t* const timer = timer_of(loop);
  const std::uint64_t begin = uv_hrtime();
  const std::map<std::uint64_t, std::uint64_t> due{{1, begin + 40 * kMs}, {3, begin + 20 * kMs}};
  for (const auto& [number, deadline] : due) {
    EXPECT_TRUE(deadlines.add(deadline, number));
    deadlines.arm();
    EXPECT_LE(uv_timer_get_due_in(timer), (deadline - begin) / kMs + 1);
  }
  uv_run(&loop, UV_RUN_DEFAULT);
  ASSERT_EQ(expired_at.size(), 2U);
  for (const auto& [number, deadline] : due) EXPECT_GE(expired_at[number], deadline);
  uv_close(reinterpret_cast<uv_handle_t*>(timer), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  EXPECT_EQ(uv_loop_close(&loop), 0);
}

}  // namespace
