// Types beyond scalars, lists and structs: there and back, and what tells them apart.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <list>
#include <map>
#include <set>
#include <unordered_map>
#include <variant>

#include "tests/layer/joined.h"

namespace shop {

struct Price {
  std::int64_t cents = 0;
  bool operator==(const Price&) const = default;
};
TOLK_FIELDS(Price, cents)

struct Order {
  std::uint64_t number = 0;
  std::map<std::string, Price> items;
  std::optional<std::chrono::milliseconds> delay;
  bool operator==(const Order&) const = default;
};
TOLK_FIELDS(Order, number, items, delay)

// As an earlier and as a later version of a program have it.
struct Small {
  int a = 0;
};
TOLK_FIELDS(Small, a)
struct Grown {
  int a = 0;
  std::optional<std::string> b;
  std::vector<int> ignored;
};
TOLK_FIELDS(Grown, a, b)

// Without TOLK_FIELDS.
struct Track {
  std::string title;
  std::optional<int> year_1;
  std::chrono::milliseconds length{};
  Price price;
  std::array<int, 2> chart{};
  bool operator==(const Track&) const = default;
};
struct Album {
  std::vector<Track> tracks;
  std::vector<Album> others;
  std::variant<std::monostate, int, std::string> tag;
  bool operator==(const Album&) const = default;
};
struct Sixteen {
  int a = 1, b = 2, c = 3, d = 4, e = 5, f = 6, g = 7, h = 8;
  int i = 9, j = 10, k = 11, l = 12, m = 13, n = 14, o = 15, p = 16;
  bool operator==(const Sixteen&) const = default;
};

// A type of the program that is no struct to the layer.
class Date {
 public:
  Date() = default;
  explicit Date(int day) : day_(day) {}
  int day() const { return day_; }
  bool operator==(const Date&) const = default;

 private:
  int day_ = 1;
};

}  // namespace shop

template <>
struct tolk::Converter<shop::Date> {
  using Wire = std::string;
  static Wire to_wire(const shop::Date& date) { return "day " + std::to_string(date.day()); }
  static shop::Date from_wire(const Wire& text) {
    if (!text.starts_with("day ")) throw std::runtime_error("\"" + text + "\" is not a date");
    return shop::Date(std::stoi(text.substr(4)));
  }
};

namespace tolk::test {
namespace {

class LayerTypes : public JoinedTest {
 protected:
  // There and back, between other arguments, as a keyed argument, and as a result.
  template <class T>
  void expect_round_trip(const T& sent) {
    const std::string name = "type " + std::to_string(++count_);
    server.on(name, [sent](int before, T plain, int after, named<"key", T> keyed) {
      EXPECT_EQ(before, 1);
      EXPECT_EQ(plain, sent);
      EXPECT_EQ(after, 2);
      EXPECT_EQ(keyed.value, sent);
      return plain;
    });
    const auto result = client.call<T>(name, 1, sent, 2, arg("key", sent));
    ASSERT_TRUE(result) << result.error().what();
    EXPECT_EQ(*result, sent);
  }

