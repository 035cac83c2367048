#include <pthread.h>

#include <atomic>

#include "platform/process.h"

namespace tolk::platform {
namespace {

constinit std::atomic<std::uint32_t> current{0};
constinit std::atomic<bool> watching{false};

void in_child() { current.fetch_add(1, std::memory_order_relaxed); }

// On purpose there is no lock and no once-flag: if another thread forks while this thread holds it,
// it stays taken forever in the child. Two threads may both register the handler. A child then
// counts two steps instead of one, which is a change as well.
void watch_forks() {
  if (pthread_atfork(nullptr, nullptr, in_child) == 0) {
    watching.store(true, std::memory_order_release);
  }
}

}  // namespace

std::uint32_t generation() {
  if (!watching.load(std::memory_order_acquire)) watch_forks();
  return current.load(std::memory_order_relaxed);
}

}  // namespace tolk::platform
