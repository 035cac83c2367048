// A client that connects again when it has lost its server.
#include <atomic>
#include <future>
#include <mutex>
#include <optional>
#include <vector>

#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

class LayerReconnect : public testing::Test {
 protected:
  void start() {
    server.emplace();
    server->on("add", [](int a, int b) { return a + b; });
    server->listen(where);
  }

  const tolk::v1::Address where = fresh();
  std::optional<Server> server;
};

TEST_F(LayerReconnect, CallsSucceedWithANewServer) {
  start();
  Counter lost;
  Counter back;
  Client client = connect(where);
  client.on("double", [](int n) { return 2 * n; });
  client.reconnecting(
      {.first = 5ms, .changed = [&](bool connected) { (connected ? back : lost).add(); }});
  EXPECT_EQ(client.call<int>("add", 1, 2).value(), 3);
  for (int round = 1; round <= 2; ++round) {
    server.reset();
    ASSERT_TRUE(lost.wait_for(round));
    EXPECT_EQ(client.call<int>("add", 1, 2).error().code(), Errc::gone);
    start();
    ASSERT_TRUE(back.wait_for(round));
    EXPECT_TRUE(client.connected());
    EXPECT_EQ(client.call<int>("add", 1, 2).value(), 3);
    // Its methods are registered again, and timeouts work as before.
    const ClientId id = server->clients().at(0);
    EXPECT_EQ(server->call<int>(id, "double", 4).value(), 8);
  }
}

TEST_F(LayerReconnect, TimeoutsWorkOnTheNewConnection) {
  const auto address = fresh_address(Transport::pipe);
  std::optional<RawServer> raw(std::in_place, address);
  Counter back;
  Client client = connect(layered(address));
  client.reconnecting({.first = 5ms, .changed = [&](bool connected) {
                         if (connected) back.add();
                       }});
  raw->take().close();
  RawSocket again = raw->take();
  ASSERT_TRUE(back.wait_for(1));
  EXPECT_EQ(client.call("m", 50ms).error().code(), Errc::timed_out);
}

// Three bytes for the method "upload", in two pieces.
void send_upload(RawSocket& to, int transfer) {
  for (const char* const bytes : {"", "abc"}) {
    const auto piece = BlockWriter()
                           .keyed("tolk.transfer", transfer)
                           .keyed("tolk.method", "upload")
                           .keyed("tolk.offset", 0.0)
                           .keyed("tolk.total", 3.0)
                           .add(Stream{bytes});
    to.send_frame(call_payload("tolk.piece", 1, piece.bytes(), "0x1"));
  }
}

// A server that accepts one client and refuses every later one.
class Refusals {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Refusals(const test::Address& address)
      : raw_(address, [this](RawSocket& socket) {
          if (greeted_++ == 0) return accepting()(socket);
          {
            const std::lock_guard<std::mutex> lock(mutex_);
            times_.push_back(Clock::now());
          }
          refusing()(socket);
        }) {}
  // Disconnects the first client.
  void begin() { raw_.take().close(); }
  std::vector<Clock::time_point> times() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return times_;
  }

 private:
  int greeted_ = 0;
  std::mutex mutex_;
  std::vector<Clock::time_point> times_;
  RawServer raw_;  // last: it uses the others
};

TEST_F(LayerReconnect, PausesGrow) {
  const auto address = fresh_address(Transport::pipe);
  Refusals refusals(address);
  Client client = connect(layered(address));
  client.reconnecting({.first = 200ms});
  refusals.begin();
  ASSERT_TRUE(eventually([&] { return refusals.times().size() >= 4; }));
  client.close();
  const auto times = refusals.times();
  EXPECT_GE(times[1] - times[0], 200ms);
  EXPECT_GE(times[2] - times[1], 400ms);
  EXPECT_GE(times[3] - times[2], 800ms);
}

// Twice as long each time, the eighth attempt would come after two minutes.
TEST_F(LayerReconnect, PausesStopGrowingAtTheMaximum) {
  const auto address = fresh_address(Transport::pipe);
  Refusals refusals(address);
  Client client = connect(layered(address));
  client.reconnecting({.first = 1s, .most = 1ms});
  refusals.begin();
  EXPECT_TRUE(eventually([&] { return refusals.times().size() >= 8; }));
}

TEST_F(LayerReconnect, CallsMayWaitForTheNewConnection) {
  start();
  Counter lost;
  Client client = connect(where);
  client.reconnecting({.first = 5ms, .calls_wait = true, .changed = [&](bool connected) {
                         if (!connected) lost.add();
                       }});
  server.reset();
  ASSERT_TRUE(lost.wait_for(1));
  EXPECT_FALSE(client.call<int>("add", 1, 2, 20ms));
  std::future<int> sum = client.async<int>("add", 1, 2, 20s);
  start();
  EXPECT_EQ(sum.get(), 3);
}

