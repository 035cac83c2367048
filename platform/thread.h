// What the library needs of threads, and libuv does not offer.
//
// Thread: any; each function is about the thread that calls it. Owner: none. Failure: none; a
// function that the system does not support has no effect.
#pragma once

#include <cstddef>

namespace tolk::platform {

// The call id of the calling thread: the low 32 bits of uv_thread_self(), as a signed number.
// On purpose: a thread that starts after another has ended may get the same id, and then finds the
// results of the earlier thread. Peers see this number in every reply.
int own_call_id();

// The system's number of the calling thread. No other live thread has the same number.
int os_thread_id();

// Sets the name that debuggers and `top -H` show, cut to what the system allows (15 bytes).
void name_this_thread(const char* name);

// Keeps the library in memory until the process ends, since its threads may still run after the
// host's last call. Only Windows needs this: elsewhere the library is linked as not unloadable.
void pin_library();

// While it exists, the thread takes only the signals of its own faults. A thread that is created
// meanwhile inherits that: signals of the host go to the host's threads, system calls of the new
// thread are not interrupted, and its write to a closed peer is an error instead of the end of the
// process. Destroy it on the thread that made it. It has no effect on Windows.
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

// The same for a host thread that runs a loop. It blocks only the signal of a write to a closed
// peer, and discards that signal when it ends.
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
