// What tests of single steps start from: a server and a client of the library, over each
// transport, and a second pair that must stay usable.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/e2e/client_fixture.h"
#include "tests/steps/hold.h"
#include "tests/steps/pauses.h"

namespace tolk::test {

// A client and a server whose "echo" answers what it is given.
struct Pair {
  explicit Pair(Transport transport) : address(fresh_address(transport)) {
    shorten_pauses();
    server->method("echo", echo());
    server->method("s_c_connect",
                   on_call([id = client_id](int from, TolkParams*, TolkParams*) { *id = from; }));
    client->method("echo", echo());
  }

  static IServerMethod* echo() {
    return on_call(
        [](int, TolkParams* in, TolkParams* out) { out->AddString(string_at(in, 0).c_str()); });
  }
  void start() { ASSERT_TRUE(start_server(server.get(), address)); }
  void connect() {
    start();
    ASSERT_TRUE(connect_client(client.get(), address));
  }
  // Whether calls in both directions are answered. A call that the end of another client has woken
  // is made again.
  bool serves() const {
    return eventually([this] { return answers_client() && answers_server(); });
  }

  const Address address;
  const std::shared_ptr<std::atomic<int>> client_id = std::make_shared<std::atomic<int>>(0);
  ServerPtr server = make_server();
  ClientPtr client = make_client();

 private:
  bool answers_client() const {
    TolkParams ping;
    ping.AddString("ping");
    return string_at(client->SendMsg("echo", &ping, 9, 5000), 0) == "ping";
  }
  bool answers_server() const {
    TolkParams ping;
    ping.AddString("ping");
    server->ClearRetvalMem();
    return string_at(server->SendMsg(*client_id, "echo", &ping, 9, 5000), 0) == "ping";
  }
};

class StepTest : public OverTransports {
 protected:
  void SetUp() override {
    pair.connect();
    bystanders.connect();
  }
  bool goes_offline() const {
    return eventually([this] { return !pair.client->isok(); });
  }

  Pair bystanders{GetParam()};
  Pair pair{GetParam()};
};

}  // namespace tolk::test
