// Large calls of a client: what goes over the wire, and what comes back.
#include <gmock/gmock.h>

#include <chrono>
#include <thread>

#include "tests/e2e/large_peer.h"
#include "tests/e2e/support/capture.h"
#include "tests/e2e/support/handlers.h"

namespace tolk::test {
namespace {

using testing::ElementsAre;
using Sizes = std::vector<std::size_t>;

// A library client and a server on plain sockets.
class LargeCallClient : public OverTransports {
 protected:
  void SetUp() override {
    ASSERT_TRUE(connect_client(client.get(), address));
    peer = server.take();
    ASSERT_TRUE(peer.is_open());
  }

  // Answers the call that is under way: `result` in one piece, then the last piece of the call.
  void answer(const Received& received, std::string_view result, int call_id = kLargeCallId) {
    ASSERT_TRUE(received.last.has_value());
    const auto reply = send_large(peer, call_id, result);
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(reply->name(), "retval");
    peer.send_frame(taken(*received.last));
  }

  // How a block of `total` bytes is cut.
  Sizes cut(std::size_t total) {
    TolkParams arguments;
    fill_to(arguments, "m", total);
    call.begin(*client, "m", &arguments, kLargeCallId);
    const Received received = receive_large(peer);
    EXPECT_EQ(received.bytes.size(), total);
    answer(received, "");
    EXPECT_NE(call.result(), nullptr);
    return received.sizes;
  }

  // How long an unanswered piece holds the lock of calls: until then no call of another client is
  // sent.
  Milliseconds time_of_a_piece(int fourth_argument) {
    const ClientPtr caller = make_client();
    EXPECT_TRUE(connect_client(caller.get(), address));
    RawSocket callers_peer = server.take();
    const auto begin = std::chrono::steady_clock::now();
    TolkParams arguments;
    call.begin(*caller, "m", &arguments, kLargeCallId, fourth_argument);
    EXPECT_TRUE(read_piece(callers_peer).has_value());
    std::thread other([&] { client->SendMsg("m", nullptr, 1, 1); });
    EXPECT_TRUE(peer.read_message().has_value());
    const auto time = std::chrono::steady_clock::now() - begin;
    other.join();
    callers_peer.close();
    EXPECT_EQ(call.result(), nullptr);
    return std::chrono::floor<Milliseconds>(time);
  }

