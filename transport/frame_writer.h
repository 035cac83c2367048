// Puts one frame on a stream with one uv_write.
//
// Thread: the loop thread that owns the stream; a stream that refuses blocks it for 3 ms.
// Owner: the frame goes to libuv until its completion callback, which frees it.
// Failure: a negative libuv status, after one line "write error". A live stream gets 4 attempts,
// 1 ms apart; a stream that is closing or closed gets none, since nothing can come of them.
#pragma once

#include <uv.h>

#include <cstddef>

#include "transport/frame.h"

namespace tolk {

// The completion of a frame: prints "Write error: …" when the write failed, frees the frame.
void write_server_cb(uv_write_t* request, int status);

// `done` ends with write_server_cb, in its own name or by calling it.
int write_frame(uv_stream_t* stream, Frame frame, uv_write_cb done = write_server_cb);

// What write_frame does with a frame that can't be written at all: the line, and `status` again.
int refuse_frame(int status);

// Frames that a live stream refused 4 times are kept for good, as the peer of a refused write may
// still be inside libuv. How many there are.
std::size_t refused_frame_count();

}  // namespace tolk
