#include "bench/calls/measure.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <latch>
#include <stdexcept>
#include <thread>

#include "bench/calls/usage.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Clients = std::vector<std::unique_ptr<Client>>;

constexpr std::chrono::seconds kHandledLimit{30};
constexpr std::size_t kPostsBetweenLooks = 64;

double us(Clock::duration time) { return std::chrono::duration<double, std::micro>(time).count(); }

void must(bool right) {
  if (!right) throw std::runtime_error("an answer is missing or wrong");
}

std::string pattern(std::size_t bytes) {
  std::string made(bytes, '\0');
  for (std::size_t i = 0; i < bytes; ++i) made[i] = static_cast<char>(i * 37 + i / 251);
  return made;
}

Clients connect_all(const Setup& setup) {
  Clients clients;
  for (std::size_t i = 0; i < setup.clients; ++i) {
    clients.push_back(setup.contestant.connect(setup.place, setup.callers));
  }
  return clients;
}

struct Caller {
  Client& client;
  std::size_t number;
  std::vector<double> times_us;
  std::exception_ptr failure;
};

// Every payload differs from the one before.
void call_until(const Setup& setup, Caller& caller, Clock::time_point end) {
  std::string payload = pattern(setup.payload_bytes);
  std::uint32_t stamp = static_cast<std::uint32_t>(caller.number) << 24;
  do {
    if (setup.pause.count() != 0) std::this_thread::sleep_for(setup.pause);
    ++stamp;
    if (payload.size() >= sizeof stamp) std::memcpy(payload.data(), &stamp, sizeof stamp);
    const Clock::time_point begin = Clock::now();
    must(caller.client.echo(caller.number, payload));
    caller.times_us.push_back(us(Clock::now() - begin));
  } while (Clock::now() < end);
}

struct Spent {
  double seconds = 0;
  double processor_us = 0;
};

// The thread that connected calls, too: some contestants want it so.
Spent one_caller(const Setup& setup, Caller& caller) {
  call_until(setup, caller, Clock::now() + setup.warm_up);
  caller.times_us.clear();
  const double before_us = processor_us(setup.processes);
  const Clock::time_point begin = Clock::now();
  call_until(setup, caller, begin + setup.turn);
  return {us(Clock::now() - begin) / 1e6, processor_us(setup.processes) - before_us};
}

Spent many_callers(const Setup& setup, std::vector<Caller>& callers) {
  std::latch warm(static_cast<std::ptrdiff_t>(callers.size()) + 1);
  std::latch start(static_cast<std::ptrdiff_t>(callers.size()) + 1);
  std::vector<std::thread> threads;
  for (Caller& caller : callers) {
    threads.emplace_back([&] {
      try {
        call_until(setup, caller, Clock::now() + setup.warm_up);
      } catch (...) {
        caller.failure = std::current_exception();
      }
      caller.times_us.clear();
      warm.count_down();
      start.arrive_and_wait();
      try {
        if (!caller.failure) call_until(setup, caller, Clock::now() + setup.turn);
      } catch (...) {
        caller.failure = std::current_exception();
      }
    });
  }
  warm.arrive_and_wait();
  const double before_us = processor_us(setup.processes);
  const Clock::time_point begin = Clock::now();
  start.arrive_and_wait();
  for (std::thread& thread : threads) thread.join();
  return {us(Clock::now() - begin) / 1e6, processor_us(setup.processes) - before_us};
}

Figures echo_with(const Setup& setup, const Clients& clients) {
  std::vector<Caller> callers;
  for (const auto& client : clients) {
    for (std::size_t i = 0; i < setup.callers; ++i) callers.push_back({*client, i, {}, {}});
  }
  const Spent spent =
      callers.size() == 1 ? one_caller(setup, callers[0]) : many_callers(setup, callers);
  std::vector<double> times_us;
  for (const Caller& caller : callers) {
    if (caller.failure) std::rethrow_exception(caller.failure);
    times_us.insert(times_us.end(), caller.times_us.begin(), caller.times_us.end());
  }
  const auto calls = static_cast<double>(times_us.size());
  return {{"calls_s", calls / spent.seconds},
          {"cpu_us", spent.processor_us / calls},
          {"p50_us", quantile(times_us, 0.5)},
          {"p99_us", quantile(times_us, 0.99)}};
}

void open_idle_connections(Shared& shared) {
  shared.idle_wanted = true;
  while (!shared.idle_open) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void wait_until_handled(const Shared& shared, std::uint64_t count) {
  const Clock::time_point limit = Clock::now() + kHandledLimit;
  while (shared.handled < count) {
    std::this_thread::sleep_for(std::chrono::microseconds(100));
    if (Clock::now() > limit) throw std::runtime_error("posted messages were lost");
  }
}

}  // namespace

Figures measure_echo(const Setup& setup) {
  const Clients clients = connect_all(setup);
  Figures figures = echo_with(setup, clients);
  if (!setup.idle) return figures;
  open_idle_connections(setup.shared);
  Figures beside_idle = echo_with(setup, clients);
  beside_idle["p50_alone_us"] = figures["p50_us"];
  beside_idle["times"] = beside_idle["p50_us"] / figures["p50_us"];
  return beside_idle;
}

