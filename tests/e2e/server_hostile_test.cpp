// Peers that send what no library client sends. The server treats each message by the rules of the
// format, and serves another client meanwhile.
#include <gtest/gtest.h>

#include <random>

#include "tests/e2e/support/envelopes.h"
#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

// One value of every type, and no value at all.
const std::vector<std::optional<Scalar>>& every_type() {
  static const std::vector<std::optional<Scalar>> all{
      std::nullopt, Scalar(7),   Scalar(true),          Scalar(1.5),
      Scalar(""),   Scalar("x"), Scalar(Stream{"echo"})};
  return all;
}

std::string describe(const std::optional<Scalar>& value) {
  constexpr const char* kTypeNames[] = {"int", "bool", "double", "string", "stream"};
  return value ? kTypeNames[value->index()] : "absent";
}

class HostilePeer : public ServerTest {
 protected:
  void SetUp() override {
    register_echo();
    start();
    bystander = std::make_unique<RawClient>(address);
    peer = std::make_unique<RawClient>(address);
    ASSERT_TRUE(bystander->is_greeted() && peer->is_greeted());
  }
  void TearDown() override {
    EXPECT_TRUE(serves(*bystander));
    EXPECT_TRUE(RawClient(address).is_greeted());
  }

  // A call of "echo" with another value of `key`.
  static std::string echo_with(const char* key, const std::optional<Scalar>& value) {
    const std::vector<std::pair<const char*, Scalar>> usual{
        {kName, "echo"},
        {kCallId, 3},
        {kArguments, Stream{BlockWriter().add("ping").bytes()}},
        {kToken, "0x9"}};
    BlockWriter block;
    for (const auto& [usual_key, usual_value] : usual) {
      if (std::string(key) != usual_key) {
        block.keyed(usual_key, usual_value);
      } else if (value) {
        block.keyed(key, *value);
      }
    }
    return block.bytes();
  }
  // The answer to that call, or what came instead.
  std::optional<Message> answer_with(const char* key, const std::optional<Scalar>& value) {
    peer->socket.send_frame(echo_with(key, value));
    return peer->socket.read_message();
  }

  std::unique_ptr<RawClient> bystander;
  std::unique_ptr<RawClient> peer;
};
TOLK_OVER_TRANSPORTS(HostilePeer);

// A name that is not a text is the empty name.
TEST_P(HostilePeer, NameOfAnyTypeIsAnswered) {
  for (const auto& value : every_type()) {
    if (!value) continue;
    const bool named = value == Scalar(Stream{"echo"});
    const std::string name = value == Scalar("x") ? "x" : "";
    const auto answer = answer_with(kName, value);
    ASSERT_TRUE(answer) << describe(value);
    EXPECT_EQ(answer->string_at(0), named ? "ping" : "no event: " + name) << describe(value);
    EXPECT_EQ(answer->call_id(), 3);
    EXPECT_EQ(answer->token(), "0x9");
  }
}

TEST_P(HostilePeer, MissingNamePrintsALineAndIsDropped) {
  Capture capture;
  peer->socket.send_frame(echo_with(kName, std::nullopt));
  EXPECT_TRUE(capture.wait_for_text("event empty!\n"));
  EXPECT_TRUE(peer->socket.is_quiet());
  EXPECT_TRUE(serves(*peer));
}

TEST_P(HostilePeer, CallIdOfAnyTypeIsAnswered) {
  for (const auto& value : every_type()) {
    const auto answer = answer_with(kCallId, value);
    ASSERT_TRUE(answer) << describe(value);
    EXPECT_EQ(answer->string_at(0), "ping");
    // The first bytes of a number are the id: 1 for true, 0 for 1.5; a text means 0.
    const int expected = value == Scalar(7) ? 7 : value == Scalar(true) ? 1 : 0;
    EXPECT_EQ(answer->call_id(), value ? std::optional(expected) : std::nullopt) << describe(value);
  }
}

TEST_P(HostilePeer, ArgumentsOfAnyTypeAreAnswered) {
  for (const auto& value : every_type()) {
    const auto answer = answer_with(kArguments, value);
    ASSERT_TRUE(answer) << describe(value);
    EXPECT_EQ(answer->values.size(), 1U) << describe(value);
    EXPECT_EQ(answer->string_at(0), "") << describe(value);
  }
  const auto answer = answer_with(kArguments, Scalar(BlockWriter().add("in a string").bytes()));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->string_at(0), "in a string");
}

TEST_P(HostilePeer, TokenOfAnyTypeIsAnswered) {
  for (const auto& value : every_type()) {
    const auto answer = answer_with(kToken, value);
    ASSERT_TRUE(answer) << describe(value);
    const bool is_string = value && std::holds_alternative<std::string>(*value);
    EXPECT_EQ(answer->token(),
              is_string ? std::optional(std::get<std::string>(*value)) : std::nullopt)
        << describe(value);
  }
}

