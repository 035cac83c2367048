// What waits and replies leave behind when there is no memory for them.
#include <gtest/gtest.h>
#include <tests/params/allocations.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <string>

#include "transport/result_table.h"
#include "transport/wait_list.h"

namespace {

using tolk::test::fail_each_allocation;

struct ListedWait {
  timeout_sem record{0};
  tolk::WaitList list{tolk::WaitList::Zero::no_limit};
};

TEST(OutOfMemory, WaitsAreListedWhollyOrNotAtAll) {
  fail_each_allocation<ListedWait>([](ListedWait&) {},
                                   [](ListedWait& waits) { waits.list.add(waits.record); },
                                   [](ListedWait& waits) {
                                     EXPECT_EQ(waits.list.size(), 0U);
                                     waits.list.wake(waits.record.token);
                                     EXPECT_NE(uv_sem_trywait(&waits.record.semaphore), 0);
                                   });
}

struct StoredReplies {
  static std::string encoded(int number) {
    TolkParams block;
    block.AddInt(number);
    return *block.GetParamas();
  }
  // Of the result that the host has.
  int number() { return table.find(1)->GetValue(0)->GetInt(); }

  tolk::Mutex lock;
  tolk::ResultTable table{lock};
};

TEST(OutOfMemory, AReplyReplacesTheOlderOneWhollyOrNotAtAll) {
  const std::string older = StoredReplies::encoded(1);
  const std::string newer = StoredReplies::encoded(2);
  fail_each_allocation<StoredReplies>(
      [&](StoredReplies& replies) {
        replies.table.store(1, older);
        EXPECT_EQ(replies.number(), 1);
      },
      [&](StoredReplies& replies) { replies.table.store(1, newer); },
      [](StoredReplies& replies) { EXPECT_EQ(replies.number(), 1); });
}

}  // namespace
