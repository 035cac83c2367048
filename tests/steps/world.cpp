#include "tests/steps/world.h"

#include "tests/e2e/support/process_state.h"

namespace tolk::test {
namespace {

constexpr int kBystanderLoops = 2;
constexpr int kBystanderId = 77;
constexpr int kAnswerLimitMs = 5000;

IServerMethod* echo(Counter deleted = {}) {
  return on_call(
      [](int, TolkParams* in, TolkParams* out) { out->AddString(string_at(in, 0).c_str()); },
      std::move(deleted));
}

IServerMethod* noting(std::shared_ptr<std::atomic<int>> newest) {
  return on_call([newest = std::move(newest)](int id, TolkParams*, TolkParams*) { *newest = id; });
}

bool answered(TolkParams* answer) { return string_at(answer, 0) == "ping"; }

}  // namespace

// Bystander

Bystander::Bystander(Transport transport) {
  server_->method("echo", echo());
  server_->method("s_c_connect", noting(client_id_));
  client_->method("echo", echo());
  const Address address = fresh_address(transport);
  EXPECT_TRUE(start_server(server_.get(), address));
  EXPECT_TRUE(connect_client(client_.get(), address));
  EXPECT_EQ(trouble(), "");
  made_ = Clock::now();
}

std::string Bystander::trouble() {
  TolkParams ping;
  ping.AddString("ping");
  // On purpose the end of a client wakes the calls of all; such a call is made again.
  const auto calls = [&] {
    return answered(client_->SendMsg("echo", &ping, kBystanderId, kAnswerLimitMs));
  };
  if (!eventually(calls)) return "the bystander's call is not answered";
  if (!answered(server_->SendMsg(*client_id_, "echo", &ping, kBystanderId, kAnswerLimitMs))) {
    return "the bystander's client does not answer";
  }
  server_->ClearRetvalMem();
  return {};
}

void Bystander::wake_large_calls() {
  const Address address = fresh_address(Transport::pipe);
  ServerPtr server = make_server();
  const ClientPtr client = make_client();
  EXPECT_TRUE(start_server(server.get(), address));
  EXPECT_TRUE(connect_client(client.get(), address));
  server->close();
  EXPECT_TRUE(eventually([&] { return !client->isok(); }));
}

// World

World::World(Transport transport)
    : front_(fresh_address(transport)), back_(fresh_address(transport)), relay(front_, back_) {
  server->method("echo", echo(server_deletions_));
  server->method("stay", blocking(gate));
  server->method("s_c_connect", noting(client_id_));
  client->method("echo", echo(client_deletions_));
}

World::~World() { leave(); }

bool World::connect(IClient* whom) {
  const bool connected = connect_client(whom, front_);
  was_connected_ = was_connected_ || connected;
  return connected;
}

bool World::greeted() const {
  return eventually([this] { return server->GetClientCount() == 1; });
}

std::string World::leave() {
  gate.open();
  if (client != nullptr) DestroyClient(take_client());
  if (server != nullptr) DestroyServer(take_server());
  relay.cut(Relay::Ending::closed);
  if (!eventually([] { return open_loops() <= kBystanderLoops; })) return "a loop is left";
  if (client_deletions_.value() > 1 || server_deletions_.value() > 1) {
    return "a handler was deleted twice";
  }
  if (was_connected_ && client_deletions_.value() != 1) return "a client's handler was not deleted";
  return {};
}

}  // namespace tolk::test
