// A server and its process: writes to lost clients, several servers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

class ServerProcess : public ServerTest {
 protected:
  void SetUp() override {
    register_echo();
    server->method("s_c_connect", noting_id());
    start();
  }
};
TOLK_OVER_TRANSPORTS(ServerProcess);

// A hook blocks the loop while both replies become ready and their receiver disconnects.
TEST_P(ServerProcess, WriteToALostClientDoesNotEndTheProcess) {
  ServerPtr other = make_server();
  const Address elsewhere = fresh_address(GetParam());
  Gate first_gate;
  Gate hook_gate;
  const OpenAtEnd open_first(first_gate);
  const OpenAtEnd open_hook(hook_gate);
  Counter connects;
  other->method("wait", on_call([first_gate](int, TolkParams*, TolkParams* out) mutable {
                  first_gate.pass();
                  out->AddString(std::string(100000, 'x').c_str());
                }));
  other->method("s_c_connect",
                on_call([connects, hook_gate](int, TolkParams*, TolkParams*) mutable {
                  connects.add();
                  if (connects.value() == 2) hook_gate.pass();
                }));
  ASSERT_TRUE(start_server(other.get(), elsewhere));
  RawClient leaving(elsewhere);
  leaving.post("wait");
  leaving.post("wait");
  ASSERT_TRUE(first_gate.wait_entered(2));
  RawClient blocking_client(elsewhere, false);
  ASSERT_TRUE(hook_gate.wait_entered());
  first_gate.open();
  leaving.socket.reset();
  hook_gate.open();
  EXPECT_TRUE(RawClient(elsewhere).is_greeted());
}

TEST_P(ServerProcess, RunsSeveralServers) {
  std::vector<ServerPtr> servers;
  std::vector<Address> addresses;
  for (int i = 0; i < 5; ++i) {
    servers.push_back(make_server());
    addresses.push_back(fresh_address(GetParam()));
    servers.back()->method("who", answering(std::to_string(i)));
    ASSERT_TRUE(start_server(servers.back().get(), addresses.back()));
  }
  for (std::size_t i = 0; i < servers.size(); ++i) {
    RawClient client(addresses[i]);
    EXPECT_EQ(client.call("who")->string_at(0), std::to_string(i));
  }
}

}  // namespace
}  // namespace tolk::test
