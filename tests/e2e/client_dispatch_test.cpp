// Calls from the server to the client.
#include <algorithm>
#include <limits>
#include <mutex>
#include <stdexcept>

#include "tests/e2e/client_fixture.h"
#include "tests/e2e/support/process_state.h"

namespace tolk::test {
namespace {

using Keys = std::vector<std::string>;

class ClientDispatch : public WithRawServer {
 protected:
  void method(const char* name, IServerMethod* handler) { client->method(name, handler); }

  // The reply to a payload that is sent as it is.
  std::optional<Message> answer_to(const BlockWriter& call) {
    peer.send_frame(call.bytes());
    return peer.read_message();
  }
  static BlockWriter named(const Scalar& name) { return BlockWriter().keyed("s_c_sw_name", name); }
};
TOLK_OVER_TRANSPORTS(ClientDispatch);

TEST_P(ClientDispatch, ReplyIsTheHandlersValuesThenCallIdTokenAndName) {
  method("m", on_call([](int, TolkParams* in, TolkParams* out) {
           out->AddString(in->GetValue(0)->GetString());
           out->AddKeyValueInt("own", 1);
         }));
  connect();
  const auto reply = call_client("m", BlockWriter().add(std::string("argument")).bytes());
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->string_at(0), "argument");
  EXPECT_EQ(reply->keys(), (Keys{"own", "s_c_sw_threadid", "s_c_sw_semid", "s_c_sw_name"}));
  EXPECT_EQ(reply->call_id(), 5);
  EXPECT_EQ(reply->token(), "0xabc");
  EXPECT_EQ(reply->name(), "retval");
}

TEST_P(ClientDispatch, EmptyResultIsRepliedWithTheThreeKeys) {
  method("m", on_call([](int, TolkParams*, TolkParams*) {}));
  connect();
  const auto reply = call_client("m");
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->values.empty());
  EXPECT_EQ(reply->keys(), (Keys{"s_c_sw_threadid", "s_c_sw_semid", "s_c_sw_name"}));
}

TEST_P(ClientDispatch, UnregisteredNameIsRepliedWithTheNameKeyAlone) {
  connect();
  const auto reply = call_client("nobody");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->payload, named(std::string("retval")).bytes());
}

TEST_P(ClientDispatch, NullHandlerCountsAsUnregistered) {
  method("m", nullptr);
  method("m", answering("too late"));
  connect();
  const auto reply = call_client("m");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->keys(), Keys{"s_c_sw_name"});
}

TEST_P(ClientDispatch, CallWithoutCallIdAndTokenIsAnsweredWithCallIdZero) {
  method("m", answering("x"));
  connect();
  const auto reply = answer_to(named(std::string("m")));
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->keys(), (Keys{"s_c_sw_threadid", "s_c_sw_name"}));
  EXPECT_EQ(reply->call_id(), 0);
}

TEST_P(ClientDispatch, CallIdsAndTokensOfOtherTypesDoNoHarm) {
  method("m", answering("x"));
  connect();
  const auto call_id_of = [this](const Scalar& value) {
    const auto reply = answer_to(named(std::string("m")).keyed("s_c_sw_threadid", value));
    return reply ? reply->call_id() : std::nullopt;
  };
  EXPECT_EQ(call_id_of(-3), -3);
  EXPECT_EQ(call_id_of(true), 1);
  EXPECT_EQ(call_id_of(0.0), 0);
  EXPECT_EQ(call_id_of(std::string("text")), 0);
  EXPECT_EQ(call_id_of(Stream{"text"}), 0);
  for (const Scalar& value : {Scalar(7), Scalar(true), Scalar(1.5), Scalar(Stream{"0xabc"})}) {
    const auto reply = answer_to(named(std::string("m")).keyed("s_c_sw_semid", value));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->keys(), (Keys{"s_c_sw_threadid", "s_c_sw_name"}));
  }
}

TEST_P(ClientDispatch, TokenIsCopiedAsItIs) {
  method("m", answering("x"));
  connect();
  for (const char* const token : {"", "anything at all", "0x12"}) {
    const auto reply = answer_to(named(std::string("m")).keyed("s_c_sw_semid", std::string(token)));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->token(), token);
  }
}

