// The system calls that tests replace: the stream write, the sleep between its attempts, the tick
// of timeouts, the send beside the loop.
// Thread: set before any loop runs (tests only), read by all. Owner: none. Failure: none.
#pragma once

#include <uv.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace tolk {

struct SystemCalls {
  int (*write)(uv_write_t*, uv_stream_t*, const uv_buf_t*, unsigned int, uv_write_cb);
  void (*sleep_ms)(unsigned int);
  std::uint32_t (*tick_ms)();
  std::size_t (*send)(int descriptor, std::span<const uv_buf_t>);
};

extern SystemCalls system_calls;

}  // namespace tolk
