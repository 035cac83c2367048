#include "transport/outgoing_queue.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "transport/stream_handle.h"
#include "transport/system_calls.h"

namespace tolk {
namespace {

// What is left of `buffer` behind its first `skipped` bytes; takes these off `skipped`.
uv_buf_t rest_of(uv_buf_t buffer, std::size_t& skipped) {
  const std::size_t part = std::min<std::size_t>(skipped, buffer.len);
  skipped -= part;
  buffer.base += part;
  buffer.len -= static_cast<decltype(buffer.len)>(part);
  return buffer;
}

}  // namespace

// The buffers of one write.
struct OutgoingQueue::Batch {
  std::array<uv_buf_t, kMostBuffers> buffers;
  unsigned count = 0;
  std::size_t frames = 0;
  std::size_t bytes = 0;

  // Without the first `skipped` bytes. False: there is no room for the frame.
  bool add(std::span<const uv_buf_t> frame, std::size_t skipped, std::size_t size) {
    if (frames == kMostFrames || count + frame.size() > buffers.size()) return false;
    if (frames > 0 && bytes + size > kMostBytes) return false;
    ++frames;
    bytes += size - skipped;
    for (const uv_buf_t& buffer : frame) {
      const uv_buf_t rest = rest_of(buffer, skipped);
      if (rest.len != 0) buffers[count++] = rest;
    }
    return true;
  }
  std::span<const uv_buf_t> used() const { return {buffers.data(), count}; }
};

void OutgoingQueue::open(uv_stream_t* stream) {
  stream_ = stream;
  request_.data = this;
  state_.lock()->descriptor = platform::descriptor_for_direct_send(stream);
  flush();
}

Sent OutgoingQueue::add(Frame&& frame, bool counts, Send when) {
  FrameList sent;  // freed without the lock
  auto state = state_.lock();
  if (state->closed) return Sent::closed;
  const std::size_t size = frame.total_bytes();
  if (counts && !has_room(*state, size)) return Sent::full;
  state->waiting.add(std::move(frame), counts);
  state->bytes += size;
  if (counts) state->counted += size;
  if (state->sending) return Sent::queued;
  if (when == Send::now && may_send(*state)) send_waiting(state, sent);
  if (state->closed) return Sent::closed;
  if (state->waiting.empty()) return Sent::written;
  if (state->writing || std::exchange(state->flush_is_due, true)) return Sent::queued;
  return Sent::queued_first;
}

bool OutgoingQueue::has_room(const State& state, std::size_t size) const {
  return state.counted == 0 || (state.counted < bound_ && size <= bound_ - state.counted);
}

// Nothing may overtake a frame that is being written, or a part of one.
bool OutgoingQueue::may_send(const State& state) {
  return state.descriptor != platform::kNoDescriptor && !state.writing && !state.is_full;
}

// Without the lock: what others add meanwhile goes out here too, and none of them waits.
void OutgoingQueue::send_waiting(Guarded<State>::Locked& state, FrameList& sent) {
  state->sending = true;
  for (int sends = 0; sends < kMostSends && !state->waiting.empty() && !state->is_full; ++sends) {
    Batch batch;
    state->waiting.for_each([&, skipped = state->first_sent](const auto& frame) mutable {
      return batch.add(frame.buffers, std::exchange(skipped, 0), frame.bytes);
    });
    const int descriptor = state->descriptor;
    state.unlock();
    sent.clear();
    const std::size_t taken = system_calls.send(descriptor, batch.used());
    state.relock();
    if (state->closed) break;
    state->is_full = taken < batch.bytes;
    take_sent(*state, taken, sent);
  }
  state->sending = false;
  changed_.notify_all();
}

void OutgoingQueue::take_sent(State& state, std::size_t taken, FrameList& sent) {
  state.bytes -= taken;
  taken += state.first_sent;
  while (!state.waiting.empty() && taken >= state.waiting.first_bytes()) {
    taken -= state.waiting.first_bytes();
    if (state.waiting.first_counts()) state.counted -= state.waiting.first_bytes();
    sent.add(state.waiting.take_first(), false);
  }
  state.first_sent = taken;
}

void OutgoingQueue::flush() {
  Batch batch;
  if (!begin_batch(batch)) return;
  if (writing_bytes_ >= kBulkBytes && !std::exchange(is_wide_, true)) widen_send_buffer(stream_);
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
  if (state->closed || state->sending || state->writing || state->waiting.empty()) return false;
  writing_counted_ = 0;
  while (!state->waiting.empty() && batch.add(state->waiting.first_buffers(), state->first_sent,
                                              state->waiting.first_bytes())) {
    state->first_sent = 0;
    const bool counts = state->waiting.first_counts();
    if (counts) writing_counted_ += state->waiting.first_bytes();
    writing_.add(state->waiting.take_first(), counts);
  }
  writing_bytes_ = batch.bytes;
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
  state->writing = state->is_full = false;
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
  const auto decided = [&](const State& state) {
    closed = state.closed;
    return closed || state.bytes == 0;
  };
  if (wait(limit_ms, decided)) return !closed;
  // A thread that sends may have sent all of it, and only has to say so.
  auto state = state_.lock();
  state.wait(changed_, [&](const State& now) { return decided(now) || !now.sending; });
  return !closed && state->bytes == 0;
}

// What libuv writes stays until its callback. A thread that sends has only to come back from one
// system call.
void OutgoingQueue::close() {
  FrameList dropped;  // without the lock
  auto state = state_.lock();
  state->closed = true;
  state.wait(changed_, [](const State& now) { return !now.sending; });
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
