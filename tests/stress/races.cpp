// Closing, destroying and reconnecting race with running handlers: many cycles at once, in one
// process, so that a sanitizer sees all of it.
#include <array>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/traffic.h"
#include "tests/stress/race_cycle.h"

namespace tolk::stress {
namespace {

constexpr int kLanes = 32;
constexpr char kWorkers[] = "16";  // libuv's worker threads, which the cycles share

void pause(Random& random) {
  std::this_thread::sleep_for(std::chrono::microseconds(random.between(0, 10000)));
}

// Traffic and ends, all at once.
void race(RacingServer& server, std::array<std::unique_ptr<RacingClient>, 2>& clients,
          Random& random) {
  std::vector<std::thread> callers;
  std::vector<std::thread> ends;
  const auto fork_random = [&] { return Random(random.engine()(), 0); };
  for (auto& client : clients) {
    for (int i = 0; i < 2; ++i) {
      callers.emplace_back([&, own = fork_random()]() mutable { client->call(own); });
    }
    ends.emplace_back([&, own = fork_random()]() mutable {
      pause(own);
      client->end(own);
    });
  }
  callers.emplace_back([&, own = fork_random()]() mutable { server.call_clients(own); });
  ends.emplace_back([&, own = fork_random()]() mutable {
    pause(own);
    server.end();
  });
  for (std::thread& one : ends) one.join();
  for (auto& client : clients) client->stop();
  // A call whose client is destroyed under it ends only then.
  for (auto& client : clients) client->destroy_under_calls();
  for (std::thread& one : callers) one.join();
}

void run_cycle(Run& run, Random& random) {
  const test::Address address =
      test::fresh_address(kTransports.at(static_cast<std::size_t>(random.between(0, 2))));
  RacingServer server(run, random, address);
  std::array<std::unique_ptr<RacingClient>, 2> clients;
  for (auto& client : clients) client = std::make_unique<RacingClient>(run, random, address);
  race(server, clients, random);
  server.destroy();
  for (auto& client : clients) client->destroy();
  server.check_handlers();
  for (auto& client : clients) client->check_handlers();
}

// The sweep of another server of the process ends calls whose own server was closed under them.
class Sweeping {
 public:
  explicit Sweeping(Run& run) {
    run.expect(test::start_server(server_.get(), test::fresh_address(test::Transport::pipe)),
               "a server did not start");
    server_->SendMsg(1, "nobody", nullptr, 1, 1);
  }

 private:
  test::ServerPtr server_ = test::make_server();
};

}  // namespace

void race_closes(Run& run) {
  setenv("UV_THREADPOOL_SIZE", kWorkers, 1);
  const Sweeping sweeping(run);
  const int cycles = run.rounds(150, 10000);
  std::atomic<int> next{0};
  on_threads(kLanes, [&](int) {
    for (int cycle = next++; cycle < cycles && run.passed(); cycle = next++) {
      Random random = run.random(static_cast<std::uint64_t>(cycle));
      run.at("cycle ", cycle, ", seed ", run.seed());
      run_cycle(run, random);
    }
  });
  run.figure("cycles of one server and two clients", cycles, "");
}

}  // namespace tolk::stress
