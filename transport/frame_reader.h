// Cuts one connection's bytes into frames. Does no I/O.
//
// Frames that lie whole in one read are handed on where they lie. One that comes in parts is joined
// first. The rest of a large one is read straight to its place: the reader offers it.
// Thread: the loop thread that owns the connection.
// Owner: a payload that names an owner stays for as long as somebody holds that. Any other is valid
// until `dispatch` returns.
// Memory: follows the bytes received; see GrowingBlock. A length that a peer declares reserves
// nothing before a good part of the frame has come.
// Failure: std::bad_alloc, and under strict rules a length that they forbid. The connection cannot
// go on then.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "params/shared_bytes.h"
#include "transport/frame_format.h"
#include "transport/growing_block.h"
#include "transport/stream_rules.h"

namespace tolk {

class FrameReader {
 public:
  static constexpr std::size_t kLargeBytes = std::size_t{16} << 10;

  // `large_bytes`: from this size on a frame is large. Only tests take another size.
  explicit FrameReader(std::size_t large_bytes = kLargeBytes) : large_bytes_(large_bytes) {}

  // Before the first read.
  void follow(const StreamRules& rules) { rules_ = rules; }

  // Where the next read should put its bytes; empty when that is all the same.
  std::span<char> room() {
    if (large_.size() == 0) return {};
    const std::span<char> free = large_.room(large_total_);
    return free.first(std::min(free.size(), large_total_ - large_.size()));
  }

  // Takes `bytes`, from the start of the room or from anywhere else, and hands on every whole
  // frame, in order: `bool dispatch(SharedBytes payload)`; false means that no further frame is
  // wanted, now or ever. Returns false when a length breaks strict rules; what comes before it is
  // handed on.
  template <class Dispatch>
  bool feed(std::string_view bytes, Dispatch&& dispatch) {
    // On purpose: a read that is exactly one frame is handed on even while older bytes wait. Peers
    // rely on it.
    if (bytes.size() >= kPrefixBytes && frame_format::load_length(bytes) == payload_limit(bytes) &&
        !rules_.strict) {
      dispatch(SharedBytes{nullptr, bytes.substr(kPrefixBytes)});
      return true;
    }
    if (broken_ || !finish_large(bytes, dispatch) || !finish_pending(bytes, dispatch)) {
      return !broken_;
    }
    Step step;
    do {
      step = hand_on_one(bytes, dispatch);
    } while (step == Step::next);
    if (step == Step::wait) keep(bytes);
    return !broken_;
  }

  std::size_t pending_bytes() const { return pending_.size() + large_.size(); }
  std::size_t reserved_bytes() const { return pending_.capacity() + large_.reserved_bytes(); }

 private:
  // What there is to do after a look at the front of some bytes: go on behind a frame, wait for the
  // rest of one, or never hand on anything of these bytes.
  enum class Step { next, wait, stop };

  static constexpr std::size_t kPrefixBytes = frame_format::kPrefixBytes;
  static constexpr std::size_t kIdleCapacityBytes = 4096;

  static std::int64_t payload_limit(std::string_view bytes) {
    return static_cast<std::int64_t>(bytes.size()) - std::int64_t{kPrefixBytes};
  }

  // Dispatches the frame at the front of `rest` and moves past it.
  template <class Dispatch>
  Step hand_on_one(std::string_view& rest, Dispatch& dispatch) {
    if (rest.size() < kPrefixBytes) return Step::wait;
    const std::int64_t length = frame_format::load_length(rest);
    broken_ = is_forbidden(length);
    if (broken_) return Step::stop;
    if (length > payload_limit(rest)) return Step::wait;
    if (length < 0) return hand_on_negative(rest, length, dispatch);
    const std::string_view frame = rest.substr(0, kPrefixBytes + static_cast<std::size_t>(length));
    rest.remove_prefix(frame.size());
    return dispatch(SharedBytes{nullptr, frame.substr(kPrefixBytes)}) ? Step::next : Step::stop;
  }

