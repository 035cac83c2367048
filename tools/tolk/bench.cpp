// tolk bench: calls a second, and how long each one takes.
#include <fmt/format.h>

#include <atomic>
#include <cmath>
#include <iterator>
#include <memory>
#include <thread>

#include "tools/tolk/arguments.h"
#include "tools/tolk/bench_server.h"
#include "tools/tolk/command.h"
#include "tools/tolk/json_text.h"
#include "tools/tolk/machine.h"
#include "tools/tolk/output.h"

namespace tolk::tool {
namespace {

using Clock = std::chrono::steady_clock;

struct Bench {
  std::string address;
  std::string method;
  ArgumentTexts arguments;
  int callers = 1;
  std::chrono::milliseconds duration{3000};
};

// What is called, over and over.
struct Target {
  Client& client;
  std::string method;
  Values arguments;
};

// One thread's calls, and how long each one took.
class Calls {
 public:
  Calls(const Target& target, Clock::time_point end, std::atomic<long>& count)
      : thread_([this, &target, end, &count] { run(target, end, count); }) {}

  // Throws what a call has failed with.
  std::vector<double> times_us() {
    thread_.join();
    if (failed_) throw Error(*failed_);
    return std::move(times_us_);
  }

 private:
  void run(const Target& target, Clock::time_point end, std::atomic<long>& count) {
    auto now = Clock::now();
    do {  // once at least, however late the thread begins
      const auto result = target.client.call<Values>(target.method, target.arguments);
      const auto then = std::exchange(now, Clock::now());
      if (!result) {
        failed_ = result.error();
        return;
      }
      times_us_.push_back(std::chrono::duration<double, std::micro>(now - then).count());
      ++count;
    } while (now < end);
  }

