// A client that asks its server to close and goes on sending still gets the answer.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

class CloseRequest : public ServerTest {
 protected:
  // This many sends take far less than the 200 ms that a server waits for the end of the client.
  static constexpr int kAWhile = 50;
  static constexpr int kNoEnd = 1 << 30;

  void begin_round() {
    server = make_server();
    at = fresh_address(GetParam());
    ASSERT_TRUE(start_server(server.get(), at));
  }
  // Sends until the server takes no more, or so many times.
  static void send_on(RawSocket& socket, int times) {
    const std::string junk = frame(call_payload("nobody", 1)) + std::string(1 << 16, '\0');
    for (int i = 0; i < times && socket.send(junk, Milliseconds(500)); ++i) {
    }
  }
  static bool says_yes(const std::optional<Message>& answer) {
    return answer && answer->name() == "retval" && answer->at(0) && *answer->at(0) == Scalar(true);
  }

  Address at;
};
TOLK_OVER_TRANSPORTS(CloseRequest);

TEST_P(CloseRequest, OfOneThatGoesOnSendingIsAnswered) {
  for (int round = 0; round < rounds(5); ++round) {
    begin_round();
    RawClient client(at, false);
    client.socket.send_frame(call_payload("s_c_close_server", 1));
    std::thread sending([&] { send_on(client.socket, kNoEnd); });
    const auto answer = client.socket.read_message();
    sending.join();
    ASSERT_TRUE(says_yes(answer)) << "in round " << round;
  }
}

TEST_P(CloseRequest, OfOneThatReadsLateIsAnswered) {
  for (int round = 0; round < rounds(5); ++round) {
    begin_round();
    RawClient client(at, false);
    client.socket.send_frame(call_payload("s_c_close_server", 1));
    send_on(client.socket, kAWhile);
    const auto answer = client.socket.read_message();
    ASSERT_TRUE(says_yes(answer)) << "in round " << round;
  }
}

// Part of the reply still waits in the send buffer of the server when the answer is written. A
// close with unread input resets the connection, and the reset discards that buffer.
TEST_P(CloseRequest, OfOneThatGoesOnSendingIsAnsweredBehindAReply) {
  const std::string large(300 << 10, 'x');
  for (int round = 0; round < rounds(5); ++round) {
    begin_round();
    register_echo();
    RawClient client(at, false);
    client.socket.send_frame(call_payload("echo", 1, BlockWriter().add(large).bytes()));
    ASSERT_FALSE(client.socket.is_quiet(kLimit));
    client.socket.send_frame(call_payload("s_c_close_server", 2));
    send_on(client.socket, kAWhile);
    const auto reply = client.socket.read_message();
    const auto answer = client.socket.read_message();
    ASSERT_TRUE(reply) << "in round " << round;
    ASSERT_TRUE(says_yes(answer)) << "in round " << round;
  }
}

}  // namespace
}  // namespace tolk::test
