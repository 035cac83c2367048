// Numbers of calls. None is used twice in a process, so a late reply completes no other call.
// Thread: any. Owner: none. Failure: none.
#pragma once

#include <uv.h>

#include <atomic>
#include <cstdint>

namespace tolk {

// Odd steps from an odd base: a token is never 0 and is unlike the small numbers that hosts use.
inline std::uint64_t next_token() {
  static std::atomic<std::uint64_t> counter{uv_hrtime() | 1};
  return counter.fetch_add(2, std::memory_order_relaxed);
}

}  // namespace tolk
