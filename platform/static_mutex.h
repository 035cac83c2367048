// A mutex that may be static: ready before the first static initialiser of the process, and usable
// after the last destructor, when loop threads may still run.
//
// That is std::mutex, but for Windows, where the standard library makes it at run time and destroys
// it. There it is the system's own slim lock.
//
// Thread: any. Owner: whoever locked it; it is not recursive. Failure: none.
#pragma once

#if defined(_WIN32)

namespace tolk::platform {

class StaticMutex {
 public:
  constexpr StaticMutex() noexcept = default;
  StaticMutex(const StaticMutex&) = delete;
  StaticMutex& operator=(const StaticMutex&) = delete;

  void lock() noexcept;
  bool try_lock() noexcept;
  void unlock() noexcept;

 private:
  void* state_ = nullptr;  // the system's type for it is one pointer, null at first
};

}  // namespace tolk::platform

#else

#include <mutex>

namespace tolk::platform {

using StaticMutex = std::mutex;

}  // namespace tolk::platform

#endif
