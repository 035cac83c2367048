// Clients reach their server through a bad proxy. In both directions a call returns the right
// result or nothing, and no call is executed twice.
//
// Each client is a process: within one, the end of any connection wakes the calls of all.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <vector>

#include "tests/e2e/support/handlers.h"
#include "tests/stress/byte_proxy.h"
#include "tests/stress/frame/callers.h"
#include "tests/stress/frame/process.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

constexpr int kProcesses = 12;
constexpr int kNumbersOfOne = 10'000'000;

// What both sides count; it is shared, since a handler may outlive its creator.
struct Seen {
  std::atomic<int> answered{0};
  std::atomic<int> unanswered{0};
  std::atomic<int> wrong{0};   // answers
  std::atomic<int> broken{0};  // calls that came damaged, or twice
  std::mutex mutex;
  std::set<int> numbers;

  void note_call(int number) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (number < 0 || !numbers.insert(number).second) ++broken;
  }
  void note_answer(const Question& question, TolkParams* reply) {
    if (reply == nullptr) {
      ++unanswered;
    } else {
      ++(question.is_answered_by(reply) ? answered : wrong);
    }
  }
};

// The role: proxied-client ADDRESS CONNECTIONS NUMBER SEED. It reports in one line.
class ProxiedClient {
 public:
  ProxiedClient(int first_number, std::uint64_t seed)
      : last_number_(first_number), random_(seed, 0) {}

  std::string use(const test::Address& address, int connections) {
    for (int i = 0; i < connections; ++i) use_once(address);
    std::ostringstream text;
    text << refused_ << ' ' << seen_->answered << ' ' << seen_->unanswered << ' ' << seen_->wrong
         << ' ' << seen_->broken << ' ' << punctuality_.worst_late_ms();
    return text.str();
  }

 private:
  void use_once(const test::Address& address) {
    const test::ClientPtr client = test::make_client();
    client->method("back", test::on_call([seen = seen_](int, TolkParams* in, TolkParams* out) {
                     seen->note_call(number_in(in));
                     answer_question(in, out);
                   }));
    if (!test::connect_client(client.get(), address)) {
      ++refused_;
      return;
    }
    punctuality_.sweeping_from(Punctuality::Clock::now());
    const int calls = random_.between(1, 60);
    for (int i = 0; i < calls && client->isok(); ++i) call_once(*client);
  }

  void call_once(IClient& client) {
    const int number = ++last_number_;
    const int bytes = random_.one_in(4) ? random_.between(0, 60000) : random_.between(0, 300);
    Question question(number, static_cast<std::size_t>(bytes));
    const int time_out_ms = random_.between(300, 1000);
    const auto begin = Punctuality::Clock::now();
    seen_->note_answer(question,
                       client.SendMsgFast("echo", question.arguments(), number, time_out_ms));
    punctuality_.note(begin, time_out_ms);
  }

  int last_number_;
  Random random_;
  Punctuality punctuality_;
  int refused_ = 0;
  const std::shared_ptr<Seen> seen_ = std::make_shared<Seen>();
};

class ThroughProxy {
 public:
  explicit ThroughProxy(Run& run) : run_(run) {}

  void run() {
    const test::Address address = test::fresh_address(test::Transport::tcp4);
    const test::ServerPtr server = test::make_server();
    register_echo(server.get());
    if (!run_.expect(test::start_server(server.get(), address), "the server did not start")) return;
    {
      ByteProxy proxy(address, run_.random(0));
      run_clients(proxy.address());
      report(proxy.figures());
    }
  }

 private:
  // It calls its client back now and then, so that both directions are busy.
  void register_echo(IServer* server) {
    const auto last_number = std::make_shared<std::atomic<int>>(kProcesses * kNumbersOfOne);
    server->method(
        "echo",
        test::on_call([seen = seen_, server, last_number](int id, TolkParams* in, TolkParams* out) {
          const int number = number_in(in);
          seen->note_call(number);
          if (number % 5 == 0) {
            const int own = ++*last_number;
            Question back(own, 200);
            seen->note_answer(back, server->SendMsg(id, "back", back.arguments(), own, 200));
          }
          answer_question(in, out);
        }));
  }

  void run_clients(const test::Address& address) {
    const int connections = std::max(run_.rounds(72, 3000) / kProcesses, 1);
    std::vector<std::unique_ptr<Process>> clients;
    for (int i = 0; i < kProcesses; ++i) {
      clients.push_back(std::make_unique<Process>(
          std::vector<std::string>{"proxied-client", text_of(address), std::to_string(connections),
                                   std::to_string(i * kNumbersOfOne),
                                   std::to_string(run_.seed() + static_cast<unsigned>(i))}));
    }
    run_.at(connections, " connections of each client, seed ", run_.seed());
    for (const auto& client : clients) take(client->read_line(std::chrono::hours(1)));
  }

  void take(const std::optional<std::string>& line) {
    if (!run_.expect(line.has_value(), "a client died")) return;
    int refused = 0;
    int answered = 0;
    int unanswered = 0;
    int wrong = 0;
    int broken = 0;
    int late_ms = 0;
    std::istringstream(*line) >> refused >> answered >> unanswered >> wrong >> broken >> late_ms;
    refused_ += refused;
    answered_ += answered;
    unanswered_ += unanswered;
    wrong_ += wrong;
    broken_ += broken;
    late_ms_ = std::max(late_ms_, late_ms);
  }

  void report(const ByteProxy::Figures& proxy) {
    wrong_ += seen_->wrong;
    broken_ += seen_->broken;
    run_.figure("connections", proxy.connections, "");
    run_.figure("connections half-closed", proxy.half_closed, "");
    run_.figure("connections closed", proxy.closed, "");
    run_.figure("connections reset", proxy.reset, "");
    run_.figure("groups of connects that were reordered", proxy.reordered, "");
    run_.figure("bytes passed on", static_cast<double>(proxy.bytes), "");
    run_.figure("pieces they were passed on in", static_cast<double>(proxy.pieces), "");
    run_.figure("connects that failed", refused_, "");
    run_.figure("calls answered", answered_, "");
    run_.figure("calls not answered", unanswered_, "");
    run_.figure("calls of the server answered", seen_->answered, "");
    run_.figure("calls of the server not answered", seen_->unanswered, "");
    run_.figure("wrong answers", wrong_, "");
    run_.figure("calls that came twice or damaged", broken_, "");
    run_.figure("latest return after a timeout", late_ms_, "ms");
    run_.expect(wrong_ == 0, wrong_, " answers were wrong");
    run_.expect(broken_ == 0, broken_, " calls came twice or damaged");
    run_.expect(answered_ > 0 && seen_->answered > 0, "no call was answered");
    if (run_.holds_times()) {
      run_.expect(late_ms_ <= 2 * kStepMs + 100, "a call returned ", late_ms_, " ms late");
    }
  }

  Run& run_;
  int refused_ = 0;
  int answered_ = 0;
  int unanswered_ = 0;
  int wrong_ = 0;
  int broken_ = 0;
  int late_ms_ = 0;
  const std::shared_ptr<Seen> seen_ = std::make_shared<Seen>();
};

}  // namespace

int run_proxied_client(const std::vector<std::string>& arguments) {
  ProxiedClient client(std::stoi(arguments.at(2)), std::stoull(arguments.at(3)));
  the_row().tell(client.use(address_of(arguments.at(0)), std::stoi(arguments.at(1))));
  _exit(0);
}

void call_through_a_proxy(Run& run) { ThroughProxy(run).run(); }

}  // namespace tolk::stress
