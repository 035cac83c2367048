#include "bench/calls/usage.h"

#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace bench {
namespace {

double number_after(const std::filesystem::path& file, const std::string& name) {
  std::ifstream words(file);
  std::string word;
  while (words >> word && word != name) {
  }
  double number = 0;
  return words >> number ? number : 0;
}

}  // namespace

double processor_us(const std::vector<pid_t>& processes) {
  double sum = 0;
  for (const pid_t process : processes) {
    clockid_t clock = 0;
    timespec time{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) continue;
    sum += 1e6 * static_cast<double>(time.tv_sec) + 1e-3 * static_cast<double>(time.tv_nsec);
  }
  return sum;
}

// From the pages themselves: the system's running count is behind by some dozens of pages.
double resident_kib(const std::vector<pid_t>& processes) {
  double sum = 0;
  for (const pid_t process : processes) {
    sum += number_after("/proc/" + std::to_string(process) + "/smaps_rollup", "Rss:");
  }
  return sum;
}

double sleeps(const std::vector<pid_t>& processes) {
  double sum = 0;
  for (const pid_t process : processes) {
    std::error_code gone;
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(tasks, gone)) {
      if (thread.path().filename() == std::to_string(gettid())) continue;
      sum += number_after(thread.path() / "status", "voluntary_ctxt_switches:");
    }
  }
  return sum;
}

}  // namespace bench
