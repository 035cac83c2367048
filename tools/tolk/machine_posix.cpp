#include <sys/utsname.h>

#include <fstream>
#include <thread>

#include "tools/tolk/machine.h"

namespace tolk::tool {
namespace {

// As the system tells it; empty where it does not.
std::string processor() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    const std::size_t colon = line.find(": ");
    if (line.starts_with("model name") && colon != std::string::npos) return line.substr(colon + 2);
  }
  return {};
}

}  // namespace

std::string machine() {
  utsname system{};
  uname(&system);
  std::string text = processor();
  if (text.empty()) text = system.machine;
  const unsigned cores = std::thread::hardware_concurrency();
  text += ", " + std::to_string(cores) + (cores == 1 ? " core, " : " cores, ");
  return text + system.sysname + " " + system.release;
}

}  // namespace tolk::tool
