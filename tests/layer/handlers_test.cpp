// What a handler may return, where it runs, and what it knows of its caller.
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

class LayerHandlers : public JoinedTest {};

TEST_F(LayerHandlers, ResultsCarryNumberAndDetails) {
  server.on("store", [](bool works) -> Result<int> {
    if (works) return 7;
    return failure("the disk is full", 28, Values().add("left", 0).add("path", "/x"));
  });
  server.on("done", []() -> Result<void> { return {}; });
  EXPECT_EQ(client.call<int>("store", true).value(), 7);
  EXPECT_TRUE(client.call("done"));
  const Error error = client.call<int>("store", false).error();
  EXPECT_EQ(error.code(), Errc::handler_failed);
  EXPECT_EQ(error.detail(), "the disk is full");
  EXPECT_EQ(error.number(), 28);
  EXPECT_EQ(error.details(), Values().add("left", 0).add("path", "/x"));
  server.on("throw", [] { throw failure("no", 3); });
  EXPECT_EQ(client.call("throw").error().number(), 3);
}

TEST_F(LayerHandlers, EachHopIsNamedOnce) {
  server.on("inner", []() -> Result<void> { return failure("no", 3, Values().add(1)); });
  server.on("outer", [](const Caller& caller) { caller.call("middle").value(); });
  client.on("middle", [this] { client.call("inner").value(); });
  const Error error = client.call("outer").error();
  const std::string at = " at " + server.address() + ": ";
  const std::string id = std::to_string(server.clients().at(0));
  EXPECT_EQ(error.what(), "outer" + at + "handler failed: middle at client " + id + " of " +
                              server.address() + ": handler failed: inner" + at +
                              "handler failed: no");
  EXPECT_EQ(error.number(), 3);
  EXPECT_EQ(error.details(), Values().add(1));
}

TEST_F(LayerHandlers, DeferredAnswersComeFromAnyThread) {
  std::thread answering;
  server.on("later", [&](int n) {
    Deferred<int> later;
    answering = std::thread([later, n] { later.answer(2 * n); });
    return later;
  });
  EXPECT_EQ(client.call<int>("later", 21).value(), 42);
  answering.join();
  server.on("at once", [] {
    Deferred<std::string> later;
    later.answer("now");
    later.answer("too late");
    return later;
  });
  EXPECT_EQ(client.call<std::string>("at once").value(), "now");
  server.on("fails", [] {
    Deferred<> later;
    later.fail(failure("no", 5));
    return later;
  });
  EXPECT_EQ(client.call("fails").error().number(), 5);
  server.on("dropped", [] { return Deferred<int>(); });
  EXPECT_EQ(client.call<int>("dropped").error().code(), Errc::unanswered);
}

TEST_F(LayerHandlers, CoroutinesAwaitCalls) {
  client.on("double", [](int n) { return 2 * n; });
  server.on("twice", [](const Caller& caller, const std::string& text) -> Task<std::string> {
    const Result<int> four = co_await caller.call_async<int>("double", 2);
    const Result<int> none = co_await caller.call_async<int>("absent", 2);
    EXPECT_EQ(none.error().code(), Errc::no_such_method);
    co_return text + std::to_string(four.value());  // the parameters are still there
  });
  EXPECT_EQ(client.call<std::string>("twice", std::string(100, 'x')).value(),
            std::string(100, 'x') + "4");
  server.on("throws",
            [](const Caller& caller) -> Task<> { (co_await caller.call_async("absent")).value(); });
  EXPECT_EQ(client.call("throws").error().code(), Errc::handler_failed);
}

Task<int> sum_of(Client& client, int n) {
  const Result<int> a = co_await client.call_async<int>("echo int", n);
  const Result<int> b = co_await client.call_async<int>("echo int", n + 1);
  co_return a.value() + b.value();
}
Task<int> sum_of_sums(Client& client) {
  co_return co_await sum_of(client, 1) + co_await sum_of(client, 3);
}

