// What is printed when one call of libuv fails, and what goes on afterwards. calls.cpp also ends
// the process when a listener or a sweep begins with other numbers than documented.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/server_test.h"
#include "tests/seam/faults.h"

namespace tolk::test {
namespace {

class FailedAccept : public ServerTest {
 protected:
  void SetUp() override {
    register_echo();
    server->method("s_c_connect", counting(connects));
    start();
  }

  Counter connects;
};
TOLK_OVER_TRANSPORTS(FailedAccept);

TEST_P(FailedAccept, IsOneLineAndTheHookHasBeenCalled) {
  Capture capture;
  const NextFails next("uv_accept");
  RawClient failed(address, false);
  EXPECT_TRUE(capture.wait_for_line("Accept error... ."));
  EXPECT_EQ(capture.text(), "Accept error... .\n");
  EXPECT_EQ(connects.value(), 1);
  EXPECT_EQ(server->GetClientCount(), 0);
  EXPECT_TRUE(failed.socket.ended());

  RawClient client(address);
  EXPECT_TRUE(serves(client));
  EXPECT_EQ(connects.value(), 2);
  EXPECT_EQ(server->GetClientCount(), 1);
}

// Two connections that there is no handle for, in one turn of the loop: each is hung up on, and the
// next one is served.
TEST(FailedAccepts, InOneTurnOfTheLoopAreAllHungUpOn) {
  const Address address = fresh_address(Transport::tcp4);
  const ServerPtr server = make_server();
  Gate gate;
  const OpenAtEnd open(gate);
  std::atomic<int> left{2};
  std::optional<NextFails> next;
  server->method("echo", answering("ping"));
  server->method("s_c_connect", on_call([&](int, TolkParams*, TolkParams*) {
                   gate.pass();
                   if (left-- > 0) next.emplace("uv_tcp_init");
                 }));
  ASSERT_TRUE(start_server(server.get(), address));
  RawClient first(address, false);
  ASSERT_TRUE(gate.wait_entered());
  RawClient second(address, false);
  gate.open();
  EXPECT_TRUE(first.socket.ended());
  EXPECT_TRUE(second.socket.ended());
  RawClient third(address);
  EXPECT_TRUE(third.is_greeted());
  // That is all: the spare handle is not opened again and again.
  const Faults counts_calls(Chance::call, Mode::once, 1 << 30);
  for (int id = 1; id <= 20; ++id) EXPECT_TRUE(third.call("echo", id));
  EXPECT_LT(Faults::met(), 200);
}

// Also where only the lines that are always printed are wanted.
TEST_P(FailedAccept, IsPrintedAtLevelZero) {
  server->log(nullptr, 0);
  Capture capture;
  const NextFails next("uv_accept");
  const RawClient failed(address, false);
  EXPECT_TRUE(capture.wait_for_line("Accept error... ."));
}

// The errors come before a connection can be accepted: there is nothing to tell a hook of.
TEST_P(FailedAccept, OfConnectionsThatFailedBeforeIsOneLineEach) {
  server->log(nullptr, 0);
  Capture capture;
  const NextFails next("connection_cb");
  RawClient client(address);
  EXPECT_TRUE(serves(client));
  EXPECT_EQ(capture.lines(), std::vector<std::string>(5, "New client connection error..."));
  EXPECT_EQ(connects.value(), 1) << "of the connection that came after it";
}

// The port that a socket of this process listens at.
std::string listening_port() {
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    int listens = 0;
    socklen_t size = sizeof listens;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0) continue;
    sockaddr_in6 at{};  // the port of an IPv4 address is at the same place
    size = sizeof at;
    if (listens == 0 || getsockname(descriptor, reinterpret_cast<sockaddr*>(&at), &size) != 0) {
      continue;
    }
    return std::to_string(ntohs(at.sin6_port));
  }
  return "none";
}

class ListenerWithoutDescriptors : public ServerTest {};
TOLK_OVER_TRANSPORTS(ListenerWithoutDescriptors);

