// The role of a client whose callers go on until the connection is lost.
//
//   calling-client ADDRESS CALLERS SEED
//
// It says "ready" once it is connected, and "CALLS WRONG LATE_MS" when every caller has returned.
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "tests/e2e/support/handlers.h"
#include "tests/stress/frame/callers.h"
#include "tests/stress/frame/process.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

class CallingClient {
 public:
  bool connect(const test::Address& address) {
    client_->method("back", test::on_call([](int, TolkParams* in, TolkParams* out) {
                      answer_question(in, out);
                    }));
    if (!test::connect_client(client_.get(), address)) return false;
    punctuality_.sweeping_from(std::chrono::steady_clock::now());
    client_->PostMsgFast("hello", nullptr, -1);  // no call has this id, so no call gets its answer
    return true;
  }

  std::string call_until_lost(int count, std::uint64_t seed) {
    Callers callers(count, seed,
                    [this](int caller, Random& random) { return call(caller, random); });
    if (!callers.wait_ended(std::chrono::hours(24))) return "stuck";
    std::ostringstream text;
    text << callers.calls() << ' ' << wrong_ << ' ' << punctuality_.worst_late_ms();
    return text.str();
  }

 private:
  // A third of the callers calls without a limit; two of all use SendMsg, which runs one call at a
  // time and whose timeout begins when the call is sent.
  bool call(int caller, Random& random) {
    const int number = ++next_number_;
    Question question(number, random.one_in(20) ? 50000 : 0);
    const int time_out_ms = caller % 3 == 0 ? 0 : random.between(50, 300);
    const char* const name = random.one_in(3) ? "slow" : "echo";
    const int call_id = number;  // its own: the answer can then only be this call's
    TolkParams* reply = nullptr;
    if (caller < 2) {
      reply = client_->SendMsg(name, question.arguments(), call_id, time_out_ms);
    } else {
      const auto begin = std::chrono::steady_clock::now();
      reply = client_->SendMsgFast(name, question.arguments(), call_id, time_out_ms);
      punctuality_.note(begin, time_out_ms);
    }
    if (reply != nullptr && !question.is_answered_by(reply)) ++wrong_;
    return client_->isok();
  }

  std::atomic<int> next_number_{0};
  std::atomic<long> wrong_{0};
  Punctuality punctuality_;
  test::ClientPtr client_ = test::make_client();
};

}  // namespace

int run_calling_client(const std::vector<std::string>& arguments) {
  CallingClient client;
  const bool connected = client.connect(address_of(arguments.at(0)));
  the_row().tell(connected ? "ready" : "not connected");
  if (connected) {
    the_row().tell(client.call_until_lost(std::atoi(arguments.at(1).c_str()),
                                          std::strtoull(arguments.at(2).c_str(), nullptr, 10)));
  }
  the_row().read_line(std::chrono::hours(24));  // until the row has gone, or kills this process
  _exit(0);
}

}  // namespace tolk::stress
