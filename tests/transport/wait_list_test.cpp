#include "transport/wait_list.h"

#include <gtest/gtest.h>
#include <tests/transport/fake_system_calls.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <list>
#include <set>
#include <thread>
#include <vector>

#include "transport/process_exit.h"

namespace {

using tolk::WaitList;
using tolk::test::FakeSystemCalls;
using Zero = WaitList::Zero;

// How often the record was posted since the last look.
int posts(timeout_sem& record) {
  int count = 0;
  while (uv_sem_trywait(&record.semaphore) == 0) ++count;
  return count;
}

class Waits : public testing::Test {
 protected:
  // How often sweeps at these ticks have posted the record.
  int posts_of_sweeps(timeout_sem& record, std::initializer_list<std::uint32_t> ticks) {
    for (const std::uint32_t tick : ticks) {
      calls.tick = tick;
      list.sweep();
    }
    return posts(record);
  }

  FakeSystemCalls calls;
  WaitList list{Zero::no_limit};
};

TEST_F(Waits, ListedRecordHasTickLimitAndToken) {
  calls.tick = 1234;
  timeout_sem record(50);
  list.add(record);
  EXPECT_EQ(record.start, 1234u);
  EXPECT_EQ(record.timeout, 50u);
  EXPECT_NE(record.token, 0u);
  EXPECT_EQ(list.size(), 1u);
}

TEST_F(Waits, NoTokenIsEverUsedTwice) {
  std::set<std::uint64_t> tokens;
  for (int i = 0; i < 1000; ++i) {
    timeout_sem record(0);
    list.add(record);
    tokens.insert(record.token);
    list.remove(record);
  }
  EXPECT_EQ(tokens.size(), 1000u);
}

TEST_F(Waits, ListsOfBothSidesShareNoToken) {
  WaitList other(Zero::next_sweep);
  timeout_sem here(0);
  timeout_sem there(0);
  list.add(here);
  other.add(there);
  EXPECT_NE(here.token, there.token);
}

TEST_F(Waits, SweepEndsOnlyWhatIsOlderThanItsLimit) {
  timeout_sem record(150);
  list.add(record);
  EXPECT_EQ(posts_of_sweeps(record, {0, 100, 150}), 0);
  EXPECT_EQ(list.size(), 1u);
  EXPECT_EQ(posts_of_sweeps(record, {151}), 1);
  EXPECT_EQ(list.size(), 0u);
}

TEST_F(Waits, SweptRecordIsPostedOnce) {
  timeout_sem record(10);
  list.add(record);
  calls.tick = 1000;
  list.sweep();
  list.sweep();
  EXPECT_EQ(posts(record), 1);
}

TEST_F(Waits, AgeIsCountedAcrossTheWrapOfTheTick) {
  calls.tick = 0xFFFFFFF0;
  timeout_sem record(0x20);
  list.add(record);
  EXPECT_EQ(posts_of_sweeps(record, {0xFFFFFFFF, 0, 0x10}), 0);
  EXPECT_EQ(posts_of_sweeps(record, {0x11}), 1);
}

TEST_F(Waits, LimitsAreUnsigned) {
  timeout_sem half(0x80000000);
  timeout_sem all(0xFFFFFFFF);
  list.add(half);
  list.add(all);
  calls.tick = 0x80000000;
  list.sweep();
  EXPECT_EQ(posts(half), 0);
  calls.tick = 0x80000001;
  list.sweep();
  EXPECT_EQ(posts(half), 1);
  calls.tick = 0xFFFFFFFF;
  list.sweep();
  EXPECT_EQ(posts(all), 0);
  EXPECT_EQ(list.size(), 1u);
}

TEST_F(Waits, ZeroIsNoLimitOnAClient) {
  timeout_sem record(0);
  list.add(record);
  calls.tick = 0xFFFFFFFF;
  list.sweep();
  EXPECT_EQ(posts(record), 0);
  EXPECT_EQ(list.size(), 1u);
}

TEST_F(Waits, ZeroIsTheNextSweepOnAServer) {
  WaitList server(Zero::next_sweep);
  timeout_sem record(0);
  server.add(record);
  server.sweep();
  EXPECT_EQ(posts(record), 0) << "the tick has not moved yet";
  calls.tick = 1;
  server.sweep();
  EXPECT_EQ(posts(record), 1);
}

TEST_F(Waits, ListsOfTheProcessKnowTheirZero) {
  timeout_sem client(0);
  timeout_sem server(0);
  tolk::client_waits().add(client);
  tolk::server_waits().add(server);
  calls.tick = 1;
  tolk::client_waits().sweep();
  tolk::server_waits().sweep();
  EXPECT_EQ(posts(client), 0);
  EXPECT_EQ(posts(server), 1);
  tolk::client_waits().remove(client);
}

TEST_F(Waits, SweepTakesTheExpiredAndLeavesTheOthersInOrder) {
  std::deque<timeout_sem> records;
  for (const std::uint32_t limit : {100u, 5u, 200u, 5u, 0u}) list.add(records.emplace_back(limit));
  calls.tick = 50;
  list.sweep();
  EXPECT_EQ(list.records(), (std::list<timeout_sem*>{&records[0], &records[2], &records[4]}));
  for (timeout_sem& record : records) {
    posts(record);
    list.wake(record.token);
  }
  EXPECT_EQ(posts(records[2]), 1) << "what is left can still be woken";
  EXPECT_EQ(posts(records[3]), 0);
  EXPECT_EQ(list.size(), 0u);
}

TEST_F(Waits, WakeOfHandlersPostsTheRecordsOfHandlersOnly) {
  timeout_sem of_handler(0);
  timeout_sem of_other(0);
  {
    const tolk::HandlerScope handler;
    list.add(of_handler);
  }
  list.add(of_other);
  list.wake_handlers();
  EXPECT_EQ(posts(of_handler), 1);
  EXPECT_EQ(posts(of_other), 0);
  EXPECT_EQ(list.size(), 2u);
}

TEST_F(Waits, TokenWakesItsRecordOnceAndTakesItOff) {
  timeout_sem mine(0);
  timeout_sem other(0);
  list.add(mine);
  list.add(other);
  list.wake(mine.token);
  list.wake(mine.token);
  EXPECT_EQ(posts(mine), 1);
  EXPECT_EQ(posts(other), 0);
  EXPECT_EQ(list.records(), std::list<timeout_sem*>{&other});
}

TEST_F(Waits, UnknownTokenWakesNobody) {
  timeout_sem record(0);
  list.add(record);
  list.wake(0);
  list.wake(record.token + 1);
  list.wake(0xFFFFFFFFFFFFFFFF);
  EXPECT_EQ(posts(record), 0);
  EXPECT_EQ(list.size(), 1u);
}

TEST_F(Waits, TokenOfAnEarlierRecordWakesNoLaterOne) {
  std::uint64_t old_token = 0;
  {
    timeout_sem early(0);
    list.add(early);
    old_token = early.token;
    list.remove(early);
  }
  timeout_sem late(0);
  list.add(late);
  list.wake(old_token);
  EXPECT_EQ(posts(late), 0);
}

TEST_F(Waits, WakeAllPostsEveryRecordAndLeavesItListed) {
  timeout_sem first(0);
  timeout_sem second(100);
  list.add(first);
  list.add(second);
  list.wake_all();
  EXPECT_EQ(posts(first), 1);
  EXPECT_EQ(posts(second), 1);
  EXPECT_EQ(list.size(), 2u);
  list.wake_all();
  EXPECT_EQ(posts(first), 1);
}

TEST_F(Waits, RemovedRecordIsNeverPosted) {
  timeout_sem record(10);
  list.add(record);
  list.remove(record);
  calls.tick = 1000;
  list.wake(record.token);
  list.wake_all();
  list.sweep();
  EXPECT_EQ(posts(record), 0);
  list.remove(record);
  EXPECT_EQ(list.size(), 0u);
}

TEST_F(Waits, RecordListedTwiceIsTakenOffWhole) {
  timeout_sem record(0);
  list.add(record);
  list.records().push_back(&record);
  list.remove(record);
  EXPECT_EQ(list.size(), 0u);
}

TEST_F(Waits, RecordThatAHostHasTakenOffIsNotPosted) {
  timeout_sem record(0);
  timeout_sem other(0);
  list.add(record);
  list.add(other);
  list.records().clear();
  list.wake(record.token);
  EXPECT_EQ(posts(record), 0);
  list.remove(record);
  list.remove(other);
  EXPECT_EQ(list.size(), 0u);
}

TEST(WaitsOfThreads, RecordsComeAndGoBesideSweepsAndWakeAlls) {
  WaitList list(Zero::no_limit);
  std::atomic<int> callers{4};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        timeout_sem record(i % 2 == 0 ? 0 : 1);
        list.add(record);
        uv_sem_wait(&record.semaphore);
        list.remove(record);
      }
      --callers;
    });
  }
  while (callers > 0) {
    list.sweep();
    list.wake_all();
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(list.size(), 0u);
}

}  // namespace
