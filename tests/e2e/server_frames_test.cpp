// How a server cuts the bytes of a connection into messages.
//
// A reply proves that the server has read everything sent before it, so that what is sent after it
// arrives in a separate read.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

class ServerFrames : public ServerTest {
 protected:
  void SetUp() override {
    register_echo();
    start();
    client = std::make_unique<RawClient>(address);
    bystander = std::make_unique<RawClient>(address);
    ASSERT_TRUE(client->is_greeted() && bystander->is_greeted());
  }

  static std::string echo(const std::string& text) {
    return call_payload("echo", 1, BlockWriter().add(text).bytes(), "0x1");
  }
  static std::string echo_frame(const std::string& text) { return frame(echo(text)); }

  std::string next_answer() {
    const auto answer = client->socket.read_message();
    return answer ? answer->string_at(0) : "nothing came";
  }
  // Returns when the server has read all that `client` has sent: a call of another client, sent
  // later, has been answered.
  void let_it_be_read() { ASSERT_TRUE(serves(*bystander)); }

  std::unique_ptr<RawClient> client;
  std::unique_ptr<RawClient> bystander;
};
TOLK_OVER_TRANSPORTS(ServerFrames);

TEST_P(ServerFrames, SeveralInOneReadAreAllDispatched) {
  client->socket.send(echo_frame("a") + echo_frame("b") + echo_frame("c"));
  std::vector<std::string> answers{next_answer(), next_answer(), next_answer()};
  std::sort(answers.begin(), answers.end());  // handlers run concurrently
  EXPECT_EQ(answers, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_TRUE(serves(*client));
}

TEST_P(ServerFrames, FrameSentByteByByteIsDispatched) {
  for (const char byte : echo_frame("slow")) {
    client->socket.send(std::string(1, byte));
    let_it_be_read();
  }
  EXPECT_EQ(next_answer(), "slow");
  EXPECT_TRUE(client->socket.is_quiet());
}

TEST_P(ServerFrames, FrameSplitInThreeIsDispatchedAfterTheThirdPart) {
  const std::string all = echo_frame("split");
  client->socket.send(all.substr(0, 2));
  let_it_be_read();
  client->socket.send(all.substr(2, 3));
  let_it_be_read();
  EXPECT_TRUE(client->socket.is_quiet());
  client->socket.send(all.substr(5));
  EXPECT_EQ(next_answer(), "split");
}

TEST_P(ServerFrames, ThreeBytesAfterAWholeFrameWait) {
  const std::string next = echo_frame("next");
  client->socket.send(echo_frame("now") + next.substr(0, 3));
  EXPECT_EQ(next_answer(), "now");
  client->socket.send(next.substr(3));
  EXPECT_EQ(next_answer(), "next");
}

// On purpose: a read that is exactly one frame does not wait for what is pending.
TEST_P(ServerFrames, ReadOfOneWholeFrameOvertakesAPartialFrame) {
  const std::string pending = echo_frame("pending");
  client->socket.send(echo_frame("first") + pending.substr(0, 10));
  EXPECT_EQ(next_answer(), "first");
  client->socket.send(echo_frame("overtaking"));
  EXPECT_EQ(next_answer(), "overtaking");
  client->socket.send(pending.substr(10));
  EXPECT_EQ(next_answer(), "pending");
}

TEST_P(ServerFrames, PartsOfTwoConnectionsDoNotMix) {
  RawClient other(address);
  const std::string one = echo_frame("one");
  const std::string two = echo_frame("two");
  client->socket.send(one.substr(0, 20));
  other.socket.send(two.substr(0, 7));
  let_it_be_read();
  client->socket.send(one.substr(20));
  other.socket.send(two.substr(7));
  EXPECT_EQ(next_answer(), "one");
  EXPECT_EQ(other.socket.read_message()->string_at(0), "two");
}

TEST_P(ServerFrames, LargeFrameIsDispatched) {
  const std::string megabytes(4 << 20, 'm');
  std::thread sending([&] { client->socket.send(echo_frame(megabytes)); });
  EXPECT_EQ(next_answer(), megabytes);
  sending.join();
}

TEST_P(ServerFrames, EmptyFrameIsAMessageWithoutName) {
  Capture capture;
  client->socket.send(prefix(0));
  EXPECT_TRUE(capture.wait_for_text("event empty!\n")) << capture.text();
  EXPECT_TRUE(serves(*client));
}

TEST_P(ServerFrames, FewerThanFourBytesWait) {
  Capture capture;
  client->socket.send(std::string("\xFF\xFF\xFF", 3));
  let_it_be_read();
  EXPECT_EQ(capture.text(), "");
  EXPECT_TRUE(serves(*bystander));
}

TEST_P(ServerFrames, NegativePrefixIsAnEmptyFrameAndNeverStallsTheLoop) {
  // -4 would cover no byte at all; from -4 down, everything pending is dropped.
  for (const int length : {-4, -5, -1000, -2147483647}) {
    Capture capture;
    RawClient hostile(address);
    hostile.socket.send(prefix(length) + "rest");
    EXPECT_TRUE(capture.wait_for_line("event empty!")) << length;
    EXPECT_TRUE(serves(*bystander)) << length;
    EXPECT_EQ(capture.count("event empty!"), 1) << length;
    EXPECT_TRUE(serves(hostile)) << length;
  }
}

// -1 is FF FF FF FF: three bytes are skipped, and the last FF begins the next length.
TEST_P(ServerFrames, LengthsOfMinusOneToMinusThreeSkipOnlyPartOfTheirPrefix) {
  for (const int length : {-1, -2, -3}) {
    Capture capture;
    RawClient hostile(address);
    hostile.socket.send(prefix(length));
    EXPECT_TRUE(capture.wait_for_line("event empty!")) << length;
    EXPECT_TRUE(serves(*bystander)) << length;
    EXPECT_EQ(capture.count("event empty!"), 1) << length;
  }
}

TEST_P(ServerFrames, EndInsideAFrameIsAnOrdinaryEnd) {
  Capture capture;
  client->socket.send(echo_frame("half").substr(0, 30));
  client->socket.close();
  const std::string line = capture.line_starting("Client Close: ");
  EXPECT_NE(line, "");
  EXPECT_EQ(capture.text(), line + "\n");
  EXPECT_TRUE(serves(*bystander));
}

}  // namespace
}  // namespace tolk::test
