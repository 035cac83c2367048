// Ten thousand silent connections, and eight clients that call all the time.
#include <sys/resource.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tests/e2e/support/raw_peer.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/served.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

constexpr int kBusy = 8;
constexpr int kOthers = 200;  // descriptors that both processes need besides

using BusyClients = std::vector<std::unique_ptr<Bystander>>;

Latencies call_with_all(BusyClients& clients, std::chrono::seconds time) {
  std::vector<Latencies> of_each(clients.size());
  on_threads(static_cast<int>(clients.size()), [&](int i) {
    const auto at = static_cast<std::size_t>(i);
    of_each[at] = clients[at]->call_for(time);
  });
  Latencies all;
  for (const Latencies& one : of_each) all.add_all(one);
  return all;
}

bool allow_descriptors(Run& run, int count) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const auto wanted = static_cast<rlim_t>(count);
  if (!run.expect(limit.rlim_max >= wanted, "not run: this machine allows only ", limit.rlim_max,
                  " descriptors")) {
    return false;
  }
  limit.rlim_cur = std::max(limit.rlim_cur, wanted);
  setrlimit(RLIMIT_NOFILE, &limit);
  return true;
}

}  // namespace

void keep_idle_connections(Run& run) {
  const int count = run.rounds(500, 10000);
  if (!allow_descriptors(run, count + kOthers)) return;
  Served server(run, test::Transport::tcp4, {"descriptors=" + std::to_string(count + kOthers)});
  BusyClients clients;
  for (int i = 0; i < kBusy; ++i) {
    clients.push_back(std::make_unique<Bystander>(run, server.address(), 1));
  }
  const auto time = run.seconds(1, 15);
  Latencies alone = call_with_all(clients, time);
  const Held before = server.held();
  std::vector<std::unique_ptr<test::RawClient>> idle;
  for (int i = 0; i < count && run.passed(); ++i) {
    run.at("connection ", i, ", seed ", run.seed());
    idle.push_back(std::make_unique<test::RawClient>(server.address()));
    run.expect(idle.back()->is_greeted(), "a client was not greeted");
  }
  const Held full = server.held();
  Latencies beside = call_with_all(clients, time);
  for (auto& one : idle) one->socket.reset();
  const Held after = server.expect_back_to(before, count + 2048L);
  const double each = static_cast<double>(full.resident_kib - before.resident_kib) / count;
  run.figure("idle connections", count, "");
  run.figure("memory of each", each, "KiB");
  run.figure("memory of each after its end",
             static_cast<double>(after.resident_kib - before.resident_kib) / count, "KiB");
  run.figure("p50 of the busy, none idle", alone.percentile_us(50) / 1000, "ms");
  run.figure("p50 of the busy, beside the idle", beside.percentile_us(50) / 1000, "ms");
  run.figure("p99 of the busy, none idle", alone.percentile_us(99) / 1000, "ms");
  run.figure("p99 of the busy, beside the idle", beside.percentile_us(99) / 1000, "ms");
  if (run.holds_memory()) run.expect(each < 8, "an idle connection takes ", each, " KiB");
}

}  // namespace tolk::stress
