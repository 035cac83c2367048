// Each end of the layer with hosts that use the plain interface, and with peers on bare sockets.
#include <atomic>
#include <future>

#include "tests/e2e/support/handlers.h"
#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

class LayerAndPlain : public OverTransports {};
TOLK_OVER_TRANSPORTS(LayerAndPlain);

TEST_P(LayerAndPlain, PlainServerServesALayerClient) {
  const ServerPtr server = make_server();
  server->method("add", on_call([](int, TolkParams* in, TolkParams* out) {
                   out->AddInt(in->GetValue(0)->GetInt() + in->GetValue(1)->GetInt());
                 }));
  server->method("level", on_call([](int, TolkParams* in, TolkParams* out) {
                   out->AddInt(in->GetMap("level")->GetInt());
                   out->AddString(in->GetValue(0)->GetString());
                 }));
  server->method("throws", on_call([](int, TolkParams*, TolkParams*) { throw 1; }));
  server->method("length", on_call([](int, TolkParams* in, TolkParams* out) {
                   long size = 0;
                   in->GetValue(0)->GetStream(size);
                   out->AddInt(static_cast<int>(size));
                 }));
  ASSERT_TRUE(start_server(server.get(), address));
  Client client = connect(layered(address));

  EXPECT_EQ(client.call<int>("add", 2, 3).value(), 5);
  EXPECT_EQ((client.call<std::tuple<int, std::string>>("level", arg("level", 3), "hi").value()),
            std::tuple(3, "hi"));
  EXPECT_EQ(client.call<int>("absent").error().code(), Errc::no_such_method);
  EXPECT_EQ(client.call("absent").error().code(), Errc::no_such_method);
  EXPECT_EQ(client.call<int>("throws").error().detail(),
            "wrong result type: wanted int, got nothing");
  EXPECT_EQ(client.describe().error().code(), Errc::no_such_method);

  std::vector<std::uint64_t> done;
  const std::string data(1000000, 'x');
  EXPECT_EQ(client.send<int>("length", data, [&](Progress p) { done.push_back(p.done()); }).value(),
            1000000);
  EXPECT_THAT(done, testing::ElementsAre(0U, 1000000U));
  EXPECT_EQ(client.send("absent", data).error().code(), Errc::no_such_method);
}

TEST_P(LayerAndPlain, LayerServerServesAPlainClient) {
  Server server;
  server.on("add", [](int a, int b) { return a + b; });
  server.on("fail", [] { throw std::runtime_error("no"); });
  server.on("length", [](std::string_view text) { return int(text.size()); });
  server.listen(layered(address));
  const ClientPtr client = make_client();
  ASSERT_TRUE(connect_client(client.get(), address));

  TolkParams two_and_three;
  two_and_three.AddInt(2);
  two_and_three.AddInt(3);
  TolkParams* reply = client->SendMsgFast("add", &two_and_three, 0, 20000);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->GetValue(0)->GetInt(), 5);
  EXPECT_EQ(reply->MapSize(), 3);  // the envelope alone

  reply = client->SendMsgFast("fail", nullptr, 0, 20000);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->ParamsSize(), 0);
  EXPECT_STREQ(reply->GetMap("tolk.error")->GetString(), "no");

  reply = client->SendMsgFast("absent", nullptr, 0, 20000);
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(reply->GetValue(0)->GetString(), "no event: absent");

  TolkParams large;
  const std::string data(100000, 'x');
  large.AddStream(data.data(), 100000);
  reply = client->SendMsgEx("length", &large, 0, 0);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->GetValue(0)->GetInt(), 100000);
}

TEST_P(LayerAndPlain, PlainServerCallsALayerClient) {
  const ServerPtr server = make_server();
  Counter came;
  std::atomic<int> id{0};
  server->method("here", on_call([&, came](int from, TolkParams*, TolkParams*) mutable {
                   id = from;
                   came.add();
                 }));
  ASSERT_TRUE(start_server(server.get(), address));
  Client client = connect(layered(address));
  client.on("add", [](int a, int b) { return a + b; });
  client.on("fail", [] { throw std::runtime_error("no"); });
  ASSERT_TRUE(client.call("here"));
  ASSERT_TRUE(came.wait_for(1));

  TolkParams two_and_three;
  two_and_three.AddInt(2);
  two_and_three.AddInt(3);
  TolkParams* reply = server->SendMsg(id, "add", &two_and_three, 0, 20000);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->GetValue(0)->GetInt(), 5);
  EXPECT_EQ(reply->ParamsSize(), 1);
  EXPECT_EQ(reply->MapSize(), 3);  // the envelope alone
  reply = server->SendMsg(id, "fail", nullptr, 0, 20000);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->ParamsSize(), 0);
  EXPECT_STREQ(reply->GetMap("tolk.error")->GetString(), "no");
}

