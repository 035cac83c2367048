#include "transport/frame_writer.h"

#include <utility>
#include <vector>

#include "platform/guarded.h"
#include "platform/never_destroyed.h"
#include "platform/standard_output.h"
#include "transport/system_calls.h"
#include "transport/thread_safety.h"

namespace tolk {
namespace {

constexpr int kRetries = 3;
constexpr unsigned kRetryPauseMs = 1;

Guarded<std::vector<Frame>>& refused_frames() {
  static NeverDestroyed<Guarded<std::vector<Frame>>> frames;
  return *frames;
}

int attempt(uv_stream_t* stream, Frame& frame) {
  const auto buffers = frame.buffers();
  return system_calls.write(frame.request(), stream, buffers.data(),
                            static_cast<unsigned>(buffers.size()), write_server_cb);
}

}  // namespace

int write_frame(uv_stream_t* stream, Frame frame) {
  const auto* handle = reinterpret_cast<const uv_handle_t*>(stream);
  if (uv_is_closing(handle)) return refuse_frame(UV_EPIPE);
  if (frame.payload_bytes() > frame_format::kMaxPayloadBytes) return refuse_frame(UV_E2BIG);
  int status = attempt(stream, frame);
  for (int retry = 0; status < 0 && retry < kRetries; ++retry) {
    system_calls.sleep_ms(kRetryPauseMs);
    status = attempt(stream, frame);
  }
  if (status >= 0) {
    frame.release();  // libuv owns it until write_server_cb
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
  guarded([&] { platform::print_line(std::string("Write error: ") + uv_strerror(status)); });
}

std::size_t refused_frame_count() { return refused_frames().lock()->size(); }

}  // namespace tolk
