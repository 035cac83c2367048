// Each row runs in a separate process, so that even if it hangs or dies, the run ends and prints
// where it was.
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#endif
#endif

#include "tests/child_process.h"
#include "tests/stress/frame/process.h"
#include "tests/stress/frame/rows.h"

namespace tolk::stress {
namespace {

constexpr int kShortLimitS = 55;

// The row's process leaves by _exit, without the usual check for leaks at its end.
bool leaks() {
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
  return __lsan_do_recoverable_leak_check() != 0;
#else
  return false;
#endif
#else
  return false;
#endif
}

int run_row(const Row& row, const Options& options, Progress& progress) {
  setpgid(0, 0);                     // so that the processes of the row end with it
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // and it with the parent
  drop_library_lines();
  Run run(options, row.number, progress);
  row.run(run);
  run.expect(!leaks(), "memory has leaked");
  std::fflush(stdout);
  return run.passed() && Process::bad_ends() == 0 ? 0 : 1;
}

Progress& shared_progress() {
  void* const memory =
      mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return *new (memory) Progress{};
}

// One line if the row did not come to its end.
void print_end(std::optional<int> result, int limit_s, const Progress& progress) {
  if (!result) {
    std::printf("  HANGS: no end within %d s, at: %s\n", limit_s, progress.text);
  } else if (*result < 0) {
    std::printf("  DIED of signal %d, at: %s\n", -*result, progress.text);
  } else if (*result > 1) {
    std::printf("  DIED with status %d, at: %s\n", *result, progress.text);
  }
}

}  // namespace

bool run_guarded(const Row& row, const Options& options) {
  Progress& progress = shared_progress();
  std::printf("row %d: %s (%s form, --row %d --seed %llu)\n", row.number, row.what,
              options.is_short ? "short" : "long", row.number,
              static_cast<unsigned long long>(options.seed));
  std::fflush(stdout);
  const Stopwatch clock;
  test::ChildProcess process([&] { return run_row(row, options, progress); },
                             test::ChildProcess::kNoLimit);
  const pid_t group = process.id();
  int limit_s = options.is_short ? kShortLimitS : row.limit_s;
  if (options.seconds > 0) limit_s += 2 * options.seconds;
  const std::optional<int> result = process.wait_for(std::chrono::seconds(limit_s));
  print_end(result, limit_s, progress);
  kill(-group, SIGKILL);
  std::printf("row %d: %s in %.1f s\n", row.number, result == 0 ? "ok" : "FAILED",
              static_cast<double>(clock.elapsed().count()) / 1000);
  std::fflush(stdout);
  return result == 0;
}

}  // namespace tolk::stress