TEST_P(LayerAndPlain, LayerServerCallsAPlainClient) {
  Server server;
  server.on("here", [](const Caller& caller) { return caller.id(); });
  server.listen(layered(address));
  const ClientPtr client = make_client();
  Counter posted;
  client->method("add", on_call([](int, TolkParams* in, TolkParams* out) {
                   out->AddInt(in->GetValue(0)->GetInt() + in->GetMap("b")->GetInt());
                   out->AddString("done");
                 }));
  client->method("note", counting(posted));
  ASSERT_TRUE(connect_client(client.get(), address));
  TolkParams* const reply = client->SendMsgFast("here", nullptr, 0, 20000);
  ASSERT_NE(reply, nullptr);
  const auto id = static_cast<ClientId>(reply->GetValue(0)->GetInt());

  EXPECT_EQ(server.call<int>(id, "add", 2, arg("b", 3)).value(), 5);
  EXPECT_EQ((server.call<std::tuple<int, std::string>>(id, "add", 2, arg("b", 4)).value()),
            std::tuple(6, "done"));
  EXPECT_EQ(server.call<bool>(id, "add", 2, arg("b", 3)).error().code(), Errc::wrong_type);
  EXPECT_TRUE(server.post(id, "note"));
  EXPECT_TRUE(posted.wait_for(1));
}

class LayerAndRaw : public testing::Test {
 protected:
  const tolk::test::Address address = fresh_address(Transport::pipe);
};

TEST_F(LayerAndRaw, ReplyHasNoKeysBesidesTheEnvelope) {
  Server server;
  server.on("add", [](int a, int b) { return a + b; });
  server.listen(layered(address));
  RawClient client(address);
  const auto answer = client.call("add", 7, BlockWriter().add(2).add(3).bytes());
  ASSERT_TRUE(answer);
  ASSERT_NE(answer->at(0), nullptr);
  EXPECT_EQ(*answer->at(0), Scalar(5));
  EXPECT_EQ(answer->values.size(), 1U);
  EXPECT_THAT(answer->keys(),
              testing::ElementsAre("s_c_sw_name", "s_c_sw_threadid", "s_c_sw_semid"));
}

TEST_F(LayerAndRaw, ErrorReplyHasOnlyKeyedValues) {
  Server server;
  server.on("fail", [] { throw std::runtime_error("because"); });
  server.on("add", [](int a, int b) { return a + b; });
  server.listen(layered(address));
  RawClient client(address);
  const auto failed = client.call("fail");
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->values.size(), 0U);
  EXPECT_EQ(failed->text("tolk.error"), "because");
  const auto wrong = client.call("add", 1, BlockWriter().add("x").bytes());
  ASSERT_TRUE(wrong);
  EXPECT_EQ(wrong->text("tolk.error"), "takes 2 arguments, got 1");
  EXPECT_EQ(wrong->text("tolk.kind"), "arguments");
}

TEST_F(LayerAndRaw, CallHasNoKeysBesidesTheEnvelope) {
  RawServer server(address);
  Client client = connect(layered(address));
  RawSocket socket = server.take();
  std::future<int> sum = client.async<int>("add", 2, arg("b", 3), 10s);
  const auto call = socket.read_message();
  ASSERT_TRUE(call);
  EXPECT_THAT(call->keys(), testing::ElementsAre("s_c_sw_name", "s_c_sw_threadid", "s_c_sw_data",
                                                 "s_c_sw_semid"));
  EXPECT_EQ(call->arguments(), BlockWriter().add(2).keyed("b", 3).bytes());
  EXPECT_TRUE(socket.send_frame(reply_payload(*call, BlockWriter().add(5))));
  EXPECT_EQ(sum.get(), 5);
}

