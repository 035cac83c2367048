// Results of large calls: one call at a time is known to be waiting for its own.

#include <gtest/gtest.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <string>

#include "params/value_access.h"
#include "transport/result_table.h"

namespace {

using tolk::ResultTable;

std::string int_payload(int number) {
  TolkParams block;
  block.AddInt(number);
  return *block.GetParamas();
}

// A value of a block, and whether anybody but the test still holds it.
class Watched {
 public:
  explicit Watched(TolkValue* value) : value_(*value) { TolkValueAccess::retain(value_); }
  ~Watched() { TolkValueAccess::release(&value_); }
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;

  bool is_gone() const { return TolkValueAccess::owners(value_) == 1; }

 private:
  TolkValue& value_;
};

class ExpectedResults : public testing::Test {
 protected:
  tolk::Mutex lock;
  ResultTable table{lock};
};

TEST_F(ExpectedResults, ExpectedResultReplacesTheOlderOneForGood) {
  table.store(5, int_payload(1));
  TolkParams* const block = table.find(5);
  const Watched older(block->GetValue(0));
  const ResultTable::Expectation call(table, 5);
  EXPECT_FALSE(older.is_gone());  // what a call without a result returns
  table.store(5, int_payload(2));
  EXPECT_TRUE(older.is_gone());
  EXPECT_EQ(table.find(5), block);
  EXPECT_EQ(block->GetValue(0)->GetInt(), 2);
}

TEST_F(ExpectedResults, LateResultLeavesWhatTheHostHolds) {
  {
    const ResultTable::Expectation call(table, 5);
    table.store(5, int_payload(1));
  }
  TolkParams* const block = table.find(5);
  const Watched held(block->GetValue(0));
  table.store(5, int_payload(2));
  EXPECT_EQ(block->GetValue(0)->GetInt(), 2);
  EXPECT_FALSE(held.is_gone());
  const ResultTable::Expectation next_call(table, 5);  // the host lets go of what it held
  EXPECT_TRUE(held.is_gone());
}

TEST_F(ExpectedResults, OtherIdsAreNotExpected) {
  table.store(6, int_payload(1));
  const Watched held(table.find(6)->GetValue(0));
  ResultTable::Expectation call(table, 5);
  table.store(6, int_payload(2));
  EXPECT_FALSE(held.is_gone());
  EXPECT_FALSE(call.reply());
  EXPECT_EQ(table.find(5), nullptr);
}

TEST_F(ExpectedResults, WithoutAResultTheOlderOneStays) {
  table.store(5, int_payload(1));
  TolkParams* const block = table.find(5);
  const ResultTable::Expectation call(table, 5);
  EXPECT_EQ(table.find(5), block);
  EXPECT_EQ(block->GetValue(0)->GetInt(), 1);
}

TEST_F(ExpectedResults, ACallThatKeepsItsOldResultLetsOlderContentsGo) {
  table.store(5, int_payload(1));
  TolkParams* const block = table.find(5);
  const Watched first(block->GetValue(0));
  table.store(5, int_payload(2));
  const Watched second(block->GetValue(0));
  table.drop_retained(5);
  EXPECT_TRUE(first.is_gone());
  EXPECT_FALSE(second.is_gone());
  EXPECT_EQ(table.find(5), block);
}

}  // namespace
