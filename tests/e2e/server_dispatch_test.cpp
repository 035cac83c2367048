// How a server handles a call: which handler runs, with which arguments, and what it replies.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

using Keys = std::vector<std::string>;

const Keys kServerEnvelope{"s_c_sw_name", "s_c_sw_threadid", "s_c_sw_semid"};

class ServerDispatch : public ServerTest {
 protected:
  RawClient connected() {
    start();
    RawClient client(address);
    EXPECT_TRUE(client.is_greeted());
    return client;
  }
  // The answer to a version request with these arguments.
  Scalar verdict_on(RawClient& client, const std::optional<std::string>& arguments) {
    const auto answer = client.call("s_c_version", 1, arguments);
    if (!answer || !answer->at(0)) return "no answer";
    EXPECT_EQ(answer->text("VERSION"), kVersion);
    return *answer->at(0);
  }
};
TOLK_OVER_TRANSPORTS(ServerDispatch);

TEST_P(ServerDispatch, CarriesEveryTypeOfValueBothWays) {
  server->method("mirror", on_call([](int, TolkParams* in, TolkParams* out) {
                   long size = 0;
                   const char* const bytes = in->GetValue(4)->GetStream(size);
                   out->AddInt(in->GetValue(0)->GetInt());
                   out->AddBool(in->GetValue(1)->GetBool());
                   out->AddDouble(in->GetValue(2)->GetDouble());
                   out->AddString(in->GetValue(3)->GetString());
                   out->AddStream(bytes, size);
                   ListParams* const list = TolkParams::CreateListParams();
                   for (TolkValue* const element : *in->GetValue(5)->GetList()) {
                     list->AddInt(element->GetInt());
                   }
                   out->AddList(list);
                   out->AddKeyValueString("key", in->GetMap("key")->GetString());
                 }));
  RawClient client = connected();
  const std::string zeros("a\0b", 3);
  BlockWriter values;
  values.add(-2147483647).add(true).add(0.1).add("text").add(Stream{zeros}).list({1, 2, 3});
  values.keyed("key", "value");
  const auto answer = client.call("mirror", 1, values.bytes());
  ASSERT_TRUE(answer);
  EXPECT_TRUE(answer->payload.starts_with(values.bytes()));
}

TEST_P(ServerDispatch, CallWithoutArgumentsGetsAnEmptyBlock) {
  server->method("count", on_call([](int, TolkParams* in, TolkParams* out) {
                   out->AddInt(in->ParamsSize() + in->MapSize() + in->Size());
                 }));
  RawClient client = connected();
  const auto answer = client.call("count");
  ASSERT_TRUE(answer && answer->at(0));
  EXPECT_EQ(*answer->at(0), Scalar(0));
}

TEST_P(ServerDispatch, MalformedArgumentsKeepTheRecordsBefore) {
  server->method("count", on_call([](int, TolkParams* in, TolkParams* out) {
                   out->AddInt(in->ParamsSize());
                 }));
  RawClient client = connected();
  const auto answer = client.call("count", 1, BlockWriter().add(1).add(2).bytes() + "\x09");
  ASSERT_TRUE(answer && answer->at(0));
  EXPECT_EQ(*answer->at(0), Scalar(2));
}

TEST_P(ServerDispatch, ReplyWithoutResultIsTheEnvelope) {
  server->method("nothing", on_call([](int, TolkParams*, TolkParams*) {}));
  RawClient client = connected();
  const auto answer = client.call("nothing", -7, {}, "any text\n");
  ASSERT_TRUE(answer);
  EXPECT_TRUE(answer->values.empty());
  EXPECT_EQ(answer->keys(), kServerEnvelope);
  EXPECT_EQ(answer->name(), "retval");
  EXPECT_EQ(answer->call_id(), -7);
  EXPECT_EQ(answer->token(), "any text\n");
}

