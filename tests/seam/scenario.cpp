#include "tests/seam/scenario.h"

#include <functional>
#include <utility>

#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/process_state.h"
#include "tests/seam/faults.h"
#include "tests/seam/operation.h"

namespace tolk::test {
namespace {

constexpr int kBystanderLoops = 2;
constexpr int kCallId = 5;
constexpr int kTimeoutMs = 100;
constexpr int kAnswerLimitMs = 5000;
constexpr std::size_t kLargeBytes = 70'000;  // three pieces

IServerMethod* echo() {
  return on_call(
      [](int, TolkParams* in, TolkParams* out) { out->AddString(string_at(in, 0).c_str()); });
}

IServerMethod* noting(std::shared_ptr<std::atomic<int>> newest) {
  return on_call([newest = std::move(newest)](int id, TolkParams*, TolkParams*) { *newest = id; });
}

// A server and a client with their handlers.
struct Side {
  explicit Side(Transport transport) : address(fresh_address(transport)) {}

  const Address address;
  const std::shared_ptr<std::atomic<int>> client_id = std::make_shared<std::atomic<int>>(0);
  ServerPtr server;
  ClientPtr client;
};

// The text of an answer, "(none)" when there is none.
std::string text_of(TolkParams* answer) {
  return answer == nullptr ? "(none)" : string_at(answer, 0);
}

}  // namespace

struct Scenario::Parts {
  explicit Parts(Transport over) : transport(over), bystander(over) {}

  void start_bystander() {
    bystander.server = make_server();
    bystander.client = make_client();
    bystander.server->method("echo", echo());
    bystander.server->method("s_c_connect", noting(bystander.client_id));
    bystander.client->method("echo", echo());
    EXPECT_TRUE(start_server(bystander.server.get(), bystander.address));
    EXPECT_TRUE(connect_client(bystander.client.get(), bystander.address));
  }

  const Transport transport;
  Side bystander;
  int ended_waits = 0;
  Operation operation{ended_waits};
};

Scenario::Scenario(Transport transport, Bystander bystander)
    : parts_(std::make_unique<Parts>(transport)) {
  if (bystander == Bystander::first) parts_->start_bystander();
}

Scenario::~Scenario() = default;

int Scenario::ended_waits() const { return parts_->ended_waits; }

namespace {

bool set_up(Operation& operation, Side& side) {
  side.server.reset(operation([] { return CreateServer(); }));
  side.client.reset(operation([] { return CreateClient(); }));
  if (!side.server || !side.client) return false;
  IServerMethod* const on_server = echo();
  IServerMethod* const on_connect = noting(side.client_id);
  IServerMethod* const on_client = echo();
  operation([&] {
    side.server->method("echo", on_server);
    side.server->method("s_c_connect", on_connect);
    side.client->method("echo", on_client);
  });
  return true;
}

// An answer is the right one, or tells that there was no memory to register or to run the handler,
// or there is none.
std::string judge(const char* call, const std::string& answer, const std::string& right) {
  if (answer == right || answer == "(none)" || answer.empty() || answer == "no event: echo") {
    return {};
  }
  return std::string("a wrong answer to ") + call + ": " + answer.substr(0, 80);
}

std::string call_both_ways(Operation& operation, Side& side) {
  IClient* const client = side.client.get();
  IServer* const server = side.server.get();
  TolkParams ping;
  ping.AddString("ping");
  TolkParams large;
  const std::string large_text(kLargeBytes, 'x');
  large.AddString(large_text.c_str());

  TolkParams* answer =
      operation([&] { return client->SendMsg("echo", &ping, kCallId, kTimeoutMs); });
  std::string trouble = judge("SendMsg", text_of(answer), "ping");
  operation([&] { client->PostMsg("echo", &ping, kCallId); });
  answer = operation(
      [&] { return server->SendMsg(*side.client_id, "echo", &ping, kCallId, kTimeoutMs); });
  if (trouble.empty()) trouble = judge("the server's SendMsg", text_of(answer), "ping");
  operation([&] { server->PostMsg(*side.client_id, "echo", &ping, kCallId); });
  answer = operation([&] { return client->SendMsgEx("echo", &large, kCallId, 0); });
  if (trouble.empty()) trouble = judge("SendMsgEx", text_of(answer), large_text);
  operation([&] { client->ClearRetvalMem(); });
  return trouble;
}

std::string end(Operation& operation, Side& side) {
  operation([&] { side.client->close(); });
  const bool client_closed = eventually([&] { return !side.client->isok(); }, Milliseconds(2000));
  operation([&] { DestroyClient(side.client.release()); });
  const bool is_pipe = side.server->IsPipe();
  if (!is_pipe) operation([&] { side.server->close(); });
  const bool server_closed = is_pipe || !side.server->isok();
  operation([&] { DestroyServer(side.server.release()); });
  if (!client_closed) return "a closed client is connected";
  return server_closed ? "" : "a closed server is running";
}

}  // namespace

std::string Scenario::play() {
  Operation& operation = parts_->operation;
  Side side(parts_->transport);
  if (!set_up(operation, side)) return {};
  const bool started = operation([&] { return start_server(side.server.get(), side.address); });
  if (started != side.server->isok()) return "a start says what is not true";
  const bool connected =
      started && operation([&] { return connect_client(side.client.get(), side.address); });
  std::string trouble;
  if (connected && !side.client->isok()) trouble = "a connect says what is not true";
  if (connected && trouble.empty()) trouble = call_both_ways(operation, side);
  const std::string at_the_end = end(operation, side);
  return trouble.empty() ? at_the_end : trouble;
}

std::string Scenario::loops_left() const {
  const int bystanders = parts_->bystander.server ? kBystanderLoops : 0;
  const auto gone = [&] { return open_loops() <= bystanders; };
  return eventually(gone, Milliseconds(5000)) ? "" : "a loop is left";
}

std::string Scenario::aftermath() {
  Side& bystander = parts_->bystander;
  if (!bystander.server) parts_->start_bystander();
  TolkParams ping;
  ping.AddString("ping");
  IClient* const client = bystander.client.get();
  IServer* const server = bystander.server.get();
  const auto client_call = [&] {
    return text_of(client->SendMsg("echo", &ping, kCallId, kAnswerLimitMs)) == "ping";
  };
  if (!eventually(client_call)) return "the bystander's call is not answered";
  server->ClearRetvalMem();
  const auto server_call = [&] {
    const int id = *bystander.client_id;
    return text_of(server->SendMsg(id, "echo", &ping, kCallId, kAnswerLimitMs)) == "ping";
  };
  return eventually(server_call) ? "" : "the bystander's client does not answer";
}

}  // namespace tolk::test
