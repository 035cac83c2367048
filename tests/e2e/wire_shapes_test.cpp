// Every kind of message, byte for byte, as a peer without the library sees it.
#include <gtest/gtest.h>

#include <thread>

#include "tests/e2e/support/golden.h"
#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/raw_peer.h"

namespace tolk::test {
namespace {

constexpr int kCallIdOfTheFiles = 5;

// What the golden calls carry: the positional value 7 and the keyed value ok = true.
void fill_shapes(TolkParams& block) {
  block.AddInt(7);
  block.AddKeyValueBool("ok", true);
}

std::string hex_of(const std::optional<std::string>& payload) {
  return payload ? to_hex(frame(*payload)) : "nothing came";
}

// A library client and the plain-socket server that it is connected to.
class ClientWire : public OverTransports {
 protected:
  void SetUp() override { connect(); }
  void TearDown() override { client->SetBigfileBufferSize(32768); }

  void connect() {
    ASSERT_TRUE(connect_client(client.get(), address));
    peer = server.take();
    ASSERT_TRUE(peer.is_open());
  }
  // The next message with its token masked.
  std::string next() {
    const auto payload = peer.read_frame();
    return payload ? to_hex(with_token_masked(*payload)) : "nothing came";
  }

  RawServer server{address};
  ClientPtr client = make_client();
  RawSocket peer;
};
TOLK_OVER_TRANSPORTS(ClientWire);

TEST_P(ClientWire, CallMatchesTheGoldenFile) {
  TolkParams arguments;
  fill_shapes(arguments);
  std::thread caller([&] { client->SendMsg("sum", &arguments, kCallIdOfTheFiles, 1); });
  EXPECT_EQ(next(), to_hex(golden("call")));
  caller.join();
}

TEST_P(ClientWire, CallWithoutArgumentsMatchesTheGoldenFile) {
  std::thread caller([&] { client->SendMsgFast("sum", nullptr, kCallIdOfTheFiles, 1); });
  EXPECT_EQ(next(), to_hex(golden("call_without_arguments")));
  caller.join();
}

TEST_P(ClientWire, PostedCallMatchesTheGoldenFile) {
  TolkParams arguments;
  fill_shapes(arguments);
  client->PostMsg("sum", &arguments, kCallIdOfTheFiles);
  EXPECT_EQ(next(), to_hex(golden("posted_call")));
  client->PostMsgFast("sum", &arguments, kCallIdOfTheFiles);
  EXPECT_EQ(next(), to_hex(golden("posted_call")));
}

TEST_P(ClientWire, PieceOfALargeCallMatchesTheGoldenFile) {
  client->SetBigfileBufferSize(64);
  TolkParams arguments;
  arguments.AddStream(std::string(100, 'x').c_str(), 100);
  std::thread caller([&] { client->SendMsgEx("sum", &arguments, kCallIdOfTheFiles, 0); });
  EXPECT_EQ(next(), to_hex(golden("large_piece")));
  peer.close();
  caller.join();
}

class ClientReplyWire : public ClientWire {
 protected:
  void SetUp() override {
    client->method("sum", on_call([](int, TolkParams*, TolkParams* out) { fill_shapes(*out); }));
    connect();
  }
};
TOLK_OVER_TRANSPORTS(ClientReplyWire);

TEST_P(ClientReplyWire, ReplyMatchesTheGoldenFile) {
  peer.send_frame(call_payload("sum", kCallIdOfTheFiles, {}, "0x1"));
  EXPECT_EQ(hex_of(peer.read_frame()), to_hex(golden("client_reply")));
}

TEST_P(ClientReplyWire, ReplyToACallWithoutIdAndTokenMatchesTheGoldenFile) {
  peer.send_frame(BlockWriter().keyed("s_c_sw_name", "sum").bytes());
  EXPECT_EQ(hex_of(peer.read_frame()), to_hex(golden("client_reply_without_id")));
}

TEST_P(ClientReplyWire, ReplyWithoutMethodMatchesTheGoldenFile) {
  peer.send_frame(call_payload("foo", kCallIdOfTheFiles, {}, "0x1"));
  EXPECT_EQ(hex_of(peer.read_frame()), to_hex(golden("client_no_method_reply")));
}

TEST_P(ClientReplyWire, ReplyToAPieceMatchesTheGoldenFile) {
  const std::string piece = BlockWriter()
                                .keyed("s_c_largedata", true)
                                .keyed("s_c_sw_threadid", kCallIdOfTheFiles)
                                .add(100)
                                .add(Stream{"xyz"})
                                .bytes();
  peer.send_frame(call_payload("s_c_req_body", kCallIdOfTheFiles, piece, "0x1"));
  EXPECT_EQ(hex_of(peer.read_frame()), to_hex(golden("client_piece_reply")));
}

class Handshake : public OverTransports {};
TOLK_OVER_TRANSPORTS(Handshake);

TEST_P(Handshake, RequestMatchesTheGoldenFile) {
  RawServer server(address, silent());
  ClientPtr client = make_client();
  std::thread connecting([&] { connect_client(client.get(), address); });
  RawSocket peer = server.take();
  const auto question = peer.read_frame();
  peer.close();
  connecting.join();
  ASSERT_TRUE(question);
  const std::string fixed_id = with_call_id(*question, 1);
  EXPECT_EQ(to_hex(with_token_masked(fixed_id)), to_hex(golden("handshake_request")));
}

// A library server and the plain-socket client that is connected to it.
class ServerWire : public OverTransports {
 protected:
  void SetUp() override {
    server->method("sum", on_call([](int, TolkParams*, TolkParams* out) { fill_shapes(*out); }));
    server->method("s_c_connect", on_call([id = id](int connection, TolkParams*, TolkParams*) {
                     *id = connection;
                   }));
    ASSERT_TRUE(start_server(server.get(), address));
    client = RawSocket::connect_to(address);
    ASSERT_TRUE(client.is_open());
  }

