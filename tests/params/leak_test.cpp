// Values that have memory of their own, or others' memory, leave nothing behind.
#include <gtest/gtest.h>
#include <tests/params/allocations.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <functional>
#include <memory>
#include <string>

#include "params/content.h"
#include "params/encoder.h"

namespace {

using tolk::test::live_allocations;

constexpr char own_text[] = "a text that needs memory of its own";

void expect_nothing_left(const std::function<void()>& operation) {
  const long before = live_allocations;
  operation();
  EXPECT_EQ(live_allocations, before);
}

void parse_sample(TolkParams& block) {
  for (int i = 0; i < 3; ++i) block.AddString(own_text);
  block.AddKeyValueString("k", own_text);
  EXPECT_TRUE(block.ToParams());
}

// A map in which a key comes twice: the earlier value goes, and with the last one the memory.
TEST(Memory, ValueThatIsReplacedInAParsedMapEnds) {
  std::string bytes(tolk::list_header_bytes, '\0');
  bytes[0] = static_cast<char>(tolk::Tag::Map);
  bytes[1] = 2;
  tolk::Encoder<std::string> encoder(bytes, 0);
  for (const int number : {1, 2}) {
    encoder.add_key("k");
    encoder.add_int(number);
  }
  expect_nothing_left([&] {
    TolkParams block;
    EXPECT_TRUE(TolkParamsAccess::parse_owned(block, bytes));
    EXPECT_EQ(block.ParamsSize(), 1);
  });
}

TEST(Memory, ValueThatOneOfTwoMapsReplacesEndsWithTheOther) {
  expect_nothing_left([] {
    TolkValue map(TolkValue::Map);
    map.AddListMapString("k", own_text, 30);
    const TolkValue copy(map);
    map.AddListMapInt("k", 2);
  });
}

TEST(Memory, WhatTheHostPutsIntoParsedValuesEndsWithThem) {
  expect_nothing_left([] {
    TolkParams block;
    parse_sample(block);
    *block.GetValue(0) = TolkValue(own_text, 30, TolkValue::Stream);
    block.GetValue(1)->AddListInt(1);
    block.GetValue(2)->AddListMapInt("k", 1);
  });
}

TEST(Memory, ValuesOfACopyEndWithItWhenTheBlockHasEnded) {
  expect_nothing_left([] {
    auto block = std::make_unique<TolkParams>();
    parse_sample(*block);
    const TolkParams copy(*block);
    block.reset();
  });
}

TEST(Memory, EntriesOfAValueThatIsNoMapEndWhenAMapIsAssigned) {
  expect_nothing_left([] {
    TolkValue value(1);
    value.AddListMapInt("k", 1);
    TolkValue map(TolkValue::Map);
    map.AddListMapInt("other", 2);
    value = map;
  });
}

}  // namespace
