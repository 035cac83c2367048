// Calls that a server sent before its end still begin in the client. A client whose call was ended
// by the loss of its server is offline.
#include "tests/e2e/client_ending.h"
#include "tests/e2e/support/process_state.h"

namespace tolk::test {
namespace {

constexpr int kWorkersOfTheProcess = 4;

// The client clears its methods some 10 ms after the end. On a busy machine a worker now and then
// gets no processor for that long, so some rounds may be incomplete: others make up for them.
template <class Round>
void expect_mostly(int wanted, const Round& round) {
  const int enough = rounds(20) / 2;
  int complete = 0;
  for (int i = 0; i < 10 * enough && complete < enough; ++i) {
    if (round() == wanted) ++complete;
  }
  EXPECT_EQ(complete, enough);
}

// Without a pause: the time until the methods are cleared has begun.
void await_offline(IClient* client) {
  const Stopwatch since;
  while (client->isok() && since.elapsed() < kLimit) std::this_thread::yield();
}

class LostServer : public Ending {
 protected:
  static std::string calls_in_one_segment(const char* name, int count) {
    std::string bytes;
    for (int i = 0; i < count; ++i) bytes += frame(call_payload(name, 1));
    return bytes;
  }
  // Sends `bytes` and the end at once, while all workers are busy until the client is offline.
  // Returns how many calls of "m" begin: when its handler is deleted, the method table is cleared
  // and no call is under way.
  int begun_with_the_end(const std::string& bytes) {
    Gate gate;
    const OpenAtEnd at_end(gate);
    Counter calls;
    Counter deleted;
    client->method("busy", blocking(gate));
    client->method("m", counting(calls, deleted));
    connect();
    peer.send(calls_in_one_segment("busy", kWorkersOfTheProcess));
    EXPECT_TRUE(gate.wait_entered(kWorkersOfTheProcess));
    peer.send(bytes);
    peer.close();
    await_offline(client.get());
    gate.open();
    EXPECT_TRUE(ends(deleted));
    return calls.value();
  }
  // Until the client has read everything that its peer has sent so far.
  bool has_read_everything() {
    const Capture out;
    peer.send_frame("");
    return out.wait_for_line("event empty!");
  }
};
TOLK_OVER_TRANSPORTS(LostServer);

TEST_P(LostServer, CallsThatCameWithItsEndAllBegin) {
  const std::string bytes = calls_in_one_segment("m", 12);
  expect_mostly(12, [&] { return begun_with_the_end(bytes); });
}

TEST_P(LostServer, CallsBehindOneThatIsNotRegisteredBegin) {
  const std::string bytes = calls_in_one_segment("nobody", 4) + calls_in_one_segment("m", 4);
  expect_mostly(4, [&] { return begun_with_the_end(bytes); });
}

TEST_P(LostServer, CallThatHasNotBegunWhenTheTableIsClearedIsNotBegun) {
  Gate gate;
  const OpenAtEnd at_end(gate);
  Counter calls;
  Counter idle_deleted;
  Counter busy_deleted;
  client->method("busy", blocking(gate, busy_deleted));
  client->method("late", counting(calls, idle_deleted));
  connect();
  for (int i = 0; i < kWorkersOfTheProcess; ++i) peer.send_frame(call_payload("busy", 1));
  ASSERT_TRUE(gate.wait_entered(kWorkersOfTheProcess));
  peer.send_frame(call_payload("late", 1));
  ASSERT_TRUE(has_read_everything());
  peer.close();
  ASSERT_TRUE(ends(idle_deleted));
  gate.open();
  EXPECT_TRUE(ends(busy_deleted));
  EXPECT_TRUE(eventually([] { return open_loops() == 0; }));
  EXPECT_EQ(calls.value(), 0);
}

// The host may free the handlers that it keeps as soon as the connection has ended.
TEST_P(LostServer, CallToAHandlerThatTheHostKeepsIsNotBegunOnceTheConnectionHasEnded) {
  Gate gate;
  const OpenAtEnd at_end(gate);
  Counter calls;
  Counter begun;
  const std::unique_ptr<IServerMethod> busy(blocking(gate));
  std::unique_ptr<IServerMethod> late(counting(calls));
  client->SetCustomReleaseEvent();
  client->method("busy", busy.get());
  client->method("late", late.get());
  connect();
  for (int i = 0; i < kWorkersOfTheProcess; ++i) peer.send_frame(call_payload("busy", 1));
  ASSERT_TRUE(gate.wait_entered(kWorkersOfTheProcess));
  peer.send_frame(call_payload("late", 1));
  ASSERT_TRUE(has_read_everything());
  peer.close();
  ASSERT_TRUE(goes_offline());
  connect();  // waits for the end of the connection before
  late.reset();
  gate.open();
  client->close();
  client.reset();
  EXPECT_TRUE(eventually([] { return open_loops() == 0; }));
  EXPECT_EQ(calls.value(), 0);
}

// The server is one of the library.
class LostOwnServer : public OverTransports {
 protected:
  ServerPtr serve(const Address& at) {
    ServerPtr server = make_server();
    server->method("s_c_connect", on_call([newest = newest_id](int id, TolkParams*, TolkParams*) {
                     *newest = id;
                   }));
    EXPECT_TRUE(start_server(server.get(), at));
    EXPECT_TRUE(connect_client(client.get(), at));
    return server;
  }
  // Posts to a client whose workers are all busy until it has lost the server. Returns how many of
  // the posts begin. No reply is under way when the server closes, so on TCP the close is no reset.
  int begun_of(int posts) {
    Gate gate;
    const OpenAtEnd at_end(gate);
    Counter calls;
    Counter deleted;
    client->method("busy", blocking(gate));
    client->method("m", counting(calls, deleted));
    const ServerPtr server = serve(fresh_address(GetParam()));
    for (int i = 0; i < kWorkersOfTheProcess; ++i) server->PostMsg(*newest_id, "busy", nullptr, 1);
    EXPECT_TRUE(gate.wait_entered(kWorkersOfTheProcess));
    for (int i = 0; i < posts; ++i) server->PostMsg(*newest_id, "m", nullptr, 1);
    server->close();
    await_offline(client.get());
    gate.open();
    EXPECT_TRUE(deleted.wait_for(1));
    return calls.value();
  }

