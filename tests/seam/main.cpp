// tolk_seam: lets the k-th call of libuv, or the k-th allocation, fail while a server and a client
// live their lives; for k = 1, 2, 3 … until there is no k-th any more. Once, and from k on.
//
// Each series runs in a process of its own, which the parent watches. A fresh series runs each k in
// a new process, in which the library has not been used before.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "tests/e2e/support/waiting.h"
#include "tests/seam/faults.h"
#include "tests/seam/fresh.h"
#include "tests/seam/scenario.h"
#include "tests/silence.h"
#include "tests/steps/pauses.h"

namespace tolk::test {
namespace {

constexpr char kUsage[] =
    "Usage: tolk_seam [--most N] [--only TEXT] [--from K]\n"
    "  --most N     at most N failures of each series, evenly spread; all unless said\n"
    "  --only TEXT  the series whose name contains it\n"
    "  --from K     begin with the K-th\n";

struct Options {
  int most = 0;
  int from = 1;
  std::string only;
};

enum class Story { whole_life, fresh_life, lost_server, sweep_after_post };

const char* shown(Story story) {
  switch (story) {
    case Story::whole_life:
      return "";
    case Story::fresh_life:
      return "fresh life, ";
    case Story::lost_server:
      return "lost server, ";
    case Story::sweep_after_post:
      break;
  }
  return "sweep after a post, ";
}

struct Series {
  Transport transport;
  Chance chance;
  Mode mode;
  Story story = Story::whole_life;

