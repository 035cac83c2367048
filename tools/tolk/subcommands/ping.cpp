// tolk ping: how long a server takes to answer.
#include <fmt/format.h>

#include <algorithm>
#include <memory>

#include "tools/tolk/command/connect.h"
#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/text/colored_json.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {
namespace {

struct PingOptions {
  std::string address;
  int count = 5;
  std::chrono::milliseconds interval{1000};
};

struct PingTally {
  int sent = 0;
  int answered = 0;
  double least_ms = 0;
  double most_ms = 0;
  double sum_ms = 0;

  void add(double ms) {
    least_ms = answered == 0 ? ms : std::min(least_ms, ms);
    most_ms = std::max(most_ms, ms);
    sum_ms += ms;
    ++answered;
  }
  double average_ms() const { return answered == 0 ? 0 : sum_ms / answered; }
};

double ms_of(std::chrono::nanoseconds time) { return static_cast<double>(time.count()) / 1e6; }

// Makes one round trip and prints a line about it. An error other than a timeout ends the command.
void ping_once(Client& client, const CommonOptions& options, PingTally& tally) {
  ++tally.sent;
  const auto took = round_trip(client, options.timeout);
  if (end_is_wanted()) return;
  std::string line;
  if (took) {
    tally.add(ms_of(*took));
    line = fmt::format("{} answered in {:.3f} ms\n", client.address(), ms_of(*took));
  } else if (took.error().code() == Errc::timed_out) {
    line =
        fmt::format("{} did not answer within {} ms\n", client.address(), options.timeout.count());
  } else {
    throw failure_of(took.error(), "ping");
  }
  if (options.json == JsonStyle::off && !options.quiet) Output::get().data(line);
}

void print_summary(const std::string& address, const PingTally& tally, JsonStyle style) {
  if (style == JsonStyle::off) {
    Output::get().data(
        fmt::format("{}: {} sent, {} answered; min/avg/max {:.3f}/{:.3f}/{:.3f} ms\n", address,
                    tally.sent, tally.answered, tally.least_ms, tally.average_ms(), tally.most_ms));
    return;
  }
  const Json json = {{"address", address},           {"sent", tally.sent},
                     {"answered", tally.answered},   {"min_ms", tally.least_ms},
                     {"avg_ms", tally.average_ms()}, {"max_ms", tally.most_ms}};
  print_json(json, style);
}

void run(const PingOptions& ping, const CommonOptions& options) {
  Client& client = connect_to(ping.address, "ping", options);
  end_by_itself();
  PingTally tally;
  while (!end_is_wanted()) {
    ping_once(client, options, tally);
    if (tally.sent == ping.count || wait_for_end(ping.interval)) break;
  }
  print_summary(client.address(), tally, options.json);
  if (tally.answered > 0 || was_interrupted()) return;
  throw failure_of(Error(Errc::timed_out, "ping", client.address(),
                         "no answer within " + std::to_string(options.timeout.count()) + " ms"));
}

}  // namespace

void add_ping(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand("ping", "Measure how long a server takes to answer");
  const auto ping = std::make_shared<PingOptions>();
  add_address(command, ping->address);
  add_count_flag(command, ping->count, "How many calls; 0 goes on until Ctrl-C")
      ->capture_default_str();
  command
      .add_option_function<std::string>(
          "-i,--interval",
          [ping](const std::string& text) { ping->interval = duration_from("--interval", text); },
          "The pause between two calls; 1s if not given")
      ->type_name("TIME");
  add_json_flag(command, options);
  add_timeout_flag(command, options);
  add_output_flags(command, options);
  add_examples(command,
               "  tolk ping pipe:5000\n"
               "  tolk ping 5000 --count 100 --interval 10ms --quiet\n"
               "  tolk ping 5000 -c 3 -i 0s --json");
  command.callback([ping, &options] { run(*ping, options); });
}

}  // namespace tolk::tool