  const std::shared_ptr<std::atomic<int>> newest_id = std::make_shared<std::atomic<int>>(0);
  const ClientPtr client = make_client();
};
TOLK_OVER_TRANSPORTS(LostOwnServer);

TEST_P(LostOwnServer, PostJustBeforeItsCloseBegins) {
  expect_mostly(1, [this] { return begun_of(1); });
}

// Each worker gets three posts. The client has 10 ms to begin them all.
TEST_P(LostOwnServer, PostsJustBeforeItsCloseAllBegin) {
  expect_mostly(12, [this] { return begun_of(12); });
}

// A call without a limit comes back empty only because the server is lost.
TEST_P(LostServer, ClientIsOfflineInACallThatTheLossHasEnded) {
  std::atomic<int> still_connected{0};
  for (int round = 0; round < rounds(30); ++round) {
    connect();
    Meanwhile serving([this] {
      for (int i = 0; i < 100; ++i) {
        const auto message = peer.read_message();
        if (!message) return;
        peer.send_frame(reply_payload(*message));
      }
      peer.close();
    });
    std::vector<std::thread> callers;
    for (int id = 1; id <= 8; ++id) {
      callers.emplace_back([this, id, &still_connected] {
        while (client->SendMsgFast("m", nullptr, id, 0) != nullptr) {
        }
        if (client->isok()) ++still_connected;
      });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_TRUE(serving.is_done());
    ASSERT_TRUE(goes_offline());
  }
  EXPECT_EQ(still_connected, 0);
}

}  // namespace
}  // namespace tolk::test