TEST_P(ServerDispatch, PostedCallIsAnsweredWithoutToken) {
  register_echo();
  RawClient client = connected();
  client.post("echo", 9, BlockWriter().add("posted").bytes());
  const auto answer = client.socket.read_message();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->string_at(0), "posted");
  EXPECT_EQ(answer->keys(), (Keys{"s_c_sw_name", "s_c_sw_threadid"}));
}

TEST_P(ServerDispatch, UnknownMethodIsNamedInTheReply) {
  RawClient client = connected();
  for (const std::string name : {"foo", "", "no event: ", "S_C_VERSION", "s_c_log"}) {
    const auto answer = client.call(name);
    ASSERT_TRUE(answer) << name;
    EXPECT_EQ(answer->values.size(), 1U) << name;
    EXPECT_EQ(answer->string_at(0), "no event: " + name);
  }
}

TEST_P(ServerDispatch, NamesAreComparedWhole) {
  register_echo();
  RawClient client = connected();
  EXPECT_EQ(client.call("ech")->string_at(0), "no event: ech");
  EXPECT_EQ(client.call("echo2")->string_at(0), "no event: echo2");
  EXPECT_EQ(client.call("Echo")->string_at(0), "no event: Echo");
}

// On purpose: the text follows the values of the catch-all.
TEST_P(ServerDispatch, CatchAllIsFollowedByTheNoEventText) {
  Journal journal;
  server->methodall(
      on_any_call([=](const char* name, int id, TolkParams* in, TolkParams* out) mutable {
        journal.note(std::string(name) + " " + std::to_string(id != 0) + " " + string_at(in, 0));
        out->AddString("caught");
      }));
  RawClient client = connected();
  const auto answer = client.call("foo", 1, BlockWriter().add("argument").bytes());
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->string_at(0), "caught");
  EXPECT_EQ(answer->string_at(1), "no event: foo");
  EXPECT_EQ(journal.notes(), std::vector<std::string>{"foo 1 argument"});
}

TEST_P(ServerDispatch, CatchAllIsNotCalledForRegisteredNamesVersionAndHooks) {
  Counter caught;
  server->methodall(
      on_any_call([caught](const char*, int, TolkParams*, TolkParams*) mutable { caught.add(); }));
  register_echo();
  RawClient client = connected();
  EXPECT_TRUE(serves(client));
  EXPECT_EQ(verdict_on(client, version_arguments()), Scalar(true));
  EXPECT_EQ(client.call("s_c_closed")->string_at(0), "no event: s_c_closed");
  EXPECT_EQ(client.call("s_c_connect")->string_at(0), "no event: s_c_connect");
  EXPECT_EQ(caught.value(), 0);
  EXPECT_EQ(client.call("s_c_createport")->string_at(0), "no event: s_c_createport");
  EXPECT_EQ(caught.value(), 1);
}

TEST_P(ServerDispatch, LaterCatchAllReplacesTheEarlier) {
  server->SetCustomReleaseEvent();
  const auto saying = [](const char* text) {
    return [text](const char*, int, TolkParams*, TolkParams* out) { out->AddString(text); };
  };
  FunctionCatchAll first(saying("first"));
  FunctionCatchAll second(saying("second"));
  server->methodall(&first);
  server->methodall(&second);
  RawClient client = connected();
  EXPECT_EQ(client.call("foo")->string_at(0), "second");
  server.reset();
}

TEST_P(ServerDispatch, OnlyTheWholeVersionTextIsAccepted) {
  RawClient client = connected();
  const std::string version = kVersion;
  EXPECT_EQ(verdict_on(client, version_arguments()), Scalar(true));
  for (const std::string& other :
       {std::string(), std::string("Tolk Version: 1.1.0.13"), std::string("tolk Version: 1.1.0.12"),
        version + " ", version.substr(0, 21), version + std::string("\0", 1),
        version.substr(1) + "2"}) {
    EXPECT_EQ(verdict_on(client, version_arguments(other)), Scalar(false)) << other;
  }
  EXPECT_EQ(verdict_on(client, std::nullopt), Scalar(false));
  EXPECT_EQ(verdict_on(client, BlockWriter().add(version).bytes()), Scalar(false));
  EXPECT_EQ(verdict_on(client, BlockWriter().keyed("VERSION", 1).bytes()), Scalar(false));
  EXPECT_EQ(verdict_on(client, BlockWriter().keyed("VERSION", Stream{version}).bytes()),
            Scalar(false));
}

