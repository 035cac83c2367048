// Malformed pieces: the receiver answers each one and drops it.
#include <gmock/gmock.h>

#include "tests/e2e/large_peer.h"
#include "tests/e2e/support/handlers.h"

namespace tolk::test {
namespace {

using testing::ElementsAre;

constexpr int kTaken = 0;
constexpr int kComplete = 1;
constexpr int kMalformed = -1;

std::vector<int> numbers_in(const std::optional<Message>& answer) {
  std::vector<int> numbers;
  for (std::size_t at = 0; answer && at < answer->values.size(); ++at) {
    const Scalar* const value = answer->at(at);
    if (value != nullptr) numbers.push_back(std::get<int>(*value));
  }
  return numbers;
}

BlockWriter header(int call_id) {
  return BlockWriter().keyed("s_c_largedata", true).keyed("s_c_sw_threadid", call_id);
}

// Each is a complete piece of one byte with one mistake.
std::vector<std::string> mistaken_pieces() {
  const Scalar byte = Stream{"x"};
  return {
      "",
      "no block",
      BlockWriter().add(1).add(byte).bytes(),
      BlockWriter().keyed("s_c_sw_threadid", std::string("77")).add(1).add(byte).bytes(),
      BlockWriter().keyed("s_c_sw_threadid", true).add(1).add(byte).bytes(),
      BlockWriter().keyed("s_c_sw_threadid", 77.0).add(1).add(byte).bytes(),
      BlockWriter().keyed("s_c_sw_threadid", byte).add(1).add(byte).bytes(),
      header(kLargeCallId).bytes(),
      header(kLargeCallId).add(byte).add(byte).bytes(),
      header(kLargeCallId).add(std::string("1")).add(byte).bytes(),
      header(kLargeCallId).add(1.0).add(byte).bytes(),
      header(kLargeCallId).list({1}).add(byte).bytes(),
      header(kLargeCallId).add(1).add(1).bytes(),
      header(kLargeCallId).add(1).add(1.0).bytes(),
      header(kLargeCallId).add(1).add(true).bytes(),
      header(kLargeCallId).add(1).add(std::string("x")).bytes(),
      header(kLargeCallId).add(1).list({byte}).bytes(),
      header(kLargeCallId).add(1).map({{"x", byte}}).bytes(),
  };
}

class BadPieces : public OverTransports {
 protected:
  void SetUp() override {
    server->method("hello", answering("hello"));
    ASSERT_TRUE(start_server(server.get(), address));
    client.emplace(address);
    ASSERT_TRUE(client->is_greeted());
  }

  void TearDown() override { EXPECT_TRUE(workers_are_free(*server, address)); }

  std::optional<Message> send(const std::optional<std::string>& arguments) {
    return client->call("s_c_req_body", kLargeCallId, arguments);
  }
  // A correct large call with the call id of the bad ones.
  std::string result_of_good_call() {
    const std::string call = large_call(BlockWriter(), "hello", kLargeCallId);
    client->post("s_c_req_body", kLargeCallId,
                 piece_arguments(kLargeCallId, static_cast<int>(call.size()), call));
    const Received received = receive_large(client->socket);
    if (received.last) client->socket.send_frame(reply_payload(*received.last));
    const auto result = read_block(received.bytes);
    client->socket.read_message();  // the answer to the piece
    return result ? result->string_at(0) : "no result";
  }

