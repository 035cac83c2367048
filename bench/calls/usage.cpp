#include "bench/calls/usage.h"

#include <time.h>

#include <fstream>
#include <string>

namespace bench {

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
    std::ifstream pages("/proc/" + std::to_string(process) + "/smaps_rollup");
    std::string word;
    while (pages >> word && word != "Rss:") {
    }
    double kib = 0;
    if (pages >> kib) sum += kib;
  }
  return sum;
}

}  // namespace bench
