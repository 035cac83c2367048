// Sends bytes on a connected stream from any thread, without the loop that owns the stream.
//
// Thread: any; one at a time uses a descriptor, and none after the loop thread has closed it. The
// caller provides for both. Owner: none.
// Failure: nothing is sent, for whatever reason. The loop's next write on the stream finds out why.
#pragma once

#include <uv.h>

#include <cstddef>
#include <span>

namespace tolk::platform {

inline constexpr int kNoDescriptor = -1;

// Loop thread: the descriptor to send on. None on Windows, where the system completes writes to the
// loop that owns the handle, and for a stream that is not open.
int descriptor_for_direct_send(const uv_stream_t* stream);

// Sends what the system takes at once, and returns how many bytes that is. Never blocks, and never
// raises a signal.
std::size_t direct_send(int descriptor, std::span<const uv_buf_t> buffers);

}  // namespace tolk::platform
