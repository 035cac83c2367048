// Everything that the other rows do, at low rates and all at once, for a long time: memory and
// descriptors stay flat, and every steady caller gets its answers.
#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/support/raw_peer.h"
#include "tests/stress/byte_proxy.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/served.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

using Seconds = std::chrono::seconds;

// What a process holds, looked at again and again.
class Trend {
 public:
  void add(long resident_kib, int descriptors) {
    resident_kib_.push_back(resident_kib);
    descriptors_.push_back(descriptors);
  }
  // From the second quarter, when everything that is created once exists, to the last.
  long growth_kib() const { return median(resident_kib_, 3) - median(resident_kib_, 1); }
  long more_descriptors() const { return median(descriptors_, 3) - median(descriptors_, 1); }
  long last_kib() const { return resident_kib_.empty() ? 0 : resident_kib_.back(); }
  std::size_t samples() const { return resident_kib_.size(); }

 private:
  static long median(const std::vector<long>& all, std::size_t quarter) {
    const std::size_t size = all.size() / 4;
    if (size == 0) return 0;
    const auto begin = all.begin() + static_cast<std::ptrdiff_t>(quarter * size);
    std::vector<long> part(begin, begin + static_cast<std::ptrdiff_t>(size));
    std::nth_element(part.begin(), part.begin() + static_cast<std::ptrdiff_t>(size / 2),
                     part.end());
    return part[size / 2];
  }

  std::vector<long> resident_kib_;
  std::vector<long> descriptors_;
};

struct RestlessStats {
  long resident_kib = 0;
  int descriptors = 0;
  long clients = 0;
  long calls = 0;
  long wrong = 0;
};

class Mixture {
 public:
  explicit Mixture(Run& run)
      : run_(run),
        on_pipe_(run, test::Transport::pipe, {"callers=1"}),
        on_tcp_(run, test::Transport::tcp4, {"callers=1"}),
        proxy_(on_tcp_.address(), run.random(1)) {}

  void run(Seconds time) {
    start_restless();
    // Both end when neither calls any more: the end of a client wakes the calls of all.
    Bystander pipe_caller(run_, on_pipe_.address(), 1);
    Bystander tcp_caller(run_, on_tcp_.address(), 1);
    {
      const Meanwhile steady_pipe(steady(pipe_caller, pipe_latencies_));
      const Meanwhile steady_tcp(steady(tcp_caller, tcp_latencies_));
      const Meanwhile hostile([&](const std::atomic<bool>& done) { send_nonsense(done); });
      const Meanwhile slow([&](const std::atomic<bool>& done) { send_slowly(done); });
      const Meanwhile killing([&](const std::atomic<bool>& done) { kill_clients(done); });
      const Meanwhile proxied([&](const std::atomic<bool>& done) { call_through_proxy(done); });
      watch(time);
    }
    report(time);
  }

 private:
  static bool wait(const std::atomic<bool>& done, Milliseconds time) {
    return !eventually([&] { return done.load(); }, time);
  }

  void start_restless() {
    for (const Served* server : {&on_pipe_, &on_tcp_}) {
      restless_.push_back(std::make_unique<Process>(
          std::vector<std::string>{"restless-client", text_of(server->address()), "1"}));
    }
  }

  std::function<void(const std::atomic<bool>&)> steady(Bystander& caller, Latencies& latencies) {
    return [&](const std::atomic<bool>& done) {
      while (!done && caller.call(&latencies)) {
        ++steady_calls_;
        std::this_thread::sleep_for(Milliseconds(2));
      }
    };
  }

  // Random bytes, half frames, lengths that mean nothing: 40 connections a second.
  void send_nonsense(const std::atomic<bool>& done) {
    Random random = run_.random(2);
    while (wait(done, Milliseconds(50))) {
      for (const Served* server : {&on_pipe_, &on_tcp_}) {
        test::RawClient peer(server->address(), random.one_in(2));
        std::string bytes(static_cast<std::size_t>(random.between(1, 3000)), '\0');
        for (char& byte : bytes) byte = static_cast<char>(random.between(0, 255));
        peer.socket.send(random.one_in(2) ? bytes
                                          : test::prefix(random.between(0, 1 << 30)) + bytes);
        if (!server->address().is_pipe()) peer.socket.reset();
        ++connections_;
      }
    }
  }

  // Twenty connections that send a byte a second of what they promise, made anew every 20 s.
  void send_slowly(const std::atomic<bool>& done) {
    while (!done) {
      std::vector<test::RawSocket> senders;
      for (int i = 0; i < 20; ++i) {
        senders.push_back(test::RawSocket::connect_to(on_tcp_.address()));
        senders.back().send(test::prefix(0x7fffffff));
        ++connections_;
      }
      for (int second = 0; second < 20 && wait(done, Seconds(1)); ++second) {
        for (test::RawSocket& sender : senders) sender.send("x");
      }
      for (test::RawSocket& sender : senders) sender.reset();
    }
  }

