// The fixture of the client tests: a library client and a plain-socket server, over each transport.
#pragma once

#include <gtest/gtest.h>
#include <tolk/tolk.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <utility>

#include "tests/e2e/support/capture.h"
#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/raw_peer.h"
#include "tests/e2e/support/system.h"
#include "tests/e2e/support/waiting.h"

namespace tolk::test {

// An action on another thread.
class Meanwhile {
 public:
  explicit Meanwhile(std::function<void()> action)
      : done_(std::async(std::launch::async, std::move(action))) {}

  bool is_done(Milliseconds limit = kLimit) const {
    return done_.wait_for(limit) == std::future_status::ready;
  }

 private:
  std::future<void> done_;
};

// A call on another thread.
class CallMeanwhile {
 public:
  CallMeanwhile(IClient* client, const char* name, int call_id, int timeout_ms)
      : result_(std::async(std::launch::async, [=] {
          return client->SendMsgFast(name, nullptr, call_id, timeout_ms);
        })) {}

  bool is_done(Milliseconds limit = kLimit) const {
    return result_.wait_for(limit) == std::future_status::ready;
  }
  // Waits for it.
  TolkParams* result() { return result_.get(); }

 private:
  std::future<TolkParams*> result_;
};

class WithRawServer : public OverTransports {
 protected:
  void connect() { connect(client.get(), peer); }
  void connect(IClient* whom, RawSocket& to) {
    ASSERT_TRUE(connect_client(whom, address));
    to = server.take();
    ASSERT_TRUE(to.is_open());
  }

  // The transport as the client's first line names it.
  const char* label() const {
    if (is_pipe()) return "Pipe";
    return GetParam() == Transport::tcp4 ? "Tcp4" : "Tcp6";
  }
  // What only the TCP transports print.
  std::string tcp_only(const std::string& text) const { return is_pipe() ? "" : text; }

  // The server calls the client and waits for the answer.
  std::optional<Message> call_client(std::string_view name,
                                     const std::optional<std::string>& arguments = {}) {
    peer.send_frame(call_payload(name, 5, arguments, "0xabc"));
    return peer.read_message();
  }
  bool client_answers(const char* name = "alive") {
    const auto reply = call_client(name);
    return reply && reply->name() == "retval";
  }

  RawServer server{address};
  ClientPtr client = make_client();
  RawSocket peer;
};

}  // namespace tolk::test
