// Large calls as a server receives them: it joins the pieces, answers them, and sends the result.
#include <gmock/gmock.h>

#include "tests/e2e/large_peer.h"
#include "tests/e2e/support/handlers.h"

namespace tolk::test {
namespace {

using testing::ElementsAre;
using Sizes = std::vector<std::size_t>;

IServerMethod* echo() {
  return on_call([](int, TolkParams* in, TolkParams* out) {
    const std::string bytes = stream_at(in, 0);
    out->AddStream(bytes.data(), static_cast<long>(bytes.size()));
    out->AddKeyValueString("said", "so");
  });
}

// The answer to a last piece, in wire order, from what the receiver adds and the envelope.
std::string complete_answer(int call_id) {
  return BlockWriter()
      .keyed("s_c_sw_name", std::string("retval"))
      .add(1)
      .keyed("s_c_sw_name", std::string("retval"))
      .add(0)
      .keyed("s_c_sw_name", std::string("retval"))
      .keyed("s_c_sw_threadid", call_id)
      .keyed("s_c_sw_semid", std::string("0x1"))
      .bytes();
}

std::string incomplete_answer(int call_id) {
  return BlockWriter()
      .keyed("s_c_sw_name", std::string("retval"))
      .add(0)
      .keyed("s_c_sw_name", std::string("retval"))
      .keyed("s_c_sw_threadid", call_id)
      .keyed("s_c_sw_semid", std::string("0x1"))
      .bytes();
}

std::string payload_of(const std::optional<Message>& message) {
  return message ? message->payload : "nothing came";
}

// A library server and a client on plain sockets.
class LargeCallServer : public OverTransports {
 protected:
  void SetUp() override {
    server->method("echo", echo());
    ASSERT_TRUE(start_server(server.get(), address));
    client.emplace(address);
    ASSERT_TRUE(client->is_greeted());
  }

  void TearDown() override { EXPECT_TRUE(workers_are_free(*server, address)); }

  std::optional<Message> send(int call_id, int total, std::string_view bytes) {
    return send_piece(client->socket, call_id, total, bytes);
  }
  // Sends the last piece of a call without waiting for its answer: the result comes first.
  void send_last(int call_id, int total, std::string_view bytes) {
    client->socket.send_frame(
        call_payload("s_c_req_body", call_id, piece_arguments(call_id, total, bytes), "0x1"));
  }
  // Receives a whole result and answers its last piece too.
  Received take_result() {
    Received result = receive_large(client->socket);
    if (result.last) client->socket.send_frame(reply_payload(*result.last));
    return result;
  }

