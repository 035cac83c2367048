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

TEST(Generation, ChildThatAsksFirstAgreesWithItself) {
  EXPECT_EQ(ChildProcess([] { return generation() == generation(); }).wait(), 1);
}

}  // namespace
}  // namespace tolk::platform
