// Values arrive as they were sent, in a form on the wire that hosts without the layer can read.
#include <climits>
#include <cmath>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/layer/joined.h"

namespace {

enum class Colour : unsigned char { red = 1, blue = 200 };

struct Point {
  int x = 0;
  double y = 0;
  bool operator==(const Point&) const = default;
};

struct Shape {
  std::string name;
  std::vector<Point> corners;
  Point centre;
  std::optional<int> layer;
  tolk::bytes picture;
  Colour colour = Colour::red;
  bool operator==(const Shape&) const = default;
};

struct Unmakable {
  Unmakable() { throw std::runtime_error("not today"); }
  int x = 0;
};

}  // namespace

template <>
inline constexpr auto tolk::describe<Point> = tolk::fields("x", &Point::x, "y", &Point::y);
template <>
inline constexpr auto tolk::describe<Unmakable> = tolk::fields("x", &Unmakable::x);
template <>
inline constexpr auto tolk::describe<Shape> = tolk::fields("name", &Shape::name, "corners",
                                                           &Shape::corners, "centre",
                                                           &Shape::centre, "layer", &Shape::layer,
                                                           "picture", &Shape::picture, "colour",
                                                           &Shape::colour);

namespace tolk::test {
namespace {

class LayerValues : public JoinedTest {
 protected:
  // There and back, as argument, as keyed argument, and as result.
  template <class T>
  void expect_comes_back(const T& sent) {
    const std::string name = "back " + std::to_string(++count_);
    server.on(name, [sent](T plain, named<"key", T> keyed) {
      EXPECT_EQ(plain, sent);
      EXPECT_EQ(keyed.value, sent);
      return plain;
    });
    const auto result = client.call<T>(name, sent, arg("key", sent));
    ASSERT_TRUE(result) << result.error().what();
    EXPECT_EQ(*result, sent);
  }

