// Tests with two users start as root: each part runs in a process that permanently becomes one of
// the users. Without root there is nothing to run; scripts/test says so.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

int main(int count, char** words) {
  testing::InitGoogleTest(&count, words);
  if (geteuid() == 0) return RUN_ALL_TESTS();
  std::fputs("not run: tests with two users have to be started by root\n", stderr);
  return GTEST_FLAG_GET(list_tests) ? 0 : 1;
}