  // Before anything is kept for such a frame.
  bool is_forbidden(std::int64_t length) const {
    if (!rules_.strict) return false;
    return length < 0 || static_cast<std::size_t>(length) > rules_.most_frame_bytes;
  }

  // No peer of this library sends a negative length. It counts as a frame without payload, and the
  // bytes that it "covers" (prefix and length added up) are skipped. On purpose for -1 to -3, which
  // move by 3 to 1 bytes; -4 would never move, and below there is no way to go on: all that waits
  // is dropped.
  template <class Dispatch>
  static Step hand_on_negative(std::string_view& rest, std::int64_t length, Dispatch& dispatch) {
    const std::int64_t covered = length + std::int64_t{kPrefixBytes};
    rest.remove_prefix(covered > 0 ? static_cast<std::size_t>(covered) : rest.size());
    return dispatch(SharedBytes{}) && covered > 0 ? Step::next : Step::stop;
  }

  // Gives the large frame that waits the front of `bytes`. False when nothing of them is left to
  // look at.
  template <class Dispatch>
  bool finish_large(std::string_view& bytes, Dispatch& dispatch) {
    if (large_.size() == 0) return true;
    const std::string_view part = bytes.substr(0, large_total_ - large_.size());
    bytes.remove_prefix(part.size());
    large_.append(part, large_total_);
    if (large_.size() < large_total_) return false;
    SharedBytes payload = large_.take();
    payload.view.remove_prefix(kPrefixBytes);
    return dispatch(std::move(payload)) && !bytes.empty();
  }

  // The same for a small frame, and for one of which little has come.
  template <class Dispatch>
  bool finish_pending(std::string_view& bytes, Dispatch& dispatch) {
    while (!pending_.empty()) {
      if (becomes_large(pending_, pending_.size() + bytes.size())) {
        start_large(pending_);
        drop_pending();
        return finish_large(bytes, dispatch);
      }
      const std::string_view part = bytes.substr(0, lacking());
      pending_ += part;
      bytes.remove_prefix(part.size());
      std::string_view rest = pending_;
      const Step step = hand_on_one(rest, dispatch);
      if (step == Step::stop) return drop_pending(), false;
      if (step == Step::next) pending_.erase(0, pending_.size() - rest.size());
      if (step == Step::wait && bytes.empty()) return false;
    }
    drop_pending();
    return true;
  }

  // How many bytes are missing until the next look at what waits is worth it.
  std::size_t lacking() const {
    if (pending_.size() < kPrefixBytes) return kPrefixBytes - pending_.size();
    const std::int64_t lacking = frame_format::load_length(pending_) - payload_limit(pending_);
    return static_cast<std::size_t>(std::max<std::int64_t>(lacking, 0));
  }

  // Keeps the start of a frame.
  void keep(std::string_view rest) {
    if (becomes_large(rest, rest.size())) {
      start_large(rest);
    } else {
      pending_ += rest;
    }
  }

  bool becomes_large(std::string_view start, std::size_t come) const {
    if (start.size() < kPrefixBytes || come < large_bytes_ / 4) return false;
    return frame_format::load_length(start) >= static_cast<std::int64_t>(large_bytes_) &&
           frame_format::load_length(start) > payload_limit(start);
  }

  void start_large(std::string_view start) {
    large_total_ = kPrefixBytes + static_cast<std::size_t>(frame_format::load_length(start));
    large_.append(start, large_total_);
  }

  void drop_pending() {
    pending_.clear();
    // An assignment could keep the memory.
    if (pending_.capacity() > kIdleCapacityBytes) std::string().swap(pending_);
  }

  const std::size_t large_bytes_;
  StreamRules rules_;
  bool broken_ = false;  // a length has broken strict rules
  std::string pending_;  // the start of a frame
  GrowingBlock large_;   // the same, of a large one; at most one of the two is not empty
  std::size_t large_total_ = 0;
};

}  // namespace tolk
