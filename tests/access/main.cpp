// Two users need a test that starts as root: it gives each part to a process that is one of them
// for good. Elsewhere there is nothing to run; scripts/test says so.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

int main(int count, char** words) {
  testing::InitGoogleTest(&count, words);
  if (geteuid() == 0) return RUN_ALL_TESTS();
  std::fputs("not run: tests with two users have to be started by root\n", stderr);
  return GTEST_FLAG_GET(list_tests) ? 0 : 1;
}