  std::string name() const {
    return std::string(shown(story)) + (chance == Chance::call ? "calls" : "memory") +
           (mode == Mode::once ? " once" : " from then on") +
           (transport == Transport::pipe ? " pipe" : " tcp4");
  }
};

// Where a series is, seen by the parent too.
struct Progress {
  int k = 0;
  int runs = 0;
  int ended_waits = 0;
  int chances = 0;  // of the last run
  bool injected = false;
};

// How many chances there are in a run without failures.
int chances(Scenario& scenario, const Series& series) {
  const Faults none(series.chance, series.mode, 1 << 30);
  scenario.play();
  return Faults::met();
}

void prepare_process() {
  silence_standard_output();
  shorten_pauses();
  take_over_memory_of_libuv();
}

[[noreturn]] void run_series(const Series& series, const Options& options, Progress& progress) {
  const Exempt this_thread;
  prepare_process();
  int status = 0;
  {
    Scenario scenario(series.transport);
    const int count = chances(scenario, series);
    const int step = options.most > 0 ? std::max(1, count / options.most) : 1;
    bool injected = true;
    // A slow run may have fewer chances than the others: it does not end the series.
    for (progress.k = options.from; status == 0 && (injected || progress.k <= count);
         progress.k += step) {
      alarm(60);
      std::string trouble;
      {
        const Faults faults(series.chance, series.mode, progress.k);
        trouble = scenario.play();
        injected = Faults::injected();
        // Threads on their way out still meet failures.
        if (trouble.empty()) trouble = scenario.loops_left();
      }
      if (trouble.empty()) trouble = scenario.aftermath();
      ++progress.runs;
      progress.ended_waits = scenario.ended_waits();
      if (trouble.empty()) continue;
      std::fprintf(stderr, "%s, k = %d: %s\n", series.name().c_str(), progress.k, trouble.c_str());
      status = 1;
    }
  }
  std::exit(status);
}

// The bystander starts after the failures. A handler of a destroyed server may still wait for its
// client, and only the sweep of another server ends that wait.
std::string play_fresh_life(Transport transport, const FaultPlan& plan, Progress& progress) {
  Scenario scenario(transport, Scenario::Bystander::none);
  std::string trouble;
  {
    const Faults faults(plan.chance, plan.mode, plan.k);
    trouble = scenario.play();
  }
  if (trouble.empty()) trouble = scenario.aftermath();
  if (trouble.empty()) trouble = scenario.loops_left();
  progress.ended_waits += scenario.ended_waits();
  return trouble;
}

std::string play_fresh(const Series& series, int k, Progress& progress) {
  const FaultPlan plan{series.chance, series.mode, k};
  switch (series.story) {
    case Story::lost_server:
      return lose_the_server(series.transport, plan);
    case Story::sweep_after_post:
      return sweep_after_a_post(series.transport, plan);
    default:
      return play_fresh_life(series.transport, plan, progress);
  }
}

// The k-th failure in a new process, which ends without destructors: threads may block forever.
bool run_fresh(const Series& series, int k, Progress& progress) {
  const pid_t child = fork();
  if (child == 0) {
    const Exempt this_thread;
    prepare_process();
    alarm(60);
    const std::string trouble = play_fresh(series, k, progress);
    progress.chances = Faults::met();
    progress.injected = Faults::injected();
    if (!trouble.empty()) {
      std::fprintf(stderr, "%s, k = %d: %s\n", series.name().c_str(), k, trouble.c_str());
    }
    std::_Exit(trouble.empty() ? 0 : 1);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child) return false;
  if (WIFSIGNALED(status)) {
    std::fprintf(stderr, "%s, k = %d: signal %d\n", series.name().c_str(), k, WTERMSIG(status));
  }
  return status == 0;
}

[[noreturn]] void run_fresh_series(const Series& series, const Options& options,
                                   Progress& progress) {
  bool right = run_fresh(series, 1 << 30, progress);  // counts the chances
  const int count = progress.chances;
  const int step = options.most > 0 ? std::max(1, count / options.most) : 1;
  progress.injected = true;
  for (progress.k = options.from; right && (progress.injected || progress.k <= count);
       progress.k += step) {
    right = run_fresh(series, progress.k, progress);
    ++progress.runs;
  }
  std::exit(right ? 0 : 1);
}

std::vector<Series> all_series(const Options& options) {
  std::vector<Series> all;
  const auto add = [&](const Series& series) {
    if (series.name().find(options.only) != std::string::npos) all.push_back(series);
  };
  for (const Transport transport : {Transport::pipe, Transport::tcp4}) {
    for (const Mode mode : {Mode::once, Mode::from_then_on}) {
      add({transport, Chance::call, mode});
      for (const Story story :
           {Story::whole_life, Story::fresh_life, Story::lost_server, Story::sweep_after_post}) {
        add({transport, Chance::memory, mode, story});
      }
    }
  }
  return all;
}

int run(const Options& options) {
  const std::vector<Series> all = all_series(options);
  void* const shared = mmap(nullptr, sizeof(Progress) * (all.size() + 1), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return 2;
  auto* const progress = new (shared) Progress[all.size() + 1];
  std::map<pid_t, std::size_t> running;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const pid_t child = fork();
    if (child == 0 && all[i].story != Story::whole_life) {
      run_fresh_series(all[i], options, progress[i]);
    }
    if (child == 0) run_series(all[i], options, progress[i]);
    running.emplace(child, i);
  }
  int failures = all.empty() ? 1 : 0;
  while (!running.empty()) {
    int status = 0;
    const auto at = running.find(wait(&status));
    if (at == running.end()) return 2;
    const Progress& reached = progress[at->second];
    std::printf("%-45s %s: %d runs, up to k = %d, waits ended in %d operations\n",
                all[at->second].name().c_str(), status == 0 ? "ok" : "FAILED", reached.runs,
                reached.k, reached.ended_waits);
    if (status != 0) {
      ++failures;
      std::printf("  %s %d\n", WIFSIGNALED(status) ? "signal" : "exit status",
                  WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    }
    running.erase(at);
  }
  return failures == 0 ? 0 : 1;
}

Options read_options(int count, char** words) {
  Options options;
  for (int i = 1; i < count; i += 2) {
    const std::string word = words[i];
    const bool known = word == "--most" || word == "--only" || word == "--from";
    if (!known || i + 1 == count) {
      std::fputs(kUsage, stderr);
      std::exit(2);
    }
    if (word == "--most") options.most = std::atoi(words[i + 1]);
    if (word == "--from") options.from = std::atoi(words[i + 1]);
    if (word == "--only") options.only = words[i + 1];
  }
  return options;
}

}  // namespace
}  // namespace tolk::test

int main(int count, char** words) {
  return tolk::test::run(tolk::test::read_options(count, words));
}