 private:
  static inline int count_ = 0;
};

const std::string kZeroInside("a\0b", 3);

TEST_F(LayerValues, ExceptionOfAResultTypeComesOutOfTheFuture) {
  server.on("one", [] { return 1; });
  std::future<Unmakable> future = client.async<Unmakable>("one");
  EXPECT_THROW(future.get(), std::runtime_error);
}

TEST_F(LayerValues, ScalarsComeBack) {
  expect_comes_back(true);
  expect_comes_back(false);
  expect_comes_back(0);
  expect_comes_back(INT_MIN);
  expect_comes_back(INT_MAX);
  expect_comes_back(static_cast<short>(-3));
  expect_comes_back(static_cast<unsigned short>(65535));
  expect_comes_back(-0.25);
  expect_comes_back(HUGE_VAL);
  expect_comes_back(1.5F);
  expect_comes_back(Colour::blue);
}

TEST_F(LayerValues, TextsAndBytesComeBack) {
  expect_comes_back(std::string());
  expect_comes_back(std::string("grüße"));
  expect_comes_back(kZeroInside);
  expect_comes_back(bytes());
  expect_comes_back(bytes{std::byte{0}, std::byte{255}});
  expect_comes_back(std::vector<unsigned char>{1, 0, 2});
}

TEST_F(LayerValues, ListsComeBack) {
  expect_comes_back(std::vector<int>());
  expect_comes_back(std::vector<int>{3, -1, 2});
  expect_comes_back(std::vector<bool>{true, false});
  expect_comes_back(std::vector<double>{0.5});
  expect_comes_back(std::vector<std::string>{"", "b", kZeroInside});
  expect_comes_back(std::vector<bytes>{{}, {std::byte{7}}});
  expect_comes_back(std::vector<std::vector<int>>{{1, 2}, {}, {3}});
}

TEST_F(LayerValues, StructsComeBack) {
  const Point point{1, 0.5};
  expect_comes_back(point);
  expect_comes_back(std::vector<Point>{point, {}});
  const Shape shape{"square", {{1, 2}, {3, 4}}, point, std::nullopt, {std::byte{0}}, Colour::blue};
  expect_comes_back(shape);
  Shape layered_shape = shape;
  layered_shape.layer = 7;
  expect_comes_back(layered_shape);
}

TEST_F(LayerValues, AnyValueComesBack) {
  expect_comes_back(Value(true));
  expect_comes_back(Value(3));
  expect_comes_back(Value(0.5));
  expect_comes_back(Value("text"));
  expect_comes_back(Value(bytes{std::byte{1}}));
  server.on("any list", [](const Value& value) { return value; });
  const Value list(Value::List{1, "two", 3.0});
  EXPECT_EQ(client.call<Value>("any list", list).value(), list);
}

TEST_F(LayerValues, AllValuesOfACallCanBePassedAndReturned) {
  server.on("all", [](const Values& all) { return Values(all).add("size", int(all.size())); });
  Values sent;
  sent.add(1).add("two").add("key", true);
  const Values back = client.call<Values>("all", sent, 0.5, arg("more", "text")).value();
  EXPECT_EQ(back.positional(), (std::vector<Value>{1, "two", 0.5}));
  EXPECT_EQ(back.at("key"), Value(true));
  EXPECT_EQ(back.at("more"), Value("text"));
  EXPECT_EQ(back.at("size"), Value(3));
  EXPECT_TRUE(back.at("none").is_none());
  EXPECT_TRUE(back.at(9).is_none());
  EXPECT_EQ(back.keyed().size(), 3U);  // without the keys of the envelope
}

TEST_F(LayerValues, TextsOfEveryTypeArrive) {
  server.on("join", [](std::string_view a, const std::string& b, std::string c) {
    return std::string(a) + b + std::move(c);
  });
  const char* const pointer = "a";
  const std::string_view view("bc", 1);
  EXPECT_EQ(client.call<std::string>("join", pointer, view, "literal").value(), "abliteral");
}

TEST_F(LayerValues, ByteSpansArrive) {
  server.on("count", [](std::span<const std::byte> data) { return int(data.size()); });
  const bytes data(5);
  EXPECT_EQ(client.call<int>("count", std::span<const std::byte>(data)).value(), 5);
  EXPECT_EQ(client.call<int>("count", "text").value(), 4);
}

TEST_F(LayerValues, SeveralResultsAreATuple) {
  server.on("divide", [](int a, int b) { return std::tuple(a / b, a % b); });
  const auto result = client.call<std::tuple<int, int>>("divide", 17, 5).value();
  EXPECT_EQ(result, std::tuple(3, 2));
  EXPECT_EQ(client.call<int>("divide", 17, 5).value(), 3);
}

TEST_F(LayerValues, OptionalParametersMayBeLeftOut) {
  server.on("greet", [](const std::string& whom, std::optional<int> times,
                        named<"loud", std::optional<bool>> loud) {
    return whom + std::to_string(times.value_or(1)) + (loud.value.value_or(false) ? "!" : "");
  });
  EXPECT_EQ(client.call<std::string>("greet", "a").value(), "a1");
  EXPECT_EQ(client.call<std::string>("greet", "a", 2, arg("loud", true)).value(), "a2!");
}

TEST_F(LayerValues, OptionalResultMayBeAbsent) {
  server.on("find", [](int n) { return n > 0 ? std::optional(n) : std::nullopt; });
  EXPECT_EQ(client.call<std::optional<int>>("find", 3).value(), 3);
  EXPECT_EQ(client.call<std::optional<int>>("find", -3).value(), std::nullopt);
  EXPECT_EQ(client.call<int>("find", -3).error().detail(),
            "wrong result type: wanted int, got nothing");
}

TEST_F(LayerValues, IntIsAcceptedAsADouble) {
  server.on("half", [](double v) { return v / 2; });
  EXPECT_EQ(client.call<double>("half", 3).value(), 1.5);
  server.on("three", [] { return 3; });
  EXPECT_EQ(client.call<double>("three").value(), 3.0);
}

TEST_F(LayerValues, NumberThatDoesNotFitIsAWrongType) {
  server.on("large", [] { return 70000; });
  EXPECT_EQ(client.call<short>("large").error().code(), Errc::wrong_type);
  EXPECT_EQ(client.call<short>("large").error().detail(), "wrong result type: 70000 does not fit");
  EXPECT_EQ(client.call<Colour>("large").error().detail(), "wrong result type: 70000 does not fit");
  server.on("small", [](unsigned char v) { return int(v); });
  EXPECT_EQ(client.call<int>("small", 256).error().code(), Errc::wrong_arguments);
  EXPECT_EQ(client.call<int>("small", 256).error().detail(), "argument 1: 256 does not fit");
  EXPECT_EQ(client.call<int>("small", -1).error().code(), Errc::wrong_arguments);
}

TEST_F(LayerValues, StructIsReadFromKeyedValuesToo) {
  server.on("norm", [](Point p) { return p.x + p.y; });
  EXPECT_EQ(client.call<double>("norm", arg("x", 3), arg("y", 0.5)).value(), 3.5);
  const auto half = client.call<double>("norm", arg("x", 3));
  EXPECT_EQ(half.error().code(), Errc::wrong_arguments);
  EXPECT_EQ(half.error().detail(), "argument 1, field \"y\": wanted double, got nothing");
  server.on("keyed", [](const Values&) { return Values().add("x", 1).add("y", 2.0); });
  EXPECT_EQ(client.call<Point>("keyed").value(), (Point{1, 2.0}));
}

TEST_F(LayerValues, KeyedValuesAreNotPositional) {
  using Maybe = std::optional<int>;
  server.on("key alone", [] { return Values().add("x", 1); });
  EXPECT_EQ(client.call<Maybe>("key alone").value(), std::nullopt);
  EXPECT_EQ(client.call<int>("key alone").error().code(), Errc::wrong_type);
  server.on("one and a key", [] { return Values().add(7).add("x", 1); });
  using Two = std::tuple<Maybe, Maybe>;
  EXPECT_EQ(client.call<Two>("one and a key").value(), Two(7, std::nullopt));
  server.on("maybe", [](Maybe a, Maybe b) { return Two(a, b); });
  EXPECT_EQ(client.call<Two>("maybe", 7, arg("x", 1)).value(), Two(7, std::nullopt));
}

TEST_F(LayerValues, WrongResultIsReportedByElementOrField) {
  int count = 0;
  const auto misfit = [&]<class T>(const Values& result, const T&) {
    const std::string name = "result " + std::to_string(++count);
    server.on(name, [result] { return result; });
    const auto error = client.call<T>(name).error();
    EXPECT_EQ(error.code(), Errc::wrong_type);
    return error.detail();
  };
  const Values list = Values().add(Value::List{1, 2, "three"});
  EXPECT_EQ(misfit(list, std::vector<int>()),
            "wrong result type, element 3: wanted int, got string");
  EXPECT_EQ(misfit(Values().add(3), std::vector<int>()),
            "wrong result type: wanted [int], got int");
  EXPECT_EQ(misfit(list, Point()), "wrong result type: wanted {x: int, y: double}, got list");
  EXPECT_EQ(misfit(Values().add("x", 1).add("y", "far"), Point()),
            "wrong result type, field \"y\": wanted double, got string");
  server.on("shape", [] { return Shape(); });
  EXPECT_EQ(client.call<Point>("shape").error().detail(),
            "wrong result type, field \"x\": wanted int, got nothing");
}

TEST_F(LayerValues, StructResultCanBeReadByKey) {
  server.on("point", [] { return Point{4, 0.5}; });
  const Values result = client.call<Values>("point").value();
  EXPECT_EQ(result.at("x"), Value(4));
  EXPECT_EQ(result.at("y"), Value(0.5));
}

TEST_F(LayerValues, MoveOnlyHandlersAndPlainFunctionsAreAccepted) {
  server.on("owner", [held = std::make_unique<int>(5)] { return *held; });
  EXPECT_EQ(client.call<int>("owner").value(), 5);
  server.on(
      "function", +[](int v) noexcept { return v + 1; });
  EXPECT_EQ(client.call<int>("function", 1).value(), 2);
  server.on("counter", [count = 0]() mutable { return ++count; });
  EXPECT_EQ(client.call<int>("counter").value(), 1);
  EXPECT_EQ(client.call<int>("counter").value(), 2);
}

TEST_F(LayerValues, ValuesShowStructsAsMapsAndListsAsLists) {
  server.on("same", [](const Values& values) { return values; });
  const Values back =
      client.call<Values>("same", Point{9, 0.5}, std::vector<Point>{}, std::vector<Point>(1))
          .value();
  EXPECT_EQ(back.at(0), Value(Value::Map{{"x", 9}, {"y", 0.5}}));
  EXPECT_EQ(back.at(1), Value(Value::List{}));
  EXPECT_EQ(back.at(2), Value(Value::List{Value::Map{{"x", 0}, {"y", 0.0}}}));
  EXPECT_EQ(back.at(0).to<Point>(), (Point{9, 0.5}));
  struct Nothing {
    std::optional<int> a;
  };
  const Values empty = client
                           .call<Values>("same", Nothing{}, std::map<std::string, int>{},
                                         Value(Value::Map{}), Value(Value::List{}))
                           .value();
  const Value no_fields(Value::Map{});
  EXPECT_EQ(empty.positional(), (Value::List{no_fields, no_fields, no_fields, Value::List{}}));
  EXPECT_EQ(back.at(0).to<int>(), std::nullopt);
}

// The arguments of a call, as docs/wire.md shows them.
template <class... Args>
std::string encoded(const Args&... args) {
  detail::Block block;
  detail::Limits limits;
  detail::take_arguments(block, limits, args...);
  std::size_t size = 0;
  const void* const first = tolk_block_encode(block.get(), &size);
  return {static_cast<const char*>(first), size};
}

TEST_F(LayerValues, ArgumentsHaveTheDocumentedBytes) {
  struct X {
    int x = 0;
  };
  struct XAndY {
    int x = 0;
    int y = 0;
  };
  const auto expect_bytes = [](const std::string& block, std::initializer_list<int> bytes,
                               const std::string& types) {
    const std::string wanted(bytes.begin(), bytes.end());
    EXPECT_EQ(block.substr(0, wanted.size()), wanted);
    EXPECT_THAT(block.substr(wanted.size()), testing::HasSubstr("tolk.types"));
    EXPECT_THAT(block.substr(wanted.size()), testing::HasSubstr(types));
  };
  expect_bytes(encoded(std::int64_t{5000000000}),
               {4, 8, 0, 0, 0, 0, 0xF2, 5, 0x2A, 1, 0, 0, 0, 0x0D, 0, 0, 0}, "0=int64");
  expect_bytes(encoded(std::optional<int>(), 2),
               {4, 0, 0, 0, 0, 5, 0, 0, 0, 0, 2, 0, 0, 0, 0x0E, 0, 0, 0}, "0=none");
  expect_bytes(encoded(XAndY{3, 4}),
               {4,    0x28, 0, 0, 0, 5,    3, 1, 0, 0,    0, 0x78, 7, 0,    0, 0,     //
                0,    3,    0, 0, 0, 0x10, 0, 0, 0, 5,    3, 1,    0, 0,    0, 0x79,  //
                0x1B, 0,    0, 0, 0, 4,    0, 0, 0, 0x24, 0, 0,    0, 0x2D, 0, 0,    0},
               "0=map");
  expect_bytes(encoded(std::vector<X>{{3}, {5}}),
               {6, 2,    0, 0, 0,                                            //
                4, 0x14, 0, 0, 0, 5,    3, 1, 0, 0,    0, 0x78, 7, 0, 0, 0,  //
                0, 3,    0, 0, 0, 0x10, 0, 0, 0, 0x1E, 0, 0,    0,           //
                4, 0x14, 0, 0, 0, 5,    3, 1, 0, 0,    0, 0x78, 7, 0, 0, 0,  //
                0, 5,    0, 0, 0, 0x10, 0, 0, 0, 0x3B, 0, 0,    0},
               "0.0=map 0.1=map");
}

// Peers of earlier versions send a struct as bytes.
TEST_F(LayerValues, BlockInsideBytesCanBeRead) {
  const Values fields = Values().add("x", 9);
  tolk_block* const block = tolk_block_new();
  tolk_block_add_key(block, "x");
  tolk_block_add_int(block, 9);
  std::size_t size = 0;
  const char* const first = static_cast<const char*>(tolk_block_encode(block, &size));
  EXPECT_EQ(Values::parse({first, size}), fields);
  EXPECT_EQ(Values::parse("nonsense"), std::nullopt);
  tolk_block_free(block);
}

}  // namespace
}  // namespace tolk::test
