// Connections that the host closes.
#include "tests/e2e/client_ending.h"

namespace tolk::test {
namespace {

class ClientClose : public Ending {};
TOLK_OVER_TRANSPORTS(ClientClose);

TEST_P(ClientClose, PrintsItsLinesInOrder) {
  connect();
  const Capture out;
  client->close();
  EXPECT_EQ(out.text(), close_lines());
  EXPECT_FALSE(client->isok());
  EXPECT_TRUE(peer.ended());
}

TEST_P(ClientClose, TwicePrintsTwoLinesTheSecondTime) {
  connect();
  client->close();
  const Capture out;
  client->close();
  EXPECT_EQ(out.text(), "Client Closing!\nclient closeasync\n");
}

TEST_P(ClientClose, DeletesTheHandlersBeforeItReturns) {
  Counter deleted;
  client->method("a", answering("x", deleted));
  client->method("b", answering("x", deleted));
  client->method("s_c_closed", answering("x", deleted));
  client->methodall(on_any_call([](auto...) {}, deleted));
  connect();
  client->close();
  EXPECT_EQ(deleted.value(), 4);
}

TEST_P(ClientClose, DeletesAHandlerOfTwoNamesOnce) {
  Counter deleted;
  IServerMethod* const handler = answering("x", deleted);
  client->method("a", handler);
  client->method("b", handler);
  connect();
  client->close();
  EXPECT_EQ(deleted.value(), 1);
}

TEST_P(ClientClose, DeletesNoHandlerThatTheHostReleases) {
  Counter deleted;
  IServerMethod* const handler = answering("x", deleted);
  IMethodAll* const all = on_any_call([](auto...) {}, deleted);
  client->method("a", handler);
  client->methodall(all);
  client->SetCustomReleaseEvent();
  connect();
  client->close();
  client.reset();
  EXPECT_EQ(deleted.value(), 0);
  delete handler;
  delete all;
}

TEST_P(ClientClose, DoesNotCallTheClosedHook) {
  Counter called;
  client->method("s_c_closed", counting(called));
  connect();
  const Capture out;
  client->close();
  EXPECT_EQ(called.value(), 0);
  EXPECT_EQ(out.count("close server event!"), 0);
}

TEST_P(ClientClose, WakesTheCallsOfAllClients) {
  connect();
  const ClientPtr other = make_client();
  RawSocket its_peer;
  connect(other.get(), its_peer);
  CallMeanwhile own(client.get(), "m", 1, 0);
  CallMeanwhile foreign(other.get(), "m", 2, 0);
  ASSERT_TRUE(peer.read_message());
  ASSERT_TRUE(its_peer.read_message());
  client->close();
  EXPECT_EQ(own.result(), nullptr);
  EXPECT_EQ(foreign.result(), nullptr);
  EXPECT_TRUE(other->isok());
}

TEST_P(ClientClose, FromTwoThreadsAtOnceClosesOnce) {
  for (int round = 0; round < 20; ++round) {
    connect();
    const Capture out;
    {
      const Meanwhile other([this] { client->close(); });
      client->close();
      EXPECT_TRUE(other.is_done());
    }
    EXPECT_FALSE(client->isok());
    EXPECT_EQ(out.count("bad close"), 0);
  }
}

TEST_P(ClientClose, UnderManyCallersWakesThemAll) {
  for (int round = 0; round < 10; ++round) {
    connect();
    Meanwhile serving([this] {
      while (const auto message = peer.read_message()) peer.send_frame(reply_payload(*message));
    });
    std::vector<std::thread> callers;
    Counter calls;
    for (int id = 1; id <= 8; ++id) {
      callers.emplace_back([this, id, calls]() mutable {
        for (int i = 0; i < 1000 && client->isok(); ++i) {
          client->SendMsgFast("m", nullptr, id, 0);
          client->PostMsgFast("m", nullptr, id);
          calls.add();
        }
      });
    }
    calls.wait_for(50 * round);
    client->close();
    for (std::thread& caller : callers) caller.join();
    EXPECT_TRUE(serving.is_done());
  }
}

TEST_P(ClientClose, DoesNotWaitForRunningHandlers) {
  Gate gate;
  const OpenAtEnd at_end(gate);
  Counter busy_deleted;
  Counter idle_deleted;
  client->method("busy", blocking(gate, busy_deleted));
  client->method("idle", answering("x", idle_deleted));
  connect();
  peer.send_frame(call_payload("busy", 1, {}, "0x1"));
  ASSERT_TRUE(gate.wait_entered());
  client->close();
  EXPECT_EQ(idle_deleted.value(), 1);
  EXPECT_EQ(busy_deleted.value(), 0) << "it still runs";
  const Capture out;
  gate.open();
  EXPECT_TRUE(ends(busy_deleted));
  EXPECT_TRUE(out.wait_for_text("write error\nwrite data error\n")) << out.text();
  EXPECT_EQ(busy_deleted.value(), 1);
}

TEST_P(ClientClose, DropsQueuedCalls) {
  constexpr int kWorkers = 4;
  Gate gate;
  const OpenAtEnd at_end(gate);
  Counter begun;
  Counter deleted;
  IServerMethod* const late = counting(begun, deleted);
  client->method("busy", blocking(gate, deleted));
  client->method("late", late);
  connect();
  for (int i = 0; i < kWorkers; ++i) peer.send_frame(call_payload("busy", 1));
  ASSERT_TRUE(gate.wait_entered(kWorkers));
  peer.send_frame(call_payload("late", 1));
  peer.send_frame("");  // a line shows that everything before it has been read
  const Capture out;
  peer.send_frame("");
  ASSERT_TRUE(out.wait_for_line("event empty!"));
  client->close();
  EXPECT_EQ(deleted.value(), 1) << "the one that has not begun is idle";
  gate.open();
  EXPECT_TRUE(ends(deleted, 2));
  EXPECT_EQ(begun.value(), 0);
}

TEST_P(ClientClose, WakesACallThatAHandlerMakes) {
  IClient* const raw = client.get();
  Counter returned;
  client->method("m", on_call([raw, returned](int, TolkParams*, TolkParams*) mutable {
                   EXPECT_EQ(raw->SendMsgFast("back", nullptr, 4, 0), nullptr);
                   returned.add();
                 }));
  connect();
  peer.send_frame(call_payload("m", 1));
  const auto call = peer.read_message();
  ASSERT_TRUE(call);
  client->close();
  EXPECT_TRUE(returned.wait_for(1));
}

TEST_P(ClientClose, FromAHandlerReturns) {
  IClient* const raw = client.get();
  Counter returned;
  Counter deleted;
  client->method("m", on_call(
                          [raw, returned](int, TolkParams*, TolkParams*) mutable {
                            raw->close();
                            returned.add();
                          },
                          deleted));
  connect();
  const Capture out;
  peer.send_frame(call_payload("m", 1));
  EXPECT_TRUE(returned.wait_for(1));
  EXPECT_TRUE(ends(deleted));
  EXPECT_FALSE(client->isok());
  EXPECT_EQ(out.count("bad close"), 0);
  EXPECT_TRUE(peer.ended());
}

TEST_P(ClientClose, FromAHandlersDestructorDoesNotWaitForItself) {
  IClient* const raw = client.get();
  client->method("m", new LastWords([raw] { raw->close(); }));
  connect();
  const Capture out;
  client->close();
  EXPECT_FALSE(client->isok());
  EXPECT_EQ(out.text(), "Client Closing!\nClient Closing!\nClient Closed!\n" +
                            tcp_only("run out\n") +
                            "Client Closing!\nbad close\nClient Closed!\nClient Closed!\n");
}

TEST_P(ClientClose, CallsAndConnectsFromAHandlersDestructorReturn) {
  IClient* const raw = client.get();
  const Address where = address;
  Counter done;
  client->method("m", new LastWords([raw, where, done]() mutable {
                   EXPECT_EQ(raw->SendMsgFast("late", nullptr, 1, 0), nullptr);
                   raw->PostMsgFast("late", nullptr, 1);
                   connect_client(raw, where);
                   done.add();
                 }));
  connect();
  client->close();
  EXPECT_EQ(done.value(), 1);
  EXPECT_FALSE(client->isok());
}

TEST_P(ClientClose, DoesNotWakeAWaitingLargeCall) {
  connect();
  TolkParams arguments;
  const Meanwhile call([&] { client->SendMsgEx("m", &arguments, 3, 0); });
  const auto piece = peer.read_message();
  ASSERT_TRUE(piece);
  peer.send_frame(reply_payload(*piece, BlockWriter().add(false)));
  client->close();
  EXPECT_FALSE(call.is_done(Milliseconds(1000)));
  // The loss of any client's server ends it.
  const ClientPtr other = make_client();
  RawSocket its_peer;
  connect(other.get(), its_peer);
  its_peer.close();
  EXPECT_TRUE(call.is_done());
}

TEST_P(ClientClose, ByDestroyWakesAllWaitingCalls) {
  connect();
  IClient* const raw = client.get();
  std::vector<std::unique_ptr<CallMeanwhile>> calls;
  for (int id = 1; id <= 8; ++id) {
    calls.push_back(std::make_unique<CallMeanwhile>(raw, "m", id, 0));
    ASSERT_TRUE(peer.read_message());
  }
  client.reset();
  for (const auto& call : calls) EXPECT_EQ(call->result(), nullptr);
}

TEST_P(ClientClose, ByDestroyFromAHandlerReturns) {
  IClient* const raw = client.release();
  Counter destroyed;
  Counter deleted;
  raw->method("m", on_call(
                       [raw, destroyed](int, TolkParams*, TolkParams*) mutable {
                         DestroyClient(raw);
                         destroyed.add();
                       },
                       deleted));
  connect(raw, peer);
  peer.send_frame(call_payload("m", 1));
  EXPECT_TRUE(destroyed.wait_for(1));
  EXPECT_TRUE(ends(deleted));
  EXPECT_TRUE(peer.ended());
}

TEST_P(ClientClose, ByDestroyLetsARunningHandlerFinish) {
  Gate gate;
  const OpenAtEnd at_end(gate);
  Counter deleted;
  client->method("busy", blocking(gate, deleted));
  connect();
  peer.send_frame(call_payload("busy", 1));
  ASSERT_TRUE(gate.wait_entered());
  client.reset();
  EXPECT_EQ(deleted.value(), 0);
  gate.open();
  EXPECT_TRUE(ends(deleted));
}

}  // namespace
}  // namespace tolk::test
