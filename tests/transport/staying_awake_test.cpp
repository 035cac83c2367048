#include "transport/staying_awake.h"

#include <gtest/gtest.h>
#include <tests/transport/event.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using namespace std::chrono_literals;
using tolk::Instant;
using tolk::instant_now;
using tolk::WaitScore;
using tolk::test::Event;

constexpr auto kShort = 50us;
constexpr auto kShortWithSleep = 400us;
constexpr auto kLong = kShortWithSleep + 1ns;

// In a time for which no late return of another test has forbidden to poll.
class WaitScores : public testing::Test {
 protected:
  void wait(std::chrono::nanoseconds time, int times = 1) {
    for (int i = 0; i < times; ++i) score.waited(time, now);
  }
  bool pays() const { return score.pays(now); }
  // From a score of none.
  void reach(int points) { wait(kShort, points); }
  // How many points it has, counted on a copy: waits in vain take 2 each until it does not pay, and
  // short ones add 1 each until it pays again, with 3.
  int points() {
    WaitScore copy = score;
    int taken = 0;
    while (copy.pays(now)) {
      copy.waited(kShort + 1ns, now);
      taken += 2;
    }
    int missing = 0;
    while (!copy.pays(now)) {
      copy.waited(kShort, now);
      ++missing;
    }
    return 3 - missing + taken;
  }

  const Instant now = instant_now() + 24h;
  WaitScore score;
};

TEST_F(WaitScores, BeginWithoutPolling) {
  EXPECT_FALSE(pays());
  EXPECT_EQ(points(), 0);
}

TEST_F(WaitScores, PayFromTheThirdShortWait) {
  wait(kShort, 2);
  EXPECT_FALSE(pays());
  wait(kShort);
  EXPECT_TRUE(pays());
}

TEST_F(WaitScores, CountOnePointForAShortWait) {
  for (int expected = 1; expected <= 16; ++expected) {
    wait(0ns);
    EXPECT_EQ(points(), expected);
  }
}

TEST_F(WaitScores, HaveAnUpperLimit) {
  reach(1000);
  EXPECT_EQ(points(), 16);
}

// If it had polled, the wait would have been short.
TEST_F(WaitScores, CountAWaitThatIsShortWithSleepWhileTheySleep) {
  wait(kShortWithSleep, 3);
  EXPECT_EQ(points(), 3);
}

TEST_F(WaitScores, LoseTwoPointsWhenTheyPolledInVain) {
  reach(9);
  wait(kShort + 1ns);
  EXPECT_EQ(points(), 7);
  wait(kShortWithSleep);
  EXPECT_EQ(points(), 5);
}

TEST_F(WaitScores, LoseFourPointsByALongWait) {
  reach(9);
  wait(kLong);
  EXPECT_EQ(points(), 5);
  wait(1h);
  EXPECT_EQ(points(), 1);
}

TEST_F(WaitScores, NeverFallBelowNone) {
  wait(kLong, 100);
  EXPECT_EQ(points(), 0);
  reach(3);
  EXPECT_TRUE(pays());
  wait(kLong);
  EXPECT_EQ(points(), 0);
}

// Waits of a thread whose own waits have been short: it polls, unless the machine is busy.
class AwakeWaits : public testing::Test {
 protected:
  AwakeWaits() { uv_sem_init(&semaphore, 0); }
  ~AwakeWaits() override {
    if (waiter.joinable()) waiter.join();
    uv_sem_destroy(&semaphore);
  }

  static void make_waits_pay() {
    uv_sem_t posted;
    uv_sem_init(&posted, 0);
    for (int i = 0; i < 32; ++i) {
      uv_sem_post(&posted);
      tolk::wait_awake(&posted);
    }
    uv_sem_destroy(&posted);
  }
  template <class Function>
  void begin_waiter(Function wait_once) {
    waiter = std::thread([this, wait_once] {
      make_waits_pay();
      wait_once();
      returned.set();
    });
  }
  // A waiter that does not return would keep the test from ending.
  void expect_return() {
    EXPECT_TRUE(returned.wait());
    if (!returned.happened()) uv_sem_post(&semaphore);
    waiter.join();
    EXPECT_NE(uv_sem_trywait(&semaphore), 0) << "the wait takes the post";
  }

  uv_sem_t semaphore{};
  Event returned;
  std::thread waiter;
};

TEST_F(AwakeWaits, ReturnAtOnceWhenThePostCameBefore) {
  uv_sem_post(&semaphore);
  begin_waiter([this] { tolk::wait_awake(&semaphore); });
  expect_return();
}

TEST_F(AwakeWaits, ReturnOfAThreadThatNeverWaitedBefore) {
  std::atomic<bool> posted{false};
  waiter = std::thread([&] {
    tolk::wait_awake(&semaphore);
    EXPECT_TRUE(posted);
    returned.set();
  });
  posted = true;
  uv_sem_post(&semaphore);
  expect_return();
}

TEST_F(AwakeWaits, ReturnWhenThePostComesMeanwhile) {
  for (int round = 0; round < 100; ++round) {
    std::atomic<bool> begins{false};
    std::atomic<bool> posted{false};
    Event over;
    std::thread polls([&] {
      make_waits_pay();
      begins = true;
      tolk::wait_awake(&semaphore);
      EXPECT_TRUE(posted);
      over.set();
    });
    while (!begins) std::this_thread::yield();
    posted = true;
    uv_sem_post(&semaphore);
    const bool came_back = over.wait();
    EXPECT_TRUE(came_back);
    if (!came_back) uv_sem_post(&semaphore);
    polls.join();
    ASSERT_NE(uv_sem_trywait(&semaphore), 0);
  }
}

TEST_F(AwakeWaits, ReturnWhenThePostComesAfterThePolling) {
  std::atomic<bool> begins{false};
  std::atomic<bool> posted{false};
  begin_waiter([&] {
    begins = true;
    tolk::wait_awake(&semaphore);
    EXPECT_TRUE(posted) << "nothing else ends the wait";
  });
  while (!begins) std::this_thread::yield();
  // The polling is over by then. On a machine that lets the waiter begin later it is not, which
  // the test survives.
  const Instant later = instant_now() + 20ms;
  while (instant_now() < later) std::this_thread::yield();
  posted = true;
  uv_sem_post(&semaphore);
  expect_return();
}

}  // namespace