TEST_P(ClientDispatch, NameMayBeAStreamAndIsCutAtItsFirstZero) {
  method("m", answering("x"));
  connect();
  for (const Scalar& name : {Scalar(Stream{"m"}), Scalar(Stream{std::string("m\0rest", 6)}),
                             Scalar(std::string("m\0rest", 6))}) {
    const auto reply = answer_to(named(name));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->string_at(0), "x");
  }
}

TEST_P(ClientDispatch, MalformedArgumentsAreEmptyOrPartial) {
  method("m", on_call([](int, TolkParams* in, TolkParams* out) { out->AddInt(in->ParamsSize()); }));
  connect();
  const auto count_for = [this](const Scalar& data) {
    const auto reply = answer_to(named(std::string("m")).keyed("s_c_sw_data", data));
    const Scalar* const count = reply ? reply->at(0) : nullptr;
    return count != nullptr ? std::get<int>(*count) : -1;
  };
  const std::string two = BlockWriter().add(1).add(2).bytes();
  EXPECT_EQ(count_for(Stream{two}), 2);
  EXPECT_EQ(count_for(two), 2);
  EXPECT_EQ(count_for(Stream{two + "\x09"}), 2);
  EXPECT_EQ(count_for(Stream{"garbage"}), 0);
  EXPECT_EQ(count_for(Stream{""}), 0);
  EXPECT_EQ(count_for(7), 0);
  EXPECT_EQ(count_for(true), 0);
  EXPECT_EQ(count_for(1.5), 0);
}

TEST_P(ClientDispatch, FirstRegistrationOfANameStays) {
  Counter deleted;
  IServerMethod* const second = answering("second", deleted);
  method("m", answering("first"));
  method("m", second);
  connect();
  const auto reply = call_client("m");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->string_at(0), "first");
  client->close();
  EXPECT_EQ(deleted.value(), 0) << "neither stored nor deleted";
  delete second;
}

TEST_P(ClientDispatch, BuiltInNamesCannotBeReplaced) {
  Counter called;
  IServerMethod* const handler = counting(called);
  method("s_c_buildin_closed", handler);
  method("s_c_req_body", handler);
  connect();
  EXPECT_TRUE(call_client("s_c_buildin_closed"));
  EXPECT_TRUE(call_client("s_c_req_body"));
  client->close();
  EXPECT_EQ(called.value(), 0);
  delete handler;
}

TEST_P(ClientDispatch, CatchAllIsNeverCalled) {
  Counter called;
  Counter deleted;
  client->methodall(on_any_call([called](auto...) mutable { called.add(); }, deleted));
  IMethodAll* const second = on_any_call([](auto...) {});
  client->methodall(second);
  connect();
  const auto reply = call_client("nobody");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->keys(), Keys{"s_c_sw_name"});
  EXPECT_EQ(called.value(), 0);
  client->close();
  EXPECT_EQ(deleted.value(), 1) << "the first one was stored, the second not";
  delete second;
}

TEST_P(ClientDispatch, ThrowingHandlerStillAnswers) {
  method("m", on_call([](int, TolkParams*, TolkParams* out) {
           out->AddInt(1);
           throw std::runtime_error("went wrong");
         }));
  connect();
  const Capture out;
  const auto reply = call_client("m");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->keys(), (Keys{"s_c_sw_threadid", "s_c_sw_semid", "s_c_sw_name"}));
  EXPECT_EQ(reply->values.size(), 1u);
  EXPECT_TRUE(out.wait_for_line("handler error: m: went wrong"));
}

TEST_P(ClientDispatch, EveryCallHasTheSameConnectionId) {
  std::vector<int> ids;
  std::mutex mutex;
  method("m", on_call([&](int id, TolkParams*, TolkParams*) {
           const std::lock_guard<std::mutex> lock(mutex);
           ids.push_back(id);
         }));
  connect();
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(call_client("m"));
  const Capture out;
  peer.close();
  const std::string line = out.line_starting("Server Closed: ");
  EXPECT_EQ(ids, std::vector<int>(3, std::stoi(line.substr(15))));
}

