// Clients and servers in a forked child, where none of their threads are.
#include <gtest/gtest.h>

#include <thread>

#include "tests/child_process.h"
#include "tests/e2e/client_fixture.h"
#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

class ForkedClient : public OverTransports {};
TOLK_OVER_TRANSPORTS(ForkedClient);

TEST_P(ForkedClient, IsNotConnected) {
  RawServer server(address);
  const ClientPtr client = make_client();
  ASSERT_TRUE(connect_client(client.get(), address));
  RawSocket peer = server.take();
  ChildProcess child([&] {
    int wrong = client->isok() ? 1 : 0;
    if (client->SendMsgFast("m", nullptr, 1, 0) != nullptr) wrong |= 2;
    if (client->PostMsgFast("m", nullptr, 1) != nullptr) wrong |= 4;
    client->close();
    return wrong;
  });
  EXPECT_EQ(child.wait(), 0);
  CallMeanwhile call(client.get(), "m", 1, 0);
  const auto message = peer.read_message();
  ASSERT_TRUE(message) << "the parent's connection is as it was";
  peer.send_frame(reply_payload(*message));
  EXPECT_NE(call.result(), nullptr);
}

TEST_P(ForkedClient, HasNoConnectionEvenWhileTheParentCalls) {
  const ServerPtr server = make_server();
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("hold", blocking(gate));
  ASSERT_TRUE(start_server(server.get(), address));
  const ClientPtr client = make_client();
  ASSERT_TRUE(connect_client(client.get(), address));
  std::thread caller([&] { client->SendMsg("hold", nullptr, 0, 0); });
  ASSERT_TRUE(gate.wait_entered());
  ChildProcess child([&] {  // one that waits for a lock dies of its alarm
    const bool none = client->SendMsg("hold", nullptr, 0, 0) == nullptr &&
                      client->PostMsg("hold", nullptr, 0) == nullptr &&
                      client->SendMsgEx("hold", nullptr, 0, 0) == nullptr;
    return none ? 7 : 1;
  });
  EXPECT_EQ(child.wait(), 7);
  gate.open();
  caller.join();
}

class ForkedServer : public ServerTest {
 protected:
  void SetUp() override {
    register_echo();
    server->method("s_c_connect", noting_id());
    start();
  }
};
TOLK_OVER_TRANSPORTS(ForkedServer);

TEST_P(ForkedServer, HasNoRunningServer) {
  RawClient client(address);
  ASSERT_TRUE(serves(client));
  ChildProcess child([&] {
    const bool idle = !server->isok() &&
                      server->SendMsg(*newest_id, "x", nullptr, 1, 0) == nullptr &&
                      server->PostMsg(*newest_id, "x", nullptr, 1) == nullptr;
    server->SetTimeoutStep(50);
    return idle && server->close() && server->closeasync() && !server->isok() ? 7 : 1;
  });
  EXPECT_EQ(child.wait(), 7);
  EXPECT_TRUE(serves(client)) << "the child has taken something from its parent";
  EXPECT_TRUE(client.socket.is_quiet());
}

TEST_P(ForkedServer, CanDestroyItsCopy) {
  RawClient client(address);
  ASSERT_TRUE(serves(client));
  ChildProcess child([&] {
    server.reset();
    return 7;
  });
  EXPECT_EQ(child.wait(), 7);
  EXPECT_TRUE(serves(client));
  EXPECT_TRUE(RawClient(address).is_greeted()) << "the address is the parent's";
}

}  // namespace
}  // namespace tolk::test
