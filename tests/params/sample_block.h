// A block with a value of each kind, and what is in it.
#pragma once

#include <gtest/gtest.h>
#include <tolk/ListParams.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <cstddef>
#include <string>

namespace tolk::test {

inline constexpr char sample_text[] = "a text that needs memory of its own";

inline void fill_sample_block(TolkParams& block) {
  block.AddInt(7);
  block.AddString(sample_text);
  block.AddStream("a\0b", 3);
  block.AddKeyValueString("name", sample_text);
  block.AddKeyValueInt("width", 1920);
  ListParams* const list = TolkParams::CreateListParams();
  list->AddString(sample_text, sizeof sample_text - 1);
  block.AddList(list);
}

inline std::string sample_bytes() {
  TolkParams block;
  fill_sample_block(block);
  return *block.GetParamas();
}

inline void expect_sample_block(TolkParams& block) {
  ASSERT_EQ(block.ParamsSize(), 4);
  EXPECT_EQ(block.GetValue(0)->GetInt(), 7);
  EXPECT_STREQ(block.GetValue(1)->GetString(), sample_text);
  long size = 0;
  const char* const stream = block.GetValue(2)->GetStream(size);
  EXPECT_EQ(std::string(stream, static_cast<std::size_t>(size) + 1), std::string("a\0b\0", 4));
  EXPECT_STREQ(block.GetValue(3)->GetList()->at(0)->GetString(), sample_text);
  ASSERT_EQ(block.MapSize(), 2);
  EXPECT_STREQ(block.GetMap("name")->GetString(), sample_text);
  EXPECT_EQ(block.GetMap("width")->GetInt(), 1920);
}

}  // namespace tolk::test
