// Calls from a client, between real clients and real servers and seen from a plain socket.
#include <atomic>
#include <limits>
#include <thread>

#include "tests/e2e/client_fixture.h"
#include "tests/e2e/support/process_state.h"

namespace tolk::test {
namespace {

// Adds what `in` holds to `out`, value for value.
void copy_value(const TolkValue& value, TolkParams& out) {
  long size = 0;
  if (value.IsInt()) out.AddInt(value.GetInt());
  if (value.IsBool()) out.AddBool(value.GetBool());
  if (value.IsDouble()) out.AddDouble(value.GetDouble());
  if (value.IsString()) out.AddString(value.GetString());
  if (value.IsStream()) {
    const char* const data = value.GetStream(size);
    out.AddStream(data, size);
  }
}

void copy_keyed(const char* key, const TolkValue& value, TolkParams& out) {
  long size = 0;
  if (value.IsInt()) out.AddKeyValueInt(key, value.GetInt());
  if (value.IsBool()) out.AddKeyValueBool(key, value.GetBool());
  if (value.IsDouble()) out.AddKeyValueDouble(key, value.GetDouble());
  if (value.IsString()) out.AddKeyValueString(key, value.GetString());
  if (value.IsStream()) {
    const char* const data = value.GetStream(size);
    out.AddKeyValueStream(key, data, size);
  }
}

void echo(int, TolkParams* in, TolkParams* out) {
  for (int i = 0; i < in->ParamsSize(); ++i) {
    const TolkValue& value = *in->GetValue(i);
    if (!value.IsList()) {
      copy_value(value, *out);
      continue;
    }
    ListParams* const list = TolkParams::CreateListParams();
    for (const TolkValue* element : *value.GetList()) list->AddInt(element->GetInt());
    out->AddList(list);
  }
  for (const auto& [key, value] : *in->GetMapPtr()) copy_keyed(key, *value, *out);
}

constexpr char kStream[] = "a\0b\xFF";

// Every type of value, extremes included.
void fill(TolkParams& block) {
  block.AddInt(std::numeric_limits<int>::min());
  block.AddBool(true);
  block.AddBool(false);
  block.AddDouble(-2.5e300);
  block.AddString("text");
  block.AddString("");
  block.AddStream(kStream, 4);
  block.AddKeyValueInt("int", std::numeric_limits<int>::max());
  block.AddKeyValueBool("bool", true);
  block.AddKeyValueDouble("double", 0.1);
  block.AddKeyValueString("string", "keyed text");
  block.AddKeyValueStream("stream", kStream, 4);
}

void expect_filled(TolkParams* block) {
  ASSERT_NE(block, nullptr);
  ASSERT_EQ(block->ParamsSize(), 7);
  long size = 0;
  EXPECT_EQ(block->GetValue(0)->GetInt(), std::numeric_limits<int>::min());
  EXPECT_TRUE(block->GetValue(1)->IsBool() && block->GetValue(1)->GetBool());
  EXPECT_TRUE(block->GetValue(2)->IsBool() && !block->GetValue(2)->GetBool());
  EXPECT_EQ(block->GetValue(3)->GetDouble(), -2.5e300);
  EXPECT_EQ(string_at(block, 4), "text");
  EXPECT_TRUE(block->GetValue(5)->IsString());
  EXPECT_EQ(string_at(block, 5), "");
  const char* const stream = block->GetValue(6)->GetStream(size);
  EXPECT_EQ(std::string(stream, static_cast<std::size_t>(size)), std::string(kStream, 4));
  ASSERT_EQ(block->MapSize(), 5 + 3) << "and the three keys of the envelope";
  EXPECT_EQ(block->GetMap("int")->GetInt(), std::numeric_limits<int>::max());
  EXPECT_TRUE(block->GetMap("bool")->GetBool());
  EXPECT_EQ(block->GetMap("double")->GetDouble(), 0.1);
  EXPECT_STREQ(block->GetMap("string")->GetString(), "keyed text");
  const char* const keyed = block->GetMap("stream")->GetStream(size);
  EXPECT_EQ(std::string(keyed, static_cast<std::size_t>(size)), std::string(kStream, 4));
}

// A real client and a real server.
class Calls : public OverTransports {
 protected:
  void SetUp() override {
    server->method("echo", on_call(echo));
    server->method("who", on_call([calls = calls](int id, TolkParams*, TolkParams* out) mutable {
                     out->AddInt(id);
                     calls.add();
                   }));
    client->method("echo", on_call(echo));
    ASSERT_TRUE(start_server(server.get(), address));
    ASSERT_TRUE(connect_client(client.get(), address));
  }

