#include "platform/process.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/child_process.h"

namespace tolk::platform {
namespace {

using test::ChildProcess;

TEST(Generation, StaysTheSameInOneProcess) {
  const std::uint32_t first = generation();
  EXPECT_EQ(generation(), first);
  std::thread([&] { EXPECT_EQ(generation(), first); }).join();
}

TEST(Generation, IsAnotherInAForkedChild) {
  const std::uint32_t mine = generation();
  EXPECT_EQ(ChildProcess([&] { return generation() != mine; }).wait(), 1);
  EXPECT_EQ(generation(), mine);
}

TEST(Generation, IsAnotherAgainInAGrandchild) {
  const std::uint32_t mine = generation();
  ChildProcess child([&] {
    const std::uint32_t childs = generation();
    return ChildProcess([&] { return generation() != mine && generation() != childs; }).wait();
  });
  EXPECT_EQ(child.wait(), 1);
}

// Each registration for forks takes memory, and a child counts as many steps as there are.
TEST(Generation, AskingAgainRegistersNothingMore) {
  const auto steps_of_a_fork = [mine = generation()] {
    return ChildProcess([&] { return static_cast<int>(generation() - mine); }).wait();
  };
  const int before = steps_of_a_fork();
  for (int i = 0; i < 10; ++i) generation();
  EXPECT_EQ(steps_of_a_fork(), before);
}

TEST(Generation, ChildThatAsksFirstAgreesWithItself) {
  EXPECT_EQ(ChildProcess([] { return generation() == generation(); }).wait(), 1);
}

}  // namespace
}  // namespace tolk::platform
