// The values of a block that was parsed, whatever becomes of its bytes.
#include <gtest/gtest.h>
#include <tests/params/sample_block.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <memory>
#include <string>

#include "params/content.h"

namespace {

using Access = TolkParamsAccess;
using tolk::test::expect_sample_block;
using tolk::test::fill_sample_block;
using tolk::test::sample_bytes;
using tolk::test::sample_text;

TEST(ParsedValues, StringOfTheHostIsNotWhatTheyLookInto) {
  for (const bool given_before : {true, false}) {
    TolkParams block;
    fill_sample_block(block);
    if (given_before) block.GetParamas();
    ASSERT_TRUE(block.ToParams());
    EXPECT_EQ(*block.GetParamas(), sample_bytes());
    block.GetParamas()->assign(block.GetParamas()->size(), 'x');
    expect_sample_block(block);
  }
}

TEST(ParsedValues, HostsStringFollowsTheBlock) {
  TolkParams block;
  std::string* const buffer = block.GetParamas();
  const std::string bytes = sample_bytes();
  block.Parser(bytes.data(), static_cast<int>(bytes.size()));
  EXPECT_EQ(*buffer, bytes);
  block.Clear();
  EXPECT_EQ(*buffer, "");
  block.AddInt(1);
  EXPECT_EQ(buffer->size(), 9U);
  Access::parse_owned(block, sample_bytes());
  EXPECT_EQ(*buffer, bytes);
  expect_sample_block(block);
}

// The host changes the string of a block that it has parsed into. That is what is sent.
TEST(ParsedValues, ChangesOfTheHostsStringCount) {
  const std::string bytes = sample_bytes();
  TolkParams other;
  other.AddInt(1);
  TolkParams block;
  std::string* const buffer = block.GetParamas();
  block.Parser(bytes.data(), static_cast<int>(bytes.size()));
  *buffer = Access::bytes(other);
  EXPECT_EQ(Access::bytes(block), Access::bytes(other));
  EXPECT_EQ(Access::share_bytes(block).view, Access::bytes(other));
  EXPECT_EQ(*block.GetParamas(), Access::bytes(other));
  expect_sample_block(block);
}

TEST(ParsedValues, ArgumentsMayLieInThem) {
  TolkParams block;
  fill_sample_block(block);
  ASSERT_TRUE(block.ToParams());
  block.AddString(block.GetValue(1)->GetString());
  block.AddKeyValueString(block.GetMapPtr()->begin()->first, block.GetMap("name")->GetString());
  ASSERT_TRUE(block.ToParams());
  EXPECT_STREQ(block.GetValue(4)->GetString(), sample_text);
  long size = 0;
  const char* const stream = block.GetValue(2)->GetStream(size);
  EXPECT_FALSE(block.Parser(stream, static_cast<int>(size)));
  EXPECT_EQ(*block.GetParamas(), std::string("a\0b", 3));
}

TEST(ParsedValues, CanBeAssignedToAndCleared) {
  TolkParams block;
  fill_sample_block(block);
  ASSERT_TRUE(block.ToParams());
  *block.GetValue(0) = *block.GetValue(1);
  *block.GetValue(1) = TolkValue("another text that needs memory", 30, TolkValue::Stream);
  *block.GetValue(2) = *block.GetValue(3);
  block.GetMap("name")->clear();
  block.GetMap("width")->AddListMapInt("k", 1);
  EXPECT_STREQ(block.GetValue(0)->GetString(), sample_text);
  EXPECT_STREQ(block.GetValue(1)->GetString(), "another text that needs memory");
  EXPECT_EQ(*block.GetValue(2)->GetList(), *block.GetValue(3)->GetList());
  EXPECT_STREQ(block.GetMap("name")->GetString(), "");
  EXPECT_EQ(Access::bytes(block), sample_bytes());
}

TEST(ParsedValues, KeysOfTheViewAreTexts) {
  TolkParams block;
  fill_sample_block(block);
  ASSERT_TRUE(block.ToParams());
  TolkParams copy(block);
  for (TolkParams* const each : {&block, &copy}) {
    std::string keys;
    for (const auto& [key, value] : *each->GetMapPtr()) keys += std::string(key) + " ";
    EXPECT_TRUE(keys == "name width " || keys == "width name ") << keys;
  }
}

TEST(ParsedValues, CopyOfACopyOutlivesBoth) {
  auto block = std::make_unique<TolkParams>();
  fill_sample_block(*block);
  ASSERT_TRUE(block->ToParams());
  auto copy = std::make_unique<TolkParams>(*block);
  TolkParams last(*copy);
  block.reset();
  copy.reset();
  expect_sample_block(last);
  EXPECT_EQ(last.GetMapPtr()->size(), 2U);
  EXPECT_EQ(*last.GetParamas(), sample_bytes());
}

TEST(ParsedValues, ManyOfThemAreKept) {
  TolkParams block;
  constexpr int count = 5000;
  for (int i = 0; i < count; ++i) {
    block.AddInt(i);
    block.AddKeyValueString(std::to_string(i % 3000).c_str(), std::to_string(i).c_str());
  }
  ASSERT_TRUE(block.ToParams());
  ASSERT_EQ(block.ParamsSize(), count);
  ASSERT_EQ(block.MapSize(), 3000);
  for (int i = 0; i < count; ++i) ASSERT_EQ(block.GetValue(i)->GetInt(), i);
  for (int i = 0; i < 3000; ++i) {
    const int last = i + 3000 < count ? i + 3000 : i;
    ASSERT_EQ(block.GetMap(std::to_string(i).c_str())->GetString(), std::to_string(last));
  }
}

}  // namespace