  std::vector<double> times_us_;
  std::optional<Error> failed_;
  std::thread thread_;  // last: it uses the others
};

// All callers' times, sorted.
std::vector<double> measure(const Bench& bench, const Target& target, double& seconds) {
  Output& output = Output::get();
  std::atomic<long> count{0};
  const auto begun = Clock::now();
  const auto end = begun + bench.duration;
  std::vector<std::unique_ptr<Calls>> callers;
  callers.reserve(static_cast<std::size_t>(bench.callers));
  for (int i = 0; i < bench.callers; ++i) {
    callers.push_back(std::make_unique<Calls>(target, end, count));
  }
  while (output.shows_progress() && Clock::now() < end) {
    output.progress(fmt::format("{} calls", count.load()));
    constexpr std::chrono::milliseconds kStep{100};
    std::this_thread::sleep_until(std::min<Clock::time_point>(end, Clock::now() + kStep));
  }
  std::vector<double> all;
  std::optional<Error> failed;
  for (auto& caller : callers) {
    try {
      std::vector<double> times = caller->times_us();
      all.insert(all.end(), times.begin(), times.end());
    } catch (const Error& error) {
      failed = error;  // the others are waited for
    }
  }
  if (failed)
    throw bench.method.empty() ? failure_of(unnamed(*failed), "bench") : failure_of(*failed);
  seconds = std::chrono::duration<double>(Clock::now() - begun).count();
  output.end_progress();
  std::sort(all.begin(), all.end());
  return all;
}

// The time that this part of the calls did not exceed.
double percentile(const std::vector<double>& sorted, double part) {
  const double rank = std::ceil(part * static_cast<double>(sorted.size()));
  return sorted[std::max<std::size_t>(static_cast<std::size_t>(rank), 1) - 1];
}

Json report_of(const Bench& bench, const Target& target, const std::vector<double>& sorted,
               double seconds) {
  return {{"machine", machine()},
          {"version", TOLK_VERSION},
          {"address", target.client.address()},
          {"method", target.method},
          {"callers", bench.callers},
          {"seconds", seconds},
          {"calls", sorted.size()},
          {"calls_per_second", static_cast<double>(sorted.size()) / seconds},
          {"min_us", sorted.front()},
          {"p50_us", percentile(sorted, 0.5)},
          {"p90_us", percentile(sorted, 0.9)},
          {"p99_us", percentile(sorted, 0.99)},
          {"p99.9_us", percentile(sorted, 0.999)},
          {"max_us", sorted.back()}};
}

std::string lines_of(const Json& report) {
  const Colors& c = Output::get().data_colors();
  const auto number = [&](const char* key) { return report.at(key).get<double>(); };
  std::string lines;
  const auto line = [&](const char* name, const std::string& text) {
    lines += fmt::format("{}{:<9}{}{}\n", c.name, name, c.off, text);
  };
  line("machine", report.at("machine").get<std::string>());
  line("version", report.at("version").get<std::string>());
  const int callers = report.at("callers").get<int>();
  line("call",
       fmt::format("{} at {}, {} caller{}, {:.1f} s", report.at("method").get<std::string>(),
                   report.at("address").get<std::string>(), callers, callers == 1 ? "" : "s",
                   number("seconds")));
  line("calls/s", fmt::format("{:.0f}", number("calls_per_second")));
  line("latency", fmt::format("min {:.0f}, p50 {:.0f}, p90 {:.0f}, p99 {:.0f}, p99.9 {:.0f}, max "
                              "{:.0f} us",
                              number("min_us"), number("p50_us"), number("p90_us"),
                              number("p99_us"), number("p99.9_us"), number("max_us")));
  return lines;
}

// The method that every server has, where none is named.
std::string method_of(const Bench& bench, bool own_server) {
  if (!bench.method.empty()) return bench.method;
  return own_server ? kBenchMethod : "s_c_version";
}

void run(const Bench& bench, const Options& options) {
  Values arguments = arguments_of(bench.arguments, bench.method, bench.address);
  std::optional<BenchServer> server;
  std::string address = bench.address;
  if (address.empty()) {
    address = server.emplace().address();
    const Value filler(std::string(100, 'x'));
    arguments.add(filler);
  }
  const std::string method = method_of(bench, server.has_value());
  const Target target{connect_to(address, bench.method.empty() ? "bench" : method, options), method,
                      std::move(arguments)};
  double seconds = 0;
  const std::vector<double> sorted = measure(bench, target, seconds);
  const Json report = report_of(bench, target, sorted, seconds);
  Output& output = Output::get();
  output.data(options.json == JsonStyle::off
                  ? lines_of(report)
                  : colored(report, options.json, output.data_colors()) + "\n");
}

}  // namespace

void add_bench(CLI::App& app, Options& options) {
  add_bench_server(app, options);
  CLI::App& command = *app.add_subcommand(
      "bench", "Measure how many calls a second there can be, and how long each takes");
  const auto bench = std::make_shared<Bench>();
  add_address(command, bench->address)->required(false);
  command
      .add_option("METHOD", bench->method,
                  "The method; if not given, the version check,\nwhich every server answers")
      ->type_name("");
  add_arguments(command, bench->arguments, options);
  command.add_option("--callers", bench->callers, "Threads that call at the same time")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000))
      ->type_name("N");
  command
      .add_option_function<std::string>(
          "--duration",
          [bench](const std::string& text) {
            bench->duration = duration_from("--duration", text);
            if (bench->duration == forever || bench->duration.count() == 0) {
              throw CLI::ValidationError("--duration: \"" + text + "\" is no time to measure in");
            }
          },
          "How long to go on, 3s if not given")
      ->type_name("TIME");
  add_timeout_flag(command, options);
  add_output_flags(command, options);
  add_examples(command,
               "  tolk bench\n"
               "  tolk bench pipe:5000 add 2 3 --duration 1s --callers 4\n"
               "  tolk bench 5000 --duration 500ms --json=short",
               "Without an address it starts a server of its own, in another process.");
  command.callback([bench, &options] { run(*bench, options); });
}

}  // namespace tolk::tool
