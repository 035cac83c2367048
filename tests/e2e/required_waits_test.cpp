// Waiting calls that their own client or server cannot end, and what ends them. Each runs in a
// separate process, which is killed with the test. docs/threads.md says how a host avoids them.
#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>

#include "tests/e2e/large_peer.h"
#include "tests/e2e/support/child_program.h"

namespace tolk::test {
namespace {

// Longer than the timeouts of pieces (500 ms) and of the calls here (2 s), sweeps included.
constexpr Milliseconds kStillWaiting{3500};

class Host {
 public:
  Host(const char* kind, const Address& address, const Address& other)
      : program_(TOLK_WAITS_CHILD, {kind, name_of(address.transport), address.port, other.port}) {}

  // Sends it a command.
  void tell(const std::string& word) { EXPECT_TRUE(program_.write(word + "\n")); }
  // Waits until it has reported this.
  bool told(const std::string& what, Milliseconds limit = kLimit) {
    const Stopwatch clock;
    while (heard_.find("\n@" + what + "\n") == std::string::npos) {
      const auto more = program_.read_some(limit - clock.elapsed());
      if (!more) return false;
      heard_ += *more;
    }
    return true;
  }
  bool does(const std::string& word) {
    tell(word);
    return told(word);
  }

 private:
  static const char* name_of(Transport transport) {
    constexpr std::array kNames{"pipe", "tcp4", "tcp6"};
    return kNames.at(static_cast<std::size_t>(transport));
  }

  ChildProgram program_;
  std::string heard_ = "\n";
};

class RequiredWaits : public OverTransports {
 protected:
  const Address other_address = fresh_address(GetParam());
};

// A large call whose pieces are answered and whose result never comes.
class UnansweredLargeCall : public RequiredWaits {
 protected:
  void SetUp() override {
    host.emplace("large", address, other_address);
    peer = server.take();
    other_peer = other_server.take();
    ASSERT_TRUE(peer.is_open() && other_peer.is_open());
    ASSERT_TRUE(host->does("call"));
    const Received received = receive_large(peer);
    ASSERT_TRUE(received.last.has_value());
    peer.send_frame(taken(*received.last));
  }

  RawServer server{address};
  RawServer other_server{other_address};
  std::optional<Host> host;
  RawSocket peer;
  RawSocket other_peer;
};
TOLK_OVER_TRANSPORTS(UnansweredLargeCall);

// On purpose: only the result, or the loss of a server, ends a large call.
TEST_P(UnansweredLargeCall, OutlivesTheCloseOfItsClientUntilAnotherClientLosesItsServer) {
  ASSERT_TRUE(host->does("close"));
  EXPECT_FALSE(host->told("first call returned null", kStillWaiting));
  other_peer.close();
  EXPECT_TRUE(host->told("first call returned null"));
}

TEST_P(UnansweredLargeCall, OutlivesItsClientObjectToo) {
  ASSERT_TRUE(host->does("destroy"));
  EXPECT_FALSE(host->told("first call returned null", kStillWaiting));
  other_peer.close();
  EXPECT_TRUE(host->told("first call returned null"));
}

// On purpose: one large call at a time runs in a process, and this one goes on running.
TEST_P(UnansweredLargeCall, KeepsEveryOtherLargeCallOfTheProcessWaiting) {
  ASSERT_TRUE(host->does("close"));
  ASSERT_TRUE(host->does("call again"));
  EXPECT_TRUE(other_peer.is_quiet(kStillWaiting));  // not a piece of it comes
  other_peer.close();
  EXPECT_TRUE(host->told("first call returned null"));
  EXPECT_TRUE(host->told("second call returned null"));  // its own server is gone
}

// How a host avoids it: the server goes first.
TEST_P(UnansweredLargeCall, EndsWithItsOwnServer) {
  peer.close();
  EXPECT_TRUE(host->told("first call returned null"));
  EXPECT_TRUE(host->does("close"));
}

// A call with a timeout to a client that does not answer.
class UnansweredServerCall : public RequiredWaits {
 protected:
  void SetUp() override {
    host.emplace("server", address, other_address);
    ASSERT_TRUE(host->told("listening"));
    client.emplace(address);
    ASSERT_TRUE(client->is_greeted());
    ASSERT_TRUE(host->does("call"));
    ASSERT_TRUE(client->socket.read_message().has_value());
  }

  std::optional<Host> host;
  std::optional<RawClient> client;
};
TOLK_OVER_TRANSPORTS(UnansweredServerCall);

// On purpose: the sweep of timeouts stops with the loop, and wakes no call.
TEST_P(UnansweredServerCall, OutlivesTheCloseUntilTheSweepOfAnotherServer) {
  ASSERT_TRUE(host->does("close"));
  ASSERT_TRUE(client->socket.ended());
  EXPECT_FALSE(host->told("call returned null", kStillWaiting));
  ASSERT_TRUE(host->does("sweep"));
  EXPECT_TRUE(host->told("call returned null"));
}

TEST_P(UnansweredServerCall, OutlivesItsServerObjectToo) {
  ASSERT_TRUE(host->does("destroy"));
  EXPECT_FALSE(host->told("call returned null", kStillWaiting));
  ASSERT_TRUE(host->does("sweep"));
  EXPECT_TRUE(host->told("call returned null"));
}

// How a host avoids it: it closes the server only after the call has timed out.
TEST_P(UnansweredServerCall, EndsByItsTimeoutWhileTheServerRuns) {
  EXPECT_TRUE(host->told("call returned null"));
  EXPECT_TRUE(host->does("close"));
}

// The loss of the client wakes no call either.
TEST_P(UnansweredServerCall, WaitsForItsTimeoutAfterItsClientIsGone) {
  client->socket.close();
  EXPECT_FALSE(host->told("call returned null", kQuiet));
  EXPECT_TRUE(host->told("call returned null"));
}

}  // namespace
}  // namespace tolk::test
