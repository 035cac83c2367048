#include "transport/frame_writer.h"

#include <utility>
#include <vector>

#include "platform/standard_output.h"
#include "transport/call_table.h"
#include "transport/invoke_guarded.h"
#include "transport/thread_safety.h"

namespace tolk {
namespace {

constexpr int kRetries = 3;
constexpr unsigned kRetryPauseMs = 1;

// Never destroyed: loop threads may still write while the process exits.
Guarded<std::vector<Frame>>& refused_frames() {
  static auto* const frames = new Guarded<std::vector<Frame>>;
  return *frames;
}

int attempt(uv_stream_t* stream, Frame& frame, uv_write_cb done) {
  const auto buffers = frame.buffers();
  return call_table.write(frame.request(), stream, buffers.data(),
                          static_cast<unsigned>(buffers.size()), done);
}

}  // namespace

int write_frame(uv_stream_t* stream, Frame frame, uv_write_cb done) {
  const auto* handle = reinterpret_cast<const uv_handle_t*>(stream);
  if (uv_is_closing(handle)) return refuse_frame(UV_EPIPE);
  if (frame.payload_bytes() > Frame::kMaxPayloadBytes) return refuse_frame(UV_E2BIG);
  int status = attempt(stream, frame, done);
  for (int retry = 0; status < 0 && retry < kRetries; ++retry) {
    call_table.sleep_ms(kRetryPauseMs);
    status = attempt(stream, frame, done);
  }
  if (status >= 0) {
    frame.release();  // libuv's, until `done`
    return status;
  }
  refused_frames().lock()->push_back(std::move(frame));
  return refuse_frame(status);
}

int refuse_frame(int status) {
  platform::print_line("write error");
  return status;
}

void write_server_cb(uv_write_t* request, int status) {
  const Frame frame = Frame::adopt(request);
  if (status >= 0) return;
  invoke_guarded([&] { platform::print_line(std::string("Write error: ") + uv_strerror(status)); });
}

std::size_t refused_frame_count() { return refused_frames().lock()->size(); }

}  // namespace tolk
