#include <gtest/gtest.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <limits>
#include <map>
#include <string>

#include "tests/params/hex.h"

namespace {

class Lookup : public ::testing::Test {
 protected:
  Lookup() {
    block.AddInt(7);
    block.AddKeyValueInt("ok", 1);
    block.AddKeyValueInt("other", 2);
    EXPECT_TRUE(block.ToParams());
  }

  TolkParams block;
};

TEST_F(Lookup, ValueByPosition) {
  EXPECT_EQ(block.GetValue(0)->GetInt(), 7);
  EXPECT_EQ(block.GetValue(block.ParamsSize()), nullptr);
  EXPECT_EQ(block.GetValue(std::numeric_limits<int>::max()), nullptr);
}

TEST_F(Lookup, NegativePositionHoldsNothing) {
  EXPECT_EQ(block.GetValue(-1), nullptr);
  EXPECT_EQ(block.GetValue(std::numeric_limits<int>::min()), nullptr);
}

TEST_F(Lookup, KeyIsComparedByItsText) {
  const std::string key = "ok";
  EXPECT_EQ(block.GetMap(key.c_str())->GetInt(), 1);
  EXPECT_EQ(block.GetMap("o"), nullptr);
  EXPECT_EQ(block.GetMap("okay"), nullptr);
  EXPECT_EQ(block.GetMap(""), nullptr);
}

TEST_F(Lookup, NullKeyFindsNothing) {
  block.AddKeyValueInt("", 3);
  ASSERT_TRUE(block.ToParams());
  EXPECT_EQ(block.GetMap(nullptr), nullptr);
  EXPECT_EQ(block.GetMap("")->GetInt(), 3);
}

TEST(LookupOfWholeKeys, ATextNeverReachesBehindAZeroByte) {
  const std::string bytes =
      tolk::test::hex("05 03 03000000 610062 09000000 03 01000000 78 13000000");
  TolkParams block;
  ASSERT_TRUE(block.Parser(bytes.data(), static_cast<int>(bytes.size())));
  EXPECT_EQ(block.MapSize(), 1);
  EXPECT_EQ(block.GetMap("a"), nullptr);
}

TEST_F(Lookup, ViewHoldsTheKeyedValuesUnderTheirOwnKeyAddresses) {
  std::map<const char*, TolkValue*>* const view = block.GetMapPtr();
  ASSERT_EQ(view->size(), 2U);
  for (const auto& [key, value] : *view) EXPECT_EQ(value, block.GetMap(key));
  const std::string copy = "ok";
  EXPECT_EQ(view->count(copy.c_str()), 0U);
}

TEST_F(Lookup, ViewIsMadeOnceAndStaysUnchanged) {
  std::map<const char*, TolkValue*>* const view = block.GetMapPtr();
  const auto before = *view;
  block.AddKeyValueInt("added", 3);
  EXPECT_EQ(block.GetMapPtr(), view);
  EXPECT_EQ(*block.GetMapPtr(), before);
  view->erase(view->begin());
  EXPECT_EQ(block.GetMapPtr()->size(), 1U);
}

TEST_F(Lookup, ParseEmptiesTheView) {
  block.GetMapPtr();
  block.AddKeyValueInt("added", 3);
  ASSERT_TRUE(block.ToParams());
  EXPECT_EQ(block.GetMapPtr()->size(), 3U);
  ASSERT_TRUE(block.Parser(nullptr, 0));
  EXPECT_TRUE(block.GetMapPtr()->empty());
}

}  // namespace
