#include "transport/result_table.h"

#include <gtest/gtest.h>
#include <tests/transport/fake_system_calls.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "params/value_access.h"

namespace {

using tolk::ResultTable;
using tolk::test::FakeSystemCalls;

std::string payload(int number) {
  TolkParams block;
  block.AddInt(number);
  block.AddKeyValueString("text", std::to_string(number).c_str());
  return *block.GetParamas();
}

int number_in(TolkParams* block) { return block->GetValue(0)->GetInt(); }

class Results : public testing::Test {
 protected:
  FakeSystemCalls calls;
  tolk::Mutex lock;
  ResultTable table{lock};
};

TEST_F(Results, StoredReplyIsFoundParsedUnderItsCallId) {
  table.store(5, payload(50));
  TolkParams* const block = table.find(5);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(number_in(block), 50);
  EXPECT_STREQ(block->GetMap("text")->GetString(), "50");
  EXPECT_EQ(*block->GetParamas(), payload(50));
}

TEST_F(Results, UnknownCallIdHasNoResult) {
  EXPECT_EQ(table.find(5), nullptr);
  table.store(5, payload(1));
  EXPECT_EQ(table.find(6), nullptr);
  EXPECT_EQ(table.find(-5), nullptr);
}

TEST_F(Results, EveryCallIdHasItsOwnBlock) {
  for (const int id : {0, 1, -1, 2147483647, -2147483647 - 1}) table.store(id, payload(id));
  EXPECT_EQ(table.size(), 5u);
  for (const int id : {0, 1, -1, 2147483647, -2147483647 - 1}) {
    EXPECT_EQ(number_in(table.find(id)), id);
  }
}

TEST_F(Results, LaterReplyRefreshesTheSameBlock) {
  table.store(5, payload(1));
  TolkParams* const block = table.find(5);
  EXPECT_EQ(number_in(block), 1);
  table.store(5, payload(2));
  EXPECT_EQ(table.find(5), block);
  EXPECT_EQ(number_in(block), 2);
  EXPECT_EQ(block->ParamsSize(), 1) << "replaced, not appended to";
  EXPECT_EQ(table.size(), 1u);
}

TEST_F(Results, ValuesThatTheHostHoldsOutliveARefresh) {
  table.store(5, payload(1));
  const TolkValue* const held = table.find(5)->GetValue(0);
  const char* const text = table.find(5)->GetMap("text")->GetString();
  table.store(5, payload(2));
  EXPECT_EQ(held->GetInt(), 1);
  EXPECT_STREQ(text, "1");
}

TEST_F(Results, LastEightContentsThatTheHostTouchedAreRetained) {
  std::vector<const TolkValue*> held;
  for (int i = 0; i <= static_cast<int>(ResultTable::kRetained); ++i) {
    table.store(5, payload(i));
    held.push_back(table.find(5)->GetValue(0));
  }
  for (int i = 0; i < static_cast<int>(held.size()); ++i) {
    EXPECT_EQ(held[static_cast<std::size_t>(i)]->GetInt(), i);
  }
}

TEST_F(Results, UntouchedContentsAreNotRetained) {
  table.store(5, payload(0));
  const TolkValue* const held = table.find(5)->GetValue(0);
  // None of these is looked at: were they retained, they would push the held one out.
  for (int i = 1; i < 100; ++i) table.store(5, payload(i));
  EXPECT_EQ(held->GetInt(), 0);
  EXPECT_EQ(number_in(table.find(5)), 99);
}

// How many hold the first value of a result: the block's content, and the copy that asks.
std::uint32_t owners_beside(TolkParams& copy) { return TolkValueAccess::owners(*copy.GetValue(0)); }

TEST_F(Results, ContentThatTheHostTouchedStaysUntilItsBlockGoes) {
  table.store(5, payload(1));
  TolkParams copy(*table.find(5));
  table.store(5, payload(2));
  EXPECT_EQ(owners_beside(copy), 2u);
  table.drop(5);
  EXPECT_EQ(owners_beside(copy), 1u);
}

TEST_F(Results, OldestOfNineTouchedContentsIsReleased) {
  table.store(5, payload(0));
  TolkParams copy(*table.find(5));
  for (int i = 0; i <= static_cast<int>(ResultTable::kRetained); ++i) {
    EXPECT_EQ(owners_beside(copy), 2u) << i;
    table.store(5, payload(i + 1));
    EXPECT_EQ(number_in(table.find(5)), i + 1);
  }
  EXPECT_EQ(owners_beside(copy), 1u);
}

TEST_F(Results, OwnedPayloadIsStoredLikeAnyOther) {
  table.store(5, payload(1));
  TolkParams* const block = table.find(5);
  EXPECT_EQ(number_in(block), 1);
  table.store(5, payload(2));
  EXPECT_EQ(table.find(5), block);
  EXPECT_EQ(*block->GetParamas(), payload(2));
}

TEST_F(Results, MalformedReplyLeavesWhatStoodBeforeTheFault) {
  const std::string whole = payload(7);
  table.store(5, whole.substr(0, 9) + "\x09");
  ASSERT_NE(table.find(5), nullptr);
  EXPECT_EQ(table.find(5)->ParamsSize(), 1);
  EXPECT_EQ(table.find(5)->MapSize(), 0);
}

TEST_F(Results, EmptyReplyIsAResult) {
  table.store(5, "");
  ASSERT_NE(table.find(5), nullptr);
  EXPECT_EQ(table.find(5)->Size(), 0);
}

TEST_F(Results, DropDeletesOneBlock) {
  table.store(5, payload(1));
  table.store(6, payload(2));
  table.drop(5);
  table.drop(7);
  EXPECT_EQ(table.find(5), nullptr);
  EXPECT_NE(table.find(6), nullptr);
}

TEST_F(Results, ClearDeletesAllBlocks) {
  table.store(5, payload(1));
  table.store(6, payload(2));
  table.clear();
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(table.find(5), nullptr);
  table.clear();
}

TEST_F(Results, CopyOfAResultIsIndependentOfRefreshes) {
  table.store(5, payload(1));
  TolkParams copy(*table.find(5));
  TolkParams assigned;
  assigned = *table.find(5);
  table.store(5, payload(2));
  table.drop(5);
  EXPECT_EQ(number_in(&copy), 1);
  EXPECT_EQ(number_in(&assigned), 1);
}

TEST_F(Results, LocksOfTheTwoSidesAreTwo) {
  EXPECT_NE(&tolk::client_result_lock(), &tolk::server_result_lock());
  EXPECT_EQ(&tolk::client_result_lock(), &tolk::client_result_lock());
}

TEST_F(Results, HostReadsWhileRepliesRefresh) {
  table.store(5, payload(0));
  TolkParams* const block = table.find(5);
  std::atomic<bool> done{false};
  std::thread replies([&] {
    for (int i = 1; i <= 3000; ++i) table.store(5, payload(i));
    done = true;
  });
  int last = 0;
  while (!done) {
    const int seen = number_in(block);
    EXPECT_GE(seen, last) << "contents come in order";
    last = seen;
    EXPECT_NE(block->GetMap("text"), nullptr);
  }
  replies.join();
  EXPECT_EQ(number_in(block), 3000);
}

}  // namespace
