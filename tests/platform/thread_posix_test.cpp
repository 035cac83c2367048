#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string>
#include <thread>

#include "platform/thread.h"

namespace tolk::platform {
namespace {

constexpr std::array kHostSignals = {SIGPIPE, SIGALRM, SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGUSR1};
constexpr std::array kFaults = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS};

bool is_blocked(int signal) {
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

std::string own_name() {
  std::array<char, 64> name{};
  pthread_getname_np(pthread_self(), name.data(), name.size());
  return name.data();
}

std::string name_after(const char* given) {
  std::string name;
  std::thread([&] {
    name_this_thread(given);
    name = own_name();
  }).join();
  return name;
}

TEST(ThreadIds, CallIdIsTheLowHalfOfTheThreadHandle) {
  const auto handle = static_cast<std::uint64_t>(pthread_self());
  EXPECT_EQ(static_cast<std::uint32_t>(own_call_id()), handle & 0xFFFF'FFFFu);
}

TEST(ThreadIds, FirstThreadHasTheNumberOfTheProcess) { EXPECT_EQ(os_thread_id(), getpid()); }

TEST(ThreadName, IsWhatWasGiven) { EXPECT_EQ(name_after("tolk-loop"), "tolk-loop"); }

TEST(ThreadName, IsCutToFifteenBytes) {
  EXPECT_EQ(name_after("123456789012345"), "123456789012345");
  EXPECT_EQ(name_after("1234567890123456"), "123456789012345");
}

TEST(SignalsBlocked, HostSignalsAreBlockedWhileItLives) {
  {
    const SignalsBlocked blocked;
    for (const int signal : kHostSignals) EXPECT_TRUE(is_blocked(signal)) << signal;
  }
  for (const int signal : kHostSignals) EXPECT_FALSE(is_blocked(signal)) << signal;
}

TEST(SignalsBlocked, FaultsStayDeliverable) {
  const SignalsBlocked blocked;
  for (const int signal : kFaults) EXPECT_FALSE(is_blocked(signal)) << signal;
}

TEST(SignalsBlocked, ThreadMadeMeanwhileKeepsThemBlocked) {
  std::thread thread;
  std::array<bool, kHostSignals.size()> blocked_there{};
  {
    const SignalsBlocked blocked;
    thread = std::thread([&] {
      for (std::size_t i = 0; i < kHostSignals.size(); ++i) {
        blocked_there[i] = is_blocked(kHostSignals[i]);
      }
    });
  }
  thread.join();
  for (const bool was_blocked : blocked_there) EXPECT_TRUE(was_blocked);
}

TEST(SignalsBlocked, WhatTheHostHadBlockedStaysBlocked) {
  sigset_t own;
  sigset_t before;
  sigemptyset(&own);
  sigaddset(&own, SIGUSR2);
  sigaddset(&own, SIGTRAP);
  pthread_sigmask(SIG_BLOCK, &own, &before);
  {
    const SignalsBlocked blocked;
    EXPECT_TRUE(is_blocked(SIGTRAP));
  }
  EXPECT_TRUE(is_blocked(SIGUSR2));
  EXPECT_TRUE(is_blocked(SIGTRAP));
  EXPECT_FALSE(is_blocked(SIGPIPE));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(SignalsBlocked, WriteToAClosedPeerIsAnError) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  close(ends[0]);
  // On a thread of its own: the signal stays pending there, and goes with the thread.
  std::thread([&] {
    const SignalsBlocked blocked;
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    const timespec at_once{};
    sigset_t pending;
    sigemptyset(&pending);
    sigaddset(&pending, SIGPIPE);
    sigtimedwait(&pending, nullptr, &at_once);  // or it would be delivered when `blocked` ends
  }).join();
  close(ends[1]);
}

TEST(BrokenPipeBlocked, WriteToAClosedPeerIsAnErrorAndNoSignalIsLeft) {
  {
    const BrokenPipeBlocked blocked;
    EXPECT_TRUE(is_blocked(SIGPIPE));
    EXPECT_FALSE(is_blocked(SIGALRM));
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    close(ends[0]);
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(ends[1]);
  }
  EXPECT_FALSE(is_blocked(SIGPIPE));
}

TEST(BrokenPipeBlocked, SignalThatTheHostHadBlockedStaysBlocked) {
  std::thread([] {
    sigset_t pipe_alone;
    sigemptyset(&pipe_alone);
    sigaddset(&pipe_alone, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_alone, nullptr);
    { const BrokenPipeBlocked blocked; }
    EXPECT_TRUE(is_blocked(SIGPIPE));
  }).join();
}

}  // namespace
}  // namespace tolk::platform