  const PieceSizeRestored restored{};
  RawServer server{address};
  ClientPtr client = make_client();
  LargeCall call;
  RawSocket peer;  // ends a call that is under way, so it goes first
};
TOLK_OVER_TRANSPORTS(LargeCallClient);

TEST_P(LargeCallClient, BlocksAreCutAtThePieceSize) {
  EXPECT_THAT(cut(32767), ElementsAre(32767));
  EXPECT_THAT(cut(32768), ElementsAre(32768));
  EXPECT_THAT(cut(32769), ElementsAre(32768, 1));
  EXPECT_THAT(cut(3 * std::size_t{32768}), ElementsAre(32768, 32768, 32768));
  EXPECT_THAT(cut(3 * std::size_t{32768} + 1), ElementsAre(32768, 32768, 32768, 1));
}

TEST_P(LargeCallClient, PieceSizeSetOnAnyObjectApplies) {
  client->SetBigfileBufferSize(100);
  EXPECT_THAT(cut(200), ElementsAre(100, 100));
  const ServerPtr other = make_server();
  other->SetBigfileBufferSize(70);
  EXPECT_EQ(client->GetBigfileBufferSize(), 70);
  EXPECT_THAT(cut(200), ElementsAre(70, 70, 60));
  other->SetBigfileBufferSize(1);
  EXPECT_EQ(cut(80), Sizes(80, 1));
  other->SetBigfileBufferSize(1 << 20);
  EXPECT_THAT(cut(3 * std::size_t{32768}), ElementsAre(3 * std::size_t{32768}));
}

// On purpose: the setting is not checked; a sender uses the default in place of an invalid size.
TEST_P(LargeCallClient, InvalidPieceSizesMeanTheDefault) {
  for (const int size : {0, -1}) {
    client->SetBigfileBufferSize(size);
    EXPECT_EQ(client->GetBigfileBufferSize(), size);
    EXPECT_THAT(cut(32769), ElementsAre(32768, 1));
  }
}

TEST_P(LargeCallClient, PieceIsAnOrdinaryCallOfThePieceReceiver) {
  TolkParams arguments;
  arguments.AddInt(7);
  call.begin(*client, "m", &arguments, kLargeCallId);
  const auto piece = read_piece(peer);
  ASSERT_TRUE(piece.has_value());
  const std::string block = large_call(BlockWriter().add(7), "m", kLargeCallId);
  EXPECT_EQ(piece->call.call_id(), kLargeCallId);
  EXPECT_TRUE(piece->call.token().has_value());
  EXPECT_EQ(*piece->call.arguments(),
            piece_arguments(kLargeCallId, static_cast<int>(block.size()), block));
}

TEST_P(LargeCallClient, CallWithoutArgumentsSendsTheTwoKeys) {
  const std::string keys = large_call(BlockWriter(), "m", kLargeCallId);
  TolkParams empty;
  for (TolkParams* const arguments : {&empty, static_cast<TolkParams*>(nullptr)}) {
    call.begin(*client, "m", arguments, kLargeCallId);
    const Received received = receive_large(peer);
    EXPECT_EQ(received.bytes, keys);
    answer(received, BlockWriter().add(1).bytes());
    EXPECT_NE(call.result(), nullptr);
  }
}

TEST_P(LargeCallClient, NextPieceWaitsForTheAnswer) {
  client->SetBigfileBufferSize(100);
  TolkParams arguments;
  fill_to(arguments, "m", 200);
  call.begin(*client, "m", &arguments, kLargeCallId);
  const auto first = read_piece(peer);
  ASSERT_TRUE(first.has_value());
  EXPECT_TRUE(peer.is_quiet());
  peer.send_frame(taken(first->call));
  EXPECT_TRUE(read_piece(peer).has_value());
}

TEST_P(LargeCallClient, UnansweredPieceEndsTheSendingButNotTheWait) {
  client->SetBigfileBufferSize(100);
  TolkParams arguments;
  fill_to(arguments, "m", 250);
  call.begin(*client, "m", &arguments, kLargeCallId);
  ASSERT_TRUE(read_piece(peer).has_value());
  EXPECT_TRUE(peer.is_quiet(Milliseconds(1500)));  // the piece has half a second
  EXPECT_FALSE(call.is_over());
  peer.close();
  EXPECT_EQ(call.result(), nullptr);
}

TEST_P(LargeCallClient, PieceTimesOutAfterHalfASecondWhateverTheFourthArgument) {
  for (const int limit : {1, 600000}) EXPECT_GE(time_of_a_piece(limit), Milliseconds(500)) << limit;
}

TEST_P(LargeCallClient, ArgumentsAreEmptied) {
  TolkParams arguments;
  arguments.AddInt(7);
  arguments.AddKeyValueInt("k", 8);
  ASSERT_TRUE(arguments.ToParams());
  call.begin(*client, "m", &arguments, kLargeCallId);
  answer(receive_large(peer), "");
  EXPECT_NE(call.result(), nullptr);
  EXPECT_EQ(arguments.Size(), 0);
  EXPECT_EQ(arguments.ParamsSize(), 0);
  EXPECT_EQ(arguments.MapSize(), 0);
}

TEST_P(LargeCallClient, CallIdIsThatOfTheThreadUnlessGiven) {
  TolkParams arguments;
  call.begin(*client, "m", &arguments, 0);
  Received received = receive_large(peer);
  ASSERT_TRUE(received.last.has_value());
  const int own = *received.last->call_id();
  EXPECT_NE(own, 0);
  answer(received, "", own);
  EXPECT_NE(call.result(), nullptr);

  arguments.AddKeyValueInt("s_c_sw_threadid", 5);
  ASSERT_TRUE(arguments.ToParams());  // only a parsed block holds the key
  call.begin(*client, "m", &arguments, 0);
  received = receive_large(peer);
  EXPECT_EQ(received.last->call_id(), 5);
  answer(received, "", 5);
  EXPECT_NE(call.result(), nullptr);

  arguments.AddKeyValueInt("s_c_sw_threadid", 5);
  ASSERT_TRUE(arguments.ToParams());
  call.begin(*client, "m", &arguments, 6);
  received = receive_large(peer);
  EXPECT_EQ(received.last->call_id(), 6);
  answer(received, "", 6);
  EXPECT_NE(call.result(), nullptr);
}

TEST_P(LargeCallClient, ResultPiecesAreAssembled) {
  const std::string bytes = pattern(100000);
  const std::string result = BlockWriter().add(Stream{bytes}).bytes();
  call.begin(*client, "m", nullptr, kLargeCallId);
  const Received received = receive_large(peer);
  ASSERT_TRUE(received.last.has_value());
  const auto total = static_cast<int>(result.size());
  for (std::size_t at = 0; at < result.size(); at += 30000) {
    const auto reply = send_piece(peer, kLargeCallId, total, result.substr(at, 30000));
    ASSERT_TRUE(reply.has_value());
    // Nothing but the envelope, whether the piece was the last or not.
    EXPECT_EQ(reply->payload, BlockWriter()
                                  .keyed("s_c_sw_threadid", kLargeCallId)
                                  .keyed("s_c_sw_semid", std::string("0x1"))
                                  .keyed("s_c_sw_name", std::string("retval"))
                                  .bytes());
  }
  peer.send_frame(taken(*received.last));
  EXPECT_EQ(stream_at(call.result(), 0), bytes);
}

// The call ends with the result, however late the answer to its own last piece is.
TEST_P(LargeCallClient, ResultEndsTheCallAlthoughTheLastPieceIsUnanswered) {
  call.begin(*client, "m", nullptr, kLargeCallId);
  ASSERT_TRUE(receive_large(peer).last.has_value());
  ASSERT_TRUE(send_large(peer, kLargeCallId, BlockWriter().add(9).bytes()).has_value());
  TolkParams* const result = call.result();
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->GetValue(0)->GetInt(), 9);
}

TEST_P(LargeCallClient, MalformedResultKeepsTheRecordsBefore) {
  std::string result = BlockWriter().add(1).add(2).bytes();
  result[9 + 5] ^= 1;  // the second check word: its value stays, what follows does not come
  result += BlockWriter().add(3).bytes();
  call.begin(*client, "m", nullptr, kLargeCallId);
  answer(receive_large(peer), result);
  TolkParams* const kept = call.result();
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->ParamsSize(), 2);
}

