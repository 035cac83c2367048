#include "transport/peer_stream.h"

#include <cstdint>
#include <cstdlib>
#include <utility>

#include "platform/guarded.h"
#include "transport/frame_writer.h"
#include "transport/pause_point.h"

namespace tolk {
namespace {

struct FreeReadBuffer {
  void operator()(char* base) const { std::free(base); }
};

// The heap block of one read, of exactly the size that libuv suggests; the read callback frees it.
// Without memory it is empty, and libuv reports UV_ENOBUFS.
void allocBufferCb(uv_handle_t*, std::size_t suggested_bytes, uv_buf_t* buffer) {
  buffer->base = static_cast<char*>(std::malloc(suggested_bytes));
  buffer->len = buffer->base == nullptr ? 0 : static_cast<decltype(buffer->len)>(suggested_bytes);
}

// A call from the peer. A worker builds its reply, the loop thread writes it.
class CallItem final : public WorkItem {
 public:
  CallItem(PeerStream& stream, const Envelope& envelope)
      : side_(stream.owner().side().shared_from_this()),
        owner_(stream.owner().shared_from_this()),
        stream_(stream),
        call_(envelope) {}

 private:
  void work() TOLK_WORKER override {
    if (!owner_->begins_calls()) return;
    TOLK_PAUSE_POINT("worker.before_handler");
    reply_ = side_->answer(stream_.id(), call_);
    TOLK_PAUSE_POINT("worker.answered");
  }

  void end() TOLK_LOOP override {
    owner_->check_loop_thread();
    if (reply_) stream_.write_reply(std::move(*reply_));
  }

  void fail() TOLK_LOOP override { stream_.end_unanswered(); }

  const std::shared_ptr<MessageSide> side_;  // outlives the session
  const std::shared_ptr<StreamOwner> owner_;
  PeerStream& stream_;  // the session's
  IncomingCall call_;
  std::optional<Frame> reply_;
};

}  // namespace

IncomingCall::IncomingCall(const Envelope& envelope)
    : name(envelope.name.value_or("")),
      arguments(envelope.arguments),
      call_id(envelope.call_id),
      token(envelope.token) {}

int PeerStream::id() const {
  return static_cast<int>(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&handle_)));
}

int PeerStream::start_reading() {
  return uv_read_start(&handle_.stream, allocBufferCb, on_read_cb);
}

int PeerStream::write(Frame frame) { return write_frame(&handle_.stream, std::move(frame)); }

void PeerStream::write_reply(Frame reply) {
  if (!muted_ && write(std::move(reply)) < 0) owner_.side().on_reply_refused();
}

int PeerStream::shut_down_writing(uv_shutdown_cb done) {
  return uv_shutdown(&shutdown_, &handle_.stream, done);
}

void PeerStream::end_unanswered() {
  if (owner_.takes_messages() && !is_closing()) owner_.on_stream_end(*this, UV_ENOMEM);
}

void PeerStream::on_read_cb(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
  const std::unique_ptr<char, FreeReadBuffer> freed_at_the_end(buffer->base);
  auto* const self = static_cast<PeerStream*>(stream->data);
  self->owner_.check_loop_thread();
  self->owner_.note_sign_of_life();
  self->on_read(count, buffer->base);
}

void PeerStream::on_read(ssize_t count, const char* bytes) {
  if (!muted_ && owner_.takes_messages()) {
    if (!std::exchange(has_read_, true)) owner_.on_first_read(*this);
    if (count >= 0) return feed({bytes, static_cast<std::size_t>(count)});
  }
  if (count < 0) owner_.on_stream_end(*this, static_cast<int>(count));
}

void PeerStream::feed(std::string_view bytes) {
  bool intact = false;
  guarded([&] {
    enter_loop();
    reader_->feed(bytes, [this](std::string_view payload) {
      enter_loop();
      on_message(payload);
      return owner_.takes_messages();
    });
    intact = true;
  });
  // There was no memory for what came.
  if (!intact && owner_.takes_messages()) owner_.on_stream_end(*this, UV_ENOMEM);
}

void PeerStream::on_message(std::string_view payload) {
  MessageSide& side = owner_.side();
  const Envelope envelope = Envelope::scan(payload);
  if (!envelope.well_formed && !side.accepts_malformed()) return;
  if (!envelope.name) return side.on_message_without_name();
  if (envelope.is_reply()) return side.on_reply(envelope, payload);
  if (side.answers_on_loop(*this, envelope)) return;
  owner_.begin_work(std::make_unique<CallItem>(*this, envelope));
}

}  // namespace tolk
