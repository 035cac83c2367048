#include "platform/text.h"

#include <gtest/gtest.h>

#include <string_view>

namespace {

TEST(Text, OfNullIsEmpty) {
  EXPECT_EQ(tolk::text_of(nullptr), "");
  EXPECT_EQ(tolk::text_of("text"), "text");
}

TEST(Text, IsCutAtItsFirstZeroByte) {
  EXPECT_EQ(tolk::cut_at_zero(std::string_view("a\0b\0", 4)), "a");
  EXPECT_EQ(tolk::cut_at_zero(std::string_view("\0", 1)), "");
  EXPECT_EQ(tolk::cut_at_zero("whole"), "whole");
}

}  // namespace
