// What one round of the matrix of steps plays in: a server, a client that is connected to it
// through a relay, and beside them a bystander, a client and a server of the same process that must
// stay usable whatever happens to the others.
//
// Thread: one, except for the operations of the client and the server themselves.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/transports.h"
#include "tests/steps/relay.h"

namespace tolk::test {

// Lives as long as the process. Its server's sweep runs, as does its client's: they end the calls
// with a timeout of servers that have stopped, as documented.
class Bystander {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Bystander(Transport transport);
  Bystander(const Bystander&) = delete;
  Bystander& operator=(const Bystander&) = delete;

  // Empty when calls in both directions are answered, else what is not.
  std::string trouble();
  // From then on calls are looked after every 100 ms: the first sweep is a late one.
  Clock::time_point sweeps_from() const { return made_ + kFirstSweep; }
  // Loses the server of a client: what waits for a large result in this process wakes up.
  static void wake_large_calls();

 private:
  static constexpr Milliseconds kFirstSweep{500};

  ServerPtr server_ = make_server();
  ClientPtr client_ = make_client();
  std::shared_ptr<std::atomic<int>> client_id_ = std::make_shared<std::atomic<int>>(0);
  Clock::time_point made_;
};

class World {
 public:
  explicit World(Transport transport);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  bool start(IServer* which) const { return start_server(which, back_); }
  bool connect(IClient* whom);
  // Until the server may call the client: it has heard from it.
  bool greeted() const;
  // Ends what is left of both, and says what was not as it should be then.
  std::string leave();

  Transport transport() const { return back_.transport; }
  int client_id() const { return *client_id_; }

  // For whoever destroys them: they are no longer this world's then.
  IServer* take_server() { return std::exchange(server, nullptr); }
  IClient* take_client() { return std::exchange(client, nullptr); }

  IServer* server = CreateServer();
  IClient* client = CreateClient();
  // A call of "stay" is held at this latch.
  Gate gate;

 private:
  const Address front_;
  const Address back_;
  std::shared_ptr<std::atomic<int>> client_id_ = std::make_shared<std::atomic<int>>(0);
  Counter client_deletions_;
  Counter server_deletions_;
  bool was_connected_ = false;

 public:
  Relay relay;
};

}  // namespace tolk::test
