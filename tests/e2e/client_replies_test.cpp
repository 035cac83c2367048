// Replies: which call they wake, which result they fill.
#include <atomic>
#include <locale>
#include <thread>

#include "tests/e2e/client_fixture.h"

namespace tolk::test {
namespace {

std::string reply_to(int call_id, int value, const std::optional<Scalar>& token = {}) {
  BlockWriter reply;
  reply.add(value).keyed("s_c_sw_name", std::string("retval")).keyed("s_c_sw_threadid", call_id);
  if (token) reply.keyed("s_c_sw_semid", *token);
  return reply.bytes();
}

int int_in(TolkParams* block) {
  const TolkValue* const value = block == nullptr ? nullptr : block->GetValue(0);
  return value == nullptr ? -1 : value->GetInt();
}

class Replies : public WithRawServer {
 protected:
  void SetUp() override {
    client->method("alive", answering("yes"));
    connect();
  }

  // Returns when the client has read everything that was sent so far.
  void settle() { ASSERT_TRUE(client_answers()); }

  // A call that is answered at once.
  TolkParams* answered_call(int call_id, int value) {
    CallMeanwhile call(client.get(), "m", call_id, 0);
    const auto message = peer.read_message();
    if (message) peer.send_frame(reply_payload(*message, BlockWriter().add(value)));
    return call.result();
  }
};
TOLK_OVER_TRANSPORTS(Replies);

TEST_P(Replies, ReplyWithoutCallIdIsDropped) {
  CallMeanwhile call(client.get(), "m", 7, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  peer.send_frame(BlockWriter()
                      .add(1)
                      .keyed("s_c_sw_name", std::string("retval"))
                      .keyed("s_c_sw_semid", *message->token())
                      .bytes());
  settle();
  EXPECT_FALSE(call.is_done(Milliseconds(0)));
  peer.send_frame(reply_payload(*message, BlockWriter().add(2)));
  EXPECT_EQ(int_in(call.result()), 2);
}

TEST_P(Replies, ReplyWithoutTokenIsStoredAndWakesNobody) {
  CallMeanwhile call(client.get(), "m", 7, 700);
  ASSERT_TRUE(peer.read_message());
  peer.send_frame(reply_to(7, 42));
  settle();
  EXPECT_FALSE(call.is_done(Milliseconds(0)));
  EXPECT_EQ(int_in(call.result()), 42) << "returned when the call times out";
}

TEST_P(Replies, WrongTokenWakesNobody) {
  CallMeanwhile call(client.get(), "m", 7, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  const std::string token = *message->token();
  const std::vector<Scalar> others = {std::string(),
                                      std::string("0x"),
                                      std::string("garbage"),
                                      std::string("0x0"),
                                      std::string("0x1"),
                                      std::string("0xfffffffffffffffffffffffffff"),
                                      "0" + token,
                                      token + "0",
                                      token + " ",
                                      " " + token,
                                      7,
                                      true,
                                      1.5,
                                      Stream{token}};
  for (const Scalar& other : others) peer.send_frame(reply_to(7, 1, other));
  settle();
  EXPECT_FALSE(call.is_done(Milliseconds(0)));
  peer.send_frame(reply_to(7, 2, token));
  EXPECT_EQ(int_in(call.result()), 2);
}

TEST_P(Replies, TokenIgnoresTheLocale) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\1"; }
  };
  CallMeanwhile call(client.get(), "m", 7, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  peer.send_frame(reply_payload(*message, BlockWriter().add(3)));
  EXPECT_EQ(int_in(call.result()), 3);
  std::locale::global(before);
}

TEST_P(Replies, LateReplyIsDroppedByTheNextCallWithItsId) {
  CallMeanwhile call(client.get(), "m", 7, 1);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  EXPECT_EQ(call.result(), nullptr);
  peer.send_frame(reply_payload(*message, BlockWriter().add(1)));
  settle();
  CallMeanwhile next(client.get(), "m", 7, 1);
  EXPECT_EQ(next.result(), nullptr);
}

TEST_P(Replies, LateReplyIsReturnedByATimedOutCallWithItsId) {
  CallMeanwhile call(client.get(), "first", 7, 1);
  const auto first = peer.read_message();
  ASSERT_TRUE(first);
  EXPECT_EQ(call.result(), nullptr);
  CallMeanwhile next(client.get(), "second", 7, 700);
  ASSERT_TRUE(peer.read_message());
  peer.send_frame(reply_payload(*first, BlockWriter().add(1)));
  EXPECT_EQ(int_in(next.result()), 1);
}

TEST_P(Replies, LateReplyWakesNoLaterCallOfTheSameThread) {
  // One thread makes both calls, so that the second may get the memory of the first.
  std::atomic<bool> returned{false};
  const Meanwhile caller([&] {
    EXPECT_EQ(client->SendMsgFast("first", nullptr, 7, 1), nullptr);
    EXPECT_EQ(int_in(client->SendMsgFast("second", nullptr, 7, 0)), 2);
    returned = true;
  });
  const auto first = peer.read_message();
  const auto second = peer.read_message();
  ASSERT_TRUE(first && second);
  EXPECT_NE(first->token(), second->token());
  peer.send_frame(reply_payload(*first, BlockWriter().add(1)));
  settle();
  EXPECT_FALSE(returned);
  peer.send_frame(reply_payload(*second, BlockWriter().add(2)));
  EXPECT_TRUE(caller.is_done());
}

TEST_P(Replies, ReplyWithAnotherCallIdWakesTheCallWithoutResult) {
  CallMeanwhile call(client.get(), "m", 7, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  peer.send_frame(reply_to(8, 1, *message->token()));
  EXPECT_EQ(call.result(), nullptr);
}

TEST_P(Replies, SecondReplyRefreshesTheResultAndWakesNobody) {
  CallMeanwhile call(client.get(), "m", 7, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  peer.send_frame(reply_payload(*message, BlockWriter().add(1)));
  TolkParams* const held = call.result();
  ASSERT_NE(held, nullptr);
  peer.send_frame(reply_payload(*message, BlockWriter().add(2)));
  settle();
  EXPECT_EQ(int_in(held), 2);
  EXPECT_EQ(held->ParamsSize(), 1);
}

TEST_P(Replies, ReplyToAPostedCallWakesNobody) {
  client->PostMsgFast("posted", nullptr, 7);
  const auto posted = peer.read_message();
  CallMeanwhile call(client.get(), "m", 7, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(posted && message);
  peer.send_frame(reply_payload(*posted, BlockWriter().add(1)));
  settle();
  EXPECT_FALSE(call.is_done(Milliseconds(0)));
  peer.send_frame(reply_payload(*message, BlockWriter().add(2)));
  EXPECT_EQ(int_in(call.result()), 2);
}

TEST_P(Replies, MalformedReplyIsDropped) {
  CallMeanwhile call(client.get(), "m", 7, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  peer.send_frame(reply_payload(*message, BlockWriter().add(1)) + "\x09");
  settle();
  EXPECT_FALSE(call.is_done(Milliseconds(0)));
  peer.send_frame(reply_payload(*message, BlockWriter().add(2)));
  EXPECT_EQ(int_in(call.result()), 2);
}

TEST_P(Replies, ReplyJustBeforeTheLossIsReturned) {
  CallMeanwhile call(client.get(), "m", 7, 0);
  ASSERT_TRUE(peer.read_message());
  peer.send_frame(reply_to(7, 5));  // no token: only the end wakes the call
  peer.close();
  EXPECT_EQ(int_in(call.result()), 5);
}

TEST_P(Replies, RepliesMayComeInAnyOrder) {
  constexpr int kCallers = 8;
  std::vector<std::unique_ptr<CallMeanwhile>> callers;
  std::vector<Message> messages;
  for (int id = 1; id <= kCallers; ++id) {
    callers.push_back(std::make_unique<CallMeanwhile>(client.get(), "m", id, 0));
    const auto message = peer.read_message();
    ASSERT_TRUE(message);
    messages.push_back(*message);
  }
  std::string all;
  for (int i = kCallers - 1; i >= 0; --i) {
    const Message& message = messages[static_cast<std::size_t>(i)];
    all += frame(reply_payload(message, BlockWriter().add(*message.call_id() * 10)));
  }
  peer.send(all);
  for (int id = 1; id <= kCallers; ++id) {
    EXPECT_EQ(int_in(callers[static_cast<std::size_t>(id - 1)]->result()), id * 10);
  }
}

TEST_P(Replies, HeldResultIsReadableWhileManyRepliesRefreshIt) {
  constexpr int kReplies = rounds(10000);
  TolkParams* const held = answered_call(7, 0);
  ASSERT_NE(held, nullptr);
  const Meanwhile sending([this] {
    for (int i = 1; i <= kReplies; ++i) peer.send_frame(reply_to(7, i));
  });
  int last = 0;
  EXPECT_TRUE(eventually([&] {
    for (int i = 0; i < 100; ++i) {
      const int seen = int_in(held);
      EXPECT_GE(seen, last);
      last = seen;
      EXPECT_STREQ(held->GetMap("s_c_sw_name")->GetString(), "retval");
      EXPECT_GE(held->GetMapPtr()->size(), 2u);
    }
    return last == kReplies;
  }));
  EXPECT_TRUE(sending.is_done());
}

}  // namespace
}  // namespace tolk::test