TEST_F(LayerAndRaw, ReplyOfAnyShapeIsAResultOrAnError) {
  RawServer server(address);
  Client client = connect(layered(address));
  RawSocket socket = server.take();
  const auto answered = [&](const BlockWriter& values) {
    std::future<int> result = client.async<int>("add", 10s);
    const auto call = socket.read_message();
    EXPECT_TRUE(call && socket.send_frame(reply_payload(*call, values)));
    try {
      return std::to_string(result.get());
    } catch (const Error& error) {
      return std::string(to_string(error.code()));
    }
  };
  EXPECT_EQ(answered(BlockWriter().add(5)), "5");
  EXPECT_EQ(answered(BlockWriter()), "wrong_type");
  EXPECT_EQ(answered(BlockWriter().add("no event: add")), "no_such_method");
  EXPECT_EQ(answered(BlockWriter().add("no event: sub")), "wrong_type");
  EXPECT_EQ(answered(BlockWriter().add(7).add("no event: add")), "7");  // a catch-all's answer
  EXPECT_EQ(answered(BlockWriter().keyed("tolk.error", "x")), "handler_failed");
  EXPECT_EQ(answered(BlockWriter().add(6).keyed("tolk.error", 3)), "6");
  EXPECT_EQ(answered(BlockWriter().map({{"a", 1}})), "wrong_type");
}

TEST_F(LayerAndRaw, RepliesToPostedCallsReachNoOtherCall) {
  RawServer server(address);
  Client client = connect(layered(address));
  RawSocket socket = server.take();
  ASSERT_TRUE(client.post("note", 1));
  const auto posted = socket.read_message();
  ASSERT_TRUE(posted);
  EXPECT_FALSE(posted->token());
  std::future<int> result = client.async<int>("add", 10s);
  const auto call = socket.read_message();
  ASSERT_TRUE(call);
  EXPECT_NE(call->call_id(), posted->call_id());
  ASSERT_TRUE(socket.send_frame(reply_payload(*posted, BlockWriter().add(1))));
  ASSERT_TRUE(socket.send_frame(reply_payload(*call, BlockWriter().add(2))));
  EXPECT_EQ(result.get(), 2);
}

// The id of a call that timed out is never reused: its late reply cannot be taken for that of a new
// call.
TEST_F(LayerAndRaw, UnansweredCallIdIsNotReused) {
  RawServer server(address);
  Client client = connect(layered(address));
  RawSocket socket = server.take();
  // Not Client::async: such a call may time out in the queue, and is not sent then.
  const auto call = [&](std::chrono::milliseconds limit) {
    return std::async(std::launch::async,
                      [&client, limit] { return client.call<int>("add", limit).error().code(); });
  };
  std::future<Errc> first = call(1ms);
  const auto unanswered = socket.read_message();
  ASSERT_TRUE(unanswered);
  EXPECT_EQ(first.get(), Errc::timed_out);

  std::future<Errc> second = call(200ms);
  const auto next = socket.read_message();
  ASSERT_TRUE(next);
  EXPECT_NE(next->call_id(), unanswered->call_id());
  ASSERT_TRUE(socket.send_frame(reply_payload(*unanswered, BlockWriter().add(1))));
  EXPECT_EQ(second.get(), Errc::timed_out);
}

TEST_F(LayerAndRaw, NothingIsAskedAfterATimeout) {
  RawServer server(address);
  Client client = connect(layered(address));
  RawSocket socket = server.take();
  EXPECT_EQ(client.call("slow", 50ms).error().code(), Errc::timed_out);
  EXPECT_TRUE(client.post("next"));
  const auto first = socket.read_message();
  const auto second = socket.read_message();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->name(), "slow");
  EXPECT_EQ(second->name(), "next");
}

TEST_F(LayerAndRaw, CatchAllAnswersEveryName) {
  Server server;
  server.on_any([](const Caller& caller, const Values& values) {
    return values.size() == 0 ? Values() : Values().add(caller.method()).add(values.at(0));
  });
  server.listen(layered(address));
  Client client = connect(layered(address));
  EXPECT_EQ(client.call<std::string>("any", 1).value(), "any");
  EXPECT_EQ(client.call<Values>("any", 1).value(), Values().add("any").add(1));
  EXPECT_EQ(client.call<Values>("none").value(), Values());
  EXPECT_EQ(client.call<int>("none").error().detail(),
            "wrong result type: wanted int, got nothing");
  EXPECT_TRUE(client.call("none"));
}

}  // namespace
}  // namespace tolk::test