TEST_P(ClientDispatch, CallsRunConcurrently) {
  Gate gate;
  const OpenAtEnd at_end(gate);
  method("wait", blocking(gate));
  method("quick", answering("x"));
  connect();
  peer.send(frame(call_payload("wait", 1)) + frame(call_payload("wait", 2)));
  EXPECT_TRUE(gate.wait_entered(2));
  EXPECT_TRUE(client_answers("quick")) << "replies come in the order in which calls end";
  gate.open();
  EXPECT_TRUE(peer.read_message());
  EXPECT_TRUE(peer.read_message());
}

TEST_P(ClientDispatch, HandlerMayCallTheServer) {
  IClient* const raw = client.get();
  method("m", on_call([raw](int, TolkParams*, TolkParams* out) {
           out->AddString(string_at(raw->SendMsgFast("back", nullptr, 4, 0), 0).c_str());
         }));
  connect();
  peer.send_frame(call_payload("m", 1));
  const auto call = peer.read_message();
  ASSERT_TRUE(call);
  EXPECT_EQ(call->name(), "back");
  peer.send_frame(reply_payload(*call, BlockWriter().add(std::string("nested"))));
  const auto reply = peer.read_message();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->string_at(0), "nested");
}

TEST_P(ClientDispatch, ServerMayCallTheClosedHookAsAMethod) {
  method("s_c_closed", on_call([](int, TolkParams* in, TolkParams* out) {
           if (in != nullptr && out != nullptr) out->AddBool(true);
         }));
  connect();
  const auto reply = call_client("s_c_closed");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->values.size(), 1u);
  client->close();
}

TEST_P(ClientDispatch, ReservedNamesOfTheServerAreUnregistered) {
  connect();
  for (const char* const name : {"s_c_version", "s_c_close_server", "s_c_req_header",
                                 "s_c_largedata", "s_c_createport", "s_c_log"}) {
    const auto reply = call_client(name);
    ASSERT_TRUE(reply) << name;
    EXPECT_EQ(reply->keys(), Keys{"s_c_sw_name"}) << name;
  }
  EXPECT_TRUE(client->isok());
}

TEST_P(ClientDispatch, ManyCallsInOneWriteAreAllAnswered) {
  method("m", on_call([](int, TolkParams* in, TolkParams* out) {
           out->AddInt(in->GetValue(0)->GetInt());
         }));
  connect();
  std::string calls;
  for (int i = 0; i < 500; ++i) calls += frame(call_payload("m", i, BlockWriter().add(i).bytes()));
  peer.send(calls);
  std::vector<bool> answered(500, false);
  for (int i = 0; i < 500; ++i) {
    const auto reply = peer.read_message();
    ASSERT_TRUE(reply);
    const int value = std::get<int>(*reply->at(0));
    EXPECT_EQ(reply->call_id(), value);
    answered.at(static_cast<std::size_t>(value)) = true;
  }
  EXPECT_EQ(std::count(answered.begin(), answered.end(), true), 500);
}

// Malformed messages from a server.
class BadInputToAClient : public ClientDispatch {
 protected:
  void SetUp() override {
    method("alive", answering("yes", deleted));
    connect();
    connect(bystander.get(), its_peer);
  }
  void TearDown() override {
    EXPECT_TRUE(bystander->isok());
    // The end of a client wakes every call, twice; its handlers are deleted after that.
    if (!client->isok()) {
      EXPECT_TRUE(deleted.wait_for(1));
    }
    CallMeanwhile call(bystander.get(), "m", 1, 0);
    const auto message = its_peer.read_message();
    ASSERT_TRUE(message);
    its_peer.send_frame(reply_payload(*message));
    EXPECT_NE(call.result(), nullptr) << "another client is not disturbed";
  }

  Counter deleted;
  ClientPtr bystander = make_client();
  RawSocket its_peer;
};
TOLK_OVER_TRANSPORTS(BadInputToAClient);

TEST_P(BadInputToAClient, BlockWithoutNameIsDroppedWithOneLine) {
  const Capture out;
  peer.send_frame("");
  peer.send_frame(BlockWriter().add(1).keyed("s_c_sw_threadid", 1).bytes());
  EXPECT_TRUE(client_answers());
  EXPECT_EQ(out.text(), "event empty!\nevent empty!\n");
}

