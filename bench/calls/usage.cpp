#include "bench/calls/usage.h"

#include <time.h>
#include <unistd.h>

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

double resident_kib(const std::vector<pid_t>& processes) {
  double sum = 0;
  for (const pid_t process : processes) {
    std::ifstream pages("/proc/" + std::to_string(process) + "/statm");
    double total = 0;
    double resident = 0;
    if (pages >> total >> resident) sum += resident * static_cast<double>(getpagesize()) / 1024;
  }
  return sum;
}

}  // namespace bench
