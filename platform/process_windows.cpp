#include <windows.h>

#include "platform/process.h"

namespace tolk::platform {
namespace {

using InShutdown = BOOLEAN(NTAPI*)();

// Looked up in the system library that every process has: not every development kit has an import
// library for it.
InShutdown find_in_shutdown() {
  const auto found = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress");
  return reinterpret_cast<InShutdown>(reinterpret_cast<void*>(found));  // NOLINT
}

}  // namespace

// At the end of a process the system ends all other threads before it tells the libraries.
std::uint32_t generation() {
  static const InShutdown in_shutdown = find_in_shutdown();
  return in_shutdown != nullptr && in_shutdown() != 0 ? 1 : 0;
}

}  // namespace tolk::platform