TEST_P(ServerDispatch, VersionRequestIsAnsweredByTheServerItself) {
  Counter asked;
  server->method("s_c_version", counting(asked));
  RawClient client = connected();
  EXPECT_EQ(verdict_on(client, version_arguments()), Scalar(true));
  EXPECT_EQ(asked.value(), 0);
}

// On purpose: a client may call the handler of an event like any other method.
TEST_P(ServerDispatch, EventHooksCanBeCalledByClients) {
  Journal journal;
  for (const char* const name : {"s_c_connect", "s_c_closed", "s_c_createport"}) {
    server->method(name, on_call([=](int, TolkParams*, TolkParams* out) mutable {
                     if (out != nullptr) journal.note(name);
                   }));
  }
  RawClient client = connected();
  EXPECT_TRUE(client.call("s_c_connect") && client.call("s_c_closed") &&
              client.call("s_c_createport"));
  EXPECT_EQ(journal.notes(),
            (std::vector<std::string>{"s_c_connect", "s_c_closed", "s_c_createport"}));
}

TEST_P(ServerDispatch, ThrowingHandlerRepliesWithWhatItHasAdded) {
  server->method("throw", on_call([](int, TolkParams*, TolkParams* out) {
                   out->AddInt(1);
                   throw std::runtime_error("out of luck");
                 }));
  server->method("throw int", on_call([](int, TolkParams*, TolkParams*) { throw 1; }));
  RawClient client = connected();
  Capture capture;
  const auto answer = client.call("throw");
  ASSERT_TRUE(answer);
  EXPECT_EQ(*answer->at(0), Scalar(1));
  EXPECT_EQ(answer->keys(), kServerEnvelope);
  EXPECT_EQ(capture.text(), "handler error: throw: out of luck\n");
  const auto second = client.call("throw int");
  ASSERT_TRUE(second);
  EXPECT_EQ(second->keys(), kServerEnvelope);
}

TEST_P(ServerDispatch, ThrowingCatchAllIsFollowedByTheNoEventText) {
  server->methodall(on_any_call([](const char*, int, TolkParams*, TolkParams*) { throw 1; }));
  RawClient client = connected();
  EXPECT_EQ(client.call("foo")->string_at(0), "no event: foo");
}

TEST_P(ServerDispatch, LaterHandlerReplacesTheEarlierWithoutDeletingIt) {
  Counter deleted;
  FunctionHandler first([](int, TolkParams*, TolkParams*) { ADD_FAILURE(); }, deleted);
  server->method("a", &first);
  server->method("a", answering("second"));
  RawClient client = connected();
  EXPECT_EQ(client.call("a")->string_at(0), "second");
  server->close();
  EXPECT_EQ(deleted.value(), 0);
}

TEST_P(ServerDispatch, NullHandlerCountsAsUnregistered) {
  register_echo();
  server->method("a", nullptr);
  server->method("s_c_connect", nullptr);
  server->method("s_c_closed", nullptr);
  server->method("s_c_createport", nullptr);
  server->method(nullptr, nullptr);
  server->methodall(nullptr);
  RawClient client = connected();
  EXPECT_EQ(client.call("a")->string_at(0), "no event: a");
  server->method("echo", nullptr);
  EXPECT_EQ(client.call("echo")->string_at(0), "no event: echo");
}

