// tolk_c_seam: lets the k-th call of libuv, or the k-th allocation, fail while hosts of the C
// interface do something; for k = 1, 2, 3 … until there is no k-th any more. Once, and from k on.
// Frames are sent by the thread that has them, or by the loop.
//
// Each series of scenarios runs in a process of its own, which the parent watches.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/waiting.h"
#include "tests/seam/c_scenarios.h"
#include "tests/seam/faults.h"
#include "tests/silence.h"
#include "tests/steps/pauses.h"
#include "transport/system_calls.h"

namespace tolk::test {
namespace {

constexpr char kUsage[] =
    "Usage: tolk_c_seam [--most N] [--only TEXT] [--scenario NAME] [--from K]\n"
    "  --most N         at most N failures of each scenario, evenly spread; all unless said\n"
    "  --only TEXT      the series whose name contains it\n"
    "  --scenario NAME  only this one\n"
    "  --from K         begin with the K-th\n";
constexpr unsigned kHangS = 20;
constexpr int kBystanderLoops = 2;

struct Options {
  int most = 0;
  int from = 1;
  std::string only;
  std::string scenario;
};

enum class Sends { directly, by_the_loop };

struct Series {
  const char* name;
  const char* address;
  Chance chance;
  Mode mode;
  Sends sends;
};

constexpr Series kSeries[] = {
    {"memory once", "pipe", Chance::memory, Mode::once, Sends::directly},
    {"memory once by the loop tcp4", "tcp4:127.0.0.1:0", Chance::memory, Mode::once,
     Sends::by_the_loop},
    {"memory from then on", "pipe", Chance::memory, Mode::from_then_on, Sends::by_the_loop},
    {"calls once", "pipe", Chance::call, Mode::once, Sends::by_the_loop},
    {"calls from then on tcp4", "tcp4:127.0.0.1:0", Chance::call, Mode::from_then_on,
     Sends::by_the_loop},
};

// Where a series is, seen by the parent too.
struct Progress {
  char scenario[32];
  int k = 0;
  int runs = 0;
};

std::size_t sends_nothing(int, std::span<const uv_buf_t>) { return 0; }

std::string address_of(const Series& series, const char* suffix) {
  if (std::strcmp(series.address, "pipe") != 0) return series.address;
  return "pipe:c-seam-" + std::to_string(getpid()) + suffix;
}

// A client and a server that have nothing to do with the others.
class Bystander {
 public:
  explicit Bystander(const Series& series)
      : address_(address_of(series, "-b")), world_(address_.c_str(), CWorld::Executor::workers) {
    world_.make_methods();
    world_.listen();
    world_.client = world_.connect();
  }
  ~Bystander() { world_.end(); }
  Bystander(const Bystander&) = delete;
  Bystander& operator=(const Bystander&) = delete;

  std::string trouble() {
    tolk_block* const arguments = CWorld::ping();
    for (const bool by_client : {true, false}) {
      tolk_block* result = nullptr;
      if (by_client) {
        tolk_client_call(world_.client, "echo", arguments, 0, &result, nullptr);
      } else {
        tolk_server_call(world_.server, world_.newest_client, "echo", arguments, 0, &result,
                         nullptr);
      }
      if (!CWorld::is_ping(result)) return "the bystander's call is not answered";
      tolk_block_free(result);
    }
    tolk_block_free(arguments);
    return "";
  }

