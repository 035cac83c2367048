// tolk_stress: puts hosts and peers under stress, one row of a matrix after another, and checks
// what must hold nevertheless. scripts/stress runs it; docs/reliability.md has the figures.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/stress/frame/process.h"
#include "tests/stress/frame/rows.h"

namespace tolk::stress {

const std::vector<Row>& rows() {
  static const std::vector<Row> all{
      {1, "processes are killed under 64 callers", kill_processes, 1800},
      {3, "closing, destroying and reconnecting race with running handlers", race_closes, 1800},
      {4, "a call that timed out is followed by the next, and answered late", answer_late, 600},
      {5, "hostile connections replay what the fuzzers have kept", connect_hostile_peers, 900},
      {6, "connections promise 2 GiB and send a byte a second", send_slowly, 300},
      {7, "200 clients want to connect to a server out of descriptors", run_out_of_descriptors,
       300},
      {8, "a million posts to a client that never reads", post_to_who_never_reads, 900},
      {9, "clients connect and disconnect, some within a frame", connect_often, 900},
      {10, "ten thousand idle connections beside eight busy ones", keep_idle_connections, 300},
      {11, "the tick of timeouts wraps", wrap_the_tick, 120},
      {12, "signals, dying peers, fork and exec during calls", interrupt_and_fork, 300},
      {13, "a proxy splits, delays, reorders, half-closes and resets", call_through_a_proxy, 900},
      {14, "all of it at low rates, for long", mix_everything, 2100},
      {15, "ends of the C interface race with calls, cancels and late answers", race_c_ends, 1800},
      {16, "processes of the C interface are killed", kill_c_peers, 900},
  };
  return all;
}

Role role_named(const std::string& name) {
  if (name == "echo-server") return run_echo_server;
  if (name == "calling-client") return run_calling_client;
  if (name == "proxied-client") return run_proxied_client;
  if (name == "restless-client") return run_restless_client;
  if (name == "list-descriptors") return run_list_descriptors;
  if (name == "c-peer") return run_c_peer;
  return nullptr;
}

namespace {

constexpr char kUsage[] =
    "Usage: tolk_stress [--row N] [--short] [--seed N] [--rounds N] [--seconds N] [--json FILE]\n"
    "       tolk_stress --list\n"
    "Without --row all rows, one after another. --rounds and --seconds replace what a row does in\n"
    "its short or its long form; --json adds a line for each figure to FILE.\n";

[[noreturn]] void leave_with_usage() {
  std::fputs(kUsage, stderr);
  std::exit(2);
}

Options read_options(int count, char** words) {
  Options options;
  options.seed = std::random_device()() % 1'000'000'000;
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    if (word == "--short") {
      options.is_short = true;
      continue;
    }
    if (i + 1 == count) leave_with_usage();  // the others have a value
    if (word == "--row") {
      options.row = std::atoi(words[++i]);
    } else if (word == "--seed") {
      options.seed = std::strtoull(words[++i], nullptr, 10);
    } else if (word == "--rounds") {
      options.rounds = std::atoi(words[++i]);
    } else if (word == "--seconds") {
      options.seconds = std::atoi(words[++i]);
    } else if (word == "--json") {
      options.json = words[++i];
    } else {
      leave_with_usage();
    }
  }
  return options;
}

int run_role(int count, char** words) {
  const std::vector<std::string> arguments(words + 3, words + count);
  const Role role = role_named(words[2]);
  if (role == nullptr) leave_with_usage();
  drop_library_lines();
  return role(arguments);
}

int list_rows() {
  for (const Row& row : rows()) std::printf("%d\t%s\n", row.number, row.what);
  return 0;
}

int run_rows(const Options& options) {
  std::vector<int> failed;
  int count = 0;
  for (const Row& row : rows()) {
    if (options.row != 0 && options.row != row.number) continue;
    ++count;
    if (!run_guarded(row, options)) failed.push_back(row.number);
  }
  if (count == 0) leave_with_usage();
  std::printf("%d rows ok, %zu failed\n", count - static_cast<int>(failed.size()), failed.size());
  for (const int row : failed) {
    std::printf("failed: --row %d --seed %llu%s\n", row,
                static_cast<unsigned long long>(options.seed), options.is_short ? " --short" : "");
  }
  return failed.empty() ? 0 : 1;
}

}  // namespace
}  // namespace tolk::stress

int main(int argc, char** argv) {
  using namespace tolk::stress;
  if (argc >= 3 && std::strcmp(argv[1], "--role") == 0) return run_role(argc, argv);
  if (argc == 2 && std::strcmp(argv[1], "--list") == 0) return list_rows();
  return run_rows(read_options(argc, argv));
}
