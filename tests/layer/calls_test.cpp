// Calls between two ends of the layer: results, errors, limits, concurrency.
#include <atomic>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

class LayerCalls : public JoinedTest {};

TEST_F(LayerCalls, HandlerKnowsItsCaller) {
  std::atomic<ClientId> seen{0};
  server.on("who", [&](Caller caller) {
    seen = caller.id();
    return caller.id();
  });
  const auto id = client.call<ClientId>("who").value();
  EXPECT_NE(id, 0U);
  EXPECT_EQ(id, seen);
  EXPECT_THAT(server.clients(), testing::ElementsAre(id));
}

TEST_F(LayerCalls, ExceptionOfAHandlerReachesTheCallerWithItsText) {
  server.on("fail", [](const std::string& why) -> int { throw std::runtime_error(why); });
  const auto result = client.call<int>("fail", "the disk is full");
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().code(), Errc::handler_failed);
  EXPECT_EQ(result.error().method(), "fail");
  EXPECT_EQ(result.error().address(), server.address());
  EXPECT_EQ(result.error().detail(), "the disk is full");
  server.on("fail oddly", [] { throw 3; });
  EXPECT_EQ(client.call("fail oddly").error().code(), Errc::handler_failed);
}

TEST_F(LayerCalls, UnknownMethodIsNamedInTheError) {
  const auto result = client.call<int>("absent", 1);
  EXPECT_EQ(result.error().code(), Errc::no_such_method);
  EXPECT_EQ(result.error().method(), "absent");
}

TEST_F(LayerCalls, ResultThatLooksLikeAnUnknownMethodIsAResult) {
  server.on("echo", [](std::string text) { return text; });
  EXPECT_EQ(client.call<std::string>("echo", "no event: echo").value(), "no event: echo");
}

TEST_F(LayerCalls, WrongArgumentsAreReportedByPosition) {
  server.on("add", [](int a, int b) { return a + b; });
  const auto why = [&](const auto&... args) {
    const auto result = client.call<int>("add", args...);
    EXPECT_EQ(result.error().code(), Errc::wrong_arguments);
    return result.error().detail();
  };
  EXPECT_EQ(why(1), "takes 2 arguments, got 1");
  EXPECT_EQ(why(1, 2, 3), "takes 2 arguments, got 3");
  EXPECT_EQ(why(1, "2"), "argument 2: wanted int, got string");
  EXPECT_EQ(why(0.5, 2), "argument 1: wanted int, got double");
  server.on("one", [](int a) { return a; });
  EXPECT_EQ(client.call<int>("one", 1, 2).error().detail(), "takes 1 argument, got 2");
  server.on("needs key", [](named<"level", int> level) { return level.value; });
  EXPECT_EQ(client.call<int>("needs key").error().detail(),
            "argument \"level\": wanted int, got nothing");
}

TEST_F(LayerCalls, WrongListElementIsReportedByPosition) {
  using Row = std::vector<int>;
  server.on("sum", [](const Row& numbers) { return static_cast<int>(numbers.size()); });
  server.on("table", [](const std::vector<Row>& rows, named<"more", std::optional<int>>) {
    return static_cast<int>(rows.size());
  });
  server.on("keyed", [](named<"row", Row> row) { return static_cast<int>(row.value.size()); });
  const auto why = [&](const char* method, const auto&... args) {
    return client.call<int>(method, args...).error().detail();
  };
  const std::vector<std::string> texts{"x"};
  EXPECT_EQ(why("sum", texts), "argument 1, element 1: wanted int, got string");
  EXPECT_EQ(why("sum", std::vector<Value>{1, 2, 0.5}),
            "argument 1, element 3: wanted int, got double");
  EXPECT_EQ(why("sum", 3), "argument 1: wanted [int], got int");
  EXPECT_EQ(why("table", std::vector<std::vector<Value>>{{1}, {2, true}}),
            "argument 1, element 2, element 2: wanted int, got bool");
  EXPECT_EQ(why("keyed", arg("row", texts)), "argument \"row\", element 1: wanted int, got string");
}

TEST_F(LayerCalls, WrongResultTypeIsReportedWithTheWantedType) {
  server.on("text", [] { return std::string("abc"); });
  const auto result = client.call<int>("text");
  EXPECT_EQ(result.error().code(), Errc::wrong_type);
  EXPECT_EQ(result.error().detail(), "wrong result type: wanted int, got string");
  EXPECT_EQ((client.call<std::tuple<int, bool>>("text").error().detail()),
            "wrong result type, element 1: wanted int, got string");
}

TEST_F(LayerCalls, TimeoutErrorStatesTheLimit) {
  Gate gate;
  const OpenAtEnd open(gate);
  server.on("slow", [gate]() mutable { gate.pass(); });
  const Stopwatch watch;
  const auto result = client.call("slow", 150ms);
  EXPECT_EQ(result.error().code(), Errc::timed_out);
  EXPECT_EQ(result.error().detail(), "timed out after 150 ms");
  EXPECT_GE(watch.elapsed(), 150ms);
}