 private:
  const std::string address_;
  CWorld world_;
};

std::string play(const Series& series, const CScenario& scenario, int k) {
  const std::string address = address_of(series, "");
  CWorld world(address.c_str(), scenario.executor);
  if (scenario.begins_up) {
    world.make_methods();
    world.listen();
    world.other = world.connect();
    world.client = world.connect();
    world.wait_for_clients(2);
  }
  const Faults faults(series.chance, series.mode, k);
  {
    const Subject to_failures;
    scenario.play(world);
    world.end();
  }
  // Threads on their way out still meet failures.
  if (!eventually([] { return open_loops() <= kBystanderLoops; })) return "a loop is left";
  return world.judge();
}

// How many chances there are in a run without failures.
int chances(const Series& series, const CScenario& scenario, int* status) {
  const std::string trouble = play(series, scenario, 1 << 30);
  if (!trouble.empty()) {
    std::fprintf(stderr, "%s, %s, no failure: %s\n", series.name, scenario.name, trouble.c_str());
    *status = 1;
  }
  return Faults::met();
}

int run_scenario(const Series& series, const CScenario& scenario, const Options& options,
                 Bystander& bystander, Progress& progress) {
  int status = 0;
  std::strncpy(progress.scenario, scenario.name, sizeof progress.scenario - 1);
  progress.k = 0;
  alarm(kHangS);
  const int count = chances(series, scenario, &status);
  const int step = options.most > 0 ? std::max(1, count / options.most) : 1;
  bool injected = true;
  for (progress.k = options.from; injected || progress.k <= count; progress.k += step) {
    alarm(kHangS);
    std::string trouble = play(series, scenario, progress.k);
    injected = Faults::injected();
    if (trouble.empty()) trouble = bystander.trouble();
    ++progress.runs;
    if (trouble.empty()) continue;
    std::fprintf(stderr, "%s, %s, k = %d: %s\n", series.name, scenario.name, progress.k,
                 trouble.c_str());
    status = 1;
  }
  return status;
}

[[noreturn]] void run_series(const Series& series, const Options& options, Progress& progress) {
  const Exempt this_thread;
  silence_standard_output();
  shorten_pauses();
  take_over_memory_of_libuv();
  if (series.sends == Sends::by_the_loop) system_calls.send = sends_nothing;
  int status = 0;
  {
    Bystander bystander(series);
    for (const CScenario& scenario : c_scenarios()) {
      if (!options.scenario.empty() && options.scenario != scenario.name) continue;
      status |= run_scenario(series, scenario, options, bystander, progress);
    }
  }
  std::exit(status);
}

int run(const Options& options) {
  constexpr std::size_t count = std::size(kSeries);
  void* const shared = mmap(nullptr, sizeof(Progress) * count, PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return 2;
  auto* const progress = new (shared) Progress[count]();
  std::map<pid_t, std::size_t> running;
  for (std::size_t i = 0; i < count; ++i) {
    if (std::string(kSeries[i].name).find(options.only) == std::string::npos) continue;
    const pid_t child = fork();
    if (child == 0) prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (child == 0) run_series(kSeries[i], options, progress[i]);
    running.emplace(child, i);
  }
  int failures = running.empty() ? 1 : 0;
  while (!running.empty()) {
    int status = 0;
    const auto at = running.find(wait(&status));
    if (at == running.end()) return 2;
    const Progress& reached = progress[at->second];
    std::printf("%-30s %s: %d runs\n", kSeries[at->second].name, status == 0 ? "ok" : "FAILED",
                reached.runs);
    if (status != 0) {
      ++failures;
      std::printf("  %s %d in \"%s\", k = %d\n", WIFSIGNALED(status) ? "signal" : "exit status",
                  WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status), reached.scenario,
                  reached.k);
    }
    running.erase(at);
  }
  return failures == 0 ? 0 : 1;
}

Options read_options(int count, char** words) {
  Options options;
  for (int i = 1; i < count; i += 2) {
    const std::string word = words[i];
    const char* const value = i + 1 < count ? words[i + 1] : nullptr;
    if (value != nullptr && word == "--most") {
      options.most = std::atoi(value);
    } else if (value != nullptr && word == "--from") {
      options.from = std::atoi(value);
    } else if (value != nullptr && word == "--only") {
      options.only = value;
    } else if (value != nullptr && word == "--scenario") {
      options.scenario = value;
    } else {
      std::fputs(kUsage, stderr);
      std::exit(2);
    }
  }
  return options;
}

}  // namespace
}  // namespace tolk::test

int main(int count, char** words) {
  return tolk::test::run(tolk::test::read_options(count, words));
}
