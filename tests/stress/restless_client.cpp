// The role of a process whose clients connect and disconnect all the time.
//
//   restless-client ADDRESS SEED
//
// To "stats" it answers: resident KiB, descriptors, clients so far, calls, wrong answers.
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/process_state.h"
#include "tests/stress/frame/process.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

class RestlessClients {
 public:
  RestlessClients(test::Address address, std::uint64_t seed)
      : address_(std::move(address)), random_(seed, 0) {}

  void come_and_go() {
    const test::ClientPtr client = test::make_client();
    client->method("back", test::on_call([](int, TolkParams* in, TolkParams* out) {
                     answer_question(in, out);
                   }));
    if (!test::connect_client(client.get(), address_)) return;
    ++clients_;
    const int calls = random_.between(0, 20);
    for (int i = 0; i < calls; ++i) call_once(*client);
    if (random_.one_in(2)) client->close();
  }

  std::string stats() {
    malloc_trim(0);
    std::ostringstream text;
    text << test::resident_kib() << ' ' << test::open_descriptors() << ' ' << clients_ << ' '
         << calls_ << ' ' << wrong_;
    return text.str();
  }

 private:
  void call_once(IClient& client) {
    const int number = ++number_;
    Question question(number, static_cast<std::size_t>(random_.between(0, 3000)));
    constexpr int kLarge = 4;
    const bool is_large = random_.one_in(kLarge);
    TolkParams* const reply = is_large ? client.SendMsgEx("echo", question.arguments(), number, 0)
                                       : client.SendMsg("echo", question.arguments(), number, 5000);
    ++calls_;
    if (!question.is_answered_by(reply)) ++wrong_;
  }

  const test::Address address_;
  Random random_;
  int number_ = 0;
  std::atomic<int> clients_{0};
  std::atomic<long> calls_{0};
  std::atomic<long> wrong_{0};
};

}  // namespace

int run_restless_client(const std::vector<std::string>& arguments) {
  RestlessClients clients(address_of(arguments.at(0)), std::stoull(arguments.at(1)));
  const Meanwhile restless([&](const std::atomic<bool>& done) {
    while (!done) clients.come_and_go();
  });
  while (const auto line = the_row().read_line(std::chrono::hours(24))) {
    the_row().tell(clients.stats());
  }
  _exit(0);
}

}  // namespace tolk::stress