TEST_F(LayerHandlers, TasksAwaitTasks) {
  server.on("echo int", [](int n) { return n; });
  EXPECT_EQ(sum_of_sums(client).get(), 10);
  const auto broken = [](Client& of) -> Task<> { (co_await of.call_async("absent")).value(); };
  EXPECT_EQ(error_of([&] { broken(client).get(); }).code(), Errc::no_such_method);
}

TEST_F(LayerHandlers, OrderedMethodsTakeTheCallsInOrder) {
  std::mutex mutex;
  std::vector<int> seen;
  Counter done;
  server.on("event", ordered, [&, done](int n) mutable {
    const std::lock_guard lock(mutex);
    seen.push_back(n);
    done.add();
  });
  constexpr int kEvents = 500;
  for (int n = 0; n < kEvents; ++n) ASSERT_TRUE(client.post("event", n));
  ASSERT_TRUE(done.wait_for(kEvents));
  const std::lock_guard lock(mutex);
  for (int n = 0; n < kEvents; ++n) EXPECT_EQ(seen.at(static_cast<std::size_t>(n)), n);
}

TEST_F(LayerHandlers, RemovedMethodsAreUnknown) {
  server.on("once", [] { return 1; });
  EXPECT_EQ(client.call<int>("once").value(), 1);
  EXPECT_TRUE(server.remove("once"));
  EXPECT_FALSE(server.remove("once"));
  EXPECT_EQ(client.call<int>("once").error().code(), Errc::no_such_method);
  server.on("once", [] { return 2; });
  EXPECT_EQ(client.call<int>("once").value(), 2);
}

TEST_F(LayerHandlers, CallersAreKnown) {
  server.on("who", [](const Caller& caller) {
    return std::tuple(caller.user(), caller.process(), caller.limit_left(), caller.cancelled());
  });
  using Known = std::tuple<std::string, std::int64_t, std::chrono::milliseconds, bool>;
  const auto [user, process, left, cancelled] = client.call<Known>("who", 10s).value();
  EXPECT_NE(user, "");
  EXPECT_NE(process, 0);
  EXPECT_GT(left, 5s);
  EXPECT_LE(left, 10s);
  EXPECT_FALSE(cancelled);
}

TEST_F(LayerHandlers, CancelledCallersAreSeen) {
  Counter begun;
  Counter seen;
  // The second one may begin after the test: it has its own counters.
  server.on("wait", [begun, seen](const Caller& caller) mutable {
    begun.add();
    if (eventually([&] { return caller.cancelled(); })) seen.add();
  });
  std::stop_source stop;
  std::thread stopping([&] {
    begun.wait_for(1);
    stop.request_stop();
  });
  EXPECT_EQ(client.call("wait", forever, stop.get_token()).error().code(), Errc::cancelled);
  stopping.join();
  EXPECT_TRUE(seen.wait_for(1));
  std::future<void> future = client.async("wait", stop.get_token(), 20s);
  EXPECT_EQ(error_of([&] { future.get(); }).code(), Errc::cancelled);
}

Task<Errc> cancelled_call(Client& client, std::stop_token stop) {
  const Result<void> result = co_await client.call_async("hang", 20s, stop);
  co_return result.error().code();
}

TEST_F(LayerHandlers, AwaitedCallsAndThoseOfServersAreCancelledToo) {
  Counter begun;
  const auto wait = [begun](const Caller& caller) mutable {
    begun.add();
    eventually([&] { return caller.cancelled(); });
  };
  server.on("hang", wait);
  client.on("hang", wait);
  std::stop_source first;
  Task<Errc> awaited = cancelled_call(client, first.get_token());
  EXPECT_TRUE(begun.wait_for(1));
  first.request_stop();
  EXPECT_EQ(awaited.get(), Errc::cancelled);
  std::stop_source second;
  const ClientId id = server.clients().at(0);
  std::future<void> future = server.async(id, "hang", forever, second.get_token());
  EXPECT_TRUE(begun.wait_for(2));
  second.request_stop();
  EXPECT_EQ(error_of([&] { future.get(); }).code(), Errc::cancelled);
  // Before the call.
  EXPECT_EQ(client.call("hang", second.get_token()).error().code(), Errc::cancelled);
  EXPECT_EQ(cancelled_call(client, second.get_token()).get(), Errc::cancelled);
  server.remove("hang");
  client.remove("hang");
}