TEST_P(BadInputToAClient, MalformedBlockIsDroppedSilently) {
  const Capture out;
  peer.send_frame("garbage");
  peer.send_frame("\x09");
  peer.send_frame(call_payload("alive", 1) + "\x09");
  EXPECT_TRUE(client_answers());
  EXPECT_EQ(out.text(), "");
}

TEST_P(BadInputToAClient, KeysOfAnyTypeDoNoHarm) {
  const Scalar values[] = {
      std::string("text"), std::string(), Stream{"bytes"}, Stream{""}, 7, -1, true, 2.5e-310};
  const char* const keys[] = {"s_c_sw_name", "s_c_sw_threadid", "s_c_sw_data", "s_c_sw_semid",
                              "VERSION"};
  int answers = 0;
  for (const char* const key : keys) {
    for (const Scalar& value : values) {
      for (const char* const name : {"alive", "retval", "nobody"}) {
        peer.send_frame(named(std::string(name)).keyed(key, value).bytes());
        const bool renamed = std::string_view(key) == "s_c_sw_name";
        if (renamed || std::string_view(name) != "retval") ++answers;
      }
    }
  }
  for (; answers > 0; --answers) ASSERT_TRUE(peer.read_message()) << answers;
  EXPECT_TRUE(client_answers());
}

TEST_P(BadInputToAClient, NameOfAnotherTypeIsUnregistered) {
  for (const Scalar& name : {Scalar(7), Scalar(true), Scalar(1.5)}) {
    const auto reply = answer_to(named(name));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->keys(), Keys{"s_c_sw_name"});
  }
}

TEST_P(BadInputToAClient, NegativeLengthIsAnEmptyFrame) {
  for (const int length : {-4, -5, -100, std::numeric_limits<int>::min()}) {
    const Capture out;
    peer.send(prefix(length) + "dropped");
    EXPECT_TRUE(out.wait_for_line("event empty!")) << length;
    EXPECT_TRUE(client_answers()) << length;
  }
}

TEST_P(BadInputToAClient, LengthsOfMinusOneToMinusThreeSkipOnlyPartOfTheirPrefix) {
  for (const int length : {-1, -2, -3}) {
    const Capture out;
    peer.send(prefix(length));
    EXPECT_TRUE(out.wait_for_line("event empty!"));
    // With the one to three bytes that were left these make a length that drops everything.
    const std::string rest("\0\0\x80", 3);
    peer.send(rest.substr(static_cast<std::size_t>(-1 - length)) + "dropped");
    EXPECT_TRUE(out.wait_for_lines("event empty!", 2));
    EXPECT_TRUE(client_answers()) << length;
  }
}

TEST_P(BadInputToAClient, FrameSplitInItsPrefixIsAnswered) {
  const std::string whole = frame(call_payload("alive", 1));
  peer.send(whole.substr(0, 2));
  peer.send(whole.substr(2));
  EXPECT_TRUE(peer.read_message());
}

TEST_P(BadInputToAClient, EndInsideAFrameIsAnOrdinaryEnd) {
  peer.send(prefix(1000) + "half");
  peer.close();
  EXPECT_TRUE(eventually([this] { return !client->isok(); }));
}

TEST_P(BadInputToAClient, HugeLengthReservesNoMemory) {
  const long before = resident_kib();
  peer.send(prefix(std::numeric_limits<int>::max()) + "little");
  EXPECT_TRUE(peer.is_quiet());
  EXPECT_TRUE(client->isok());
  EXPECT_LT(resident_kib() - before, 200L * 1024)
      << "memory follows the bytes received, not the declared length";
}

TEST_P(BadInputToAClient, ReadOfOneWholeFrameOvertakesAPartialFrame) {
  peer.send(prefix(100000) + "half");
  // One read may return two writes; then both wait. So this repeats until a frame is read alone.
  EXPECT_TRUE(eventually([this] {
    peer.send_frame(call_payload("alive", 1));
    return peer.read_frame(Milliseconds(50)).has_value();
  }));
}

}  // namespace
}  // namespace tolk::test