TEST_F(LayerCalls, CallWithoutALimitUsesTheDefaultLimit) {
  EXPECT_EQ(Options().limit, 5s);
  Gate gate;
  const OpenAtEnd open(gate);
  server.on("slowest", [gate]() mutable { gate.pass(); });
  Client brief = connect(server.address(), {.limit = 60ms});
  EXPECT_EQ(brief.call("slowest").error().detail(), "timed out after 60 ms");
  EXPECT_THROW(brief.async("slowest").get(), Error);
}

TEST_F(LayerCalls, LimitOfZeroIsNotUnlimited) {
  Gate gate;
  const OpenAtEnd open(gate);
  server.on("slower", [gate]() mutable { gate.pass(); });
  EXPECT_EQ(client.call("slower", 0ms).error().code(), Errc::timed_out);
}

// The late reply to a call that timed out must not be taken for the reply to a later one.
TEST_F(LayerCalls, LateReplyReachesNoOtherCall) {
  Gate gate;
  std::atomic<int> answered{0};
  server.on("late", [&, gate](int n) mutable {
    if (n == 0) gate.pass();
    ++answered;
    return n;
  });
  EXPECT_EQ(client.call<int>("late", 0, 50ms).error().code(), Errc::timed_out);
  gate.open();
  ASSERT_TRUE(eventually([&] { return answered == 1; }));
  for (int n = 1; n < 50; ++n) EXPECT_EQ(client.call<int>("late", n).value(), n);
}

TEST_F(LayerCalls, ConcurrentCallsGetTheirOwnResults) {
  server.on("square", [](int n) { return n * n; });
  constexpr int kThreads = 16;
  constexpr int kCalls = 200;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCalls; ++i) {
        const int n = t * kCalls + i;
        if (client.call<int>("square", n).value_or(-1) != n * n) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

// All of them are in the handler at once: no call waits for another.
TEST_F(LayerCalls, CallsRunConcurrently) {
  Gate gate;
  server.on("meet", [gate]() mutable { gate.pass(); });
  std::vector<std::future<void>> calls;
  for (int i = 0; i < 3; ++i) {
    calls.push_back(std::async(std::launch::async, [&] { client.call("meet").value(); }));
  }
  EXPECT_TRUE(gate.wait_entered(3));
  gate.open();
  for (auto& call : calls) call.get();
}

TEST_F(LayerCalls, PostedCallArrivesWithItsKeys) {
  const auto arrived = std::make_shared<std::promise<std::string>>();  // the handler may outlive it
  server.on("log", [arrived](named<"level", int> level, const std::string& text) {
    arrived->set_value(std::to_string(level.value) + " " + text);
  });
  EXPECT_TRUE(client.post("log", arg("level", 3), "hello"));
  EXPECT_EQ(arrived->get_future().get(), "3 hello");
}

TEST_F(LayerCalls, FutureReturnsTheResultOrThrows) {
  server.on("read", [](const std::string& name) { return "text of " + name; });
  std::future<std::string> text = client.async<std::string>("read", "notes.txt");
  EXPECT_EQ(text.get(), "text of notes.txt");
  std::future<int> wrong = client.async<int>("read", "notes.txt");
  EXPECT_EQ(error_of([&] { wrong.get(); }).code(), Errc::wrong_type);
  std::future<void> nothing = client.async("read", "notes.txt");
  nothing.get();
}

TEST_F(LayerCalls, DroppedFutureDoesNotWait) {
  Gate gate;
  const OpenAtEnd open(gate);
  server.on("wait", [gate]() mutable { gate.pass(); });
  const Stopwatch watch;
  (void)client.async("wait", 10s);
  EXPECT_LT(watch.elapsed(), 5s);
  EXPECT_TRUE(gate.wait_entered());
}

TEST_F(LayerCalls, MethodsDescribeThemselves) {
  server.on(
      "described", [](int, std::vector<std::string>) { return 0.5; }, "halves nothing");
  const auto methods = client.describe().value();
  EXPECT_THAT(methods, testing::Contains(
                           MethodInfo{"described", "(int, [string]) -> double", "halves nothing"}));
  EXPECT_EQ(methods, server.methods());
}

TEST_F(LayerCalls, DuplicateAndReservedNamesAreRefused) {
  server.on("once", [] {});
  for (const char* name : {"once", "", "retval", "s_c_version", "tolk.describe"}) {
    EXPECT_EQ(error_of([&] { server.on(name, [] {}); }).code(), Errc::misuse) << name;
  }
  EXPECT_EQ(error_of([&] { server.on("", [] {}); }).detail(),
            "a method's name is not empty, not retval, and does not begin with s_c_ or tolk.");
}

TEST_F(LayerCalls, ReservedKeysAreRefused) {
  for (const char* key : {"s_c_x", "tolk.x"}) {
    const Error error = error_of([&] { (void)arg(key, 1); });
    EXPECT_EQ(error.code(), Errc::misuse);
    EXPECT_EQ(error.detail(),
              "the key " + std::string(key) +
                  ": a key does not begin with s_c_ or tolk., those are the library's");
  }
}

}  // namespace
}  // namespace tolk::test