  int own_id() {
    TolkParams* const reply = client->SendMsgFast("who", nullptr, 0, 0);
    return reply == nullptr ? 0 : reply->GetValue(0)->GetInt();
  }

  Counter calls;
  ServerPtr server = make_server();
  ClientPtr client = make_client();
};
TOLK_OVER_TRANSPORTS(Calls);

TEST_P(Calls, EveryTypeOfValueGoesToTheServerAndBack) {
  TolkParams arguments;
  fill(arguments);
  expect_filled(client->SendMsg("echo", &arguments, 0, 10000));
  expect_filled(client->SendMsgFast("echo", &arguments, 77, 10000));
}

TEST_P(Calls, EveryTypeOfValueGoesToTheClientAndBack) {
  const int id = own_id();
  TolkParams arguments;
  fill(arguments);
  expect_filled(server->SendMsg(id, "echo", &arguments, 78, 10000));
}

TEST_P(Calls, ListsGoBothWays) {
  ListParams* const list = TolkParams::CreateListParams();
  for (int i = 0; i < 3; ++i) list->AddInt(i * 10);
  TolkParams arguments;
  arguments.AddList(list);
  const int id = own_id();
  TolkParams* const replies[] = {client->SendMsg("echo", &arguments, 0, 10000),
                                 server->SendMsg(id, "echo", &arguments, 79, 10000)};
  for (TolkParams* reply : replies) {
    ASSERT_NE(reply, nullptr);
    ASSERT_TRUE(reply->GetValue(0)->IsList());
    ASSERT_EQ(reply->GetValue(0)->GetList()->size(), 3u);
    EXPECT_EQ((*reply->GetValue(0)->GetList())[2]->GetInt(), 20);
  }
}

TEST_P(Calls, LargeArgumentsComeBackWhole) {
  std::string data(3000000, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 255);
  TolkParams arguments;
  arguments.AddStream(data.data(), static_cast<long>(data.size()));
  TolkParams* const reply = client->SendMsgFast("echo", &arguments, 0, 0);
  ASSERT_NE(reply, nullptr);
  long size = 0;
  const char* const back = reply->GetValue(0)->GetStream(size);
  EXPECT_TRUE(std::string(back, static_cast<std::size_t>(size)) == data);
}

TEST_P(Calls, ReplyHoldsTheEnvelopeToo) {
  TolkParams* const reply = client->SendMsgFast("who", nullptr, 31, 0);
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(reply->GetMap("s_c_sw_name")->GetString(), "retval");
  EXPECT_EQ(reply->GetMap("s_c_sw_threadid")->GetInt(), 31);
  EXPECT_TRUE(reply->GetMap("s_c_sw_semid")->IsString());
}

TEST_P(Calls, PostedCallsArriveAndReturnNull) {
  EXPECT_EQ(client->PostMsg("who", nullptr, 0), nullptr);
  EXPECT_EQ(client->PostMsgFast("who", nullptr, 0), nullptr);
  EXPECT_TRUE(calls.wait_for(2));
}

TEST_P(Calls, ReplyToAPostedCallRefreshesTheHeldResult) {
  TolkParams first;
  first.AddString("first");
  TolkParams* const held = client->SendMsgFast("echo", &first, 8, 0);
  ASSERT_EQ(string_at(held, 0), "first");
  TolkParams second;
  second.AddString("second");
  client->PostMsgFast("echo", &second, 8);
  EXPECT_TRUE(eventually([&] { return string_at(held, 0) == "second"; }));
}

TEST_P(Calls, ResultMayBeTheArgumentsOfTheNextCall) {
  TolkParams arguments;
  arguments.AddString("passed on");
  TolkParams* reply = client->SendMsgFast("echo", &arguments, 8, 0);
  for (int i = 0; i < 5; ++i) {
    ASSERT_NE(reply, nullptr);
    reply = client->SendMsgFast("echo", reply, 8, 0);
  }
  EXPECT_EQ(string_at(reply, 0), "passed on");
}

TEST_P(Calls, ResultsOfDistinctCallIdsStayValidTogether) {
  TolkParams one;
  one.AddString("one");
  TolkParams two;
  two.AddString("two");
  TolkParams* const first = client->SendMsgFast("echo", &one, 1, 0);
  TolkParams* const second = client->SendMsgFast("echo", &two, 2, 0);
  EXPECT_EQ(string_at(first, 0), "one");
  EXPECT_EQ(string_at(second, 0), "two");
}

TEST_P(Calls, ThreadsGetTheirOwnReplies) {
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 1; t <= 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        TolkParams arguments;
        arguments.AddInt(t * 1000 + i);
        TolkParams* const reply = client->SendMsgFast("echo", &arguments, i % 2 == 0 ? 0 : t, 0);
        if (reply == nullptr || reply->GetValue(0)->GetInt() != t * 1000 + i) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST_P(Calls, HandlerMayCallItsCallerBack) {
  IServer* const raw = server.get();
  server->method("call me back", on_call([raw](int id, TolkParams* in, TolkParams* out) {
                   TolkParams* const reply = raw->SendMsg(id, "echo", in, 55, 10000);
                   out->AddString(string_at(reply, 0).c_str());
                 }));
  TolkParams arguments;
  arguments.AddString("there and back");
  EXPECT_EQ(string_at(client->SendMsgFast("call me back", &arguments, 1, 10000), 0),
            "there and back");
}

// Calls to a plain-socket server, which sees their bytes.
class CallsToRawServer : public WithRawServer {
 protected:
  void SetUp() override { connect(); }
};
TOLK_OVER_TRANSPORTS(CallsToRawServer);

TEST_P(CallsToRawServer, CallIdIsThatOfTheThreadUnlessGiven) {
  client->PostMsgFast("m", nullptr, 0);
  auto message = peer.read_message();
  ASSERT_TRUE(message);
  EXPECT_TRUE(message->call_id() && is_own_call_id(*message->call_id()));
  client->PostMsg("m", nullptr, -12);
  message = peer.read_message();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->call_id(), -12);
}

TEST_P(CallsToRawServer, EmptyBlockHasADataKeyAndNoBlockHasNone) {
  TolkParams empty;
  client->PostMsgFast("m", nullptr, 1);
  client->PostMsgFast("m", &empty, 1);
  const auto without = peer.read_message();
  const auto with = peer.read_message();
  ASSERT_TRUE(without && with);
  EXPECT_EQ(without->keys(), (std::vector<std::string>{"s_c_sw_name", "s_c_sw_threadid"}));
  EXPECT_EQ(with->keys(),
            (std::vector<std::string>{"s_c_sw_name", "s_c_sw_threadid", "s_c_sw_data"}));
  EXPECT_EQ(with->arguments(), "");
}

TEST_P(CallsToRawServer, PostedCallHasNoToken) {
  client->PostMsg("m", nullptr, 1);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  EXPECT_FALSE(message->token().has_value());
}

TEST_P(CallsToRawServer, PostedCallsArriveInOrder) {
  for (int i = 1; i <= 100; ++i) client->PostMsgFast("m", nullptr, i);
  for (int i = 1; i <= 100; ++i) {
    const auto message = peer.read_message();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->call_id(), i);
  }
}

TEST_P(CallsToRawServer, CallTimesOutAtTheNextSweep) {
  for (const int timeout : {1, 50, 150, 310}) {
    const Stopwatch watch;
    EXPECT_EQ(client->SendMsgFast("m", nullptr, 1, timeout), nullptr);
    EXPECT_GE(watch.elapsed(), Milliseconds(timeout));
    EXPECT_LT(watch.elapsed(), Milliseconds(timeout) + Milliseconds(5000));
  }
}

TEST_P(CallsToRawServer, FirstSweepComesHalfASecondAfterConnecting) {
  const ClientPtr other = make_client();
  client->close();  // its sweep would end the call as well
  const Stopwatch watch;
  RawSocket its_peer;
  connect(other.get(), its_peer);
  EXPECT_EQ(other->SendMsgFast("m", nullptr, 1, 1), nullptr);
  EXPECT_GE(watch.elapsed(), Milliseconds(495));
}

TEST_P(CallsToRawServer, TimeoutOfZeroWaitsForTheReply) {
  CallMeanwhile call(client.get(), "m", 1, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  EXPECT_FALSE(call.is_done(Milliseconds(900))) << "well past the first sweeps";
  peer.send_frame(reply_payload(*message, BlockWriter().add(std::string("late but here"))));
  EXPECT_EQ(string_at(call.result(), 0), "late but here");
}

TEST_P(CallsToRawServer, NegativeTimeoutIsAVeryLongOne) {
  CallMeanwhile call(client.get(), "m", 1, -1);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  EXPECT_FALSE(call.is_done(Milliseconds(700)));
  peer.send_frame(reply_payload(*message));
  EXPECT_NE(call.result(), nullptr);
}

TEST_P(CallsToRawServer, NextCallWithTheSameIdDropsTheEarlierResult) {
  CallMeanwhile first(client.get(), "m", 9, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  peer.send_frame(reply_payload(*message));
  ASSERT_NE(first.result(), nullptr);
  CallMeanwhile second(client.get(), "m", 9, 1);  // from another thread
  EXPECT_EQ(second.result(), nullptr);
}

TEST_P(CallsToRawServer, SweepOfOneClientTimesOutTheCallsOfAll) {
  client->close();
  connect();  // a second connection has no sweep
  CallMeanwhile call(client.get(), "m", 1, 50);
  ASSERT_TRUE(peer.read_message());
  EXPECT_FALSE(call.is_done(Milliseconds(1000)));
  const ClientPtr other = make_client();
  RawSocket its_peer;
  connect(other.get(), its_peer);
  EXPECT_TRUE(call.is_done());
  EXPECT_EQ(call.result(), nullptr);
}

TEST_P(CallsToRawServer, OneSendMsgRunsAtATimeInTheProcessAndSendMsgFastDoesNotWait) {
  const ClientPtr other = make_client();
  RawSocket its_peer;
  connect(other.get(), its_peer);
  const Meanwhile first([this] { EXPECT_EQ(client->SendMsg("first", nullptr, 1, 0), nullptr); });
  ASSERT_TRUE(peer.read_message());
  const Meanwhile second([&] { other->SendMsg("second", nullptr, 2, 0); });
  const Meanwhile posted([&] { other->PostMsg("posted", nullptr, 3); });
  EXPECT_TRUE(its_peer.is_quiet());
  CallMeanwhile fast(other.get(), "fast", 4, 0);
  const auto message = its_peer.read_message();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->name(), "fast");
  its_peer.send_frame(reply_payload(*message));
  EXPECT_NE(fast.result(), nullptr);
  other->PostMsgFast("posted fast", nullptr, 5);
  const auto fast_post = its_peer.read_message();
  ASSERT_TRUE(fast_post);
  EXPECT_EQ(fast_post->name(), "posted fast");
  client->close();  // ends the first call; the others may go now
  EXPECT_TRUE(first.is_done());
  for (int i = 0; i < 2; ++i) {
    const auto next = its_peer.read_message();
    ASSERT_TRUE(next);
    if (next->name() == "second") its_peer.send_frame(reply_payload(*next));
  }
  EXPECT_TRUE(second.is_done());
  EXPECT_TRUE(posted.is_done());
}

TEST_P(CallsToRawServer, LargeCallLeavesItsArgumentsEmpty) {
  TolkParams arguments;
  arguments.AddString("large");
  const Meanwhile call([&] { client->SendMsgEx("m", &arguments, 3, 0); });
  const auto piece = peer.read_message();
  ASSERT_TRUE(piece);
  EXPECT_EQ(piece->name(), "s_c_req_body");
  peer.close();
  ASSERT_TRUE(call.is_done());
  EXPECT_EQ(arguments.Size(), 0);
}

TEST_P(CallsToRawServer, WriteToALostServerDoesNotEndTheProcess) {
  const Capture out;
  peer.reset();
  for (int i = 0; i < 1000 && client->isok(); ++i) client->PostMsgFast("m", nullptr, 1);
  EXPECT_TRUE(eventually([this] { return !client->isok(); }));
  client->PostMsgFast("m", nullptr, 1);
  EXPECT_TRUE(out.wait_for_line("send msg: disconnect... .. ."));
}

}  // namespace
}  // namespace tolk::test