TEST_F(LayerReconnect, AStopTokenCancelsCallsThatWaitForAConnection) {
  start();
  Counter lost;
  Client client = connect(where);
  client.reconnecting({.first = 60s, .calls_wait = true, .changed = [&](bool connected) {
                         if (!connected) lost.add();
                       }});
  server.reset();
  ASSERT_TRUE(lost.wait_for(1));
  // One after the other: each would wake the other.
  std::stop_source stop;
  const auto wait = [&] { return client.call("add", 1, 2, forever, stop.get_token()).error(); };
  std::future<Error> waiting = std::async(std::launch::async, wait);
  std::this_thread::sleep_for(20ms);  // it waits then, most of the time
  stop.request_stop();
  if (waiting.wait_for(kLimit) != std::future_status::ready) std::abort();  // it hangs
  EXPECT_EQ(waiting.get().code(), Errc::cancelled);
  EXPECT_EQ(wait().what(), "add at " + where.text() + ": cancelled");
  stop = std::stop_source();
  std::future<int> later = client.async<int>("add", 1, 2, forever, stop.get_token());
  stop.request_stop();
  if (later.wait_for(kLimit) != std::future_status::ready) std::abort();
  EXPECT_EQ(error_of([&] { later.get(); }).code(), Errc::cancelled);
}

TEST_F(LayerReconnect, CallsMayWaitForTheFirstConnection) {
  start();
  Client client;
  client.reconnecting({.calls_wait = true});
  std::future<int> sum = client.async<int>("add", 1, 2, 60s);
  client.connect(where);
  ASSERT_EQ(sum.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(sum.get(), 3);
}

TEST_F(LayerReconnect, MethodAddedWhileDisconnectedIsRegisteredAfterwards) {
  start();
  Counter lost;
  Counter back;
  Client client = connect(where);
  client.reconnecting({.first = 5ms, .changed = [&](bool connected) {
                         if (!connected) client.on("late", [] { return 7; });
                         (connected ? back : lost).add();
                       }});
  server.reset();
  ASSERT_TRUE(lost.wait_for(1));
  client.on("later", [] { return 8; });
  start();
  ASSERT_TRUE(back.wait_for(1));
  const ClientId id = server->clients().at(0);
  EXPECT_EQ(server->call<int>(id, "late").value(), 7);
  EXPECT_EQ(server->call<int>(id, "later").value(), 8);
}

TEST_F(LayerReconnect, ExceptionOfTheCallbackIsDropped) {
  start();
  Counter back;
  Client client = connect(where);
  client.reconnecting({.first = 5ms, .changed = [&](bool connected) {
                         if (connected) back.add();
                         throw std::runtime_error("no");
                       }});
  server.reset();
  start();
  ASSERT_TRUE(back.wait_for(1));
  EXPECT_EQ(client.call<int>("add", 1, 2).value(), 3);
}

TEST_F(LayerReconnect, ReconnectingClientCanBeClosed) {
  start();
  Counter lost;
  Client client = connect(where);
  client.reconnecting({.first = 10s, .changed = [&](bool connected) {
                         if (!connected) lost.add();
                       }});
  server.reset();
  ASSERT_TRUE(lost.wait_for(1));
  const Stopwatch watch;
  client.close();
  EXPECT_LT(watch.elapsed(), 8s);
  const Error error = client.call("add").error();
  EXPECT_EQ(error.code(), Errc::not_connected);
  EXPECT_STREQ(error.hint(), "make a new client: a closed one stays closed");
}

// The data of handlers that did not begin are dropped with their connection, whose memory is used
// again for later requests.
TEST_F(LayerReconnect, DataOfALostConnectionReachNoLaterHandler) {
  constexpr int kMany = 100;
  const auto address = fresh_address(Transport::pipe);
  RawServer raw(address);
  Counter received;
  Counter back;
  Counter begun;
  std::atomic<int> strange{0};
  std::mutex mutex;
  std::vector<Deferred<void>> unanswered;
  const auto keep = [&] {
    const std::lock_guard<std::mutex> lock(mutex);
    begun.add();
    return unanswered.emplace_back();
  };
  Client client(Options{.close_limit = 0ms});
  client.on("upload", ordered, [&] { return keep(); });
  client.on("plain", [&](const Values& all) {
    if (!(all == Values())) ++strange;
    return keep();
  });
  client.on_receiving([&](const Caller&, Progress) { received.add(); });
  client.connect(layered(address));
  client.reconnecting({.first = 1ms, .changed = [&](bool connected) {
                         if (connected) back.add();
                       }});
  for (int round = 0; round < 10; ++round) {
    RawSocket peer = raw.take();
    for (int i = 0; i < 2 * kMany; ++i) peer.send_frame(call_payload("plain", 1, {}, "0x1"));
    peer.send_frame(call_payload("upload", 1, {}, "0x1"));  // the next ones wait for its answer
    for (int i = 1; i <= kMany; ++i) send_upload(peer, i);
    ASSERT_TRUE(begun.wait_for((round + 1) * (2 * kMany + 1)));
    ASSERT_TRUE(received.wait_for((round + 1) * kMany));
    peer.close();
    ASSERT_TRUE(back.wait_for(round + 1));
    const std::lock_guard<std::mutex> lock(mutex);
    unanswered.clear();
  }
  EXPECT_EQ(strange, 0);
}

}  // namespace
}  // namespace tolk::test