TEST_P(ListenerWithoutDescriptors, ListensAgainWhereItWas) {
  Address at = address;
  if (!is_pipe()) at.port = "0";
  ASSERT_TRUE(start_server(server.get(), at));
  if (!is_pipe()) at.port = listening_port();
  {
    const NextFails next("descriptors");
    RawClient refused(at, false);
    EXPECT_TRUE(refused.socket.ended());
  }
  EXPECT_TRUE(eventually([&] { return RawSocket::connect_to(at).is_open(); }));
}

class CallWithoutWorker : public ServerTest {};
TOLK_OVER_TRANSPORTS(CallWithoutWorker);

// It has no reply, and its client would wait for one.
TEST_P(CallWithoutWorker, EndsItsConnection) {
  register_echo();
  start();
  RawClient client(address);
  ASSERT_TRUE(client.is_greeted());
  const NextFails next("uv_queue_work");
  EXPECT_TRUE(client.post("echo"));
  EXPECT_TRUE(client.socket.ended());
  RawClient other(address);
  EXPECT_TRUE(serves(other));
}

class FailedSetup : public OverTransports {
 protected:
  // What a connect prints in which the next `call` fails.
  static std::string printed_without(const char* call, IClient* client, const Address& address) {
    const Capture capture;
    const NextFails next(call);
    EXPECT_FALSE(connect_client(client, address));
    return capture.text();
  }
  // On purpose: only the IPv4 transport tells.
  std::string on_tcp4(const std::string& line) const {
    return GetParam() == Transport::tcp4 ? line : "";
  }

  ClientPtr client = make_client();
};
TOLK_OVER_TRANSPORTS(FailedSetup);

TEST_P(FailedSetup, OfTheLoopIsTold) {
  client->log(nullptr, 0);
  EXPECT_EQ(printed_without("uv_loop_init", client.get(), address),
            on_tcp4("uv_loop_init error\n"));
}

TEST_P(FailedSetup, OfTheStreamIsTold) {
  client->log(nullptr, 0);
  const char* const call = is_pipe() ? "uv_pipe_init" : "uv_tcp_init";
  EXPECT_EQ(printed_without(call, client.get(), address), on_tcp4("uv_tcp_init error\n"));
}

class Sweeps : public ServerTest {};
TOLK_OVER_TRANSPORTS(Sweeps);

// Both sweeps begin here; calls.cpp looks at their numbers.
TEST_P(Sweeps, KeepTheirPeriodWhateverStepAClientSets) {
  register_echo();
  server->method("s_c_connect", noting_id());
  start();
  const ClientPtr client = make_client();
  client->method("m", answering("here"));
  ASSERT_TRUE(connect_client(client.get(), address));
  for (const int step : {1, 7, 100, 5000, 0, -1}) client->SetTimeoutStep(step);
  EXPECT_NE(client->SendMsgFast("echo", nullptr, 1, 20000), nullptr);
  EXPECT_EQ(string_at(server->SendMsg(*newest_id, "m", nullptr, 1, 20000), 0), "here");
}

class CloseRequest : public ServerTest {};
TOLK_OVER_TRANSPORTS(CloseRequest);

// The limit of the wait is for a client that neither reads nor ends.
TEST_P(CloseRequest, OfAClientThatHasEndedIsCarriedOutOnceItHasRead) {
  const int loops = open_loops();
  const std::string large(16 << 20, 'x');
  register_echo();
  start();
  RawClient client(address, false);
  client.socket.send_frame(call_payload("echo", 1, BlockWriter().add(large).bytes()));
  ASSERT_FALSE(client.socket.is_quiet(kLimit));
  const Capture capture;
  const NextFails comes_late("single timer");
  client.socket.send_frame(call_payload("s_c_close_server", 2));
  client.socket.end_sending();
  ASSERT_TRUE(capture.wait_for_line("Server Closed!"));
  EXPECT_TRUE(client.socket.read_message());
  EXPECT_TRUE(client.socket.read_message());
  EXPECT_TRUE(eventually([&] { return open_loops() <= loops; })) << "the server waits on";
}

}  // namespace
}  // namespace tolk::test
