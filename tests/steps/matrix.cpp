// tolk_steps and tolk_c_steps: hold a thread at each step of a call, a close or a stop while the
// peer dies, an end closes or is freed, or something else happens; then let it go and look that
// every caller comes back in time and that the process is as usable as before.
//
// Each cell of the matrix runs in a process of its own, which the parent watches.
#include "tests/steps/matrix.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "tests/silence.h"
#include "tests/steps/pauses.h"

namespace tolk::test {
namespace {

constexpr char kUsage[] =
    "Usage: tolk_steps|tolk_c_steps [--rounds N] [--seed N] [--jobs N] [--sample N] [--only TEXT]\n"
    "                  [--late-ms N] [--short-pauses] [--list]\n"
    "  --rounds N      rounds of each cell, 1 unless said\n"
    "  --seed N        0 takes a new one; it is printed\n"
    "  --jobs N        cells that run at the same time, 8 unless said\n"
    "  --sample N      one cell of N, chosen by the seed\n"
    "  --only TEXT     cells whose name contains it\n"
    "  --late-ms N     how late a caller may be beyond timeout and two sweeps, 100 unless said\n"
    "  --short-pauses  the library's own pauses (300 ms before a client is destroyed, …) "
    "shortened\n"
    "  --list          the names of the cells\n";

struct Options {
  int rounds = 1;
  unsigned seed = 0;
  int jobs = 8;
  int sample = 1;
  std::string only;
  int late_ms = 100;
  bool short_pauses = false;
  bool list = false;
};

[[noreturn]] void leave_with_usage() {
  std::fputs(kUsage, stderr);
  std::exit(2);
}

Options read_options(int count, char** words) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    const auto value = [&] { return ++i < count ? words[i] : (leave_with_usage(), ""); };
    if (word == "--rounds") {
      options.rounds = std::atoi(value());
    } else if (word == "--seed") {
      options.seed = static_cast<unsigned>(std::atoll(value()));
    } else if (word == "--jobs") {
      options.jobs = std::max(1, std::atoi(value()));
    } else if (word == "--sample") {
      options.sample = std::max(1, std::atoi(value()));
    } else if (word == "--only") {
      options.only = value();
    } else if (word == "--late-ms") {
      options.late_ms = std::atoi(value());
    } else if (word == "--short-pauses") {
      options.short_pauses = true;
    } else if (word == "--list") {
      options.list = true;
    } else {
      leave_with_usage();
    }
  }
  if (options.seed == 0) options.seed = std::random_device()();
  return options;
}

std::vector<MatrixCell> chosen_cells(const Options& options) {
  std::vector<MatrixCell> cells = matrix_cells();
  std::erase_if(cells, [&](const MatrixCell& cell) {
    return cell.name.find(options.only) == std::string::npos;
  });
  std::mt19937 random(options.seed);
  std::shuffle(cells.begin(), cells.end(), random);
  cells.resize(cells.size() / static_cast<std::size_t>(options.sample));
  return cells;
}

// The latest of all callers, in memory that all cells share.
std::atomic<std::int64_t>& latest_of_all() {
  static auto* const shared = [] {
    void* const memory = mmap(nullptr, sizeof(std::atomic<std::int64_t>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    return new (memory) std::atomic<std::int64_t>(0);
  }();
  return *shared;
}

void note_latest(std::int64_t late_ms) {
  std::int64_t seen = latest_of_all();
  while (seen < late_ms && !latest_of_all().compare_exchange_weak(seen, late_ms)) {
  }
}

// In a process of its own. Its exit status says whether all was well.
[[noreturn]] void run_cell(const MatrixCell& cell, unsigned seed, const Options& options) {
  silence_standard_output();
  if (options.short_pauses) shorten_pauses();
  alarm(static_cast<unsigned>(60 + 5 * options.rounds));
  std::mt19937 random(seed);
  Milliseconds latest{};
  int status = 0;
  {
    const PlayRound play = cell.begin();
    for (int round = 0; round < options.rounds && status == 0; ++round) {
      const Report report = play(random);
      latest = std::max(latest, report.latest);
      note_latest(latest.count());
      if (report.trouble.empty() && latest.count() <= options.late_ms) continue;
      std::fprintf(stderr, "%s, round %d: %s, latest %lld ms\n", cell.name.c_str(), round,
                   report.trouble.c_str(), static_cast<long long>(latest.count()));
      status = 1;
    }
  }
  std::exit(status);
}

// Cells under way, by process.
class Jobs {
 public:
  explicit Jobs(const Options& options) : options_(options) {}

  void begin(const MatrixCell& cell, unsigned seed) {
    if (running_.size() >= static_cast<std::size_t>(options_.jobs)) wait_for_one();
    const pid_t child = fork();
    if (child < 0) std::abort();
    if (child == 0) run_cell(cell, seed, options_);
    running_.emplace(child, cell.name);
  }
  void wait_for_all() {
    while (!running_.empty()) wait_for_one();
  }
  int failures() const { return failures_; }

 private:
  void wait_for_one() {
    int status = 0;
    const pid_t child = wait(&status);
    const auto at = running_.find(child);
    if (at == running_.end()) return;
    if (status != 0) {
      ++failures_;
      std::fprintf(stderr, "FAILED: %s (%s %d)\n", at->second.c_str(),
                   WIFSIGNALED(status) ? "signal" : "exit status",
                   WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    }
    running_.erase(at);
  }

  const Options& options_;
  std::map<pid_t, std::string> running_;
  int failures_ = 0;
};

int run(const Options& options) {
  const std::vector<MatrixCell> cells = chosen_cells(options);
  if (options.list) {
    for (const MatrixCell& cell : cells) std::puts(cell.name.c_str());
    return 0;
  }
  latest_of_all();  // before the first fork
  std::printf("seed %u\n", options.seed);
  std::fflush(stdout);
  Jobs jobs(options);
  unsigned seed = options.seed;
  for (const MatrixCell& cell : cells) jobs.begin(cell, ++seed);
  jobs.wait_for_all();
  std::printf("%zu cells, %d rounds each, %d failed; the latest caller was %lld ms late\n",
              cells.size(), options.rounds, jobs.failures(),
              static_cast<long long>(latest_of_all().load()));
  return cells.empty() || jobs.failures() != 0 ? 1 : 0;
}

}  // namespace
}  // namespace tolk::test

int main(int count, char** words) {
  return tolk::test::run(tolk::test::read_options(count, words));
}