TEST_P(LargeCallClient, EmptyResultIsAnEmptyBlock) {
  call.begin(*client, "m", nullptr, kLargeCallId);
  answer(receive_large(peer), "");
  TolkParams* const result = call.result();
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->Size(), 0);
}

TEST_P(LargeCallClient, ResultMayBeTheArgumentsOfTheNextCall) {
  const std::string first = BlockWriter().add(Stream{pattern(50000)}).bytes();
  call.begin(*client, "m", nullptr, kLargeCallId);
  answer(receive_large(peer), first);
  TolkParams* const block = call.result();
  ASSERT_NE(block, nullptr);
  call.begin(*client, "m", block, kLargeCallId);
  const Received received = receive_large(peer);
  EXPECT_EQ(received.bytes.substr(0, first.size()), first);
  answer(received, BlockWriter().add(2).bytes());
  EXPECT_EQ(call.result(), block);
  ASSERT_EQ(block->ParamsSize(), 1);
  EXPECT_EQ(block->GetValue(0)->GetInt(), 2);
}

TEST_P(LargeCallClient, ClearRetvalMemDropsLargeResults) {
  call.begin(*client, "m", nullptr, kLargeCallId);
  answer(receive_large(peer), "");
  EXPECT_NE(call.result(), nullptr);
  client->ClearRetvalMem();
  call.begin(*client, "m", nullptr, kLargeCallId);
  ASSERT_TRUE(receive_large(peer).last.has_value());
  peer.close();
  EXPECT_EQ(call.result(), nullptr);
}