  std::string answer_to(const std::string& payload) {
    client.send_frame(payload);
    return hex_of(client.read_frame());
  }
  std::string next() {
    const auto payload = client.read_frame();
    return payload ? to_hex(with_token_masked(*payload)) : "nothing came";
  }

  std::shared_ptr<std::atomic<int>> id = std::make_shared<std::atomic<int>>(0);
  ServerPtr server = make_server();
  RawSocket client;
};
TOLK_OVER_TRANSPORTS(ServerWire);

TEST_P(ServerWire, HandshakeReplyMatchesTheGoldenFile) {
  EXPECT_EQ(answer_to(call_payload("s_c_version", 1, version_arguments(), "0x1")),
            to_hex(golden("handshake_reply")));
}

TEST_P(ServerWire, HandshakeReplyToAnotherVersionMatchesTheGoldenFile) {
  EXPECT_EQ(answer_to(call_payload("s_c_version", 1, version_arguments("2.0"), "0x1")),
            to_hex(golden("handshake_reply_refused")));
}

TEST_P(ServerWire, ReplyMatchesTheGoldenFile) {
  EXPECT_EQ(answer_to(call_payload("sum", kCallIdOfTheFiles, {}, "0x1")),
            to_hex(golden("server_reply")));
}

TEST_P(ServerWire, ReplyToACallWithoutIdAndTokenMatchesTheGoldenFile) {
  EXPECT_EQ(answer_to(BlockWriter().keyed("s_c_sw_name", "sum").bytes()),
            to_hex(golden("server_reply_without_id")));
}

TEST_P(ServerWire, ReplyWithoutMethodMatchesTheGoldenFile) {
  EXPECT_EQ(answer_to(call_payload("foo", kCallIdOfTheFiles, {}, "0x1")),
            to_hex(golden("server_no_method_reply")));
}

TEST_P(ServerWire, ReplyToACloseRequestMatchesTheGoldenFile) {
  EXPECT_EQ(answer_to(call_payload("s_c_close_server", kCallIdOfTheFiles, {}, "0x1")),
            to_hex(golden("close_server_reply")));
}

TEST_P(ServerWire, ReplyToACloseRequestWithoutIdMatchesTheGoldenFile) {
  EXPECT_EQ(answer_to(BlockWriter().keyed("s_c_sw_name", "s_c_close_server").bytes()),
            to_hex(golden("close_server_reply_without_id")));
}

TEST_P(ServerWire, ReplyToAPieceMatchesTheGoldenFile) {
  const std::string piece = BlockWriter()
                                .keyed("s_c_largedata", true)
                                .keyed("s_c_sw_threadid", kCallIdOfTheFiles)
                                .add(100)
                                .add(Stream{"xyz"})
                                .bytes();
  EXPECT_EQ(answer_to(call_payload("s_c_req_body", kCallIdOfTheFiles, piece, "0x1")),
            to_hex(golden("server_piece_reply")));
  EXPECT_EQ(answer_to(call_payload("s_c_req_header", kCallIdOfTheFiles, piece, "0x1")),
            to_hex(golden("server_piece_reply")));
}

// The last piece of a call: first the pieces of the result come, then the answer.
TEST_P(ServerWire, ResultAndReplyToTheLastPieceMatchTheGoldenFiles) {
  const std::string call = BlockWriter().keyed("s_c_sw_name", "sum").bytes();
  const std::string piece = BlockWriter()
                                .keyed("s_c_largedata", true)
                                .keyed("s_c_sw_threadid", kCallIdOfTheFiles)
                                .add(static_cast<int>(call.size()))
                                .add(Stream{call})
                                .bytes();
  client.send_frame(call_payload("s_c_req_body", kCallIdOfTheFiles, piece, "0x1"));
  const auto result = client.read_message();
  ASSERT_TRUE(result);
  EXPECT_EQ(to_hex(with_token_masked(result->payload)), to_hex(golden("large_result_piece")));
  client.send_frame(reply_payload(*result));
  EXPECT_EQ(hex_of(client.read_frame()), to_hex(golden("server_last_piece_reply")));
}

TEST_P(ServerWire, CallMatchesTheGoldenFile) {
  ASSERT_NE(answer_to(call_payload("sum", 1, {}, "0x1")), "nothing came");
  TolkParams arguments;
  fill_shapes(arguments);
  std::thread caller([&] { server->SendMsg(*id, "sum", &arguments, kCallIdOfTheFiles, 1); });
  EXPECT_EQ(next(), to_hex(golden("call")));
  caller.join();
}

TEST_P(ServerWire, PostedCallMatchesTheGoldenFile) {
  ASSERT_NE(answer_to(call_payload("sum", 1, {}, "0x1")), "nothing came");
  TolkParams arguments;
  fill_shapes(arguments);
  server->PostMsg(*id, "sum", &arguments, kCallIdOfTheFiles);
  EXPECT_EQ(next(), to_hex(golden("posted_call")));
}

}  // namespace
}  // namespace tolk::test
