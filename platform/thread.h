// What the library needs to know of threads beyond what libuv offers.
//
// Thread: any; each function is about the thread that calls it. Owner: none. Failure: none; what a
// system can't do has no effect.
#pragma once

#include <cstddef>

namespace tolk::platform {

// The calling thread's own call id: the low 32 bits of uv_thread_self(), as a signed number.
// On purpose: a thread that starts after another has ended may get the same id, and then finds the
// results of its predecessor. Peers see this number in every reply.
int own_call_id();

// The system's number of the calling thread, unlike that of any other live thread.
int os_thread_id();

// Shown by debuggers and `top -H`; cut to what the system allows (15 bytes).
void name_this_thread(const char* name);

// Keeps the library in memory until the process ends, for its threads may outlive the last use a
// host makes of it. Only Windows needs it: elsewhere the library is linked as not unloadable.
void pin_library();

// While alive, the thread takes no signals but those that its own faults raise. A thread that is
// created meanwhile inherits that: so the host's signals go to the host's threads, its system calls
// are not interrupted, and a write to a closed peer is an error instead of the end of the process.
// Destroy it on the thread that made it. Without effect on Windows.
class SignalsBlocked {
 public:
  SignalsBlocked() noexcept;
  ~SignalsBlocked();
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  static constexpr std::size_t kMaskBytes = 128;

  alignas(std::max_align_t) std::byte previous_[kMaskBytes];  // the system's type for signal sets
};

// The same for a thread of the host's that runs a loop: only the signal of a write to a closed peer
// is kept away, and it is gone when this ends.
class BrokenPipeBlocked {
 public:
  BrokenPipeBlocked() noexcept;
  ~BrokenPipeBlocked();
  BrokenPipeBlocked(const BrokenPipeBlocked&) = delete;
  BrokenPipeBlocked& operator=(const BrokenPipeBlocked&) = delete;

 private:
  bool was_open_ = false;
};

}  // namespace tolk::platform
