// A client object without a connection, and its settings.
#include "tests/e2e/client_fixture.h"

namespace tolk::test {
namespace {

class ClientObject : public WithRawServer {};
TOLK_OVER_TRANSPORTS(ClientObject);

char* text(const char* characters) { return const_cast<char*>(characters); }

TEST(Client, StartsUnconnected) { EXPECT_FALSE(make_client()->isok()); }

TEST(Client, CallsWithoutAConnectionPrintALineAndReturnNull) {
  const ClientPtr client = make_client();
  TolkParams arguments;
  arguments.AddInt(1);
  const Capture out;
  EXPECT_EQ(client->SendMsg("m", &arguments, 0, 0), nullptr);
  EXPECT_EQ(client->SendMsgFast("m", &arguments, 0, 0), nullptr);
  EXPECT_EQ(client->PostMsg("m", &arguments, 0), nullptr);
  EXPECT_EQ(client->PostMsgFast("m", &arguments, 0), nullptr);
  EXPECT_EQ(client->SendMsgEx("m", &arguments, 0, 0), nullptr);
  EXPECT_EQ(out.text(),
            "send msg: disconnect... .. .\nsend msg: disconnect... .. .\n"
            "send msg: disconnect... .. .\nsend msg: disconnect... .. .\n"
            "sendmsgex: disconnect... .. .\n");
  EXPECT_EQ(arguments.Size(), 9) << "the arguments of a call that was not made stay";
}

TEST(Client, LogLevelZeroSilencesEventsButNotFailedCalls) {
  const ClientPtr client = make_client();
  const Capture out;
  EXPECT_TRUE(client->log(text("any text"), 0));
  client->close();
  client->SendMsgFast("m", nullptr, 0, 0);
  EXPECT_EQ(out.text(), "send msg: disconnect... .. .\n");
  client->log(text("any text"), 1);
  client->close();
  EXPECT_EQ(out.count("Client Closing!"), 1);
}

TEST(Client, LogReturnsFalseForAnEmptyText) {
  const ClientPtr client = make_client();
  EXPECT_TRUE(client->log(text("file"), 1));
  EXPECT_FALSE(client->log(text(""), 1));
  EXPECT_FALSE(client->log(nullptr, 1));
}

TEST(Client, LogSetsTheLevelEvenWithAnEmptyText) {
  const ClientPtr client = make_client();
  const Capture out;
  EXPECT_FALSE(client->log(text(""), 0));
  client->close();
  EXPECT_EQ(out.text(), "");
}

TEST(Client, CloseWithoutAConnectionPrintsTwoLines) {
  const ClientPtr client = make_client();
  const Capture out;
  client->close();
  EXPECT_EQ(out.text(), "Client Closing!\nclient closeasync\n");
}

TEST(Client, DestroyPausesEvenIfNeverConnected) {
  IClient* const client = CreateClient();
  const Capture out;
  const Stopwatch watch;
  DestroyClient(client);
  EXPECT_GE(watch.elapsed(), Milliseconds(295));
  EXPECT_EQ(out.text(), "");
}

TEST(Client, DestroyOfNullDoesNothing) {
  const Stopwatch watch;
  DestroyClient(nullptr);
  EXPECT_LT(watch.elapsed(), Milliseconds(200));
}

TEST(Client, HandlersOfAClientThatNeverConnectedAreNotDeleted) {
  Counter deleted;
  IServerMethod* const handler = answering("x", deleted);
  IMethodAll* const all = on_any_call([](auto...) {}, deleted);
  {
    const ClientPtr client = make_client();
    client->method("m", handler);
    client->methodall(all);
  }
  EXPECT_EQ(deleted.value(), 0);
  delete handler;
  delete all;
}

TEST(Client, PieceSizeIsSharedByTheProcess) {
  const ClientPtr one = make_client();
  const ClientPtr other = make_client();
  const ServerPtr server = make_server();
  EXPECT_EQ(one->GetBigfileBufferSize(), 32768);
  for (const int size : {100, 0, -1}) {
    one->SetBigfileBufferSize(size);
    EXPECT_EQ(other->GetBigfileBufferSize(), size);
  }
  server->SetBigfileBufferSize(77);
  EXPECT_EQ(one->GetBigfileBufferSize(), 77);
  one->SetBigfileBufferSize(32768);
}

TEST(Client, SettersWithoutAConnectionDoNoHarm) {
  const ClientPtr client = make_client();
  client->SetTimeoutStep(5);
  client->SetTimeoutStep(-5);
  client->ClearRetvalMem();
  client->ClearRetvalMem();
  client->SetCustomReleaseEvent();
  client->method(nullptr, nullptr);
  client->method("m", nullptr);
  client->methodall(nullptr);
  EXPECT_FALSE(client->isok());
}

TEST_P(ClientObject, TimeoutStepDoesNotChangeTheSweepPeriod) {
  connect();
  for (const int step : {1, 30000, 0, -1}) {
    client->SetTimeoutStep(step);
    const Stopwatch watch;
    EXPECT_EQ(client->SendMsgFast("m", nullptr, 1, 120), nullptr);
    EXPECT_GE(watch.elapsed(), Milliseconds(119));
    EXPECT_LT(watch.elapsed(), Milliseconds(15000));
  }
}

TEST_P(ClientObject, ClearRetvalMemDropsResults) {
  connect();
  CallMeanwhile call(client.get(), "m", 9, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  peer.send_frame(reply_payload(*message, BlockWriter().add(1)));
  ASSERT_NE(call.result(), nullptr);
  client->ClearRetvalMem();
  peer.send_frame(reply_payload(*message, BlockWriter().add(2)));  // a new block, without a waiter
  ASSERT_TRUE(client_answers());
  client->ClearRetvalMem();
  EXPECT_EQ(client->SendMsgFast("m", nullptr, 9, 1), nullptr);
}

TEST_P(ClientObject, NullNameIsSentAsEmpty) {
  connect();
  client->PostMsg(nullptr, nullptr, 3);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->text("s_c_sw_name"), "");
}

TEST_P(ClientObject, DestroyingAConnectedClientClosesIt) {
  connect();
  const Capture out;
  client.reset();
  EXPECT_TRUE(peer.ended());
  EXPECT_EQ(out.text(), "Client Closing!\nClient Closing!\nClient Closed!\n" +
                            tcp_only("run out\n") + "Client Closed!\n");
}

TEST_P(ClientObject, DeletingAConnectedClientEndsItsSession) {
  Counter deleted;
  IClient* const plain = CreateClient();
  plain->method("m", answering("x", deleted));
  connect(plain, peer);
  delete plain;
  EXPECT_TRUE(peer.ended());
  EXPECT_EQ(deleted.value(), 1);
}

}  // namespace
}  // namespace tolk::test
