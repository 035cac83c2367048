// Concurrent operations: calls during a connect or a start, calls in hooks, a server whose loop
// runs on a thread of the host.

#include <gtest/gtest.h>
#include <tolk/tolk.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/e2e/support/capture.h"
#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/transports.h"
#include "tests/e2e/support/waiting.h"

namespace {

using namespace tolk::test;

class ConcurrentUse : public OverTransports {};
TOLK_OVER_TRANSPORTS(ConcurrentUse);

// Threads that repeat one action until the object is destroyed.
class Busy {
 public:
  template <class Work>
  Busy(int count, Work work) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this, work] {
        while (!done_) work();
      });
    }
  }
  ~Busy() {
    done_ = true;
    for (std::thread& thread : threads_) thread.join();
  }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  std::atomic<bool> done_{false};
  std::vector<std::thread> threads_;
};

TEST_P(ConcurrentUse, CallsDuringTheFirstConnectSeeACompleteSessionOrNone) {
  const ServerPtr server = make_server();
  ASSERT_TRUE(start_server(server.get(), address));
  for (int round = 0; round < 5; ++round) {
    const ClientPtr client = make_client();
    const Capture lines_of_the_refused;
    const Busy callers(3, [&client] { client->PostMsgFast("nobody", nullptr, 1); });
    EXPECT_TRUE(connect_client(client.get(), address));
    client->close();
  }
}

TEST_P(ConcurrentUse, ServerCallsDuringTheStartSeeACompleteSessionOrNone) {
  for (int round = 0; round < 5; ++round) {
    const ServerPtr server = make_server();
    const Capture lines_of_the_refused;
    const Busy callers(3, [&server] { server->PostMsg(1, "nobody", nullptr, 1); });
    EXPECT_TRUE(start_server(server.get(), fresh_address(GetParam())));
  }
}

TEST_P(ConcurrentUse, LargeCallInAHookDoesNotDeadlockWithAWaitingLargeCall) {
  ServerPtr server = make_server();
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("hold", blocking(gate));
  ASSERT_TRUE(start_server(server.get(), address));
  const ClientPtr client = make_client();
  Counter hooked;
  client->method("s_c_closed", on_call([&client, hooked](int, TolkParams*, TolkParams*) mutable {
                   EXPECT_EQ(client->SendMsgEx("any", nullptr, 0, 0), nullptr);
                   hooked.add();
                 }));
  ASSERT_TRUE(connect_client(client.get(), address));
  Counter returned;
  std::thread caller([&] {
    EXPECT_EQ(client->SendMsgEx("hold", nullptr, 0, 0), nullptr);
    returned.add();
  });
  ASSERT_TRUE(gate.wait_entered());
  client->PostMsgFast("s_c_close_server", nullptr, 0);
  EXPECT_TRUE(hooked.wait_for(1));
  EXPECT_TRUE(returned.wait_for(1));
  caller.join();
}

TEST(HostLoopThread, StartAfterAFailedListenSucceeds) {
  const Address busy = fresh_address(Transport::tcp4);
  const ServerPtr holder = make_server();
  ASSERT_TRUE(start_server(holder.get(), busy));
  const ServerPtr server = make_server();
  EXPECT_FALSE(server->ListenTcp4(busy.host.c_str(), busy.port.c_str()));
  EXPECT_TRUE(start_server(server.get(), fresh_address(Transport::tcp4)));
}

// A call waits until the call of another thread has returned. On a loop thread it would not.
void expect_this_thread_takes_turns() {
  const ServerPtr server = make_server();
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("hold", blocking(gate));
  server->method("greet", answering("hello"));
  const Address other = fresh_address(Transport::tcp4);
  ASSERT_TRUE(start_server(server.get(), other));
  const ClientPtr client = make_client();
  ASSERT_TRUE(connect_client(client.get(), other));
  std::thread first([&] { client->SendMsg("hold", nullptr, 0, 0); });
  ASSERT_TRUE(gate.wait_entered());
  std::atomic<bool> opened{false};
  std::thread opener([&] {
    EXPECT_FALSE(eventually([] { return false; }, kQuiet));
    opened = true;
    gate.open();
  });
  EXPECT_EQ(string_at(client->SendMsg("greet", nullptr, 0, 0), 0), "hello");
  EXPECT_TRUE(opened) << "its turn came only after the first call";
  opener.join();
  first.join();
}

TEST(HostLoopThread, SendMsgOnAFormerLoopThreadWaitsItsTurn) {
  const Address address = fresh_address(Transport::tcp4);
  {
    const ServerPtr listener = make_server();
    ASSERT_TRUE(listener->ListenTcp4(address.host.c_str(), address.port.c_str()));
  }
  expect_this_thread_takes_turns();
}

TEST(HostLoopThread, SendMsgAfterRunWaitsItsTurn) {
  const Address address = fresh_address(Transport::tcp4);
  const ServerPtr server = make_server();
  ASSERT_TRUE(server->ListenTcp4(address.host.c_str(), address.port.c_str()));
  std::thread closer([&] { server->close(); });
  server->run();
  closer.join();
  expect_this_thread_takes_turns();
}

}  // namespace
