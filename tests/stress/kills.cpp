// A server with four client processes of 16 callers each, and 16 callers of its own. One of the
// five is killed at a random moment, again and again: every caller of the others must return.
#include <algorithm>
#include <array>
#include <memory>
#include <sstream>

#include "tests/stress/frame/process.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

constexpr int kKilledClients = 4;
constexpr int kCallers = 16;
// The time that a call may take beyond its timeout.
constexpr int kLatestMs = 2 * kStepMs + 100;

struct Report {
  long calls = 0;
  long wrong = 0;
  int late_ms = 0;
};

class Kills {
 public:
  explicit Kills(Run& run) : run_(run), random_(run.random(0)) {}
  ~Kills() {
    for (const auto& client : clients_) {
      if (client) client->kill_now();  // its callers would go on forever
    }
  }
  Kills(const Kills&) = delete;
  Kills& operator=(const Kills&) = delete;

  void run() {
    const int rounds = run_.rounds(20, 1000);
    for (round_ = 0; round_ < rounds && run_.passed(); ++round_) one_round();
    run_.figure("kills", killed_servers_ + killed_clients_, "");
    run_.figure("kills of the server", killed_servers_, "");
    run_.figure("calls of the clients that lost their server", static_cast<double>(calls_), "");
    run_.figure("answers that were wrong", static_cast<double>(wrong_), "");
    run_.figure("latest return after a timeout", worst_late_ms_, "ms");
    run_.figure("latest return of all callers after a killed server", worst_return_ms_, "ms");
    run_.expect(wrong_ == 0, wrong_, " answers were wrong");
    if (!run_.holds_times()) return;
    run_.expect(worst_late_ms_ <= kLatestMs, "a call returned ", worst_late_ms_, " ms late");
    run_.expect(worst_return_ms_ <= 1000, "callers returned ", worst_return_ms_,
                " ms after the kill");
  }

 private:
  void one_round() {
    if (!server_ && !start_server()) return;
    for (auto& client : clients_) {
      if (!client && !start_client(client)) return;
    }
    const bool takes_server = random_.one_in(2);
    const int victim = random_.between(0, kKilledClients - 1);
    const int delay_us = random_.between(0, 60000);
    run_.at("kill ", round_, " of ", takes_server ? "the server" : "a client", " after ", delay_us,
            " us, seed ", run_.seed());
    std::this_thread::sleep_for(std::chrono::microseconds(delay_us));
    if (takes_server) {
      kill_server();
    } else {
      kill_client(clients_.at(static_cast<std::size_t>(victim)));
    }
  }

  bool start_server() {
    // Two of three on TCP, where a dead peer is noticed in another way than on a pipe.
    address_ = test::fresh_address(kTransports.at(static_cast<std::size_t>(random_.between(0, 2))));
    server_ = std::make_unique<Process>(
        std::vector<std::string>{"echo-server", text_of(address_),
                                 "callers=" + std::to_string(kCallers), "seed=" + some_seed()});
    return run_.expect(server_->read_line() == "ready", "the server did not start");
  }

  bool start_client(std::unique_ptr<Process>& client) {
    client = std::make_unique<Process>(std::vector<std::string>{
        "calling-client", text_of(address_), std::to_string(kCallers), some_seed()});
    return run_.expect(client->read_line() == "ready", "a client did not connect");
  }

  // The calls of its clients return because the connection has ended.
  void kill_server() {
    const Stopwatch clock;
    server_->kill_now();
    for (auto& client : clients_) {
      take(client->read_line(), "a client's callers hang", true);
      client.reset();
    }
    worst_return_ms_ = std::max(worst_return_ms_, static_cast<int>(clock.elapsed().count()));
    server_.reset();
    ++killed_servers_;
  }

  // The server's calls to it return at their timeouts; the other clients are not affected.
  void kill_client(std::unique_ptr<Process>& victim) {
    victim->kill_now();
    victim.reset();
    // The server goes on and counts its calls from its start: they are left out.
    take(server_->ask("settle", 2 * test::kLimit), "the server's callers hang", false);
    ++killed_clients_;
  }

  void take(const std::optional<std::string>& line, const char* otherwise, bool counts_calls) {
    if (!run_.expect(line && *line != "stuck", otherwise)) return;
    Report report;
    std::istringstream(*line) >> report.calls >> report.wrong >> report.late_ms;
    if (counts_calls) calls_ += report.calls;
    wrong_ += report.wrong;
    worst_late_ms_ = std::max(worst_late_ms_, report.late_ms);
  }

  std::string some_seed() { return std::to_string(random_.between(1, 1'000'000'000)); }

  Run& run_;
  Random random_;
  test::Address address_;
  std::unique_ptr<Process> server_;
  std::array<std::unique_ptr<Process>, kKilledClients> clients_;
  int round_ = 0;
  int killed_servers_ = 0;
  int killed_clients_ = 0;
  long calls_ = 0;
  long wrong_ = 0;
  int worst_late_ms_ = 0;
  int worst_return_ms_ = 0;
};

}  // namespace

void kill_processes(Run& run) { Kills(run).run(); }

}  // namespace tolk::stress
