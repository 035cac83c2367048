// What goes to and fro: how many bytes one exchange has on the wire, and how the baselines mark
// their frames so that a wrong reply is noticed.
//
// The baselines send frames of exactly the sizes that the library's calls and replies have.
// Thread: any. Failure: std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace bench {

// Whole frames, length prefix included.
struct FrameBytes {
  std::size_t call = 0;
  std::size_t reply = 0;
};

// A call whose only argument is a stream of `payload` bytes (no argument when 0), and its echo.
FrameBytes echo_frames(std::size_t payload);
// A posted call: the same without a waiter on either way.
FrameBytes posted_frames(std::size_t payload);
// A call with `payload` bytes that is answered with their number, in one frame.
FrameBytes length_frames(std::size_t payload);

// The baselines' frame: the prefix, this, and filling.
struct Mark {
  std::uint32_t stamp = 0;        // echoed
  std::uint32_t caller = 0;       // echoed
  std::uint32_t reply_bytes = 0;  // of the whole frame that is to come back
};

std::string make_frame(std::size_t bytes);
void put_mark(std::string& frame, const Mark& mark);
Mark mark_of(std::string_view payload);

// The length of the frame at the front of `bytes`, prefix included; 0 when that is not yet known.
std::size_t frame_bytes(std::string_view bytes);

}  // namespace bench
