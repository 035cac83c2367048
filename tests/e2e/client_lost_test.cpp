// Lost connections, and the state of a client that connects again.
#include "tests/e2e/client_ending.h"

namespace tolk::test {
namespace {

class LostConnection : public Ending {};
TOLK_OVER_TRANSPORTS(LostConnection);

class Reconnect : public Ending {};
TOLK_OVER_TRANSPORTS(Reconnect);

TEST_P(LostConnection, PrintsItsLinesAndDisconnectsTheClient) {
  Counter deleted;
  client->method("m", answering("x", deleted));
  connect();
  const Capture out;
  peer.close();
  EXPECT_TRUE(goes_offline());
  EXPECT_TRUE(ends(deleted));
  const std::string first = out.line_starting("Server Closed: ");
  EXPECT_EQ(out.text(), first + "\n" + tcp_only("run out\n"));
}

TEST_P(LostConnection, CallsTheHookOnceAndThenWakesTheCalls) {
  Counter called;
  std::atomic<int> id{0};
  std::atomic<bool> was_connected{false};
  std::atomic<bool> blocks_are_null{false};
  Gate gate;
  const OpenAtEnd at_end(gate);
  IClient* const raw = client.get();
  client->method("s_c_closed", on_call([=, &id, &was_connected, &blocks_are_null](
                                           int own, TolkParams* in, TolkParams* out) mutable {
                   id = own;
                   was_connected = raw->isok();
                   blocks_are_null = in == nullptr && out == nullptr;
                   called.add();
                   gate.pass();
                 }));
  connect();
  CallMeanwhile call(client.get(), "m", 1, 0);
  ASSERT_TRUE(peer.read_message());
  const Capture out;
  peer.close();
  ASSERT_TRUE(gate.wait_entered());
  EXPECT_EQ(out.text(), "Server Closed: " + std::to_string(id.load()) + "\nclose server event!\n");
  EXPECT_FALSE(call.is_done(kQuiet)) << "the hook comes first";
  gate.open();
  EXPECT_EQ(call.result(), nullptr);
  EXPECT_TRUE(goes_offline());
  EXPECT_TRUE(was_connected);
  EXPECT_TRUE(blocks_are_null);
  EXPECT_EQ(called.value(), 1);
}

TEST_P(LostConnection, ByAResetPrintsTheSameLine) {
  connect();
  const Capture out;
  peer.reset();
  EXPECT_TRUE(goes_offline());
  EXPECT_NE(out.line_starting("Server Closed: "), "");
}

TEST_P(LostConnection, WakesTheCallsOfAllClients) {
  connect();
  const ClientPtr other = make_client();
  RawSocket its_peer;
  connect(other.get(), its_peer);
  CallMeanwhile foreign(other.get(), "m", 2, 0);
  ASSERT_TRUE(its_peer.read_message());
  peer.close();
  EXPECT_EQ(foreign.result(), nullptr);
  EXPECT_TRUE(other->isok());
}

TEST_P(LostConnection, LeavesCloseNothingToDo) {
  connect();
  peer.close();
  ASSERT_TRUE(goes_offline());
  const Capture out;
  client->close();
  EXPECT_EQ(out.count("Client Closing!"), 1);
  EXPECT_EQ(out.count("client closeasync"), 1);
  EXPECT_EQ(out.count("Client Closed!"), 0);
}

TEST_P(LostConnection, WakesTheCallersOfAllThreads) {
  for (int round = 0; round < 10; ++round) {
    connect();
    std::vector<std::thread> callers;
    Counter calls;
    for (int id = 1; id <= 8; ++id) {
      callers.emplace_back([this, id, calls]() mutable {
        while (client->isok()) {
          calls.add();
          client->SendMsgFast("m", nullptr, id, 0);
        }
      });
    }
    EXPECT_TRUE(calls.wait_for(8));
    peer.close();
    for (std::thread& caller : callers) caller.join();
  }
}

TEST_P(LostConnection, CloseFromTheHookDoesNotWaitForItself) {
  IClient* const raw = client.get();
  Counter deleted;
  client->method("s_c_closed",
                 on_call([raw](int, TolkParams*, TolkParams*) { raw->close(); }, deleted));
  connect();
  const Capture out;
  peer.close();
  EXPECT_TRUE(ends(deleted));
  EXPECT_TRUE(goes_offline());
  EXPECT_EQ(out.text(), out.line_starting("Server Closed: ") +
                            "\nclose server event!\nClient Closing!\nbad close\nClient Closed!\n" +
                            tcp_only("run out\n"));
}

TEST_P(LostConnection, CallsAndConnectsFromTheHookReturn) {
  IClient* const raw = client.get();
  const Address where = address;
  Counter done;
  client->method("s_c_closed", on_call([raw, where, done](int, TolkParams*, TolkParams*) mutable {
                   EXPECT_EQ(raw->SendMsgFast("late", nullptr, 1, 0), nullptr);
                   EXPECT_EQ(raw->SendMsg("late", nullptr, 1, 0), nullptr);
                   raw->PostMsg("late", nullptr, 1);
                   connect_client(raw, where);
                   done.add();
                 }));
  connect();
  peer.close();
  EXPECT_TRUE(done.wait_for(1));
  EXPECT_TRUE(goes_offline());
}

TEST_P(LostConnection, HookMayCallThroughAnotherClient) {
  const ClientPtr other = make_client();
  RawSocket its_peer;
  connect(other.get(), its_peer);
  IClient* const raw = other.get();
  client->method("s_c_closed", on_call([raw](int, TolkParams*, TolkParams*) {
                   raw->PostMsgFast("he is gone", nullptr, 1);
                 }));
  connect();
  peer.close();
  const auto message = its_peer.read_message();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->name(), "he is gone");
}

TEST_P(LostConnection, DestroyFromTheHookReturns) {
  IClient* const raw = client.release();
  Counter destroyed;
  Counter deleted;
  raw->method("s_c_closed", on_call(
                                [raw, destroyed](int, TolkParams*, TolkParams*) mutable {
                                  DestroyClient(raw);
                                  destroyed.add();
                                },
                                deleted));
  connect(raw, peer);
  peer.close();
  EXPECT_TRUE(destroyed.wait_for(1));
  EXPECT_TRUE(ends(deleted));
}

TEST_P(LostConnection, DestroyFromAHandlersDestructorReturns) {
  IClient* const raw = client.release();
  Counter destroyed;
  raw->method("m", new LastWords([raw, destroyed]() mutable {
                DestroyClient(raw);
                destroyed.add();
              }));
  connect(raw, peer);
  peer.close();
  EXPECT_TRUE(destroyed.wait_for(1));
}

TEST_P(LostConnection, DestroyWaitsForTheRunningHook) {
  Gate gate;
  const OpenAtEnd at_end(gate);
  Counter deleted;
  client->method("s_c_closed", blocking(gate, deleted));
  connect();
  peer.close();
  ASSERT_TRUE(gate.wait_entered());
  const Meanwhile destroying([this] { client.reset(); });
  EXPECT_FALSE(destroying.is_done(Milliseconds(600)));
  EXPECT_EQ(deleted.value(), 0);
  gate.open();
  EXPECT_TRUE(destroying.is_done());
  EXPECT_EQ(deleted.value(), 1);
}

TEST_P(LostConnection, ThrowingHookStillWakesTheCalls) {
  client->method("s_c_closed", on_call([](int, TolkParams*, TolkParams*) { throw 7; }));
  connect();
  CallMeanwhile call(client.get(), "m", 1, 0);
  ASSERT_TRUE(peer.read_message());
  peer.close();
  EXPECT_EQ(call.result(), nullptr);
  EXPECT_TRUE(goes_offline());
}

TEST_P(LostConnection, NullHookIsNotCalled) {
  client->method("s_c_closed", nullptr);
  connect();
  const Capture out;
  peer.close();
  EXPECT_TRUE(goes_offline());
  EXPECT_EQ(out.count("close server event!"), 0);
}

TEST_P(LostConnection, ReplyOfARunningHandlerPrintsWriteErrors) {
  Gate gate;
  const OpenAtEnd at_end(gate);
  Counter deleted;
  client->method("busy", blocking(gate, deleted));
  connect();
  peer.send_frame(call_payload("busy", 1));
  ASSERT_TRUE(gate.wait_entered());
  peer.close();
  ASSERT_TRUE(goes_offline());
  char any[] = "x";
  client->log(any, 0);  // both lines report failures, which every level prints
  const Capture out;
  gate.open();
  EXPECT_TRUE(ends(deleted));
  EXPECT_TRUE(out.wait_for_line("write data error")) << out.text();
  EXPECT_EQ(out.count("write error"), 1);
}

TEST_P(LostConnection, LogLevelZeroKeepsTheLinesThatAreNotEvents) {
  char any[] = "x";
  client->log(any, 0);
  client->method("s_c_closed", on_call([](int, TolkParams*, TolkParams*) {}));
  const Capture out;
  connect();
  peer.close();
  ASSERT_TRUE(goes_offline());
  EXPECT_TRUE(
      out.wait_for_text(tcp_only("run\n") + "close server event!\n" + tcp_only("run out\n")))
      << out.text();
  EXPECT_EQ(client->SendMsgEx("m", nullptr, 7, 0), nullptr);
  EXPECT_EQ(out.text(), tcp_only("run\n") + "close server event!\n" + tcp_only("run out\n") +
                            "sendmsgex: disconnect... .. .\n");
}

TEST_P(LostConnection, LogLevelZeroKeepsOnlyTheLoopsLinesOfAClose) {
  char any[] = "x";
  client->log(any, 0);
  const Capture out;
  connect();
  client->close();
  EXPECT_EQ(out.text(), tcp_only("run\nrun out\n"));
}

TEST_P(Reconnect, StartsWithAnEmptyMethodTable) {
  Counter deleted;
  client->method("m", answering("x", deleted));
  connect();
  client->close();
  connect();
  for (const char* const name : {"m", "s_c_req_body", "s_c_buildin_closed"}) {
    const auto reply = call_client(name);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->keys(), std::vector<std::string>{"s_c_sw_name"}) << name;
  }
}

