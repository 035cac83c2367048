// What the values of every type look like as JSON, there and back.
#include <tolk/c.h>
#include <tolk/tolk.h>

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
    const Ended ended = call({method, "--json=" + json});
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

// A peer that sends no types: an empty list comes as no bytes.
class OldPeer {
 public:
  explicit OldPeer(const std::string& address) {
    tolk_method_options options{};
    options.size = sizeof options;
    options.signature = "() -> {all: [{tags: [string]}], data: bytes, none: [int]}";
    const auto answer = [](void*, tolk_request* request) {
      TolkParams inner;
      inner.AddKeyValueStream("tags", "", 0);
      TolkParams all;
      all.AddStream(inner.GetParamas()->data(), static_cast<long>(inner.GetParamas()->size()));
      tolk_block* const block = tolk_block_new();
      tolk_block_add_key(block, "all");
      tolk_block_add_bytes(block, all.GetParamas()->data(), all.GetParamas()->size());
      for (const char* const key : {"data", "none"}) {
        tolk_block_add_key(block, key);
        tolk_block_add_bytes(block, "", 0);
      }
      tolk_request_answer(request, block);
    };
    tolk_methods_add(methods_, "state", answer, nullptr, &options, nullptr);
    tolk_server_options wanted{};
    wanted.size = sizeof wanted;
    wanted.methods = methods_;
    EXPECT_EQ(tolk_server_listen(address.c_str(), &wanted, &server_, nullptr), TOLK_OK);
  }
  ~OldPeer() {
    tolk_server_free(server_);
    tolk_methods_free(methods_);
  }
  OldPeer(const OldPeer&) = delete;
  OldPeer& operator=(const OldPeer&) = delete;

 private:
  tolk_methods* const methods_ = tolk_methods_new();
  tolk_server* server_ = nullptr;
};

TEST(ToolJsonOfOldPeers, AnEmptyListIsOneBecauseTheSignatureSaysSo) {
  const std::string where = fresh().text();
  const OldPeer peer(where);
  EXPECT_EQ(tolk_command({"call", where, "state"}).out,
            R"({"all":[{"tags":[]}],"data":{"$base64":""},"none":[]})"
            "\n");
}

TEST_F(ToolJson, EmptyListsAreLists) {
  server.on("empty", [](const Values&) {
    Values all;
    all.add("list", Value::List()).add("map", Value::Map()).add("bytes", bytes());
    return all;
  });
  EXPECT_EQ(printed("empty"), R"({"bytes":{"$base64":""},"list":[],"map":{}})"
                              "\n");
}

TEST_F(ToolJson, WhatCanNotTravelIsRefused) {
  for (const auto& [json, why] : std::vector<std::pair<std::string, std::string>>{
           {"{\"$base64\":\"a\"}", "base64 comes in groups of four"},
           {"{\"$base64\":\"a*==\"}", "not a base64 character: *"},
           {"{\"$double\":\"one\"}", "$double must be nan, inf or -inf"},
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