  ServerPtr server = make_server();
  std::optional<RawClient> client;
};
TOLK_OVER_TRANSPORTS(BadPieces);

TEST_P(BadPieces, MissingAndMistypedFieldsAreAnsweredWithZeroAndDropped) {
  EXPECT_THAT(numbers_in(send(std::nullopt)), ElementsAre(kTaken));
  for (const std::string& piece : mistaken_pieces()) {
    EXPECT_THAT(numbers_in(send(piece)), ElementsAre(kTaken));
  }
  EXPECT_EQ(result_of_good_call(), "hello");
}

TEST_P(BadPieces, PieceWithoutBytesIsEmpty) {
  EXPECT_THAT(numbers_in(send(header(kLargeCallId).add(1).bytes())), ElementsAre(kTaken));
  // A total of 0: an empty block, which has no name.
  EXPECT_THAT(numbers_in(send(header(kLargeCallId).add(0).bytes())),
              ElementsAre(kMalformed, kTaken));
}

TEST_P(BadPieces, MalformedBlockIsAnsweredWithMinusOneAndDropped) {
  EXPECT_THAT(numbers_in(send(piece_arguments(kLargeCallId, 1, "x"))),
              ElementsAre(kMalformed, kTaken));
  EXPECT_THAT(numbers_in(send(piece_arguments(kLargeCallId, 3, "xy"))), ElementsAre(kTaken));
  const auto answer = send(piece_arguments(kLargeCallId, 3, "z"));
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->payload, BlockWriter()
                                 .keyed("s_c_sw_name", std::string("retval"))
                                 .add(kMalformed)
                                 .add(kTaken)
                                 .keyed("s_c_sw_name", std::string("retval"))
                                 .keyed("s_c_sw_threadid", kLargeCallId)
                                 .keyed("s_c_sw_semid", std::string("0x1"))
                                 .bytes());
  EXPECT_EQ(result_of_good_call(), "hello");
}

TEST_P(BadPieces, BlockWithoutANameIsAnsweredWithMinusOne) {
  const std::string nameless = BlockWriter().add(1).bytes();
  const std::string numbered = BlockWriter().keyed("s_c_sw_name", 5).bytes();
  for (const std::string& block : {nameless, numbered}) {
    const auto total = static_cast<int>(block.size());
    EXPECT_THAT(numbers_in(send(piece_arguments(kLargeCallId, total, block))),
                ElementsAre(kMalformed, kTaken));
  }
}

TEST_P(BadPieces, BytesBeyondTheDeclaredTotalBelongToTheBlock) {
  const std::string call = large_call(BlockWriter(), "hello", kLargeCallId);
  for (const int declared : {1, 0, -5}) {
    client->post("s_c_req_body", kLargeCallId, piece_arguments(kLargeCallId, declared, call));
    const Received received = receive_large(client->socket);
    ASSERT_TRUE(received.last.has_value()) << declared;
    EXPECT_EQ(read_block(received.bytes)->string_at(0), "hello");
    client->socket.send_frame(reply_payload(*received.last));
    EXPECT_THAT(numbers_in(client->socket.read_message()), ElementsAre(kComplete, kTaken));
  }
}

TEST_P(BadPieces, HugeDeclaredTotalReservesNoMemory) {
  for (int id = 1000; id < 1200; ++id) {
    const auto answer =
        client->call("s_c_req_body", id, piece_arguments(id, 0x7FFFFFFF, pattern(10)));
    EXPECT_THAT(numbers_in(answer), ElementsAre(kTaken));
  }
  EXPECT_EQ(result_of_good_call(), "hello");
}

// A piece inside a piece inside a piece, each complete and addressed to the receiver of pieces.
std::string nested_pieces(int depth, int call_id) {
  const auto head = [&](std::size_t inner) {
    return header(call_id)
        .keyed("s_c_sw_name", std::string("s_c_req_body"))
        .add(static_cast<int>(inner))
        .bytes();
  };
  const auto size_word = [](std::size_t size) { return word(static_cast<std::uint32_t>(size)); };
  constexpr std::size_t kStreamRecordBytes = 9;
  std::vector<std::size_t> sizes{large_call(BlockWriter(), "hello", call_id).size()};
  for (int i = 0; i < depth; ++i) {
    sizes.push_back(head(sizes.back()).size() + kStreamRecordBytes + sizes.back());
  }
  std::string block;
  for (std::size_t i = sizes.size() - 1; i > 0; --i) {
    block += head(sizes[i - 1]);
    block += kStreamTag + size_word(sizes[i - 1]);
  }
  block += large_call(BlockWriter(), "hello", call_id);
  for (std::size_t i = 1; i < sizes.size(); ++i) block += size_word(sizes[i] - 4);
  return block;
}

TEST_P(BadPieces, PieceInsideAPieceIsAnUnknownMethodAtAnyDepth) {
  for (const int depth : {1, 2, 20000}) {
    const std::string block = nested_pieces(depth, kLargeCallId);
    client->post("s_c_req_body", kLargeCallId,
                 piece_arguments(kLargeCallId, static_cast<int>(block.size()), block));
    const Received received = receive_large(client->socket);
    ASSERT_TRUE(received.last.has_value());
    EXPECT_EQ(read_block(received.bytes)->string_at(0), "no event: s_c_req_body");
    client->socket.send_frame(reply_payload(*received.last));
    EXPECT_THAT(numbers_in(client->socket.read_message()), ElementsAre(kComplete, kTaken));
  }
  EXPECT_EQ(result_of_good_call(), "hello");
}

TEST_P(BadPieces, HeaderInsideAPieceIsAnUnknownMethod) {
  const std::string block = large_call(BlockWriter().add(0), "s_c_req_header", kLargeCallId);
  client->post("s_c_req_body", kLargeCallId,
               piece_arguments(kLargeCallId, static_cast<int>(block.size()), block));
  const Received received = receive_large(client->socket);
  EXPECT_EQ(read_block(received.bytes)->string_at(0), "no event: s_c_req_header");
}

class BadResultPieces : public OverTransports {};
TOLK_OVER_TRANSPORTS(BadResultPieces);

// The client answers them with the bare envelope, and goes on waiting for its result.
TEST_P(BadResultPieces, AreAnsweredAndDropped) {
  RawServer server(address);
  const ClientPtr client = make_client();
  ASSERT_TRUE(connect_client(client.get(), address));
  LargeCall call;
  RawSocket peer = server.take();
  call.begin(*client, "m", nullptr, kLargeCallId);
  const Received received = receive_large(peer);
  ASSERT_TRUE(received.last.has_value());
  peer.send_frame(taken(*received.last));
  for (const std::string& piece : mistaken_pieces()) {
    peer.send_frame(call_payload("s_c_req_body", kLargeCallId, piece, "0x1"));
    const auto answer = peer.read_message();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->payload, BlockWriter()
                                   .keyed("s_c_sw_threadid", kLargeCallId)
                                   .keyed("s_c_sw_semid", std::string("0x1"))
                                   .keyed("s_c_sw_name", std::string("retval"))
                                   .bytes());
  }
  EXPECT_FALSE(call.is_over());
  ASSERT_TRUE(send_large(peer, kLargeCallId, BlockWriter().add(5).bytes()).has_value());
  TolkParams* const result = call.result();
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->GetValue(0)->GetInt(), 5);
}

}  // namespace
}  // namespace tolk::test
