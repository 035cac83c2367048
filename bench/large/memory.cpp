#include "bench/large/memory.h"

#include <fstream>
#include <stdexcept>
#include <string>

namespace bench {
namespace {

std::string file_of(pid_t process, const char* name) {
  return "/proc/" + std::to_string(process) + "/" + name;
}

double status_mib(pid_t process, const std::string& field) {
  std::ifstream status(file_of(process, "status"));
  std::string word;
  while (status >> word) {
    double kib = 0;
    if (word == field && status >> kib) return kib / 1024;
  }
  throw std::runtime_error("no " + field + " in the status of process " + std::to_string(process));
}

}  // namespace

void restart_peak(pid_t process) {
  std::ofstream file(file_of(process, "clear_refs"));
  file << 5 << std::flush;
  if (!file) throw std::runtime_error("the peak of a process's memory can't be restarted here");
}

double resident_mib(pid_t process) { return status_mib(process, "VmRSS:"); }
double peak_mib(pid_t process) { return status_mib(process, "VmHWM:"); }

}  // namespace bench
