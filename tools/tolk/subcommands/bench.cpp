// tolk bench: how many calls a second a server answers, and how long each one takes.
#include <fmt/format.h>

#include <atomic>
#include <cmath>
#include <iterator>
#include <memory>
#include <thread>

#include "tools/tolk/command/call_arguments.h"
#include "tools/tolk/command/connect.h"
#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/bench_server.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/machine.h"
#include "tools/tolk/text/colored_json.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {
namespace {

struct BenchOptions {
  std::string address;
  std::string method;
  ArgumentTexts arguments;
  int callers = 1;
  std::chrono::milliseconds duration{3000};
};

// What the callers call again and again.
struct BenchTarget {
  Client& client;
  std::string method;
  Values arguments;
};

// A thread that calls the target, and how long each of its calls took.
class BenchCaller {
 public:
  BenchCaller(const BenchTarget& target, std::chrono::steady_clock::time_point end,
              std::atomic<long>& count)
      : thread_([this, &target, end, &count] { run(target, end, count); }) {}

  // Throws the error of a failed call.
  std::vector<double> times_us() {
    thread_.join();
    if (failed_) throw Error(*failed_);
    return std::move(times_us_);
  }

 private:
  void run(const BenchTarget& target, std::chrono::steady_clock::time_point end,
           std::atomic<long>& count) {
    auto now = std::chrono::steady_clock::now();
    do {  // at least once, even if the thread begins late
      const auto result = target.client.call<Values>(target.method, target.arguments);
      const auto then = std::exchange(now, std::chrono::steady_clock::now());
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
  std::thread thread_;  // last: it uses the other members
};

// The times of all callers, sorted.
std::vector<double> measure(const BenchOptions& bench, const BenchTarget& target, double& seconds) {
  Output& output = Output::get();
  std::atomic<long> count{0};
  const auto begun = std::chrono::steady_clock::now();
  const auto end = begun + bench.duration;
  std::vector<std::unique_ptr<BenchCaller>> callers;
  callers.reserve(static_cast<std::size_t>(bench.callers));
  for (int i = 0; i < bench.callers; ++i) {
    callers.push_back(std::make_unique<BenchCaller>(target, end, count));
  }
  while (output.shows_progress() && std::chrono::steady_clock::now() < end) {
    output.progress(fmt::format("{} calls", count.load()));
    constexpr std::chrono::milliseconds kStep{100};
    std::this_thread::sleep_until(std::min<std::chrono::steady_clock::time_point>(
        end, std::chrono::steady_clock::now() + kStep));
  }
  std::vector<double> all;
  std::optional<Error> failed;
  for (auto& caller : callers) {
    try {
      std::vector<double> times = caller->times_us();
      all.insert(all.end(), times.begin(), times.end());
    } catch (const Error& error) {
      failed = error;  // the other threads must end first
    }
  }
  if (failed)
    throw bench.method.empty() ? failure_of(unnamed(*failed), "bench") : failure_of(*failed);
  seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
  output.end_progress();
  std::sort(all.begin(), all.end());
  return all;
}

// The longest time of this fraction of the calls, the fastest ones.
double percentile(const std::vector<double>& sorted, double fraction) {
  const double rank = std::ceil(fraction * static_cast<double>(sorted.size()));
  return sorted[std::max<std::size_t>(static_cast<std::size_t>(rank), 1) - 1];
}

Json report_of(const BenchOptions& bench, const BenchTarget& target,
               const std::vector<double>& sorted, double seconds) {
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

// If the user names no method: one that every server has.
std::string method_of(const BenchOptions& bench, bool own_server) {
  if (!bench.method.empty()) return bench.method;
  return own_server ? kBenchMethod : "s_c_version";
}

void run(const BenchOptions& bench, const CommonOptions& options) {
  Values arguments = arguments_of(bench.arguments, bench.method, bench.address);
  std::optional<BenchServer> server;
  std::string address = bench.address;
  if (address.empty()) {
    address = server.emplace().address();
    const Value filler(std::string(100, 'x'));
    arguments.add(filler);
  }
  const std::string method = method_of(bench, server.has_value());
  const BenchTarget target{connect_to(address, bench.method.empty() ? "bench" : method, options),
                           method, std::move(arguments)};
  double seconds = 0;
  const std::vector<double> sorted = measure(bench, target, seconds);
  const Json report = report_of(bench, target, sorted, seconds);
  if (options.json == JsonStyle::off) {
    Output::get().data(lines_of(report));
  } else {
    print_json(report, options.json);
  }
}

}  // namespace

void add_bench(CLI::App& app, CommonOptions& options) {
  add_bench_server(app, options);
  CLI::App& command = *app.add_subcommand(
      "bench", "Measure how many calls a second there can be, and how long each takes");
  const auto bench = std::make_shared<BenchOptions>();
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
              throw CLI::ValidationError("--duration: \"" + text +
                                         "\" is not a duration to measure for");
            }
          },
          "How long to measure; 3s if not given")
      ->type_name("TIME");
  add_timeout_flag(command, options);
  add_output_flags(command, options);
  add_examples(command,
               "  tolk bench\n"
               "  tolk bench pipe:5000 add 2 3 --duration 1s --callers 4\n"
               "  tolk bench 5000 --duration 500ms --json",
               "Without an address it starts a server of its own, in another process.");
  command.callback([bench, &options] { run(*bench, options); });
}

}  // namespace tolk::tool