  const PieceSizeRestored restored{};
  ServerPtr server = make_server();
  std::optional<RawClient> client;
};
TOLK_OVER_TRANSPORTS(LargeCallServer);

TEST_P(LargeCallServer, IncompletePieceIsAnsweredWithZero) {
  EXPECT_EQ(payload_of(send(kLargeCallId, 100, pattern(50))), incomplete_answer(kLargeCallId));
  EXPECT_EQ(payload_of(send(kLargeCallId, 100, pattern(49))), incomplete_answer(kLargeCallId));
}

TEST_P(LargeCallServer, LastPieceIsAnsweredWithOneAfterTheWholeResult) {
  const std::string call = large_call(BlockWriter().add(Stream{"hi"}), "echo", kLargeCallId);
  const auto total = static_cast<int>(call.size());
  ASSERT_TRUE(send(kLargeCallId, total, call.substr(0, 10)).has_value());
  send_last(kLargeCallId, total, call.substr(10));
  const Received result = take_result();
  EXPECT_EQ(result.bytes, BlockWriter()
                              .add(Stream{"hi"})
                              .keyed("said", std::string("so"))
                              .keyed("s_c_sw_name", std::string("s_c_largedata"))
                              .keyed("s_c_sw_threadid", kLargeCallId)
                              .bytes());
  EXPECT_EQ(payload_of(client->socket.read_message()), complete_answer(kLargeCallId));
}

TEST_P(LargeCallServer, LastPieceIsNotAnsweredBeforeTheResultIsAcknowledged) {
  const std::string call = large_call(BlockWriter().add(Stream{"hi"}), "echo", kLargeCallId);
  send_last(kLargeCallId, static_cast<int>(call.size()), call);
  const auto piece = read_piece(client->socket);
  ASSERT_TRUE(piece.has_value());
  EXPECT_TRUE(client->socket.is_quiet());
  client->socket.send_frame(reply_payload(piece->call));
  EXPECT_EQ(payload_of(client->socket.read_message()), complete_answer(kLargeCallId));
}

TEST_P(LargeCallServer, ResultIsCutAtThePieceSize) {
  // A positional stream, "said", and the two keys after them.
  const std::size_t around = 9 + (1 + 9 + 4 + 9 + 2) + added_bytes("s_c_largedata");
  const auto sizes_of_result = [&](std::size_t total) {
    const std::string call =
        large_call(BlockWriter().add(Stream{pattern(total - around)}), "echo", kLargeCallId);
    send_last(kLargeCallId, static_cast<int>(call.size()), call);
    const Received result = take_result();
    EXPECT_EQ(result.bytes.size(), total);
    EXPECT_EQ(payload_of(client->socket.read_message()), complete_answer(kLargeCallId));
    return result.sizes;
  };
  EXPECT_THAT(sizes_of_result(32767), ElementsAre(32767));
  EXPECT_THAT(sizes_of_result(32768), ElementsAre(32768));
  EXPECT_THAT(sizes_of_result(32769), ElementsAre(32768, 1));
  EXPECT_THAT(sizes_of_result(3 * std::size_t{32768}), ElementsAre(32768, 32768, 32768));
  const ClientPtr other = make_client();
  other->SetBigfileBufferSize(50000);  // for the process, and so for this server too
  EXPECT_THAT(sizes_of_result(3 * std::size_t{32768}), ElementsAre(50000, 3 * 32768 - 50000));
}

TEST_P(LargeCallServer, ResultPiecesNameTheCallAndTheTotal) {
  server->SetBigfileBufferSize(60);
  const std::string call = large_call(BlockWriter().add(Stream{"hi"}), "echo", kLargeCallId);
  send_last(kLargeCallId, static_cast<int>(call.size()), call);
  const auto first = read_piece(client->socket);
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->call.call_id(), kLargeCallId);
  EXPECT_EQ(*first->call.arguments(),
            piece_arguments(kLargeCallId, first->total(), first->bytes()));
}

// On purpose: with call id 0 the pieces hold 0, but their calls have the id of the worker thread.
TEST_P(LargeCallServer, CallIdZeroIsInThePiecesButNotInTheirCalls) {
  const std::string call = large_call(BlockWriter().add(Stream{"hi"}), "echo", 0);
  send_last(0, static_cast<int>(call.size()), call);
  const auto piece = read_piece(client->socket);
  ASSERT_TRUE(piece.has_value());
  EXPECT_EQ(*piece->call.arguments(), piece_arguments(0, piece->total(), piece->bytes()));
  EXPECT_NE(piece->call.call_id(), 0);
}

TEST_P(LargeCallServer, UnansweredResultPieceEndsTheSending) {
  server->SetBigfileBufferSize(60);
  server->SetTimeoutStep(20);
  const std::string call = large_call(BlockWriter().add(Stream{"hi"}), "echo", kLargeCallId);
  // The first sweep comes late, so that only the second piece times out after exactly its own
  // limit.
  for (int piece = 0; piece < 2; ++piece) {
    const auto begin = std::chrono::steady_clock::now();
    send_last(kLargeCallId, static_cast<int>(call.size()), call);
    ASSERT_TRUE(
        read_piece(client->socket).has_value());  // unanswered: it times out after half a second
    EXPECT_EQ(payload_of(client->socket.read_message()), complete_answer(kLargeCallId));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, Milliseconds(500));
  }
}

// On purpose: the kept answer to an earlier piece is taken for the answer to an unanswered one.
TEST_P(LargeCallServer, StaleAnswerCountsForAResultPiece) {
  server->SetBigfileBufferSize(30);
  const std::string call = large_call(BlockWriter().add(Stream{"hi"}), "echo", kLargeCallId);
  send_last(kLargeCallId, static_cast<int>(call.size()), call);
  const auto first = read_piece(client->socket);
  ASSERT_TRUE(first.has_value());
  client->socket.send_frame(reply_payload(first->call));
  ASSERT_TRUE(read_piece(client->socket).has_value());  // unanswered
  EXPECT_TRUE(read_piece(client->socket).has_value());  // and still the next one comes
}

TEST_P(LargeCallServer, UnknownMethodIsNamedInTheReply) {
  const std::string call = large_call(BlockWriter(), "nobody", kLargeCallId);
  send_last(kLargeCallId, static_cast<int>(call.size()), call);
  const auto result = read_block(take_result().bytes);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->string_at(0), "no event: nobody");
}

TEST_P(LargeCallServer, CatchAllGetsLargeCallsToo) {
  server->methodall(on_any_call([](const char* name, int, TolkParams* in, TolkParams* out) {
    out->AddString((std::string(name) + " " + string_at(in, 0)).c_str());
  }));
  const std::string call =
      large_call(BlockWriter().add(std::string("hi")), "anything", kLargeCallId);
  send_last(kLargeCallId, static_cast<int>(call.size()), call);
  const auto result = read_block(take_result().bytes);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->string_at(0), "anything hi");
}

TEST_P(LargeCallServer, VersionRequestMayBeALargeCall) {
  const std::string call = large_call(BlockWriter().keyed("VERSION", std::string(kVersion)),
                                      "s_c_version", kLargeCallId);
  send_last(kLargeCallId, static_cast<int>(call.size()), call);
  const auto result = read_block(take_result().bytes);
  ASSERT_TRUE(result.has_value());
  ASSERT_NE(result->at(0), nullptr);
  EXPECT_EQ(*result->at(0), Scalar(true));
}