TEST_P(Reconnect, CallsHandlersRegisteredInBetween) {
  connect();
  client->close();
  client->method("m", answering("again"));
  connect();
  const auto reply = call_client("m");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->string_at(0), "again");
}

TEST_P(Reconnect, DeletesTheEarlierCatchAllOnlyOnce) {
  Counter deleted;
  client->methodall(on_any_call([](auto...) {}, deleted));
  for (int round = 0; round < 3; ++round) {
    connect();
    client->close();
    EXPECT_EQ(deleted.value(), 1);
  }
}

TEST_P(Reconnect, LaterLossPrintsTheSameLine) {
  for (int round = 0; round < 3; ++round) {
    connect();
    const Capture out;
    peer.close();
    EXPECT_TRUE(goes_offline());
    EXPECT_NE(out.line_starting("Server Closed: "), "");
  }
}

TEST_P(Reconnect, StartsWithAnEmptyReceiveBuffer) {
  connect();
  peer.send(prefix(1000) + "half a frame");
  peer.close();
  ASSERT_TRUE(goes_offline());
  connect();
  peer.send(frame(call_payload("one", 1)) + frame(call_payload("two", 1)));
  EXPECT_TRUE(peer.read_message());
  EXPECT_TRUE(peer.read_message());
}

TEST_P(Reconnect, HasNoTimeoutSweep) {
  connect();
  client->close();
  connect();
  CallMeanwhile call(client.get(), "m", 1, 200);
  ASSERT_TRUE(peer.read_message());
  EXPECT_FALSE(call.is_done(Milliseconds(2000)));
  const ClientPtr fresh = make_client();
  RawSocket its_peer;
  connect(fresh.get(), its_peer);
  EXPECT_EQ(call.result(), nullptr) << "the first sweep of any client ends it";
}