  // A process with callers lives for a while and is killed in the middle of them.
  void kill_clients(const std::atomic<bool>& done) {
    Random random = run_.random(3);
    while (!done) {
      Process client({"calling-client", text_of((random.one_in(2) ? on_pipe_ : on_tcp_).address()),
                      "4", std::to_string(random.between(1, 1000000))});
      run_.expect(client.read_line() == "ready", "a client did not connect");
      wait(done, Milliseconds(random.between(100, 3000)));
      client.kill_now();
      ++kills_;
      ++connections_;
    }
  }

  void call_through_proxy(const std::atomic<bool>& done) {
    for (int i = 0; !done; ++i) {
      Process client({"proxied-client", text_of(proxy_.address()), "5", std::to_string(i * 1000),
                      std::to_string(run_.seed() + static_cast<unsigned>(i))});
      const auto line = client.read_line(std::chrono::minutes(5));
      if (!run_.expect(line.has_value(), "a client behind the proxy died")) return;
      std::istringstream words(*line);
      long wrong = 0;
      for (int skipped = 0; skipped < 4; ++skipped) words >> wrong;
      wrong_ += wrong;
      wait(done, Milliseconds(500));
    }
  }

  RestlessStats ask(Process& restless) {
    RestlessStats stats;
    const auto line = restless.ask("stats");
    if (run_.expect(line.has_value(), "a restless client died")) {
      std::istringstream(*line) >> stats.resident_kib >> stats.descriptors >> stats.clients >>
          stats.calls >> stats.wrong;
    }
    return stats;
  }

  void watch(Seconds time) {
    constexpr int kSamples = 120;
    const auto pause =
        std::max(std::chrono::duration_cast<Milliseconds>(time) / kSamples, Milliseconds(100));
    const Stopwatch clock;
    while (clock.elapsed() < time && run_.passed()) {
      run_.at("second ", clock.elapsed().count() / 1000, ", seed ", run_.seed());
      std::this_thread::sleep_for(pause);
      const Held pipe = on_pipe_.held();
      const Held tcp = on_tcp_.held();
      trends_[0].add(pipe.resident_kib, pipe.descriptors);
      trends_[1].add(tcp.resident_kib, tcp.descriptors);
      for (std::size_t i = 0; i < restless_.size(); ++i) {
        last_.at(i) = ask(*restless_[i]);
        trends_.at(2 + i).add(last_.at(i).resident_kib, last_.at(i).descriptors);
      }
    }
  }

  void report(Seconds time) {
    static constexpr std::array kNames{"server on a pipe", "server on TCP", "clients on a pipe",
                                       "clients on TCP"};
    const long restless_clients = last_[0].clients + last_[1].clients;
    const long connections = connections_ + restless_clients + proxy_.figures().connections;
    run_.figure("seconds", static_cast<double>(time.count()), "");
    run_.figure("calls of the steady callers, all right", static_cast<double>(steady_calls_), "");
    run_.figure("calls of clients that come and go",
                static_cast<double>(last_[0].calls + last_[1].calls), "");
    run_.figure("wrong answers", static_cast<double>(wrong_ + last_[0].wrong + last_[1].wrong), "");
    run_.figure("connections", static_cast<double>(connections), "");
    run_.figure("kills", kills_, "");
    run_.figure("p99 of the steady caller, pipe", pipe_latencies_.percentile_us(99) / 1000, "ms");
    run_.figure("p99 of the steady caller, TCP", tcp_latencies_.percentile_us(99) / 1000, "ms");
    for (std::size_t i = 0; i < kNames.size(); ++i) {
      const std::string name = kNames.at(i);
      const Trend& trend = trends_.at(i);
      run_.figure("resident at the end, " + name, static_cast<double>(trend.last_kib()), "KiB");
      run_.figure("growth, second to last quarter, " + name,
                  static_cast<double>(trend.growth_kib()), "KiB");
      run_.figure("descriptors more, " + name, static_cast<double>(trend.more_descriptors()), "");
      if (run_.is_short() || !run_.holds_memory()) continue;
      // Only in the server, the block that keeps an id from being reused remains of each
      // connection.
      const long allowed_kib = 2048 + (i < 2 ? connections : 0);
      run_.expect(trend.growth_kib() <= allowed_kib, name, " grew by ", trend.growth_kib(), " KiB");
      run_.expect(trend.more_descriptors() <= kFluctuation, name, " has ", trend.more_descriptors(),
                  " descriptors more");
    }
    run_.expect(wrong_ + last_[0].wrong + last_[1].wrong == 0, "answers were wrong");
    run_.expect(steady_calls_ > 0 && restless_clients > 0, "nothing was called");
  }

  static constexpr long kFluctuation = 25;  // the slow senders are there, or are not

  Run& run_;
  Served on_pipe_;
  Served on_tcp_;
  ByteProxy proxy_;
  std::vector<std::unique_ptr<Process>> restless_;
  std::array<RestlessStats, 2> last_;
  std::array<Trend, 4> trends_;
  Latencies pipe_latencies_;
  Latencies tcp_latencies_;
  std::atomic<long> steady_calls_{0};
  std::atomic<long> connections_{0};
  std::atomic<int> kills_{0};
  std::atomic<long> wrong_{0};
};

}  // namespace

void mix_everything(Run& run) { Mixture(run).run(run.seconds(4, 1800)); }

}  // namespace tolk::stress