// Only an ordinary call closes the server.
TEST_P(LargeCallServer, CloseRequestAsALargeCallIsAnUnknownMethod) {
  const std::string call = large_call(BlockWriter(), "s_c_close_server", kLargeCallId);
  send_last(kLargeCallId, static_cast<int>(call.size()), call);
  const auto result = read_block(take_result().bytes);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->string_at(0), "no event: s_c_close_server");
  EXPECT_TRUE(server->isok());
}

TEST_P(LargeCallServer, HeaderReceiverAssemblesSeparately) {
  const std::string call = large_call(BlockWriter().add(Stream{"hi"}), "echo", kLargeCallId);
  const auto total = static_cast<int>(call.size());
  // Half a block under the same id at the other receiver changes nothing here.
  ASSERT_TRUE(send(kLargeCallId, total, call.substr(0, 10)).has_value());
  client->post("s_c_req_header", kLargeCallId, piece_arguments(kLargeCallId, total, call));
  const auto result = read_block(take_result().bytes);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(*result->at(0), Scalar(Stream{"hi"}));
}

TEST_P(LargeCallServer, PiecesOfTwoClientsWithTheirOwnIdsDoNotMix) {
  RawClient second(address);
  ASSERT_TRUE(second.is_greeted());
  const std::string one = large_call(BlockWriter().add(Stream{pattern(500)}), "echo", 1);
  const std::string two = large_call(BlockWriter().add(Stream{pattern(600)}), "echo", 2);
  const auto one_total = static_cast<int>(one.size());
  const auto two_total = static_cast<int>(two.size());
  ASSERT_TRUE(send(1, one_total, one.substr(0, 300)).has_value());
  ASSERT_TRUE(send_piece(second.socket, 2, two_total, two.substr(0, 300)).has_value());
  send_last(1, one_total, one.substr(300));
  EXPECT_EQ(*read_block(take_result().bytes)->at(0), Scalar(Stream{pattern(500)}));
  second.socket.send_frame(
      call_payload("s_c_req_body", 2, piece_arguments(2, two_total, two.substr(300)), "0x1"));
  EXPECT_EQ(*read_block(receive_large(second.socket).bytes)->at(0), Scalar(Stream{pattern(600)}));
}

// On purpose: pieces are kept by call id alone. Ids of threads are unique on a machine; a caller
// that passes other ids has to keep them distinct.
TEST_P(LargeCallServer, PiecesOfTwoClientsWithTheSameIdAreMixed) {
  RawClient second(address);
  ASSERT_TRUE(second.is_greeted());
  const std::string call = large_call(BlockWriter().add(Stream{"hi"}), "echo", kLargeCallId);
  const auto total = static_cast<int>(call.size());
  ASSERT_TRUE(send(kLargeCallId, total, call.substr(0, 10)).has_value());
  second.socket.send_frame(call_payload(
      "s_c_req_body", kLargeCallId, piece_arguments(kLargeCallId, total, call.substr(10)), "0x1"));
  EXPECT_EQ(*read_block(receive_large(second.socket).bytes)->at(0), Scalar(Stream{"hi"}));
}

// On purpose: what an abandoned call has sent waits for the next call with its id.
TEST_P(LargeCallServer, PiecesOfAnAbandonedCallArePrependedToTheNextWithItsId) {
  const std::string call = large_call(BlockWriter().add(Stream{"hi"}), "echo", kLargeCallId);
  const auto total = static_cast<int>(call.size());
  ASSERT_TRUE(send(kLargeCallId, total, call.substr(0, 10)).has_value());
  client->socket.close();
  client.emplace(address);
  ASSERT_TRUE(client->is_greeted());
  send_last(kLargeCallId, total, call.substr(10));
  EXPECT_EQ(*read_block(take_result().bytes)->at(0), Scalar(Stream{"hi"}));
}

TEST_P(LargeCallServer, ClientThatLeavesAtAnyPieceDisturbsNobody) {
  server->SetBigfileBufferSize(60);
  const std::string call =
      large_call(BlockWriter().add(Stream{pattern(200)}), "echo", kLargeCallId);
  for (int taken_pieces = 0; taken_pieces < 4; ++taken_pieces) {
    const int id = 100 + taken_pieces;
    RawClient leaving(address);
    ASSERT_TRUE(leaving.is_greeted());
    ASSERT_TRUE(send_piece(leaving.socket, id, static_cast<int>(call.size()), call.substr(0, 50)));
    leaving.socket.send_frame(
        call_payload("s_c_req_body", id,
                     piece_arguments(id, static_cast<int>(call.size()), call.substr(50)), "0x1"));
    for (int piece = 0; piece < taken_pieces; ++piece) {
      const auto got = read_piece(leaving.socket);
      ASSERT_TRUE(got.has_value());
      leaving.socket.send_frame(reply_payload(got->call));
    }
    leaving.socket.close();
    EXPECT_TRUE(client->call("nobody").has_value());
  }
}

}  // namespace
}  // namespace tolk::test
