// The host owns a log sink and may free it as soon as DestroyServer has returned. Handlers and
// hooks may still run then; their lines go neither to the sink nor to standard output.
#include <stdexcept>

#include "tests/e2e/large_peer.h"
#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

class SinkLife : public ServerTest {
 protected:
  ~SinkLife() override { server.reset(); }  // before the sink

  void start_with_sink() {
    server->method("s_c_log", &sink);
    start();
  }
  // Destroys the server while a handler or hook is blocked, lets it go on, and returns the lines
  // that come afterwards, on the sink and on standard output.
  std::vector<std::string> lines_after_destroying_under(Gate gate) {
    server.reset();
    const Capture capture;
    const std::size_t before = lines.notes().size();
    gate.open();
    EXPECT_TRUE(eventually([] { return open_loops() == 0; }));
    std::vector<std::string> late = lines.notes();
    late.erase(late.begin(), late.begin() + static_cast<std::ptrdiff_t>(before));
    for (const std::string& line : capture.lines()) {
      // The reply to a closed connection: this line is no log line and never goes to a sink.
      if (line != "write error") late.push_back(line);
    }
    return late;
  }
  static std::vector<std::string> none() { return {}; }

  Journal lines;
  FunctionHandler sink{
      [lines = lines](int, TolkParams* in, TolkParams*) mutable { lines.note(string_at(in, 0)); }};
};
TOLK_OVER_TRANSPORTS(SinkLife);

TEST_P(SinkLife, EndsBeforeAHandlerThrows) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("m", on_call([gate](int, TolkParams*, TolkParams*) mutable {
                   gate.pass();
                   throw std::runtime_error("too late");
                 }));
  start_with_sink();
  RawClient client(address);
  client.post("m");
  ASSERT_TRUE(gate.wait_entered());
  EXPECT_EQ(lines_after_destroying_under(gate), none());
}

// The pieces of the result are calls to the client. A destroyed server refuses them with a line.
TEST_P(SinkLife, EndsBeforeALargeResultFindsNoClient) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("m", on_call([gate](int, TolkParams*, TolkParams* out) mutable {
                   gate.pass();
                   out->AddString("result");
                 }));
  start_with_sink();
  RawClient client(address);
  const std::string block = large_call(BlockWriter().add(std::string("x")), "m", kLargeCallId);
  client.post("s_c_req_body", kLargeCallId,
              piece_arguments(kLargeCallId, static_cast<int>(block.size()), block));
  ASSERT_TRUE(gate.wait_entered());
  EXPECT_EQ(lines_after_destroying_under(gate), none());
}

TEST_P(SinkLife, EndsBeforeTheHookOfAConnectReturns) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("s_c_connect", blocking(gate));
  start_with_sink();
  const RawClient client(address, false);
  ASSERT_TRUE(gate.wait_entered());
  EXPECT_EQ(lines_after_destroying_under(gate), none());
}

TEST_P(SinkLife, EndsBeforeTheHookOfAClosedClientReturns) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("s_c_closed", blocking(gate));
  start_with_sink();
  RawClient client(address);
  ASSERT_TRUE(client.is_greeted());
  client.socket.close();
  ASSERT_TRUE(gate.wait_entered());
  EXPECT_EQ(lines_after_destroying_under(gate), none());
}

TEST_P(SinkLife, EndsBeforeAHookThrows) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("s_c_connect", on_call([gate](int, TolkParams*, TolkParams*) mutable {
                   gate.pass();
                   throw std::runtime_error("too late");
                 }));
  start_with_sink();
  const RawClient client(address, false);
  ASSERT_TRUE(gate.wait_entered());
  EXPECT_EQ(lines_after_destroying_under(gate), none());
}

}  // namespace
}  // namespace tolk::test
