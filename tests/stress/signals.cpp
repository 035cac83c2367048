// A host whose threads get a thousand signals a second, whose peers die while they are written to,
// and that forks and runs programs all the time: none of its calls may fail.
#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/child_process.h"
#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/raw_peer.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/served.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

constexpr int kFirstNotStandard = 3;
constexpr int kDescriptorsLooked = 1024;
constexpr int kPostedBytes = 200000;

std::atomic<long> signals_taken{0};

void take_signal(int) { ++signals_taken; }

// SIGALRM goes to any thread that does not block it: this object blocks it on its thread.
class NoAlarms {
 public:
  NoAlarms() { change(SIG_BLOCK); }
  ~NoAlarms() { change(SIG_UNBLOCK); }
  NoAlarms(const NoAlarms&) = delete;
  NoAlarms& operator=(const NoAlarms&) = delete;

 private:
  static void change(int how) {
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(how, &alarm, nullptr);
  }
};

class Alarms {
 public:
  Alarms() {
    struct sigaction action {};
    action.sa_handler = take_signal;  // and no SA_RESTART: what waits is interrupted
    sigaction(SIGALRM, &action, nullptr);
    set_period(1000);
  }
  ~Alarms() { set_period(0); }
  Alarms(const Alarms&) = delete;
  Alarms& operator=(const Alarms&) = delete;

 private:
  static void set_period(int microseconds) {
    const itimerval timer{{0, microseconds}, {0, microseconds}};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
};

// The number of descriptors that a program started here inherits, beyond the standard ones.
int inherited_descriptors() {
  int count = 0;
  for (int i = kFirstNotStandard; i < kDescriptorsLooked; ++i) {
    const int flags = fcntl(i, F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) == 0) ++count;
  }
  return count;
}

// How many descriptors it really got; negative when it died.
int run_a_program() {
  return test::ChildProcess({test::kThisProgram, "--role", "list-descriptors"}).wait();
}

// Clients that disconnect while a server of the host writes to them.
class DyingPeers {
 public:
  explicit DyingPeers(Run& run, test::Transport transport)
      : run_(run), address_(test::fresh_address(transport)) {
    server_->method(
        "s_c_connect",
        test::on_call([newest = newest_](int id, TolkParams*, TolkParams*) { *newest = id; }));
    run_.expect(test::start_server(server_.get(), address_), "a server did not start");
    const std::string data(kPostedBytes, 'x');
    arguments_.AddStream(data.data(), kPostedBytes);
  }

  void let_one_die(Random& random) {
    test::RawClient peer(address_);
    if (!run_.expect(peer.is_greeted(), "a client was not greeted")) return;
    std::thread posting([&, id = newest_->load()] {
      const NoAlarms quiet;
      for (int i = 0; i < 10; ++i) server_->PostMsg(id, "big", &arguments_, 1);
    });
    peer.socket.read(static_cast<std::size_t>(random.between(1, kPostedBytes)));
    if (random.one_in(2)) {
      peer.socket.reset();
    } else {
      peer.socket.close();
    }
    posting.join();
  }

 private:
  Run& run_;
  const test::Address address_;
  const std::shared_ptr<std::atomic<int>> newest_ = std::make_shared<std::atomic<int>>(0);
  test::ServerPtr server_ = test::make_server();
  TolkParams arguments_;
};

}  // namespace

// The exit status is how many descriptors it was given beyond the standard ones.
int run_list_descriptors(const std::vector<std::string>&) { _exit(inherited_descriptors()); }

void interrupt_and_fork(Run& run) {
  const int expected = inherited_descriptors();  // what the row was started with itself
  Served on_pipe(run, test::Transport::pipe);
  Served on_tcp(run, test::Transport::tcp4);
  std::array<std::unique_ptr<Bystander>, 4> callers;
  for (std::size_t i = 0; i < callers.size(); ++i) {
    callers[i] = std::make_unique<Bystander>(run, (i % 2 == 0 ? on_pipe : on_tcp).address(), 1);
  }
  const auto time = run.seconds(2, 60);
  run.at("for ", time.count(), " s, seed ", run.seed());
  std::array<Latencies, 4> latencies;
  std::atomic<int> programs{0};
  std::atomic<int> deaths{0};
  {
    const Alarms alarms;
    const Meanwhile forking([&](const std::atomic<bool>& done) {
      while (!done) {
        const int given = run_a_program();
        run.expect(given == expected, "a program was given ", given, " descriptors, not ",
                   expected);
        ++programs;
      }
    });
    const Meanwhile dying([&](const std::atomic<bool>& done) {
      const NoAlarms quiet;
      Random random = run.random(1);
      DyingPeers of_pipe(run, test::Transport::pipe);
      DyingPeers of_tcp(run, test::Transport::tcp4);
      for (; !done; ++deaths) (random.one_in(2) ? of_pipe : of_tcp).let_one_die(random);
    });
    const NoAlarms quiet;  // this thread only waits: the callers' threads are meant
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < callers.size(); ++i) {
      threads.emplace_back([&, i] {
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        latencies[i] = callers[i]->call_for(time);
      });
    }
    for (std::thread& one : threads) one.join();
  }
  std::size_t calls = 0;
  for (const Latencies& one : latencies) calls += one.count();
  run.figure("seconds", static_cast<double>(time.count()), "");
  run.figure("signals taken", static_cast<double>(signals_taken), "");
  run.figure("calls, all answered", static_cast<double>(calls), "");
  run.figure("peers that died while they were written to", deaths, "");
  run.figure("programs forked and run", programs, "");
  run.expect(signals_taken > 100, "only ", signals_taken, " signals were taken");
  run.expect(deaths > 0 && programs > 0, "nothing died, or nothing was run");
}

}  // namespace tolk::stress
