#include "transport/peer_stream.h"

#include <cstdint>
#include <utility>

#include "platform/guarded.h"
#include "transport/frame_writer.h"

namespace tolk {

int PeerStream::id() const {
  return static_cast<int>(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&handle_)));
}

int PeerStream::init(bool is_tcp) {
  reader_->follow(owner_.side().stream_rules());
  return handle_.init(owner_.loop(), is_tcp, this);
}

int PeerStream::start_reading() {
  return uv_read_start(&handle_.stream, allocBufferCb, on_read_cb);
}

int PeerStream::write(Frame frame) {
  if (frame.payload_bytes() >= kBulkBytes && !std::exchange(is_wide_, true)) {
    widen_send_buffer(&handle_.stream);
  }
  return write_frame(&handle_.stream, std::move(frame));
}

void PeerStream::write_reply(Frame reply) {
  if (!muted_ && write(std::move(reply)) < 0) owner_.side().on_reply_refused();
}

int PeerStream::shut_down_writing(uv_shutdown_cb done) {
  return uv_shutdown(&shutdown_, &handle_.stream, done);
}

void PeerStream::end_unanswered() {
  if (owner_.takes_messages() && !is_closing()) owner_.on_stream_end(*this, UV_ENOMEM);
}

// Without memory the buffer is empty, and libuv reports UV_ENOBUFS.
void PeerStream::allocBufferCb(uv_handle_t* handle, std::size_t suggested_bytes, uv_buf_t* buffer) {
  auto* const self = static_cast<PeerStream*>(handle->data);
  self->owner_.check_loop_thread();
  std::span<char> place = self->room();
  if (place.empty()) place = self->owner_.read_block().get(suggested_bytes);
  buffer->base = place.data();
  buffer->len = static_cast<decltype(buffer->len)>(place.size());
}

// Where the frame that waits wants its rest. Without memory for it, the read goes elsewhere, and
// feed finds out.
std::span<char> PeerStream::room() {
  std::span<char> place;
  if (!reader_) return place;
  guarded([&] {
    enter_loop();
    place = reader_->room();
  });
  return place;
}

void PeerStream::on_read_cb(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
  auto* const self = static_cast<PeerStream*>(stream->data);
  self->owner_.check_loop_thread();
  self->owner_.note_sign_of_life();
  self->on_read(count, buffer->base);
  self->owner_.read_block().end_of_read();
}

void PeerStream::on_read(ssize_t count, const char* bytes) {
  if (!muted_ && owner_.takes_messages()) {
    if (!std::exchange(has_read_, true)) owner_.on_first_read(*this);
    if (count >= 0) return feed({bytes, static_cast<std::size_t>(count)});
  }
  if (count < 0) owner_.on_stream_end(*this, static_cast<int>(count));
}

void PeerStream::feed(std::string_view bytes) {
  int status = UV_ENOMEM;  // there was no memory for what came
  std::unique_ptr<FrameReader> reader = std::move(reader_);
  guarded([&] {
    enter_loop();
    const bool goes_on = reader->feed(bytes, [this](SharedBytes payload) {
      enter_loop();
      owner_.read_block().share_with(payload);
      owner_.side().on_message(*this, std::move(payload));
      return !has_ended_ && owner_.takes_messages();
    });
    status = goes_on ? 0 : UV_EPROTO;
  });
  if (has_ended_) return;
  reader_ = std::move(reader);
  if (status != 0 && owner_.takes_messages()) owner_.on_stream_end(*this, status);
}

}  // namespace tolk