TEST_P(ServerDispatch, NullNameIsIgnored) {
  const auto handler = std::make_unique<FunctionHandler>([](int, TolkParams*, TolkParams*) {});
  server->method(nullptr, handler.get());
  RawClient client = connected();
  EXPECT_EQ(client.call("")->string_at(0), "no event: ");
}

TEST_P(ServerDispatch, HandlersCanBeRegisteredUnderTraffic) {
  register_echo();
  RawClient client = connected();
  Counter done;
  std::thread registering([&] {
    for (int i = 0; i < 500; ++i) server->method(("m" + std::to_string(i)).c_str(), answering("x"));
    done.add();
  });
  while (done.value() == 0) EXPECT_TRUE(serves(client));
  registering.join();
  EXPECT_EQ(client.call("m499")->string_at(0), "x");
}

// One handler does not return: another call is served meanwhile.
TEST_P(ServerDispatch, HandlersRunConcurrently) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("wait", blocking(gate));
  register_echo();
  RawClient client = connected();
  client.post("wait");
  ASSERT_TRUE(gate.wait_entered());
  EXPECT_TRUE(serves(client));
  gate.open();
  EXPECT_TRUE(client.socket.read_message());
}

TEST_P(ServerDispatch, ReplyGoesToTheCaller) {
  register_echo();
  start();
  std::vector<RawClient> clients;
  for (int i = 0; i < 8; ++i) clients.emplace_back(address);
  for (std::size_t i = 0; i < clients.size(); ++i) {
    clients[i].post("echo", static_cast<int>(i), BlockWriter().add(std::to_string(i)).bytes());
  }
  for (std::size_t i = 0; i < clients.size(); ++i) {
    const auto answer = clients[i].socket.read_message();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->string_at(0), std::to_string(i));
    EXPECT_EQ(answer->call_id(), static_cast<int>(i));
  }
}

TEST_P(ServerDispatch, LibraryClientIsAnswered) {
  register_echo();
  start();
  ClientPtr client = make_client();
  ASSERT_TRUE(connect_client(client.get(), address));
  TolkParams arguments;
  arguments.AddString("ping");
  EXPECT_EQ(string_at(client->SendMsg("echo", &arguments, 0, 10000), 0), "ping");
  EXPECT_EQ(string_at(client->SendMsgFast("foo", nullptr, 0, 10000), 0), "no event: foo");
  EXPECT_EQ(server->GetClientCount(), 1);
}

// A reply to a lost connection is written to a closed stream.
TEST_P(ServerDispatch, ReplyToAClientThatHasLeftPrintsOneLine) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("wait", blocking(gate));
  register_echo();
  RawClient client = connected();
  RawClient bystander(address);
  client.post("wait");
  ASSERT_TRUE(gate.wait_entered());
  Capture capture;
  client.socket.close();
  ASSERT_NE(capture.line_starting("Client Close: "), "");
  gate.open();
  EXPECT_TRUE(capture.wait_for_line("write error"));
  EXPECT_TRUE(serves(bystander));
  EXPECT_EQ(capture.count("write error"), 1);
}

TEST_P(ServerDispatch, ManyRepliesToAClientThatHasLeftDelayNobody) {
  constexpr int kCalls = 2000;
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("wait", blocking(gate));
  register_echo();
  RawClient client = connected();
  RawClient bystander(address);
  Capture capture;
  for (int i = 0; i < kCalls; ++i) ASSERT_TRUE(client.post("wait", i));
  ASSERT_TRUE(gate.wait_entered());
  client.socket.close();
  ASSERT_NE(capture.line_starting("Client Close: "), "");
  const Stopwatch watch;
  gate.open();
  EXPECT_TRUE(serves(bystander));
  ASSERT_TRUE(capture.wait_for_lines("write error", kCalls));
  // With the attempts and pauses that a live stream gets it would be 3 ms each: 6 s.
  EXPECT_LT(watch.elapsed(), Milliseconds(4000));
  EXPECT_EQ(capture.count("write error"), kCalls);
}

}  // namespace
}  // namespace tolk::test
