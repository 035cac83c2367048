#include "transport/outgoing_queue.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "transport/system_calls.h"

namespace tolk {
namespace {

constexpr std::size_t kMostBuffersOfAFrame = 3;

// What is left of `buffer` behind its first `skipped` bytes; takes these off `skipped`.
uv_buf_t rest_of(uv_buf_t buffer, std::size_t& skipped) {
  const std::size_t part = std::min<std::size_t>(skipped, buffer.len);
  skipped -= part;
  buffer.base += part;
  buffer.len -= static_cast<decltype(buffer.len)>(part);
  return buffer;
}

}  // namespace

// The buffers of one uv_write.
struct OutgoingQueue::Batch {
  std::array<uv_buf_t, kMostFrames * kMostBuffersOfAFrame> buffers;
  unsigned count = 0;

  void add(std::span<const uv_buf_t> frame, std::size_t skipped) {
    for (const uv_buf_t& buffer : frame) {
      const uv_buf_t rest = rest_of(buffer, skipped);
      if (rest.len != 0) buffers[count++] = rest;
    }
  }
};

void OutgoingQueue::open(uv_stream_t* stream) {
  stream_ = stream;
  request_.data = this;
  state_.lock()->descriptor = platform::descriptor_for_direct_send(stream);
  flush();
}

Sent OutgoingQueue::add(Frame&& frame, bool counts) {
  const auto state = state_.lock();
  if (state->closed) return Sent::closed;
  const std::size_t size = frame.total_bytes();
  if (counts && !has_room(*state, size)) return Sent::full;
  const std::size_t sent = send_directly(*state, frame);
  if (sent == size) return Sent::written;
  if (state->waiting.empty()) state->first_sent = sent;
  state->waiting.add(std::move(frame), counts);
  state->bytes += size - sent;
  if (counts) state->counted += size;
  if (state->writing || std::exchange(state->flush_is_due, true)) return Sent::queued;
  return Sent::queued_first;
}

bool OutgoingQueue::has_room(const State& state, std::size_t size) const {
  return state.counted == 0 || (state.counted < bound_ && size <= bound_ - state.counted);
}

// Nothing may overtake a frame that waits or is being written.
std::size_t OutgoingQueue::send_directly(const State& state, const Frame& frame) {
  if (state.descriptor == platform::kNoDescriptor || state.writing || !state.waiting.empty()) {
    return 0;
  }
  return system_calls.send(state.descriptor, frame.buffers());
}

void OutgoingQueue::flush() {
  Batch batch;
  if (!begin_batch(batch)) return;
  unsigned& active = stream_->loop->active_reqs.count;
  const unsigned active_before = active;
  const int status =
      system_calls.write(&request_, stream_, batch.buffers.data(), batch.count, on_written_cb);
  // Without memory for many buffers, libuv counts a request that it has refused: its loop would
  // never end.
  if (status < 0) active = active_before;
  // The frames are kept: libuv may still refer to a refused write.
  if (status < 0) owner_.on_write_failed(status);
}

// False when there is nothing to write, or a write is under way.
bool OutgoingQueue::begin_batch(Batch& batch) {
  const auto state = state_.lock();
  state->flush_is_due = false;
  if (state->closed || state->writing || state->waiting.empty()) return false;
  writing_bytes_ = writing_counted_ = 0;
  for (std::size_t frames = 0; frames < kMostFrames && !state->waiting.empty(); ++frames) {
    const std::size_t size = state->waiting.first_bytes();
    if (frames > 0 && writing_bytes_ + size > kMostBytes) break;
    const std::size_t sent = std::exchange(state->first_sent, 0);
    batch.add(state->waiting.first_buffers(), sent);
    writing_bytes_ += size - sent;
    const bool counts = state->waiting.first_counts();
    if (counts) writing_counted_ += size;
    writing_.add(state->waiting.take_first(), counts);
  }
  state->writing = true;
  return true;
}

void OutgoingQueue::on_written_cb(uv_write_t* request, int status) {
  enter_loop();
  static_cast<OutgoingQueue*>(request->data)->on_written(status);
}

void OutgoingQueue::on_written(int status) {
  writing_.clear();
  if (state_.lock()->closed) return;
  // The write stays under way: behind a part of a frame nothing may follow.
  if (status < 0) return owner_.on_write_failed(status);
  end_batch();
  owner_.on_written();
  flush();
}

void OutgoingQueue::end_batch() {
  const auto state = state_.lock();
  state->writing = false;
  state->bytes -= writing_bytes_;
  state->counted -= writing_counted_;
  changed_.notify_all();
}

Room OutgoingQueue::wait_for_room(std::size_t size, int limit_ms) {
  bool closed = false;
  const bool decided = wait(limit_ms, [&](const State& state) {
    closed = state.closed;
    return closed || has_room(state, size);
  });
  if (closed) return Room::closed;
  return decided ? Room::there : Room::none_in_time;
}

bool OutgoingQueue::wait_until_empty(int limit_ms) {
  bool closed = false;
  const bool decided = wait(limit_ms, [&](const State& state) {
    closed = state.closed;
    return closed || state.bytes == 0;
  });
  return decided && !closed;
}

// What libuv writes stays until its callback.
void OutgoingQueue::close() {
  FrameList dropped;  // without the lock
  const auto state = state_.lock();
  state->closed = true;
  state->descriptor = platform::kNoDescriptor;
  state->waiting.swap(dropped);
  state->bytes = state->counted = 0;
  changed_.notify_all();
}

template <class Done>
bool OutgoingQueue::wait(int limit_ms, Done done) {
  constexpr std::chrono::hours kLong{1};
  auto state = state_.lock();
  if (limit_ms >= 0) return state.wait_for(changed_, std::chrono::milliseconds(limit_ms), done);
  while (!state.wait_for(changed_, kLong, done)) {
  }
  return true;
}

}  // namespace tolk
