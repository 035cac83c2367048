#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <new>

#include "platform/thread.h"

namespace tolk::platform {
namespace {

sigset_t only_broken_pipe() {
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  return pipe;
}

}  // namespace

int own_call_id() {
  const auto whole = static_cast<std::uintptr_t>(uv_thread_self());
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(whole));
}

int os_thread_id() { return gettid(); }

void name_this_thread(const char* name) {
  std::array<char, 16> cut{};  // the system refuses a longer name
  std::copy_n(name, std::min(std::strlen(name), cut.size() - 1), cut.begin());
  pthread_setname_np(pthread_self(), cut.data());
}

void pin_library() {}

SignalsBlocked::SignalsBlocked() noexcept {
  static_assert(sizeof(sigset_t) <= kMaskBytes);
  sigset_t blocked;
  sigfillset(&blocked);
  // If these are blocked, a fault ends the process without the handler of the host.
  for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS}) {
    sigdelset(&blocked, fault);
  }
  pthread_sigmask(SIG_BLOCK, &blocked, new (previous_) sigset_t);
}

SignalsBlocked::~SignalsBlocked() {
  pthread_sigmask(SIG_SETMASK, std::launder(reinterpret_cast<sigset_t*>(previous_)), nullptr);
}

BrokenPipeBlocked::BrokenPipeBlocked() noexcept {
  const sigset_t pipe = only_broken_pipe();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &pipe, &before);
  was_open_ = sigismember(&before, SIGPIPE) == 0;
}

BrokenPipeBlocked::~BrokenPipeBlocked() {
  if (!was_open_) return;
  const sigset_t pipe = only_broken_pipe();
  const timespec at_once{};
  while (sigtimedwait(&pipe, nullptr, &at_once) ==
         SIGPIPE) {  // a pending signal would end the process
  }
  pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
}

}  // namespace tolk::platform
