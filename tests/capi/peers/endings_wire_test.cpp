// Ends of clients and servers while a peer on a plain socket is at the middle of something.
#include <thread>

#include "raw_ends.h"

namespace tolk::test {
namespace {

constexpr std::size_t kPlainAnswerBytes = std::size_t{256} << 10;  // some pieces

class EndingsWire : public OverTransports {
 protected:
  std::string question_of(const char* method) const {
    const std::string call =
        BlockWriter().keyed("s_c_sw_name", method).keyed("s_c_sw_threadid", 77).bytes();
    return BlockWriter()
        .add(static_cast<int>(call.size()))
        .add(Stream{call})
        .keyed("s_c_largedata", true)
        .keyed("s_c_sw_threadid", 77)
        .bytes();
  }

  Methods methods;
};
TOLK_CAPI_OVER_TRANSPORTS(EndingsWire);

// Between two pieces there is nothing to write, and the handler has returned.
TEST_P(EndingsWire, ACloseWaitsForALargeAnswerToAPlainClient) {
  Event closing;
  methods.add("large", [](tolk_request* request) {
    tolk_request_answer(request, text_block(std::string(kPlainAnswerBytes, 'x')).release());
  });
  tolk_server_options options{};
  options.context = &closing;
  options.log = [](void* context, tolk_level, const char* text) {
    if (std::string(text).ends_with(": closing")) static_cast<Event*>(context)->set();
  };
  const auto server = c_server(address, methods, options);
  RawClient peer(address);
  peer.socket.send_frame(call_payload("s_c_req_body", 1, question_of("large"), "0x1"));
  auto message = peer.socket.read_message();
  std::thread closes([&] { EXPECT_EQ(tolk_server_close(server.get(), TOLK_FOREVER), TOLK_OK); });
  closing.wait();
  std::size_t received = 0;
  while (message && message->name() == "s_c_req_body") {
    received += message->arguments().value_or("").size();
    peer.socket.send_frame(reply_payload(*message));
    message = peer.socket.read_message();
  }
  closes.join();
  EXPECT_GT(received, kPlainAnswerBytes);
  EXPECT_TRUE(message) << "the call is not answered";
}

// The server may call before it answers the version check.
TEST_P(EndingsWire, AClientMayBeFreedInACallbackWhileItConnects) {
  Event freed;
  methods.add("free", [&](tolk_request* request) {
    tolk_client* const self = tolk_request_client(request);
    tolk_request_free(request);
    tolk_client_free(self);
    freed.set();
  });
  RawServer server(address, silent());
  std::thread connects([&] {
    tolk_client_options options{};
    options.size = sizeof options;
    options.methods = methods.get();
    tolk_client* made = nullptr;
    EXPECT_EQ(tolk_client_connect(c_address(address).c_str(), &options, &made, nullptr),
              TOLK_CLOSED);
    EXPECT_EQ(made, nullptr);
    tolk_client_free(made);
  });
  RawSocket peer = server.take();
  const auto question = peer.read_message();
  peer.send_frame(call_payload("free", 1, {}, "0x2"));
  EXPECT_TRUE(freed.wait());
  if (question) {
    peer.send_frame(reply_payload(*question, BlockWriter().add(true).keyed("VERSION", kVersion)));
  }
  connects.join();
}

// The answer to the version check, and then the end, come when the connect has failed already.
TEST_P(EndingsWire, AServerThatIsTooLateHasNotGone) {
  struct Late {
    explicit Late(const Address& address) : server(address, silent()) {}

    RawServer server;
    Event lost;
    Event told;

    void answer_and_end() {
      RawSocket peer = server.take();
      if (const auto question = peer.read_message()) {
        peer.send_frame(
            reply_payload(*question, BlockWriter().add(true).keyed("VERSION", kVersion)));
      }
      peer.close();
      EXPECT_TRUE(lost.wait());
      EXPECT_FALSE(told.wait(kQuiet));
    }
  } late(address);
  tolk_client_options options{};
  options.size = sizeof options;
  options.connect_limit_ms = 500;
  options.context = &late;
  options.log = [](void* context, tolk_level, const char* text) {
    const std::string line = text;
    auto& self = *static_cast<Late*>(context);
    if (line.ends_with(": the server has gone")) self.lost.set();
    if (line.ends_with(tolk_status_name(TOLK_TIMED_OUT))) self.answer_and_end();
  };
  options.on_gone = [](void* context, tolk_client*, const tolk_error*) {
    static_cast<Late*>(context)->told.set();
  };
  tolk_client* none = nullptr;
  EXPECT_EQ(tolk_client_connect(c_address(address).c_str(), &options, &none, nullptr),
            TOLK_TIMED_OUT);
  EXPECT_TRUE(late.lost.happened()) << "the connect was not held";
  EXPECT_FALSE(late.told.happened());
}

}  // namespace
}  // namespace tolk::test
