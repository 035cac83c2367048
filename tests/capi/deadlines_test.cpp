#include "capi/deadlines.h"

#include <gtest/gtest.h>

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

}  // namespace
