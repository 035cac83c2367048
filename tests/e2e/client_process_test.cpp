// Clients and their process: descriptors, threads, exit.
#include <atomic>
#include <cstdlib>
#include <thread>

#include "tests/e2e/client_fixture.h"
#include "tests/e2e/support/process_state.h"

namespace tolk::test {
namespace {

class InTheProcess : public OverTransports {
 protected:
  // Runs `round` many times; afterwards there are as many descriptors and threads as before.
  template <class Round>
  void expect_flat(int count, const Round& round) {
    for (int i = 0; i < rounds(10); ++i) round();  // so that what the process creates once exists
    ASSERT_TRUE(eventually([] { return open_loops() == 0; }));
    const int descriptors = most_descriptors();
    const int running = most_threads();
    for (int i = 0; i < count; ++i) round();
    EXPECT_TRUE(eventually([&] { return open_descriptors() <= descriptors; }))
        << open_descriptors() << " of " << descriptors;
    EXPECT_TRUE(eventually([&] { return threads() <= running; })) << threads() << " of " << running;
  }
};
TOLK_OVER_TRANSPORTS(InTheProcess);

TEST_P(InTheProcess, ServersThatHangUpLeakNothing) {
  const ClientPtr client = make_client();
  RawListener listener(address);
  std::atomic<bool> done{false};
  std::thread hanging_up([&] {
    while (!done) listener.accept(Milliseconds(10)).close();
  });
  // More than a thousand over the three transports; each includes the pause at the end of a
  // connection.
  expect_flat(rounds(350), [&] { EXPECT_FALSE(connect_client(client.get(), address)); });
  done = true;
  hanging_up.join();
}

TEST_P(InTheProcess, FailedConnectsLeakNothing) {
  const ClientPtr client = make_client();
  expect_flat(rounds(1000), [&] { EXPECT_FALSE(connect_client(client.get(), address)); });
}

TEST_P(InTheProcess, ClosedAndLostConnectionsLeakNothing) {
  RawServer server(address);
  int round = 0;
  const ClientPtr client = make_client();
  expect_flat(rounds(100), [&] {
    ASSERT_TRUE(connect_client(client.get(), address));
    RawSocket peer = server.take();
    if (++round % 2 == 0) client->close();
    peer.close();
    EXPECT_TRUE(eventually([&] { return !client->isok(); }));
  });
}

TEST_P(InTheProcess, LossOfTheServerDuringWritesDoesNotEndTheProcess) {
  RawServer server(address);
  const ClientPtr client = make_client();
  const std::string data(100000, 'x');
  TolkParams arguments;
  arguments.AddStream(data.data(), static_cast<long>(data.size()));
  for (int round = 0; round < 10; ++round) {
    ASSERT_TRUE(connect_client(client.get(), address));
    RawSocket peer = server.take();
    const Meanwhile posting([&] {
      for (int i = 0; i < 20 || client->isok(); ++i) client->PostMsgFast("m", &arguments, 1);
    });
    EXPECT_TRUE(peer.read(1000));
    peer.reset();
    EXPECT_TRUE(posting.is_done());
  }
}

// The body runs in a separate process each time.
using ExitOfTheProcess = InTheProcess;
TOLK_OVER_TRANSPORTS(ExitOfTheProcess);

[[noreturn]] void exit_with_everything_running(const Address& address) {
  // Static, so that a leak checker finds them until the process ends.
  static IServer* const server = CreateServer();
  static IClient* const client = CreateClient();
  server->method("echo", answering("x"));
  const bool works = start_server(server, address) && connect_client(client, address) &&
                     client->SendMsgFast("echo", nullptr, 1, 10000) != nullptr;
  std::thread([] {
    for (;;) client->SendMsgFast("echo", nullptr, 2, 0);
  }).detach();
  std::exit(works ? 0 : 1);
}

TEST_P(ExitOfTheProcess, WithARunningClientAndServerIsClean) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (int round = 0; round < rounds(17); ++round) {
    EXPECT_EXIT(exit_with_everything_running(fresh_address(GetParam())), testing::ExitedWithCode(0),
                "");
  }
}

// A handler waits, without a limit, for the answer of a server that is silent.
[[noreturn]] void exit_with_a_handler_that_waits(const Address& address, const Address& silent) {
  auto* const silent_server = new RawServer(silent);
  static IClient* const waiting = CreateClient();
  IServer* const server = CreateServer();
  IClient* const client = CreateClient();
  server->method("ask", on_call([](int, TolkParams*, TolkParams*) {
                   waiting->SendMsgFast("m", nullptr, 3, 0);
                 }));
  const bool works = connect_client(waiting, silent) && start_server(server, address) &&
                     connect_client(client, address);
  RawSocket peer = silent_server->take();
  client->PostMsg("ask", nullptr, 1);
  const bool waits = peer.read_message().has_value();
  std::exit(works && waits ? 0 : 1);
}

TEST_P(ExitOfTheProcess, DoesNotWaitForAWaitingHandler) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exit_with_a_handler_that_waits(fresh_address(GetParam()), fresh_address(GetParam())),
              testing::ExitedWithCode(0), "");
}

// The server has no thread of its own: a thread of the host listens and runs it.
[[noreturn]] void exit_with_a_waiting_handler_of_a_host_run_server(const Address& address) {
  static IServer* const server = CreateServer();
  Counter asked;
  server->method("ask", on_call([asked](int client, TolkParams*, TolkParams*) mutable {
                   asked.add();
                   server->SendMsg(client, "m", nullptr, 3, 3600'000);
                 }));
  std::thread([name = address.port] {
    if (server->ListenPipe(name.c_str())) server->run();
  }).detach();
  while (!server->isok()) std::this_thread::yield();
  auto* const client = new RawClient(address);
  client->post("ask");
  const bool waits = client->socket.read_message().has_value() && asked.value() == 1;
  std::exit(waits ? 0 : 1);
}

TEST(ExitOfAHostRunServer, DoesNotWaitForAWaitingHandler) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exit_with_a_waiting_handler_of_a_host_run_server(fresh_address(Transport::pipe)),
              testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tolk::test
