#include <windows.h>
// These need windows.h.
#include <psapi.h>
#include <tlhelp32.h>
#include <winternl.h>

#include <array>
#include <cstddef>
#include <random>
#include <string_view>

#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/system.h"

namespace tolk::test {
namespace {

// The type of a handle's object; "" if there is no such handle.
std::wstring_view kind_of(HANDLE handle, std::array<std::byte, 1024>* space) {
  constexpr auto kTypeInformation = static_cast<OBJECT_INFORMATION_CLASS>(2);
  ULONG size = 0;
  const auto status = NtQueryObject(handle, kTypeInformation, space->data(),
                                    static_cast<ULONG>(space->size()), &size);
  if (status != 0) return {};
  const auto* const name = reinterpret_cast<const UNICODE_STRING*>(space->data());
  return {name->Buffer, name->Length / sizeof(wchar_t)};
}

// How many handles of the process are of such a kind. Handles are numbered in steps of four, a new
// one gets the lowest number that is free; a long row of free numbers is the end. Counted by hand
// because Wine does not count them.
template <class Wanted>
int handles(const Wanted& wanted) {
  constexpr std::uintptr_t kStep = 4;
  constexpr int kLongRow = 256;
  std::array<std::byte, 1024> space{};
  int count = 0;
  int free_ones = 0;
  for (std::uintptr_t number = kStep; free_ones < kLongRow; number += kStep) {
    const auto kind = kind_of(reinterpret_cast<HANDLE>(number), &space);
    free_ones = kind.empty() ? free_ones + 1 : 0;
    if (!kind.empty() && wanted(kind)) ++count;
  }
  return count;
}

}  // namespace

int open_descriptors() {
  return handles([](std::wstring_view) { return true; });
}

int open_loops() {
  return handles([](std::wstring_view kind) { return kind == L"IoCompletion"; });
}

int threads() {
  const HANDLE all = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 one{};
  one.dwSize = sizeof one;
  int count = 0;
  for (BOOL found = Thread32First(all, &one); found != 0; found = Thread32Next(all, &one)) {
    if (one.th32OwnerProcessID == GetCurrentProcessId()) ++count;
  }
  CloseHandle(all);
  return count;
}

long resident_kib() {
  PROCESS_MEMORY_COUNTERS counters{};
  GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
  return static_cast<long>(counters.WorkingSetSize / 1024);
}

long held_back_kib() { return 0; }

bool is_own_call_id(int id) {
  const auto handle = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(id));
  return GetThreadId(handle) == GetCurrentThreadId();
}

bool pipe_names_are_exclusive() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") == nullptr;
}

// Under an emulated system every start numbers its processes anew.
int process_number() {
  static const int number = static_cast<int>(std::random_device()() % 1'000'000);
  return number;
}

}  // namespace tolk::test
