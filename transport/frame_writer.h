// Puts one frame on a stream with one uv_write.
//
// Thread: the loop thread that owns the stream; a stream that refuses blocks it for 3 ms.
// Owner: the frame goes to libuv until its completion callback, which frees it.
// Failure: a negative libuv status, after one line "write error". A live stream gets 4 attempts,
// 1 ms apart; a stream that is closing or closed gets none, since they cannot succeed.
#pragma once

#include <uv.h>

#include <cstddef>

#include "transport/frame.h"

namespace tolk {

// The completion of a frame: prints "Write error: …" when the write failed, frees the frame.
void write_server_cb(uv_write_t* request, int status);

int write_frame(uv_stream_t* stream, Frame frame);

// What write_frame does with a frame that cannot be written at all: the line, and `status` again.
int refuse_frame(int status);

// How many frames a live stream refused 4 times. They are kept forever: libuv may still refer to a
// refused write.
std::size_t refused_frame_count();

}  // namespace tolk
