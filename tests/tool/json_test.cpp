// What the values of every type look like as JSON, there and back.
#include <algorithm>
#include <cmath>
#include <cstddef>

#include "tests/tool/served.h"

namespace tolk::test {
namespace {

struct Point {
  int x = 0;
  int y = 0;
};

}  // namespace
}  // namespace tolk::test

template <>
inline constexpr auto tolk::describe<tolk::test::Point> = tolk::fields("x", &tolk::test::Point::x,
                                                                       "y", &tolk::test::Point::y);

namespace tolk::test {
namespace {

class ToolJson : public ServedTest {
 protected:
  std::string printed(const std::string& method, const std::string& json = "[]") const {
    const Ended ended = call({method, "--json=short", "--json", json});
    EXPECT_EQ(ended.code, 0) << ended.err;
    return ended.out;
  }
};

TEST_F(ToolJson, ValuesComeBackAsTheyWent) {
  for (const std::string json :
       {"[1,2]", "[true,2.0,\"text\",[1,\"x\"]]", "{\"a\":1,\"b\":[2]}",
        "{\"$base64\":\"AAEC/w==\"}", "{\"$double\":\"nan\"}", "{\"$double\":\"-inf\"}",
        "[[1],{\"k\":{\"$base64\":\"AA==\"}}]", "\"\\u0001 \\\" \\\\ \xc3\xa4\""}) {
    const std::string back = printed("echo", json);
    // The printer writes control characters its own way.
    EXPECT_EQ(back, json + "\n");
  }
}

TEST_F(ToolJson, StructsAreObjects) {
  server.on("flip", [](const Point& p) { return Point{p.y, p.x}; });
  server.on("first", [](const std::vector<Point>& all, int) { return all.at(0).x; });
  EXPECT_EQ(printed("flip", "{\"x\":1,\"y\":2}"), "{\"x\":2,\"y\":1}\n");
  EXPECT_EQ(printed("flip", "[{\"x\":1,\"y\":2},{}]"), "{\"x\":2,\"y\":1}\n");
  EXPECT_EQ(printed("first", "[[{\"x\":7,\"y\":2}], 0]"), "7\n");
}

// Only arguments have keyed values at their end, so only there an empty object keeps them apart.
TEST_F(ToolJson, AStructAtTheEndOfAnInnerListStaysTheLast) {
  for (const std::string json :
       {R"({"a":[1,{"b":2}]})", R"([1,[[{"b":2}]]])", R"({"a":[[1,{"b":2}]],"k":{"c":[{"d":1}]}})",
        R"([[1,{"b":2}],{"k":[{"b":[{"c":3}]}]}])", R"([1,{"b":2},{}])"}) {
    EXPECT_EQ(printed("echo", json), json + "\n");
  }
}

TEST_F(ToolJson, TextThatIsNotUtf8IsShownAsBytes) {
  server.on("odd", [] { return std::string("a\xff"); });
  EXPECT_EQ(printed("odd"), "{\"$base64\":\"Yf8=\"}\n");
}

TEST_F(ToolJson, BlocksThatAPeerNestsTooDeepAreShownAsBytes) {
  server.on("deep", [] {
    std::string block;
    for (int level = 0; level < 200; ++level) {
      TolkParams around;
      around.AddStream(block.data(), static_cast<long>(block.size()));
      block = *around.GetParamas();
    }
    const auto* const begin = reinterpret_cast<const std::byte*>(block.data());
    return bytes(begin, begin + block.size());
  });
  const std::string shown = printed("deep");
  EXPECT_EQ(std::count(shown.begin(), shown.end(), '['), 64);
  EXPECT_NE(shown.find("[{\"$base64\":\""), std::string::npos) << shown;
}

TEST_F(ToolJson, WhatCanNotTravelIsRefused) {
  for (const auto& [json, why] : std::vector<std::pair<std::string, std::string>>{
           {"[2147483648]",
            "2147483648 does not fit in a 32-bit int: write 2147483648.0 or a text"},
           {"[-2147483649]", "does not fit in a 32-bit int"},
           {"[18446744073709551615]", "does not fit in a 32-bit int"},
           {"{\"$base64\":\"a\"}", "base64 comes in groups of four"},
           {"{\"$base64\":\"a*==\"}", "not a base64 character: *"},
           {"{\"$double\":\"one\"}", "$double must be nan, inf or -inf"},
           {"[[null]]", "null is not allowed in a list"},
           {"[1e999]", "[1e999]: number overflow parsing '1e999'\ntry: "},
           {"{\"s_c_x\":1}", "a key must not begin with s_c_ or tolk., as s_c_x does"},
           {"[{\"a\":{\"tolk.x\":1}},2]", "as tolk.x does"}}) {
    const Ended ended = call({"echo", "--json", json});
    EXPECT_EQ(ended.code, 2) << json;
    EXPECT_THAT(ended.err, HasSubstr(why)) << json;
    EXPECT_THAT(ended.err, HasSubstr("\ntry: ")) << json;
  }
}

}  // namespace
}  // namespace tolk::test
