#include <windows.h>

#include "platform/static_mutex.h"

namespace tolk::platform {
namespace {

static_assert(sizeof(SRWLOCK) == sizeof(void*), "the lock is as large as the member for it");

SRWLOCK* system_lock(void** state) { return reinterpret_cast<SRWLOCK*>(state); }

}  // namespace

void StaticMutex::lock() noexcept { AcquireSRWLockExclusive(system_lock(&state_)); }

bool StaticMutex::try_lock() noexcept {
  return TryAcquireSRWLockExclusive(system_lock(&state_)) != 0;
}

void StaticMutex::unlock() noexcept { ReleaseSRWLockExclusive(system_lock(&state_)); }

}  // namespace tolk::platform
