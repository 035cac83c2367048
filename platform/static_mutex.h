// A mutex that may be static: it is ready before the first static initialiser of the process, and
// usable after the last destructor, while loop threads may still run.
//
// It is std::mutex except on Windows, where std::mutex has a constructor and a destructor that run
// code. There it is the slim lock of the system.
//
// Thread: any. It is not recursive. Owner: the object that has it as a member, or none if it is
// static. Failure: none.
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
  void* state_ = nullptr;  // the system's type is one pointer, which is null at first
};

}  // namespace tolk::platform

#else

#include <mutex>

namespace tolk::platform {

using StaticMutex = std::mutex;

}  // namespace tolk::platform

#endif
