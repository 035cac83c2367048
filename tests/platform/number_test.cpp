#include "platform/number.h"

#include <gtest/gtest.h>

#include <limits>

namespace tolk::platform {
namespace {

TEST(ParseInt, DigitsAreTheNumber) {
  EXPECT_EQ(parse_int("0"), 0);
  EXPECT_EQ(parse_int("5000"), 5000);
  EXPECT_EQ(parse_int("65536"), 65536);
}

TEST(ParseInt, LeadingZerosDoNotMakeItOctal) { EXPECT_EQ(parse_int("05000"), 5000); }

TEST(ParseInt, LeadingBlanksAreSkipped) { EXPECT_EQ(parse_int(" \t\n\v\f\r42"), 42); }

TEST(ParseInt, OneSignIsTaken) {
  EXPECT_EQ(parse_int("-7"), -7);
  EXPECT_EQ(parse_int("+7"), 7);
  EXPECT_EQ(parse_int("--7"), 0);
  EXPECT_EQ(parse_int("+-7"), 0);
  EXPECT_EQ(parse_int("- 7"), 0);
}

TEST(ParseInt, WhatFollowsTheDigitsIsIgnored) {
  EXPECT_EQ(parse_int("12abc"), 12);
  EXPECT_EQ(parse_int("12 34"), 12);
  EXPECT_EQ(parse_int("0x10"), 0);
}

TEST(ParseInt, WhatIsNoNumberIsZero) {
  EXPECT_EQ(parse_int(nullptr), 0);
  EXPECT_EQ(parse_int(""), 0);
  EXPECT_EQ(parse_int("   "), 0);
  EXPECT_EQ(parse_int("-"), 0);
  EXPECT_EQ(parse_int("port"), 0);
  EXPECT_EQ(parse_int("\xA0"
                      "5"),
            0);  // a blank in some locales
}

TEST(ParseInt, LimitsOf32BitsAreExact) {
  EXPECT_EQ(parse_int("2147483647"), std::numeric_limits<int>::max());
  EXPECT_EQ(parse_int("-2147483648"), std::numeric_limits<int>::min());
  EXPECT_EQ(parse_int("2147483646"), std::numeric_limits<int>::max() - 1);
  EXPECT_EQ(parse_int("-2147483647"), std::numeric_limits<int>::min() + 1);
}

TEST(ParseInt, BeyondTheLimitsTheNearestIsTaken) {
  EXPECT_EQ(parse_int("2147483648"), std::numeric_limits<int>::max());
  EXPECT_EQ(parse_int("4294967296"), std::numeric_limits<int>::max());
  EXPECT_EQ(parse_int("99999999999999999999999999999999"), std::numeric_limits<int>::max());
  EXPECT_EQ(parse_int("-2147483649"), std::numeric_limits<int>::min());
  EXPECT_EQ(parse_int("-99999999999999999999999999999999"), std::numeric_limits<int>::min());
}

}  // namespace
}  // namespace tolk::platform