TEST_P(HostilePeer, UnexpectedRepliesOfAnyTypeAreDroppedSilently) {
  Capture capture;
  for (const char* const key : {kCallId, kToken, kArguments}) {
    for (const auto& value : every_type()) {
      BlockWriter reply;
      reply.keyed(kName, "retval");
      if (value) reply.keyed(key, *value);
      if (std::string(key) != kCallId) reply.keyed(kCallId, 3);
      ASSERT_TRUE(peer->socket.send_frame(reply.bytes()));
    }
  }
  EXPECT_TRUE(serves(*peer));
  EXPECT_TRUE(peer->socket.is_quiet());
  EXPECT_EQ(capture.text(), "");
}

TEST_P(HostilePeer, RepliesWithInvalidTokensDoNoHarm) {
  for (const char* const token : {"", "0x", "0x0", "-1", "0xffffffffffffffffffff", "(nil)", "%n"}) {
    BlockWriter reply;
    reply.keyed(kName, "retval").keyed(kCallId, 3).keyed(kToken, token);
    ASSERT_TRUE(peer->socket.send_frame(reply.bytes()));
  }
  EXPECT_TRUE(serves(*peer));
}

TEST_P(HostilePeer, EnvelopeBeforeAMalformedRecordIsUsed) {
  peer->socket.send_frame(call_payload("foo", 4, {}, "0x9") + "\xFFgarbage");
  const auto answer = peer->socket.read_message();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->string_at(0), "no event: foo");
  EXPECT_EQ(answer->call_id(), 4);
}

TEST_P(HostilePeer, TruncatedCallsDoNoHarm) {
  Capture capture;
  const std::string whole = echo_with(kName, Scalar("echo"));
  const std::size_t name_ends =
      BlockWriter().keyed(kName, "echo").bytes().size();  // from here on it is a call
  int without_name = 0;
  for (std::size_t size = 0; size < whole.size(); ++size) {
    ASSERT_TRUE(peer->socket.send_frame(whole.substr(0, size)));
    const bool named = size >= name_ends - 4;  // the value stays although its check word is cut
    without_name += named ? 0 : 1;
    if (named) {
      ASSERT_TRUE(peer->socket.read_message()) << size;
    }
  }
  EXPECT_TRUE(serves(*peer));
  EXPECT_EQ(capture.count("event empty!"), without_name);
}

TEST_P(HostilePeer, GarbageInFramesDoesNoHarm) {
  std::mt19937 random(20240607);
  for (int i = 0; i < 500; ++i) {
    std::string garbage(random() % 200, '\0');
    for (char& byte : garbage) byte = static_cast<char>(random() % 9);  // mostly tags
    ASSERT_TRUE(peer->socket.send_frame(garbage));
  }
  EXPECT_TRUE(serves(*peer));
}

TEST_P(HostilePeer, GarbageWithoutFramesDoesNoHarm) {
  std::mt19937 random(20240608);
  for (int connection = 0; connection < 50; ++connection) {
    RawClient hostile(address, false);
    std::string garbage(1 + random() % 3000, '\0');
    for (char& byte : garbage) byte = static_cast<char>(random());
    hostile.socket.send(garbage);
    if (connection % 2 == 0) hostile.socket.reset();
  }
}

TEST_P(HostilePeer, DamagedCallsDoNoHarm) {
  std::mt19937 random(20240609);
  const std::string whole = echo_with(kName, Scalar("echo"));
  for (int i = 0; i < 1000; ++i) {
    std::string damaged = whole;
    damaged[random() % damaged.size()] = static_cast<char>(random());
    ASSERT_TRUE(peer->socket.send_frame(damaged));
  }
  peer->socket.close();
}

TEST_P(HostilePeer, DeclaredLengthReservesNoMemory) {
  const long before = resident_kib();
  std::vector<RawClient> promising;
  for (int i = 0; i < 50; ++i) {
    promising.emplace_back(address, false);
    promising.back().socket.send(prefix(2147483647) + "ten bytes.");
  }
  EXPECT_TRUE(eventually([&] { return server->GetClientCount() == 52; }));
  // 100 GiB were promised; a read buffer and a little more is held for each.
  EXPECT_LT(resident_kib() - before, 64L * 1024 + held_back_kib());
}

TEST_P(HostilePeer, DeclaredCountsReserveNoMemory) {
  const std::string list = kListTag + word(0x7FFFFFFF);
  const std::string map = kMapTag + word(0x7FFFFFFF);
  const std::string key{kKeyTag, kStringTag};
  for (const std::string& bomb : {list, map, list + list, list + kKeyTag, map + key}) {
    for (int i = 0; i < 100; ++i) {
      ASSERT_TRUE(peer->socket.send_frame(bomb));
      ASSERT_TRUE(peer->post("echo", 1, bomb));
      ASSERT_TRUE(peer->socket.read_message());
    }
  }
  EXPECT_TRUE(serves(*peer));
}