// The result of a call that another client's loss has ended is kept for the next call.
TEST_P(LargeCallClient, LateResultIsReturnedByTheNextCallWithoutAResult) {
  const Address elsewhere = fresh_address(GetParam());
  RawServer other_server(elsewhere);
  const ClientPtr other = make_client();
  ASSERT_TRUE(connect_client(other.get(), elsewhere));
  call.begin(*client, "m", nullptr, kLargeCallId);
  ASSERT_TRUE(receive_large(peer).last.has_value());
  other_server.stop();  // the loss of any server ends every large call
  EXPECT_EQ(call.result(), nullptr);

  ASSERT_TRUE(send_large(peer, kLargeCallId, BlockWriter().add(3).bytes()).has_value());
  call.begin(*client, "m", nullptr, kLargeCallId);
  ASSERT_TRUE(receive_large(peer).last.has_value());
  peer.close();
  TolkParams* const older = call.result();
  ASSERT_NE(older, nullptr);
  EXPECT_EQ(older->GetValue(0)->GetInt(), 3);
}

TEST_P(LargeCallClient, DisconnectAtEveryPieceEndsTheCall) {
  for (int answered = 0; answered < 4; ++answered) {
    const Address fresh = fresh_address(GetParam());
    RawServer its_server(fresh);
    const ClientPtr its_client = make_client();
    ASSERT_TRUE(connect_client(its_client.get(), fresh));
    its_client->SetBigfileBufferSize(100);
    TolkParams arguments;
    fill_to(arguments, "m", 400);
    LargeCall its_call;
    RawSocket its_peer = its_server.take();
    its_call.begin(*its_client, "m", &arguments, kLargeCallId);
    for (int piece = 0; piece < answered; ++piece) {
      const auto got = read_piece(its_peer);
      ASSERT_TRUE(got.has_value());
      its_peer.send_frame(taken(got->call));
    }
    ASSERT_TRUE(read_piece(its_peer).has_value());
    its_peer.close();
    EXPECT_EQ(its_call.result(), nullptr) << "after " << answered << " answers";
  }
}

TEST_P(LargeCallClient, DisconnectInsideTheResultEndsTheCall) {
  call.begin(*client, "m", nullptr, kLargeCallId);
  ASSERT_TRUE(receive_large(peer).last.has_value());
  ASSERT_TRUE(send_piece(peer, kLargeCallId, 100, pattern(99)).has_value());
  peer.close();
  EXPECT_EQ(call.result(), nullptr);
}

TEST(LargeCall, WithoutAConnectionPrintsALineAndKeepsTheBlock) {
  const ClientPtr client = make_client();
  TolkParams arguments;
  arguments.AddInt(7);
  Capture capture;
  EXPECT_EQ(client->SendMsgEx("m", &arguments, 0, 0), nullptr);
  EXPECT_EQ(capture.text(), "sendmsgex: disconnect... .. .\n");
  EXPECT_EQ(arguments.Size(), 9);
}

// The loop thread would have to read the result itself: so the call does not wait.
TEST(LargeCall, FromAHookOnTheLoopThreadReturns) {
  const Address address = fresh_address(Transport::pipe);
  RawServer server(address);
  const ClientPtr client = make_client();
  Counter returned;
  client->method("s_c_closed",
                 on_call([raw = client.get(), returned](int, TolkParams*, TolkParams*) mutable {
                   EXPECT_EQ(raw->SendMsgEx("m", nullptr, 0, 0), nullptr);
                   returned.add();
                 }));
  ASSERT_TRUE(connect_client(client.get(), address));
  server.stop();
  EXPECT_TRUE(returned.wait_for(1));
}

}  // namespace
}  // namespace tolk::test