TEST_P(Reconnect, KeepsEarlierResults) {
  connect();
  CallMeanwhile call(client.get(), "m", 7, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  peer.send_frame(reply_payload(*message, BlockWriter().add(std::string("kept"))));
  TolkParams* const held = call.result();
  client->close();
  connect();
  EXPECT_EQ(string_at(held, 0), "kept");
}

TEST_P(Reconnect, WaitsUntilTheEarlierConnectionHasEnded) {
  // The destructor of the handler keeps the old session from ending.
  Gate gate;
  const OpenAtEnd at_end(gate);
  client->method("m", new LastWords([gate]() mutable { gate.pass(); }));
  connect();
  peer.close();
  ASSERT_TRUE(gate.wait_entered());
  ASSERT_FALSE(client->isok());
  const Meanwhile connecting([this] { EXPECT_TRUE(connect_client(client.get(), address)); });
  EXPECT_FALSE(connecting.is_done(kQuiet));
  gate.open();
  EXPECT_TRUE(connecting.is_done());
  peer = server.take();
  EXPECT_TRUE(peer.is_open());
  CallMeanwhile call(client.get(), "m", 1, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  peer.send_frame(reply_payload(*message));
  EXPECT_NE(call.result(), nullptr);
  EXPECT_TRUE(client->isok());
}

}  // namespace
}  // namespace tolk::test