Figures measure_posts(const Setup& setup) {
  const auto client = setup.contestant.connect(setup.place, 1);
  const std::string payload = pattern(setup.payload_bytes);
  must(client->echo(0, payload));
  const std::uint64_t handled_before = setup.shared.handled;
  const double before_us = processor_us(setup.processes);
  const Clock::time_point begin = Clock::now();
  std::uint64_t count = 0;
  while (Clock::now() < begin + setup.turn) {
    for (std::size_t i = 0; i < kPostsBetweenLooks; ++i) must(client->post(payload));
    count += kPostsBetweenLooks;
  }
  must(client->flush_posts());
  wait_until_handled(setup.shared, handled_before + count);
  const double seconds = us(Clock::now() - begin) / 1e6;
  const auto messages = static_cast<double>(count);
  return {{"msg_s", messages / seconds},
          {"cpu_us", (processor_us(setup.processes) - before_us) / messages}};
}

// The first transfer gets its pages from the system, and is not counted.
Figures measure_bulk(const Setup& setup) {
  const auto client = setup.contestant.connect(setup.place, 1);
  const std::string bytes = pattern(setup.bytes);
  std::vector<double> rates;
  double before_us = 0;
  Clock::time_point end;
  for (bool first = true; first || Clock::now() < end || rates.size() < 2; first = false) {
    if (rates.empty()) before_us = processor_us(setup.processes);
    const Clock::time_point begin = Clock::now();
    must(setup.piece_bytes == 0 ? client->bulk(bytes)
                                : client->bulk_in_pieces(bytes, setup.piece_bytes));
    if (first) {
      end = Clock::now() + setup.turn;
    } else {
      rates.push_back(static_cast<double>(setup.bytes) / us(Clock::now() - begin));
    }
  }
  const double spent_us = processor_us(setup.processes) - before_us;
  const double mib = static_cast<double>(setup.bytes * rates.size()) / (1 << 20);
  return {{"mb_s", quantile(rates, 0.5)}, {"cpu_us_mib", spent_us / mib}};
}

Figures measure_memory(const Setup& setup) {
  constexpr std::size_t kWarm = 10;
  constexpr std::chrono::milliseconds kSettle{300};
  const std::string payload = pattern(setup.payload_bytes);
  std::vector<pid_t> servers = setup.processes;
  std::erase(servers, getpid());
  Clients clients;
  double before_kib = 0;
  for (std::size_t i = 0; i < kWarm + setup.clients; ++i) {
    if (i == kWarm) {
      std::this_thread::sleep_for(kSettle);
      before_kib = resident_kib(servers);
    }
    clients.push_back(setup.contestant.connect(setup.place, 1));
    must(clients.back()->echo(0, payload));
  }
  std::this_thread::sleep_for(kSettle);
  const double kib = resident_kib(servers) - before_kib;
  Figures figures{{"kib", kib / static_cast<double>(setup.clients)}};
  for (auto& client : clients) client.release();  // to end so many takes long; the process ends
  return figures;
}

Figures measure_rest(const Setup& setup) {
  constexpr std::chrono::milliseconds kSettle{1000};
  auto client = setup.contestant.connect(setup.place, 1);
  must(client->echo(0, pattern(setup.payload_bytes)));
  std::this_thread::sleep_for(kSettle);
  const double before = sleeps(setup.processes);
  const Clock::time_point begin = Clock::now();
  std::this_thread::sleep_for(setup.turn);
  const std::chrono::duration<double> passed = Clock::now() - begin;
  return {{"wakes_s", (sleeps(setup.processes) - before) / passed.count()}};
}

Figures measure_connect(const Setup& setup) {
  std::vector<double> connect_us;
  std::vector<double> close_us;
  const Clock::time_point end = Clock::now() + setup.turn;
  while (connect_us.size() < 4 || Clock::now() < end) {
    const ConnectTimes times = setup.contestant.connect_and_close(setup.place);
    connect_us.push_back(times.connect_us);
    close_us.push_back(times.close_us);
  }
  return {{"connect_us", quantile(connect_us, 0.5)},
          {"connect_p99_us", quantile(connect_us, 0.99)},
          {"close_us", quantile(close_us, 0.5)}};
}

double quantile(std::vector<double> values, double part) {
  if (values.empty()) return 0;
  const auto at = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return values[static_cast<std::size_t>(at)];
}

bool Client::bulk_in_pieces(std::string_view bytes, std::size_t piece_bytes) {
  for (; !bytes.empty(); bytes.remove_prefix(std::min(piece_bytes, bytes.size()))) {
    if (!bulk(bytes.substr(0, piece_bytes))) return false;
  }
  return true;
}

ConnectTimes Contestant::connect_and_close(const Place& place) {
  const Clock::time_point begin = Clock::now();
  std::unique_ptr<Client> client = connect(place, 1);
  must(client->echo(0, "first"));
  const Clock::time_point connected = Clock::now();
  client.reset();
  return {us(connected - begin), us(Clock::now() - connected)};
}

std::vector<Socket> Contestant::idle_connections(const Place& place, std::size_t count) {
  std::vector<Socket> sockets;
  while (sockets.size() < count) sockets.push_back(connect_to(place));
  return sockets;
}

}  // namespace bench
