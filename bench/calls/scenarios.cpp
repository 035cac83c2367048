#include "bench/calls/scenarios.h"

#include <memory>
#include <utility>

#include "bench/calls/bare_socket.h"
#include "bench/calls/bare_threads.h"
#include "bench/calls/library_calls.h"

namespace bench {
namespace {

constexpr std::size_t kManyCallers = 8;
constexpr std::size_t kTypicalBytes = 100;

// The peer processes of one transport. All are there all the time; who has no turn sleeps.
struct Peers {
  explicit Peers(Transport kind)
      : transport(kind),
        library(Kind::library, kind),
        clients(kind, library.name(), kManyCallers),
        socket(Kind::bare_socket, kind),
        threads(Kind::bare_threads, kind) {}

  const Transport transport;
  const PeerProcess library;
  const LibraryClients clients;
  const PeerProcess socket;
  const PeerProcess threads;
};

struct Entry {
  std::string name;
  bool is_baseline;
  const PeerProcess& peer;
  std::unique_ptr<Contestant> contestant;
};

class Scenario {
 public:
  Scenario(const Peers& peers, std::string title, std::size_t callers)
      : peers_(peers), title_(std::move(title)), callers_(callers) {}

  void library(const char* name, std::unique_ptr<Contestant> contestant) {
    entries_.push_back({name, false, peers_.library, std::move(contestant)});
  }
  void bare_socket(std::unique_ptr<Contestant> contestant) {
    entries_.push_back({"bare socket", true, peers_.socket, std::move(contestant)});
  }
  void bare_threads(std::unique_ptr<Contestant> contestant) {
    entries_.push_back({"bare socket with threads", true, peers_.threads, std::move(contestant)});
  }

  // The payload of a call whose throughput matters.
  void counts_bytes(std::size_t payload) { bytes_each_ = static_cast<double>(payload); }
  const std::string& title() const { return title_; }

  // In turns (A B C, A B C, …), so that what disturbs the machine disturbs all of them.
  Result run(const Plan& plan) {
    Result result{peers_.transport, title_, bytes_each_, {}};
    for (Entry& entry : entries_) {
      measure(*entry.contestant, entry.peer, callers_, plan.warm_up);
      result.lines.push_back({entry.name, entry.is_baseline, {}});
    }
    for (std::size_t round = 0; round < plan.rounds; ++round) {
      for (std::size_t i = 0; i < entries_.size(); ++i) {
        Entry& entry = entries_[i];
        result.lines[i].runs.push_back(measure(*entry.contestant, entry.peer, callers_, plan.turn));
      }
    }
    return result;
  }

 private:
  const Peers& peers_;
  std::string title_;
  std::size_t callers_;
  double bytes_each_ = 0;
  std::vector<Entry> entries_;
};

Scenario one_caller(const Peers& peers, std::size_t payload) {
  const Transport transport = peers.transport;
  const FrameBytes bytes = echo_frames(payload);
  Scenario scenario(peers, "one caller, " + std::to_string(payload) + " bytes and back", 1);
  scenario.library("SendMsgFast", library_calls(Form::send_msg_fast, peers.clients, 1, payload));
  scenario.library("SendMsg", library_calls(Form::send_msg, peers.clients, 1, payload));
  scenario.bare_socket(bare_calls(transport, peers.socket.name(), 1, bytes));
  scenario.bare_threads(threaded_calls(transport, peers.threads.name(), 1, 1, bytes));
  if (payload >= 10000) scenario.counts_bytes(payload);
  return scenario;
}

Scenario many_callers(const Peers& peers, std::size_t clients) {
  const Transport transport = peers.transport;
  const FrameBytes bytes = echo_frames(kTypicalBytes);
  Scenario scenario(peers,
                    "8 callers, " + std::to_string(clients) +
                        (clients == 1 ? " client" : " clients") + ", 100 bytes and back",
                    kManyCallers);
  scenario.library("SendMsgFast",
                   library_calls(Form::send_msg_fast, peers.clients, clients, kTypicalBytes));
  scenario.bare_socket(bare_calls(transport, peers.socket.name(), kManyCallers, bytes));
  scenario.bare_threads(
      threaded_calls(transport, peers.threads.name(), kManyCallers, clients, bytes));
  return scenario;
}

Scenario posted(const Peers& peers, std::size_t count) {
  const Transport transport = peers.transport;
  const FrameBytes bytes = posted_frames(kTypicalBytes);
  Scenario scenario(peers,
                    std::to_string(count) +
                        " posted calls of 100 bytes, and until all are "
                        "handled",
                    1);
  scenario.library("PostMsgFast", library_posts(peers.clients, count, kTypicalBytes));
  scenario.bare_socket(bare_posts(transport, peers.socket.name(), count, bytes));
  scenario.bare_threads(threaded_posts(transport, peers.threads.name(), count, bytes));
  return scenario;
}

Scenario large_data(const Peers& peers, std::size_t payload) {
  const Transport transport = peers.transport;
  const FrameBytes bytes = length_frames(payload);
  Scenario scenario(peers, "large data, " + std::to_string(payload) + " bytes", 1);
  scenario.library("SendMsgEx", library_large_calls(peers.clients, payload));
  scenario.bare_socket(bare_calls(transport, peers.socket.name(), 1, bytes));
  scenario.bare_threads(threaded_calls(transport, peers.threads.name(), 1, 1, bytes));
  scenario.counts_bytes(payload);
  return scenario;
}

}  // namespace

Plan quick_plan() {
  Plan plan;
  plan.rounds = 2;
  plan.turn = std::chrono::milliseconds(5);
  plan.warm_up = std::chrono::milliseconds(0);
  plan.posts = 100;
  plan.large_bytes = std::size_t{1} << 20;
  return plan;
}

void run_scenarios(const Plan& plan, const std::function<void(const Result&)>& done) {
  for (const Transport transport : plan.transports) {
    const Peers peers(transport);
    const auto run = [&](Scenario scenario) {
      if (scenario.title().find(plan.only) != std::string::npos) done(scenario.run(plan));
    };
    for (const std::size_t payload : {0U, 100U, 10000U, 1000000U}) run(one_caller(peers, payload));
    run(many_callers(peers, 1));
    run(many_callers(peers, kManyCallers));
    run(posted(peers, plan.posts));
    run(large_data(peers, plan.large_bytes));
  }
}

}  // namespace bench