TEST_F(LayerHandlers, CallersAreCalledInAllWays) {
  client.on("twofold", [](int n) { return 2 * n; });
  client.on("size of", [](const std::string& data) { return data.size(); });
  client.on("load it", [] { return from_bytes(bytes(5)); });
  server.on("all ways", [](const Caller& caller) {
    std::size_t got = 0;
    caller.fetch("load it", to_function([&](auto piece) { got += piece.size(); })).value();
    return std::tuple(caller.async<int>("twofold", 2).get(),
                      caller.send<std::size_t>("size of", "abc").value(), got,
                      caller.describe().value().empty());
  });
  using All = std::tuple<int, std::size_t, std::size_t, bool>;
  EXPECT_EQ(client.call<All>("all ways").value(), All(4, 3, 5, false));
}

TEST_F(LayerHandlers, CallersThatAreKeptTooLongFailCalls) {
  std::optional<Caller> kept;
  {
    Server short_lived;
    short_lived.on("keep", [&](const Caller& caller) { kept = caller; });
    const auto where = fresh();
    short_lived.listen(where);
    EXPECT_TRUE(connect(where).call("keep"));
  }
  EXPECT_TRUE(kept->cancelled());
  EXPECT_EQ(kept->call("any").error().code(), Errc::not_connected);
  EXPECT_EQ(kept->post("any").error().code(), Errc::not_connected);
  EXPECT_EQ(kept->send("any", "data").error().code(), Errc::not_connected);
  EXPECT_EQ(error_of([&] { kept->async("any").get(); }).code(), Errc::not_connected);
}

TEST(LayerWorkers, AreAsManyAsTheOptionsSay) {
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  Server one(Options{.workers = 1});
  one.on("count", [&] {
    most = std::max<int>(most, ++running);
    std::this_thread::sleep_for(2ms);
    --running;
  });
  const auto where = fresh();
  one.listen(where);
  Client client = connect(where);
  std::vector<std::future<void>> all;
  for (int i = 0; i < 10; ++i) all.push_back(client.async("count"));
  for (auto& each : all) each.get();
  EXPECT_EQ(most, 1);

  Counter together;
  Server three(Options{.workers = 3});
  three.on("meet", [&] {
    together.add();
    if (!together.wait_for(3)) throw std::runtime_error("alone");
  });
  const auto other = fresh();
  three.listen(other);
  Client guest = connect(other);
  all.clear();
  for (int i = 0; i < 3; ++i) all.push_back(guest.async("meet", 20s));
  for (auto& each : all) EXPECT_NO_THROW(each.get());
}

// The only worker is taken. A thread that waits outside the library makes no room for another.
TEST(LayerWorkers, InlineHandlersNeedNoneAndRunOnOneThread) {
  Gate gate;
  Server server(Options{.workers = 1});
  const auto this_thread = [] { return std::hash<std::thread::id>()(std::this_thread::get_id()); };
  server.on("thread", inline_handler, this_thread);
  server.on("hold", [gate, this_thread]() mutable {
    gate.pass();
    return this_thread();
  });
  const auto where = fresh();
  server.listen(where);
  Client client = connect(where);
  const OpenAtEnd opens(gate);
  std::future<std::size_t> held = client.async<std::size_t>("hold", forever);
  ASSERT_TRUE(gate.wait_entered());
  const auto first = client.call<std::size_t>("thread", 20s).value();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(client.call<std::size_t>("thread", 20s).value(), first);
  gate.open();
  EXPECT_NE(held.get(), first);
}

