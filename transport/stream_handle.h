// A libuv handle that is a pipe or a TCP socket: a connection or a listener.
// Thread: the loop thread that owns the handle. Owner: its storage stays until the loop has closed
// it. Failure: a libuv status.
#pragma once

#include <uv.h>

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

}  // namespace tolk
