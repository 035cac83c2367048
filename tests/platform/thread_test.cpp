#include "platform/thread.h"

#include <gtest/gtest.h>

#include <thread>

namespace tolk::platform {
namespace {

TEST(ThreadIds, StayTheSameOnOneThread) {
  EXPECT_EQ(own_call_id(), own_call_id());
  EXPECT_EQ(os_thread_id(), os_thread_id());
}

TEST(ThreadIds, DifferBetweenLiveThreads) {
  const int call_id = own_call_id();
  const int os_id = os_thread_id();
  std::thread([&] {
    EXPECT_NE(own_call_id(), call_id);
    EXPECT_NE(os_thread_id(), os_id);
  }).join();
}

TEST(ThreadIds, TheTwoKindsAreDifferentNumbers) { EXPECT_NE(own_call_id(), os_thread_id()); }

TEST(Library, MayBePinnedMoreThanOnce) {
  EXPECT_NO_THROW(pin_library());
  EXPECT_NO_THROW(pin_library());
}

}  // namespace
}  // namespace tolk::platform
