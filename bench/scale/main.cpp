// What a call costs beside many results that are stored, or beside many calls that wait. Both ends
// are in this process: the figures are to be compared with one another.
#include <fmt/format.h>
#include <tolk/tolk.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench/calls/measure.h"
#include "bench/calls/usage.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kAnswerLimitMs = 20000;

struct Options {
  int stored = 0;
  int waiting = 0;
  unsigned turn_ms = 300;
};

// Answers with its argument, and notes who asked.
class Echo final : public IServerMethod {
 public:
  explicit Echo(std::atomic<int>& caller) : caller_(caller) {}
  void callback(int id, TolkParams* in, TolkParams* out) override {
    caller_ = id;
    out->AddInt(in->GetValue(0)->GetInt());
  }

 private:
  std::atomic<int>& caller_;
};

// A server, and a client that is connected to it.
class Pair {
 public:
  Pair() {
    char text[] = "";
    server_->log(text, 0);
    client_->log(text, 0);
    server_->method("echo", new Echo(client_id_));
    client_->method("echo", new Echo(ignored_));
    const std::string name = std::to_string(1'000'000'000 + getpid());
    if (!server_->InitTolkServer(name.c_str()) || !client_->InitTolkClient(name.c_str(), true)) {
      throw std::runtime_error("no connection");
    }
    call_server(0);
  }

  void call_server(int call_id) {
    TolkParams arguments;
    arguments.AddInt(call_id);
    check(client_->SendMsgFast("echo", &arguments, call_id, kAnswerLimitMs), call_id);
  }

  void call_client(int call_id) {
    TolkParams arguments;
    arguments.AddInt(call_id);
    check(server_->SendMsg(client_id_, "echo", &arguments, call_id, kAnswerLimitMs), call_id);
  }

  // A client does not answer a method that it does not have.
  void wait_for_client(int call_id) {
    server_->SendMsg(client_id_, "nothing", nullptr, call_id, kAnswerLimitMs);
  }

 private:
  static void check(TolkParams* reply, int expected) {
    const TolkValue* const value = reply == nullptr ? nullptr : reply->GetValue(0);
    if (value == nullptr || value->GetInt() != expected) throw std::runtime_error("no answer");
  }

  IServer* const server_ = CreateServer();
  IClient* const client_ = CreateClient();
  std::atomic<int> client_id_{0};
  std::atomic<int> ignored_{0};
};

template <typename Call>
bench::Figures measure(unsigned turn_ms, const Call& call) {
  for (int i = 0; i < 100; ++i) call();
  std::vector<double> times_us;
  const double before_us = bench::processor_us({getpid()});
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(turn_ms);
  for (Clock::time_point now = Clock::now(); now < end;) {
    const Clock::time_point begin = now;
    call();
    now = Clock::now();
    times_us.push_back(std::chrono::duration<double, std::micro>(now - begin).count());
  }
  const double spent_us = bench::processor_us({getpid()}) - before_us;
  return {{"p50_us", bench::quantile(times_us, 0.5)},
          {"cpu_us", spent_us / static_cast<double>(times_us.size())}};
}

bench::Figures run(const Options& options) {
  auto& pair = *new Pair;  // calls may still wait when the process ends
  for (int i = 1; i <= options.stored; ++i) pair.call_server(i);
  if (options.waiting == 0) return measure(options.turn_ms, [&] { pair.call_server(0); });
  for (int i = 1; i < options.waiting; ++i) {
    std::thread([&pair, i] { pair.wait_for_client(i); }).detach();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  return measure(options.turn_ms, [&] { pair.call_client(0); });
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("A call beside stored results or waiting calls: one line of JSON.");
  app.add_option("--stored", options.stored, "results of other call ids that the client keeps");
  app.add_option("--waiting", options.waiting, "calls to the client, one of which is measured");
  app.add_option("--turn-ms", options.turn_ms, "how long (default 300)");
  CLI11_PARSE(app, argc, argv);
  std::FILE* const out = fdopen(dup(STDOUT_FILENO), "w");
  if (out == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  try {
    const bench::Figures figures = run(options);
    fmt::print(out, "{{\"p50_us\": {:.2f}, \"cpu_us\": {:.2f}}}\n", figures.at("p50_us"),
               figures.at("cpu_us"));
    std::fflush(out);
    _exit(0);
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}\n", error.what());
    _exit(1);
  }
}