TEST_P(HostilePeer, ManyRecordsWithOneKeyLeakNoMemory) {
  BlockWriter many;
  while (many.bytes().size() < (1 << 20)) many.keyed("key", "value");
  ASSERT_TRUE(peer->call("echo", 1, many.bytes()));
  const long before = resident_kib();
  for (int i = 0; i < 30; ++i) ASSERT_TRUE(peer->call("echo", 1, many.bytes()));
  EXPECT_LT(resident_kib() - before, 32L * 1024 + held_back_kib());
}

TEST_P(HostilePeer, SilentConnectionsAreNotCounted) {
  std::vector<RawClient> silent;
  silent.reserve(100);
  for (int i = 0; i < 100; ++i) silent.emplace_back(address, false);
  EXPECT_TRUE(serves(*bystander));
  EXPECT_EQ(server->GetClientCount(), 2);
}

TEST_P(HostilePeer, PeerThatNeverReadsDelaysNobody) {
  RawClient deaf(address, false);
  deaf.socket.shrink_receive_buffer();
  const std::string question =
      call_payload("echo", 1, BlockWriter().add(std::string(1 << 16, 'x')).bytes());
  for (int i = 0; i < 64; ++i) ASSERT_TRUE(deaf.socket.send_frame(question));
  EXPECT_TRUE(serves(*bystander));
  deaf.socket.reset();
}

TEST_P(HostilePeer, HalfFramesBeforeTheCloseDoNoHarm) {
  for (int i = 0; i < 50; ++i) {
    RawClient half(address, false);
    half.socket.send(prefix(1000) + std::string(static_cast<std::size_t>(i), 'x'));
    if (i % 2 == 0) half.socket.end_sending();
  }
  EXPECT_TRUE(eventually([&] { return server->GetClientCount() == 2; }));
}

TEST_P(HostilePeer, MalformedPiecesAreAnsweredWithZero) {
  const std::vector<std::string> pieces{
      "",
      BlockWriter().keyed(kCallId, 1).bytes(),
      BlockWriter().keyed(kCallId, "1").add(3).add(Stream{"abc"}).bytes(),
      BlockWriter().keyed(kCallId, 1).add("3").add(Stream{"abc"}).bytes(),
      BlockWriter().keyed(kCallId, 1).add(3).add(7).bytes(),
      BlockWriter().keyed(kCallId, 1).add(2147483647).add(Stream{"abc"}).bytes(),
      "\xFF"};
  for (const char* const method : {"s_c_req_body", "s_c_req_header"}) {
    for (const std::string& piece : pieces) {
      const auto answer = peer->call(method, 1, piece);
      ASSERT_TRUE(answer && answer->at(0));
      EXPECT_EQ(*answer->at(0), Scalar(0));
    }
    const auto answer = peer->call(method);
    ASSERT_TRUE(answer && answer->at(0));
    EXPECT_EQ(*answer->at(0), Scalar(0));
  }
}

TEST_P(HostilePeer, AssembledBlockThatIsNotACallIsRefused) {
  for (const std::string& block : {std::string("\xFF"), BlockWriter().add(1).bytes()}) {
    const std::string piece = BlockWriter()
                                  .keyed(kCallId, 40)
                                  .add(static_cast<int>(block.size()))
                                  .add(Stream{block})
                                  .bytes();
    const auto answer = peer->call("s_c_req_body", 1, piece);
    ASSERT_TRUE(answer && answer->at(0) && answer->at(1));
    EXPECT_EQ(*answer->at(0), Scalar(-1));
    EXPECT_EQ(*answer->at(1), Scalar(0));
  }
}

// A large call of the receiver of pieces is not assembled again.
TEST_P(HostilePeer, LargeCallsDoNotNest) {
  std::string block = BlockWriter().keyed(kName, "echo").bytes();
  for (int depth = 0; depth < 500; ++depth) {
    block = BlockWriter()
                .keyed(kName, "s_c_req_body")
                .keyed(kCallId, 1000 + depth)
                .add(static_cast<int>(block.size()))
                .add(Stream{block})
                .bytes();
  }
  peer->post("s_c_req_body", 1, block);
  const auto result = peer->socket.read_message();
  ASSERT_TRUE(result);
  EXPECT_EQ(result->name(), "s_c_req_body");  // a piece of the result
  const auto piece = read_block(result->arguments().value_or(""));
  ASSERT_TRUE(piece && piece->at(1));
  const auto inner = read_block(std::get<Stream>(*piece->at(1)).bytes);
  ASSERT_TRUE(inner);
  EXPECT_EQ(inner->string_at(0), "no event: s_c_req_body");
  peer->socket.send_frame(reply_payload(*result));
}

}  // namespace
}  // namespace tolk::test
