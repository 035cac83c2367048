// TolkClient::SendMsgLargeData: what it sends, what it leaves in the caller's block, when it fails.
#include <gmock/gmock.h>
#include <tests/pattern.h>
#include <tests/platform/captured_stdout.h>

#include <mutex>
#include <vector>

#include "client/TolkClient.h"
#include "client/client_side.h"
#include "platform/thread.h"
#include "tests/client/served.h"
#include "transport/piece_sender.h"

namespace tolk::test {
namespace {

using testing::ElementsAre;

constexpr int kAnswerLimitMs = 20000;
constexpr int kShortMs = 100;
constexpr int kAnswerableMs = 1000;  // enough for the pieces that are answered
constexpr int kPieceBytes = 100;

struct SentPiece {
  bool is_large = false;
  int header_id = -1;
  int total = -1;
  std::string bytes;
};

// The pieces that reached the server. Copies are the same pieces.
class SentPieces {
 public:
  void note(TolkParams* in) {
    SentPiece piece;
    TolkValue* const mark = in->GetMap("s_c_largedata");
    piece.is_large = mark != nullptr && mark->GetBool();
    piece.header_id = in->GetMap("s_c_sw_threadid")->GetInt();
    piece.total = in->GetValue(0)->GetInt();
    long size = 0;
    const char* const bytes = in->GetValue(1)->GetStream(size);
    piece.bytes.assign(bytes, static_cast<std::size_t>(size));
    const std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->pieces.push_back(piece);
  }
  std::vector<SentPiece> all() const {
    const std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->pieces;
  }
  std::vector<std::size_t> sizes() const {
    std::vector<std::size_t> sizes;
    for (const SentPiece& piece : all()) sizes.push_back(piece.bytes.size());
    return sizes;
  }
  std::string joined() const {
    std::string joined;
    for (const SentPiece& piece : all()) joined += piece.bytes;
    return joined;
  }

 private:
  struct Shared {
    std::mutex mutex;
    std::vector<SentPiece> pieces;
  };

  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

// A server that keeps the pieces instead of running what they ask for. It lets the first ones pass
// and holds up the others, whose callers get no answer meanwhile.
class LargeSend : public testing::Test {
 protected:
  LargeSend() { piece_bytes() = kPieceBytes; }
  ~LargeSend() override { piece_bytes() = before_; }

  void start(int answered) {
    served.server->method("s_c_req_body", on_call([sent = sent, held = held, answered](
                                                      int, TolkParams* in, TolkParams*) mutable {
                            sent.note(in);
                            if (static_cast<int>(sent.all().size()) > answered) held.pass();
                          }));
    served.server->method("echo", answering("echo"));
    ASSERT_TRUE(served.start());
  }
  void connect(int answered = 1000) {
    start(answered);
    ASSERT_TRUE(client.InitTolkClient(served.pipe.c_str(), false));
  }

  // With the two keys of a call of "m" it is more than two pieces and less than three.
  static void fill(TolkParams& block) {
    const std::string bytes = pattern(150);
    block.AddStream(bytes.data(), static_cast<long>(bytes.size()));
  }
  static std::string bytes_of(TolkParams& block) { return *block.GetParamas(); }

