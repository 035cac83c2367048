// A call times out, the next one of the same thread follows at once, and then the answer to the
// first comes: the second call must go on waiting. Both directions, 32 threads each.
#include <array>
#include <atomic>
#include <functional>
#include <latch>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/raw_peer.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

using test::Message;
using test::RawSocket;

constexpr int kConnections = 4;
constexpr int kThreadsOfOne = 8;
constexpr int kPatienceMs = 20000;

// The peer: it keeps the answer to a "first" back until the "second" of the same thread has come.
class LatePeer {
 public:
  explicit LatePeer(RawSocket& socket, Random random) : socket_(socket), random_(random) {}

  void serve(const std::atomic<bool>& done) {
    while (!done) {
      const auto head = socket_.is_quiet(Milliseconds(20));
      if (head) continue;
      const auto message = socket_.read_message();
      if (!message) return;
      take(*message);
    }
  }

 private:
  void take(const Message& message) {
    const int caller = message.call_id().value_or(0);
    if (message.name() == "first") {
      late_.insert_or_assign(caller, message);
      return;
    }
    if (message.name() != "second") return;
    const auto late = late_.find(caller);
    if (late != late_.end()) {
      answer(late->second);
      if (random_.one_in(4)) answer(late->second);
      if (random_.one_in(2)) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    answer(message);
  }

  void answer(const Message& call) {
    test::BlockWriter values;
    const auto arguments = test::read_block(call.arguments().value_or(""));
    if (arguments && arguments->at(0) != nullptr) values.add(*arguments->at(0));
    socket_.send_frame(test::reply_payload(call, values));
  }

  RawSocket& socket_;
  Random random_;
  std::map<int, Message> late_;
};

// What both sides have: a call by its thread's own call id.
using CallOperation = std::function<TolkParams*(const char* name, TolkParams* arguments,
                                                int call_id, int time_out_ms)>;

class Pairs {
 public:
  Pairs(Run& run, int count) : run_(run), left_(count) {}

  void call_in_pairs(const CallOperation& call, int call_id, Random random) {
    while (left_.fetch_sub(1) > 0 && run_.passed()) {
      Question first(++last_number_);
      call("first", first.arguments(), call_id, random.between(1, 30));
      Question second(++last_number_);
      TolkParams* const reply = call("second", second.arguments(), call_id, kPatienceMs);
      if (!second.is_answered_by(reply)) ++wrong_;
      ++made_;
    }
  }
  int made() const { return made_; }
  int wrong() const { return wrong_; }

 private:
  Run& run_;
  std::atomic<int> left_;
  std::atomic<int> last_number_{0};
  std::atomic<int> made_{0};
  std::atomic<int> wrong_{0};
};

constexpr std::array kTransportOf{test::Transport::pipe, test::Transport::tcp4,
                                  test::Transport::tcp6, test::Transport::pipe};

void call_in_pairs_with(Pairs& pairs, const CallOperation& call, int first_call_id,
                        const Run& run) {
  on_threads(kThreadsOfOne, [&](int i) {
    pairs.call_in_pairs(
        call, first_call_id + i,
        run.random(static_cast<std::uint64_t>(first_call_id) + static_cast<std::uint64_t>(i)));
  });
}

// The end of any client wakes the calls of all: so they end together, when all calls are made.
void call_as_client(Run& run, Pairs& pairs, int connection, std::latch& all_made) {
  const test::Address address =
      test::fresh_address(kTransportOf.at(static_cast<std::size_t>(connection)));
  test::RawServer listening(address);
  const test::ClientPtr client = test::make_client();
  if (!run.expect(test::connect_client(client.get(), address), "a client did not connect")) {
    all_made.count_down();
    return;
  }
  RawSocket socket = listening.take();
  LatePeer peer(socket, run.random(std::uint64_t{1000} + static_cast<std::uint64_t>(connection)));
  {
    const Meanwhile serving([&](const std::atomic<bool>& done) { peer.serve(done); });
    call_in_pairs_with(
        pairs,
        [&](const char* name, TolkParams* arguments, int call_id, int time_out_ms) {
          return client->SendMsgFast(name, arguments, call_id, time_out_ms);
        },
        1 + connection * kThreadsOfOne, run);
    all_made.arrive_and_wait();
  }
}

void call_as_server(Run& run, Pairs& pairs, int connection) {
  const test::Address address =
      test::fresh_address(kTransportOf.at(static_cast<std::size_t>(connection)));
  const test::ServerPtr server = test::make_server();
  const auto id = std::make_shared<std::atomic<int>>(0);
  server->method("s_c_connect",
                 test::on_call([id](int client, TolkParams*, TolkParams*) { *id = client; }));
  if (!run.expect(test::start_server(server.get(), address), "a server did not start")) return;
  test::RawClient client(address);
  if (!run.expect(client.is_greeted(), "a server did not answer")) return;
  LatePeer peer(client.socket,
                run.random(std::uint64_t{2000} + static_cast<std::uint64_t>(connection)));
  {
    const Meanwhile serving([&](const std::atomic<bool>& done) { peer.serve(done); });
    call_in_pairs_with(
        pairs,
        [&](const char* name, TolkParams* arguments, int call_id, int time_out_ms) {
          return server->SendMsg(*id, name, arguments, call_id, time_out_ms);
        },
        101 + connection * kThreadsOfOne, run);
  }
}

}  // namespace

void answer_late(Run& run) {
  const int count = run.rounds(600, 10000);
  Pairs of_clients(run, count / 2);
  Pairs of_servers(run, count - count / 2);
  std::latch all_made(kConnections);
  run.at("pairs, seed ", run.seed());
  on_threads(2 * kConnections, [&](int i) {
    if (i < kConnections) {
      call_as_client(run, of_clients, i, all_made);
    } else {
      call_as_server(run, of_servers, i - kConnections);
    }
  });
  run.figure("pairs of calls of clients", of_clients.made(), "");
  run.figure("pairs of calls of servers", of_servers.made(), "");
  run.figure("calls that the wrong answer woke", of_clients.wrong() + of_servers.wrong(), "");
  run.expect(of_clients.wrong() == 0, of_clients.wrong(), " calls of clients got another answer");
  run.expect(of_servers.wrong() == 0, of_servers.wrong(), " calls of servers got another answer");
}

}  // namespace tolk::stress
