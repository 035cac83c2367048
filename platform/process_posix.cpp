#include <pthread.h>

#include <atomic>

#include "platform/process.h"

namespace tolk::platform {
namespace {

constinit std::atomic<std::uint32_t> current{0};
constinit std::atomic<bool> watching{false};

void in_child() { current.fetch_add(1, std::memory_order_relaxed); }

// Deliberately without a lock or a once-flag: a thread that is inside one when another thread forks
// would leave it taken for ever in the child. Two threads may both get here; a child then counts
// one step more, which is still a change.
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
