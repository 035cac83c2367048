// A server that has run out of descriptors while 200 clients want to connect: it serves those that
// are connected, does not spin, and takes new ones as soon as there are descriptors again.
#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/support/raw_peer.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/served.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

constexpr int kClients = 200;
constexpr int kDescriptors = 80;  // of the server
constexpr double kMostProcessor = 0.05;
constexpr int kRecoveryMs = 1000;

using Clients = std::vector<std::unique_ptr<test::RawClient>>;

bool is_served(test::RawClient& client) {
  const auto answer = client.call("echo", 1, test::BlockWriter().add(5).bytes());
  return answer && answer->at(0) != nullptr && *answer->at(0) == test::Scalar(5);
}

// A client for which the server has no descriptor is disconnected, or waits, without a greeting.
Clients connect_all(const test::Address& address) {
  Clients clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<test::RawClient>(address, false));
  }
  for (auto& client : clients) {
    client->socket.send_frame(
        test::call_payload("s_c_version", 1, test::version_arguments(), "0x1"));
  }
  return clients;
}

// `others_too`: other threads of the server's process take descriptors that come free meanwhile.
class Exhaustion {
 public:
  Exhaustion(Run& run, test::Transport transport, std::string name, bool others_too)
      : run_(run),
        name_(std::move(name)),
        others_too_(others_too),
        server_(run, transport, {"descriptors=" + std::to_string(kDescriptors)}),
        bystander_(run, server_.address(), 1) {}

  void bring_about_and_end() {
    bystander_.call();
    connect();
    if (others_too_) take_descriptors();
    expect_all_served("while there are no descriptors");
    watch_processor();
    Latencies exhausted = bystander_.call_for(run_.seconds(1, 5));
    run_.figure("p99 of a bystander while exhausted, " + name_, exhausted.percentile_us(99) / 1000,
                "ms");
    recover();
    expect_all_served("afterwards");
  }

  // The server ends while it has no descriptors, and not even a listener.
  void end_meanwhile() {
    connect();
    take_descriptors();
    run_.expect(server_.process().ask("stop") == "stopped", "the server did not stop");
  }

 private:
  // A client that gets an answer is connected; the server accepts them one after another.
  void connect() {
    waiting_ = connect_all(server_.address());
    for (auto& client : waiting_) {
      if (client->socket.read_message(Milliseconds(connected_.empty() ? 5000 : 50))) {
        connected_.push_back(std::move(client));
      }
    }
    std::erase(waiting_, nullptr);
    run_.figure("clients connected with 80 descriptors, " + name_,
                static_cast<double>(connected_.size()), "");
    run_.expect(!connected_.empty() && connected_.size() < kDescriptors, connected_.size(),
                " clients are connected with ", kDescriptors, " descriptors");
  }

  void knock() {
    waiting_.push_back(std::make_unique<test::RawClient>(server_.address(), false));
    std::this_thread::sleep_for(Milliseconds(20));
  }

  void take_descriptors() {
    server_.process().tell("grab");
    const Stopwatch clock;
    while (clock.elapsed() < Milliseconds(1000)) knock();
    run_.expect(server_.process().read_line().has_value(), "the server's process is gone");
  }

  // Further clients try to connect all the time.
  void watch_processor() {
    const double before_s = server_.process().processor_s();
    const Stopwatch clock;
    while (clock.elapsed() < run_.seconds(1, 10)) knock();
    const double took_s = server_.process().processor_s() - before_s;
    const double share = took_s / (static_cast<double>(clock.elapsed().count()) / 1000);
    run_.figure("processor while exhausted, " + name_, 100 * share, "%");
    if (!run_.holds_times()) return;
    run_.expect(share < kMostProcessor, "the server takes ", 100 * share, " % of a processor");
  }

  // Half of those that are connected go.
  void recover() {
    const Stopwatch clock;
    connected_.resize(connected_.size() / 2);
    waiting_.clear();
    const bool is_open = eventually(
        [&] {
          test::RawClient fresh(server_.address());
          return fresh.is_greeted() && is_served(fresh);
        },
        Milliseconds(20000));
    const auto took_ms = clock.elapsed().count();
    run_.expect(is_open, "the server takes nobody any more");
    run_.figure("recovery, " + name_, static_cast<double>(took_ms), "ms");
    if (!run_.holds_times()) return;
    run_.expect(took_ms <= kRecoveryMs, "recovery took ", took_ms, " ms");
  }

  void expect_all_served(const char* when) {
    run_.expect(std::all_of(connected_.begin(), connected_.end(),
                            [](const auto& client) { return is_served(*client); }),
                "a connected client is not served ", when);
  }

  Run& run_;
  const std::string name_;
  const bool others_too_;
  Served server_;
  Bystander bystander_;
  Clients connected_;
  Clients waiting_;
};

}  // namespace

void run_out_of_descriptors(Run& run) {
  const auto exhaust = [&](test::Transport transport, const std::string& name, bool others_too) {
    run.at(name, ", seed ", run.seed());
    return std::make_unique<Exhaustion>(run, transport, name, others_too);
  };
  exhaust(test::Transport::pipe, "pipe", false)->bring_about_and_end();
  exhaust(test::Transport::tcp4, "TCP and other threads", true)->bring_about_and_end();
  if (!checks_types()) exhaust(test::Transport::pipe, "pipe, ended", true)->end_meanwhile();
  if (run.is_short()) return;
  exhaust(test::Transport::tcp4, "TCP", false)->bring_about_and_end();
  exhaust(test::Transport::pipe, "pipe and other threads", true)->bring_about_and_end();
  exhaust(test::Transport::tcp4, "TCP, ended", true)->end_meanwhile();
}

}  // namespace tolk::stress
