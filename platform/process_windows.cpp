#include <windows.h>

#include "platform/process.h"

namespace tolk::platform {
namespace {

using InShutdown = BOOLEAN(NTAPI*)();

// Of the system's own library, which every process has. Its import library is not part of every
// development kit.
InShutdown find_in_shutdown() {
  const auto found = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress");
  return reinterpret_cast<InShutdown>(reinterpret_cast<void*>(found));  // NOLINT
}

}  // namespace

// A process that ends has lost all its threads but one before the libraries are told of it.
std::uint32_t generation() {
  static const InShutdown in_shutdown = find_in_shutdown();
  return in_shutdown != nullptr && in_shutdown() != 0 ? 1 : 0;
}

}  // namespace tolk::platform
