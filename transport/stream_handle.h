// A libuv handle that is a pipe or a TCP socket: a connection or a listener.
// Thread: the loop thread that owns the handle. Owner: its storage stays until the loop has closed
// it. Failure: a libuv status.
#pragma once

#include <uv.h>

#include <cstddef>

#include "transport/thread_safety.h"

namespace tolk {

union StreamHandle {
  uv_handle_t handle;
  uv_stream_t stream;
  uv_pipe_t pipe;
  uv_tcp_t tcp{};

  int init(uv_loop_t* loop, bool is_tcp, void* data) TOLK_LOOP {
    const int status = is_tcp ? uv_tcp_init(loop, &tcp) : uv_pipe_init(loop, &pipe, 0);
    handle.data = data;
    return status;
  }
};

// Closes a handle that is not closing yet.
inline void close_handle(uv_handle_t* handle) TOLK_LOOP {
  if (!uv_is_closing(handle)) uv_close(handle, nullptr);
}

// From this size on, frames are larger than what a pipe takes at a time.
inline constexpr std::size_t kBulkBytes = std::size_t{1} << 20;

// Once, for the first such frame: then both ends wake less often. The buffer of a TCP stream grows
// by itself.
inline void widen_send_buffer(uv_stream_t* stream) TOLK_LOOP {
  constexpr int kSendBufferBytes = 1 << 20;
  if (stream->type != UV_NAMED_PIPE) return;
  auto* const handle = reinterpret_cast<uv_handle_t*>(stream);
  int bytes = 0;
  if (uv_send_buffer_size(handle, &bytes) != 0 || bytes >= kSendBufferBytes) return;
  bytes = kSendBufferBytes;
  uv_send_buffer_size(handle, &bytes);
}

}  // namespace tolk
