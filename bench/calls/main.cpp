// Calls between two processes, measured beside bare sockets in the same run.
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/calls/report.h"

namespace {

struct Options {
  bool quick = false;
  std::string json;
  std::vector<std::string> transports;
  std::string only;
  std::size_t rounds = 0;
  unsigned turn_ms = 0;
};

void describe(CLI::App& app, Options& options) {
  app.add_flag("--quick", options.quick, "everything once, in a few seconds; too short to compare");
  app.add_option("--json", options.json, "also write all figures of all rounds to this file");
  app.add_option("--transport", options.transports, "only these (default: all)")
      ->check(CLI::IsMember({"pipe", "tcp4", "tcp6"}));
  app.add_option("--only", options.only, "only the scenarios with this in their title");
  app.add_option("--rounds", options.rounds, "turns of each contestant (default 5)");
  app.add_option("--turn-ms", options.turn_ms, "length of a turn (default 300)");
}

bench::Plan plan_of(const Options& options) {
  bench::Plan plan = options.quick ? bench::quick_plan() : bench::Plan();
  plan.only = options.only;
  if (options.rounds != 0) plan.rounds = options.rounds;
  if (options.turn_ms != 0) plan.turn = std::chrono::milliseconds(options.turn_ms);
  if (!options.transports.empty()) plan.transports.clear();
  for (const std::string& name : options.transports) {
    plan.transports.push_back(bench::transport_of(name));
  }
  return plan;
}

// The library has lines of its own on standard output: they go nowhere, and the tables here.
std::FILE* take_standard_output() {
  std::FILE* const tables = fdopen(dup(STDOUT_FILENO), "w");
  if (tables == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) {
    throw std::runtime_error("no standard output");
  }
  return tables;
}

int run(const Options& options) {
  const bench::Plan plan = plan_of(options);
  std::FILE* const out = take_standard_output();
  fmt::print(out, "{}\n{} rounds, turns of {} ms\n", bench::machine_line(), plan.rounds,
             plan.turn.count());
  std::vector<bench::Result> results;
  double wrong = 0;
  bench::run_scenarios(plan, [&](const bench::Result& result) {
    bench::print_table(out, result);
    wrong += bench::wrong_answers(result);
    results.push_back(result);
  });
  if (results.empty()) throw std::invalid_argument("no scenario has that in its title");
  if (!options.json.empty()) bench::write_json(options.json, plan, results);
  if (wrong == 0) return 0;
  fmt::print(stderr, "{} exchanges without the right answer\n", wrong);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string_view(argv[1]) == bench::kServeCommand) {
    return bench::serve(argv[2], argv[3]);
  }
  Options options;
  CLI::App app(
      "Round trips, posted calls and large data between two processes, each figure "
      "beside that of a bare socket measured in turns with it.");
  describe(app, options);
  CLI11_PARSE(app, argc, argv);
  try {
    return run(options);
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}\n", error.what());
    return 1;
  }
}