  const int before_ = piece_bytes();
  SentPieces sent;
  Gate held;
  Served served;
  TolkClient client;
  const OpenAtEnd open{held};
};

TEST_F(LargeSend, ReturnsTrueOnceEveryPieceIsAnswered) {
  connect();
  TolkParams block;
  fill(block);
  EXPECT_TRUE(client.SendMsgLargeData("m", &block, 5, kAnswerLimitMs));
  const std::string bytes = bytes_of(block);
  EXPECT_THAT(sent.sizes(), ElementsAre(100, 100, bytes.size() - 200));
  EXPECT_EQ(sent.joined(), bytes);
  for (const SentPiece& piece : sent.all()) {
    EXPECT_TRUE(piece.is_large);
    EXPECT_EQ(piece.header_id, 5);
    EXPECT_EQ(piece.total, static_cast<int>(bytes.size()));
  }
}

TEST_F(LargeSend, FirstPieceWithoutAnAnswerIsFalseAndTheLast) {
  connect(0);
  TolkParams block;
  fill(block);
  EXPECT_FALSE(client.SendMsgLargeData("m", &block, 5, kShortMs));
  EXPECT_NE(client.SendMsg("echo", nullptr, 6, kAnswerLimitMs), nullptr);
  ASSERT_TRUE(held.wait_entered());
  EXPECT_THAT(sent.sizes(), ElementsAre(100));
}

TEST_F(LargeSend, LastPieceWithoutAnAnswerIsFalseToo) {
  connect(2);
  TolkParams block;
  fill(block);
  EXPECT_FALSE(client.SendMsgLargeData("m", &block, 5, kAnswerableMs));
  ASSERT_TRUE(held.wait_entered());  // perhaps after the limit
  EXPECT_EQ(sent.joined(), bytes_of(block));
}

TEST_F(LargeSend, CallersBlockKeepsTheTwoKeys) {
  connect();
  TolkParams block;
  block.AddInt(7);
  TolkParams expected;
  expected.AddInt(7);
  expected.AddKeyValueString("s_c_sw_name", "m");
  expected.AddKeyValueInt("s_c_sw_threadid", 5);
  EXPECT_TRUE(client.SendMsgLargeData("m", &block, 5, kAnswerLimitMs));
  EXPECT_EQ(bytes_of(block), bytes_of(expected));
  EXPECT_EQ(sent.joined(), bytes_of(expected));
}

TEST_F(LargeSend, NoBlockSendsTheTwoKeys) {
  connect();
  TolkParams expected;
  expected.AddKeyValueString("s_c_sw_name", "m");
  expected.AddKeyValueInt("s_c_sw_threadid", 5);
  EXPECT_TRUE(client.SendMsgLargeData("m", nullptr, 5, kAnswerLimitMs));
  EXPECT_EQ(sent.joined(), bytes_of(expected));
}

// The answers to the pieces are the results of the id that they were called with.
TEST_F(LargeSend, IdZeroIsNamedAndNotCalledWith) {
  start(1000);
  const auto side = std::make_shared<ClientSide>();
  side->register_builtins();
  ASSERT_TRUE(side->connect({Endpoint::Kind::pipe, "", served.pipe}));
  side->results.clear();

  TolkParams plain;
  plain.AddInt(7);
  EXPECT_TRUE(side->SendMsgLargeData("m", &plain, 0, kAnswerLimitMs));
  EXPECT_NE(side->results.find(platform::own_call_id()), nullptr);
  EXPECT_EQ(side->results.size(), 1U);
  side->results.clear();

  TolkParams with_id;
  with_id.AddKeyValueInt("s_c_sw_threadid", 9);
  ASSERT_TRUE(with_id.ToParams());  // only a parsed block holds the key
  EXPECT_TRUE(side->SendMsgLargeData("m", &with_id, 0, kAnswerLimitMs));
  EXPECT_NE(side->results.find(9), nullptr);
  EXPECT_EQ(side->results.size(), 1U);
  side->results.clear();

  EXPECT_TRUE(side->SendMsgLargeData("m", &with_id, 4, kAnswerLimitMs));
  EXPECT_NE(side->results.find(4), nullptr) << "an id of the caller's comes before the block's";
  EXPECT_EQ(side->results.size(), 1U);

  const std::vector<SentPiece> pieces = sent.all();
  ASSERT_EQ(pieces.size(), 4U);  // the last block has the keys of two sends
  EXPECT_EQ(pieces[0].header_id, 0);
  EXPECT_EQ(pieces[1].header_id, 0);
  EXPECT_EQ(pieces[2].header_id, 4);
  TolkParams first;
  first.AddInt(7);
  first.AddKeyValueString("s_c_sw_name", "m");
  first.AddKeyValueInt("s_c_sw_threadid", 0);
  EXPECT_EQ(pieces[0].bytes, bytes_of(first));
  side->close();
  side->abandon();
}

TEST_F(LargeSend, NotConnectedIsFalse) {
  CapturedStdout out;
  TolkParams block;
  fill(block);
  EXPECT_FALSE(client.SendMsgLargeData("m", &block, 5, kAnswerLimitMs));
  EXPECT_EQ(out.text(), "send msg: disconnect... .. .\n") << "once: no second piece is tried";
}

}  // namespace
}  // namespace tolk::test
