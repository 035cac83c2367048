#include <uv.h>
#include <windows.h>

#include <array>
#include <cstdint>

#include "platform/thread.h"

namespace tolk::platform {

int own_call_id() {
  const auto whole = reinterpret_cast<std::uintptr_t>(uv_thread_self());
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(whole));
}

int os_thread_id() { return static_cast<std::int32_t>(GetCurrentThreadId()); }

void name_this_thread(const char* name) {
  // Looked up at run time: systems before 2016 do not have it.
  using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  const auto found = GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription");
  const auto set_description =
      reinterpret_cast<SetDescription>(reinterpret_cast<void*>(found));  // NOLINT
  if (set_description == nullptr) return;
  std::array<wchar_t, 16> wide{};
  for (std::size_t i = 0; i + 1 < wide.size() && name[i] != '\0'; ++i) {
    wide[i] = static_cast<unsigned char>(name[i]);
  }
  set_description(GetCurrentThread(), wide.data());
}

void pin_library() {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                     reinterpret_cast<LPCWSTR>(&pin_library), &module);
}

SignalsBlocked::SignalsBlocked() noexcept : previous_{} {}
SignalsBlocked::~SignalsBlocked() = default;

BrokenPipeBlocked::BrokenPipeBlocked() noexcept = default;

BrokenPipeBlocked::~BrokenPipeBlocked() = default;

}  // namespace tolk::platform
