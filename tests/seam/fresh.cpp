#include "tests/seam/fresh.h"

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/raw_peer.h"

namespace tolk::test {
namespace {

constexpr int kCallId = 5;
constexpr int kAnswerLimitMs = 5000;
constexpr Milliseconds kPatience{5000};
constexpr Milliseconds kPastTheFirstSweep{900};  // it comes after 500 ms

IServerMethod* echo() {
  return on_call(
      [](int, TolkParams* in, TolkParams* out) { out->AddString(string_at(in, 0).c_str()); });
}

// Runs on a detached thread without failures, since `work` may block forever.
Counter begin(std::function<void()> work) {
  Counter done;
  std::thread([work = std::move(work), done]() mutable {
    const Exempt this_thread;
    work();
    done.add();
  }).detach();
  return done;
}

// Whether the client connects to another server and gets a call answered.
bool connects_again(IClient* client, Transport transport) {
  const ServerPtr server = make_server();
  const Address address = fresh_address(transport);
  server->method("echo", echo());
  if (!start_server(server.get(), address) || !connect_client(client, address)) return false;
  TolkParams ping;
  ping.AddString("ping");
  const bool right =
      string_at(client->SendMsg("echo", &ping, kCallId, kAnswerLimitMs), 0) == "ping";
  client->close();
  return right;
}

bool is_served(const Address& address) {
  RawClient client(address);
  if (!client.is_greeted()) return false;
  const auto answer = client.call("echo", kCallId, BlockWriter().add("ping").bytes());
  return answer && answer->string_at(0) == "ping";
}

}  // namespace

std::string lose_the_server(Transport transport, const FaultPlan& plan) {
  Gate gate;
  const OpenAtEnd open(gate);
  ServerPtr server = make_server();
  IClient* const client = CreateClient();  // leaked when something blocks forever
  const Address address = fresh_address(transport);
  server->method("wait", blocking(gate));
  if (!start_server(server.get(), address)) return "a server does not start";
  if (!connect_client(client, address)) return "a client does not connect";
  const Counter called = begin([client] { client->SendMsgFast("wait", nullptr, kCallId, 0); });
  if (!gate.wait_entered()) return "a call does not arrive";
  {
    const Faults faults(plan.chance, plan.mode, plan.k);
    server.reset();
    if (!called.wait_for(1, kPatience)) return "a call without a limit hangs";
    if (!eventually([client] { return !client->isok(); }, kPatience)) return "a lost client is ok";
  }
  const auto right = std::make_shared<std::atomic<bool>>(false);
  const Counter again =
      begin([client, transport, right] { *right = connects_again(client, transport); });
  if (!again.wait_for(1, kPatience)) return "a connect after a loss hangs";
  if (!*right) return "a client that lost its server is not served by another one";
  DestroyClient(client);
  return "";
}

std::string sweep_after_a_post(Transport transport, const FaultPlan& plan) {
  const auto id = std::make_shared<std::atomic<int>>(0);
  IServer* const server = CreateServer();  // leaked when something blocks forever
  const Address address = fresh_address(transport);
  server->method("echo", echo());
  server->method("s_c_connect", on_call([id](int from, TolkParams*, TolkParams*) { *id = from; }));
  if (!start_server(server, address)) return "a server does not start";
  RawClient silent(address);  // sends nothing more, so that the server only sweeps
  const int silent_id = *id;
  server->PostMsg(silent_id, "posted", nullptr, kCallId);
  const auto posted = silent.socket.read_message(kPatience);
  if (!posted || posted->name() != "posted") return "a post does not arrive";
  {
    const Faults faults(plan.chance, plan.mode, plan.k);
    std::this_thread::sleep_for(kPastTheFirstSweep);
  }
  if (!server->isok()) return "a server has ended";
  if (!is_served(address)) return "a server takes no more connections";
  const Counter called =
      begin([server, silent_id] { server->SendMsg(silent_id, "m", nullptr, kCallId, 1); });
  if (!called.wait_for(1, kPatience)) return "a call with a limit hangs";
  DestroyServer(server);
  return "";
}

}  // namespace tolk::test
