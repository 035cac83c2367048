#include "tools/tolk/system/machine.h"

#include <uv.h>

#include <thread>

namespace tolk::tool {
namespace {

// The name of the processor; empty if the system does not know it.
std::string processor() {
  uv_cpu_info_t* all = nullptr;
  int count = 0;
  if (uv_cpu_info(&all, &count) != 0) return {};
  std::string model = count > 0 && all[0].model != nullptr ? all[0].model : "";
  uv_free_cpu_info(all, count);
  return model == "unknown" ? "" : model;
}

}  // namespace

std::string machine() {
  uv_utsname_t system{};
  uv_os_uname(&system);
  std::string text = processor();
  if (text.empty()) text = system.machine;
  const unsigned cores = std::thread::hardware_concurrency();
  text += ", " + std::to_string(cores) + (cores == 1 ? " core, " : " cores, ");
  return text + system.sysname + " " + system.release;
}

}  // namespace tolk::tool