TEST_F(LayerHandlers, BroadcastReachesAllClients) {
  Counter heard;
  const auto listen = [&](Client& to) {
    to.on("news", [heard](const std::string& text) mutable {
      if (text == "green") heard.add();
    });
  };
  listen(client);
  Client other;
  listen(other);
  other.connect(server.address());
  EXPECT_TRUE(server.broadcast("news", "green"));
  EXPECT_TRUE(heard.wait_for(2));
}

TEST(LayerHooks, OnConnectMayCallTheClient) {
  Counter greeted;
  Server server;
  server.on_connect([&](ClientId id) {
    if (server.call<int>(id, "two").value_or(0) == 2) greeted.add();
  });
  const auto where = fresh();
  server.listen(where);
  Client client;
  client.on("two", [] { return 2; });
  client.connect(where);
  EXPECT_TRUE(greeted.wait_for(1));
}

// A queue that one thread works off, like that of a user interface.
class Queue {
 public:
  // What came too late has to be called too, which frees it.
  ~Queue() {
    for (const Work& work : all_) work();
  }
  void add(Work work) {
    const std::lock_guard lock(mutex_);
    all_.push_back(work);
    changed_.notify_all();
  }
  void run(int count) {
    std::unique_lock lock(mutex_);
    for (; count > 0; --count) {
      if (!changed_.wait_for(lock, 20s, [&] { return !all_.empty(); })) return;
      const Work work = all_.front();
      all_.pop_front();
      lock.unlock();
      work();
      lock.lock();
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Work> all_;
};

TEST(LayerExecutor, HandlersHooksAndCoroutinesRunThere) {
  Queue queue;
  Server server(Options{.executor = [&](Work work) { queue.add(work); }});
  const auto here = std::this_thread::get_id();
  int connected = 0;
  server.on_connect([&](ClientId) { connected += std::this_thread::get_id() == here ? 1 : 100; });
  server.on("here", [&] { return std::this_thread::get_id() == here; });
  server.on("awaits", [&](const Caller& caller) -> Task<bool> {
    (co_await caller.call_async("ping")).value();
    co_return std::this_thread::get_id() == here;
  });
  const auto where = fresh();
  server.listen(where);
  Client client;
  client.on("ping", [] {});
  client.connect(where);
  std::future<bool> ran = client.async<bool>("here");
  std::future<bool> resumed = client.async<bool>("awaits");
  std::thread ends([&] {
    EXPECT_TRUE(ran.get() && resumed.get());
    EXPECT_TRUE(client.call<bool>("here").value());
  });
  queue.run(5);  // on_connect, three handlers, the rest of one
  ends.join();
  EXPECT_EQ(connected, 1);
}

TEST(LayerClose, AnswersOfHandlersAreNotLost) {
  for (int i = 0; i < 20; ++i) {
    Server server(Options{.close_limit = 20s});  // an answer may be written late
    server.on("stop", [&] {
      server.close();
      return 7;
    });
    const auto where = fresh();
    server.listen(where);
    EXPECT_EQ(connect(where).call<int>("stop").value(), 7);
  }
}

TEST(LayerClose, PostsAreWrittenAndItTakesNoTime) {
  Counter arrived;
  Server server;
  server.on("note", [&](int) { arrived.add(); });
  const auto where = fresh();
  server.listen(where);
  // A close that waited in vain would take its whole limit.
  const Options patient{.close_limit = 5s};
  Milliseconds fastest = Milliseconds::max();
  for (int i = 0; i < 10; ++i) {
    Stopwatch watch;
    {
      Client client = connect(where, patient);
      ASSERT_TRUE(client.post("note", i));
      watch = Stopwatch();
    }
    fastest = std::min(fastest, watch.elapsed());
  }
  EXPECT_TRUE(arrived.wait_for(10));
  EXPECT_LT(fastest, 300ms);
}

}  // namespace
}  // namespace tolk::test
