// The system's own numbers, which are visible to peers and to timeouts.
#include <gtest/gtest.h>
#include <windows.h>

#include <thread>

#include "platform/clock.h"
#include "platform/process.h"
#include "platform/static_mutex.h"
#include "platform/thread.h"

namespace tolk::platform {
namespace {

TEST(Tick, IsTheSystemsOwn) {
  const DWORD before = GetTickCount();
  const std::uint32_t tick = tick_ms();
  EXPECT_LE(tick - before, GetTickCount() - before);
}

TEST(ThreadIds, NumberOfTheSystemIsTheCurrentThreads) {
  EXPECT_EQ(static_cast<DWORD>(os_thread_id()), GetCurrentThreadId());
}

TEST(ThreadIds, CallIdIsTheLowHalfOfAHandleOfTheThread) {
  const auto handle = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(own_call_id()));
  EXPECT_EQ(GetThreadId(handle), GetCurrentThreadId());
}

TEST(Generation, StaysTheSameWhileTheProcessHasItsThreads) {
  EXPECT_EQ(generation(), 0U);
  std::thread([] { EXPECT_EQ(generation(), 0U); }).join();
}

TEST(StaticMutex, KeepsOthersOutAndIsNotRecursive) {
  static constinit StaticMutex mutex;
  mutex.lock();
  std::thread([] { EXPECT_FALSE(mutex.try_lock()); }).join();
  mutex.unlock();
  EXPECT_TRUE(mutex.try_lock());
  EXPECT_FALSE(mutex.try_lock());
  mutex.unlock();
}

}  // namespace
}  // namespace tolk::platform