 private:
  static inline int count_ = 0;
};

TEST_F(LayerTypes, IntegersOfEverySize) {
  expect_round_trip(INT64_MAX);
  expect_round_trip(INT64_MIN);
  expect_round_trip(UINT64_MAX);
  expect_round_trip(std::uint32_t{4000000000U});
  expect_round_trip(std::vector<std::int64_t>{1, INT64_MIN, 0});
  enum class Wide : std::int64_t { most = INT64_MAX };
  expect_round_trip(Wide::most);
}

TEST_F(LayerTypes, WideIntegersThatDoNotFitAreRefused) {
  server.on("narrow", [](int v) { return v; });
  EXPECT_EQ(client.call<int>("narrow", std::int64_t{3}).value(), 3);
  EXPECT_EQ(client.call<int>("narrow", INT64_MAX).error().detail(),
            "argument 1: 9223372036854775807 does not fit");
  EXPECT_EQ(client.call<unsigned>("narrow", -1).error().detail(),
            "wrong result type: -1 does not fit");
}

TEST_F(LayerTypes, OptionalsMoveNothing) {
  expect_round_trip(std::optional<int>());
  expect_round_trip(std::optional<int>(5));
  expect_round_trip(std::optional<std::string>(""));
  expect_round_trip(std::vector<std::optional<int>>{1, std::nullopt, 3, std::nullopt});
  expect_round_trip(std::map<std::string, std::optional<int>>{{"a", 1}, {"b", std::nullopt}});
  server.on("three", [](std::optional<int> a, std::optional<int> b, std::optional<int> c) {
    return std::tuple(a, b, c);
  });
  using Three = std::tuple<std::optional<int>, std::optional<int>, std::optional<int>>;
  const std::optional<int> none;
  EXPECT_EQ(client.call<Three>("three", none, 2, none).value(), Three(none, 2, none));
  EXPECT_EQ(client.call<Three>("three", none, none, 3).value(), Three(none, none, 3));
  EXPECT_EQ(client.call<Three>("three", none).value(), Three(none, none, none));
  EXPECT_EQ(client.call<Three>("three", std::nullopt, 2).value(), Three(none, 2, none));
}

TEST_F(LayerTypes, Containers) {
  expect_round_trip(std::map<std::string, int>{{"a", 1}, {"", 2}});
  expect_round_trip(std::map<std::string, std::vector<int>>{});
  expect_round_trip(std::unordered_map<std::string, std::string>{{"k", "v"}});
  expect_round_trip(std::map<int, std::string>{{7, "seven"}, {-1, ""}});
  expect_round_trip(std::set<std::string>{"b", "a"});
  expect_round_trip(std::array<double, 3>{1, 2, 3});
  expect_round_trip(std::list<bool>{true, false});
  expect_round_trip(std::vector<std::pair<int, std::string>>{{1, "a"}, {2, ""}});
  server.on("two", [](std::pair<int, std::tuple<bool, std::string>> v) { return v; });
  using Two = std::pair<int, std::tuple<bool, std::string>>;
  EXPECT_EQ(client.call<Two>("two", Two(3, {true, "x"})).value(), Two(3, {true, "x"}));
}

TEST_F(LayerTypes, ContainersThatDoNotFitNameTheElement) {
  server.on("map", [](const std::map<std::string, int>&) {});
  EXPECT_EQ(client.call("map", std::map<std::string, std::string>{{"a", "x"}}).error().detail(),
            "argument 1, key \"a\": wanted int, got string");
  server.on("array", [](const std::array<int, 2>&) {});
  EXPECT_EQ(client.call("array", std::vector<int>{1}).error().detail(),
            "argument 1: wanted [int: 2], got list");
}

TEST_F(LayerTypes, VariantsKeepTheirAlternative) {
  using Any = std::variant<std::monostate, bool, double, int, std::string, shop::Price>;
  expect_round_trip(Any());
  expect_round_trip(Any(true));
  expect_round_trip(Any(3.0));
  expect_round_trip(Any(3));
  expect_round_trip(Any("text"));
  expect_round_trip(Any(shop::Price{5}));
  expect_round_trip(std::vector<Any>{Any(), Any(1), Any()});
}

TEST_F(LayerTypes, TimesAndPaths) {
  using std::chrono::system_clock;
  expect_round_trip(1500ms);
  expect_round_trip(std::chrono::nanoseconds(-1));
  expect_round_trip(std::chrono::hours(100000));
  expect_round_trip(std::chrono::duration<double>(0.25));
  expect_round_trip(system_clock::now());
  expect_round_trip(std::filesystem::path(u8"grüße/notes.txt"));
  server.on("seconds", [](std::chrono::seconds s) { return s.count(); });
  EXPECT_EQ(client.call<long>("seconds", 2000ms, 20s).value(), 2);
  EXPECT_EQ(client.call<long>("seconds", 1500ms, 20s).error().detail(),
            "argument 1: 1500000000 ns do not fit");
  EXPECT_EQ(error_of([&] { (void)client.call("seconds", std::chrono::hours(3000000), 1s); }).code(),
            Errc::misuse);
}

TEST_F(LayerTypes, StructsWithFieldsOfEveryType) {
  expect_round_trip(shop::Order{UINT64_MAX, {{"apple", {INT64_MAX}}, {"pear", {}}}, 5ms});
  expect_round_trip(shop::Order{});
}

TEST_F(LayerTypes, AggregatesNeedNoMacro) {
  expect_round_trip(shop::Track{"one", 1999, 3500ms, {5}, {3, 4}});
  expect_round_trip(shop::Track{});
  expect_round_trip(shop::Album{{{"one", {}, 1ms, {}, {}}, {}}, {{{}, {}, "inner"}}, 7});
  expect_round_trip(shop::Sixteen());
  struct Local {
    bool here = false;
    bool operator==(const Local&) const = default;
  };
  expect_round_trip(Local{true});
  expect_round_trip(std::vector<Local>{{true}, {false}});
}

TEST_F(LayerTypes, MembersOfAggregatesAreFieldsByName) {
  server.on("track", [](const shop::Track& track) { return track; });
  const Values back = client.call<Values>("track", shop::Track{"x", 3, {}, {}, {}}).value();
  EXPECT_EQ(back.at("title"), Value("x"));
  EXPECT_EQ(back.at("year_1"), Value(3));
  const Values some = Values().add("title", "y").add("length", 0);
  EXPECT_EQ(client.call("track", some).error().detail(),
            "argument 1, field \"price\": wanted {cents: int64}, got nothing");
  server.on("album", [](const shop::Album&) {});
  const auto all = server.methods();
  const auto album = std::find_if(all.begin(), all.end(),
                                  [](const MethodInfo& method) { return method.name == "album"; });
  EXPECT_EQ(album->signature,
            "({tracks: [{title: string, year_1: int?, length: int64, price: {cents: int64}, "
            "chart: [int: 2]}], others: [{...}], tag: nothing | int | string})");
}

TEST_F(LayerTypes, StructsMayGrow) {
  server.on("small", [](const shop::Small& s) { return shop::Grown{s.a, "new", {}}; });
  server.on("grown", [](const shop::Grown& g) { return g.b.value_or("old"); });
  EXPECT_EQ(client.call<shop::Small>("small", shop::Grown{7, "x", {}}).value().a, 7);
  EXPECT_EQ(client.call<std::string>("grown", shop::Small{7}).value(), "old");
}

TEST_F(LayerTypes, OwnTypesAreConverted) {
  expect_round_trip(shop::Date(17));
  expect_round_trip(std::vector<shop::Date>{shop::Date(1), shop::Date(2)});
  server.on("date", [](shop::Date date) { return date.day(); });
  EXPECT_EQ(client.call<int>("date", "yesterday").error().detail(),
            "argument 1: \"yesterday\" is not a date");
}

TEST_F(LayerTypes, ValuesHoldEveryNumber) {
  server.on("all", [](const Values& all) { return all; });
  const Values sent = Values().add(1).add(INT64_MAX).add(UINT64_MAX).add(Value()).add(2);
  const Values back = client.call<Values>("all", sent).value();
  EXPECT_EQ(back, sent);
  EXPECT_TRUE(back.at(0).is<int>());
  EXPECT_EQ(back.at(0).to<std::int64_t>(), 1);
  EXPECT_EQ(back.at(1).get<std::int64_t>(), INT64_MAX);
  EXPECT_EQ(back.at(2).get<std::uint64_t>(), UINT64_MAX);
  EXPECT_TRUE(back.at(3).is_none());
}

TEST_F(LayerTypes, KeysThatCannotTravelFailTheCall) {
  using Map = std::map<std::string, int>;
  for (const std::string& key :
       {std::string("tolk.x"), std::string("s_c_x"), std::string("a\0b", 3)}) {
    EXPECT_EQ(client.call("any", Map{{key, 1}}).error().code(), Errc::misuse);
    EXPECT_EQ(client.call("any", Values().add(key, 1)).error().code(), Errc::misuse);
  }
}

}  // namespace
}  // namespace tolk::test
