// Servers and clients of the C interface are killed at random moments: every call of the other side
// ends, and each outcome and each hook comes once.
#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "tests/stress/c_ends.h"
#include "tests/stress/frame/process.h"
#include "tests/stress/frame/rows.h"

namespace tolk::stress {
namespace {

constexpr int kCallersOfARound = 4;

std::unique_ptr<Process> c_peer(const char* side, const test::Address& address) {
  return std::make_unique<Process>(std::vector<std::string>{"c-peer", side, text_of(address)});
}

// The loop thread may be the last user of some.
void expect_all_freed(Run& run, const Counts& counts) {
  run.expect(eventually([&] { return counts.contexts_freed == counts.contexts; }),
             counts.contexts_freed, " contexts freed of ", counts.contexts);
}

void kill_a_server(Run& run, Random& random, const test::Address& address) {
  Counts counts;
  const auto server = c_peer("server", address);
  if (!run.expect(server->read_line() == "ready", "the server did not start")) return;
  Answerer answerer(Random(random.engine()(), 0));
  tolk_methods* const methods = stressed_methods(counts, answerer);
  tolk_client* const client = stressed_client(c_address_of(address), methods, counts);
  if (!run.expect(client != nullptr, "the client did not connect")) return;
  for (int i = 0; i < 50; ++i) start_counted(client, "keep", 0, TOLK_FOREVER, counts);
  std::vector<std::thread> callers;
  for (int i = 0; i < kCallersOfARound; ++i) {
    callers.emplace_back([&, own = Random(random.engine()(), 0)]() mutable {
      while (tolk_client_call(client, "echo", nullptr, TOLK_FOREVER, nullptr, nullptr) !=
             TOLK_GONE) {
        one_operation(client, counts, own);
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::microseconds(random.between(0, 20000)));
  server->kill_now();
  for (std::thread& caller : callers) caller.join();
  run.expect(eventually([&] { return counts.done == counts.started && counts.gone == 1; }),
             counts.done, " outcomes of ", counts.started, ", gone ", counts.gone);
  tolk_client_free(client);
  tolk_methods_free(methods);
  run.expect(counts.gone == 1 && counts.wrong == 0 && counts.done_twice == 0, "gone ", counts.gone,
             ", wrong ", counts.wrong, ", twice ", counts.done_twice);
  expect_all_freed(run, counts);
}

void kill_a_client(Run& run, Random& random, const test::Address& address) {
  Counts counts;
  Answerer answerer(Random(random.engine()(), 0));
  tolk_methods* const methods = stressed_methods(counts, answerer);
  tolk_server* const server = stressed_server(c_address_of(address), methods, counts);
  if (!run.expect(server != nullptr, "the server did not listen")) return;
  const auto client = c_peer("client", address);
  if (!run.expect(client->read_line() == "ready", "the client did not connect")) return;
  std::uint64_t id = 0;
  run.expect(tolk_server_clients(server, &id, 1) == 1, "the server has no client");
  std::thread caller([&] {
    tolk_status status = TOLK_OK;
    while (status == TOLK_OK) {
      status = tolk_server_call(server, id, "echo", nullptr, TOLK_FOREVER, nullptr, nullptr);
    }
    if (status != TOLK_GONE && status != TOLK_NOT_CONNECTED) ++counts.wrong;
  });
  std::this_thread::sleep_for(std::chrono::microseconds(random.between(0, 20000)));
  client->kill_now();
  caller.join();
  run.expect(eventually([&] { return counts.gone == 1; }), "nobody told that the client has gone");
  run.expect(eventually([&] { return tolk_server_clients(server, nullptr, 0) == 0; }),
             "a dead client is still there");
  tolk_server_free(server);
  tolk_methods_free(methods);
  run.expect(counts.gone == 1 && counts.connected == 1 && counts.wrong == 0, "gone ", counts.gone,
             ", connected ", counts.connected, ", wrong ", counts.wrong);
  expect_all_freed(run, counts);
}

}  // namespace

void kill_c_peers(Run& run) {
  Random random = run.random(0);
  const int rounds = run.rounds(20, 1000);
  for (int round = 0; round < rounds && run.passed(); ++round) {
    run.at("kill ", round, ", seed ", run.seed());
    const auto address = test::fresh_address(static_cast<test::Transport>(random.between(0, 2)));
    if (random.one_in(2)) {
      kill_a_server(run, random, address);
    } else {
      kill_a_client(run, random, address);
    }
  }
  run.figure("kills", rounds, "");
}

// c-peer server|client ADDRESS: serves, or calls without end.
int run_c_peer(const std::vector<std::string>& arguments) {
  const std::string address = c_address_of(address_of(arguments.at(1)));
  static Counts counts;
  Answerer answerer(Random(1, 0));
  tolk_methods* const methods = stressed_methods(counts, answerer);
  tolk_server* server = nullptr;
  tolk_client* client = nullptr;
  if (arguments.at(0) == "server") {
    server = stressed_server(address, methods, counts);
  } else {
    client = stressed_client(address, methods, counts);
  }
  the_row().tell(server != nullptr || client != nullptr ? "ready" : "failed");
  std::atomic<bool> stop{false};
  std::thread calls([&] {
    Random random(2, 0);
    while (client != nullptr && !stop) one_operation(client, counts, random);
  });
  while (the_row().read_line(std::chrono::hours(1))) {
  }
  stop = true;
  calls.join();
  tolk_client_free(client);
  tolk_server_free(server);
  tolk_methods_free(methods);
  return 0;
}

}  // namespace tolk::stress
