// Cuts one connection's bytes into frames. Does no I/O.
//
// Thread: the loop thread that owns the connection.
// Lifetime: a payload is valid until `dispatch` returns.
// Memory: follows the bytes received; a length that a peer declares reserves nothing.
// Failure: none; more bytes may be needed.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "transport/frame_format.h"

namespace tolk {

class FrameReader {
 public:
  // Takes `bytes` and hands on every whole frame, in order: `bool dispatch(std::string_view
  // payload)`; false means that no further frame is wanted, now or ever.
  template <class Dispatch>
  void feed(std::string_view bytes, Dispatch&& dispatch) {
    // On purpose: a read that is exactly one frame is handed on even while older bytes wait. Peers
    // rely on it.
    if (bytes.size() >= kPrefixBytes && frame_format::load_length(bytes) == payload_limit(bytes)) {
      dispatch(bytes.substr(kPrefixBytes));
      return;
    }
    pending_.append(bytes);
    std::string_view rest = pending_;
    while (hand_on_one(rest, dispatch)) {
    }
    keep(rest.size());
  }

  std::size_t pending_bytes() const { return pending_.size(); }

 private:
  static constexpr std::size_t kPrefixBytes = frame_format::kPrefixBytes;
  static constexpr std::size_t kIdleCapacityBytes = std::size_t{1} << 20;

  static std::int64_t payload_limit(std::string_view bytes) {
    return static_cast<std::int64_t>(bytes.size()) - std::int64_t{kPrefixBytes};
  }

  // Dispatches the frame at the front of `rest` and moves past it. False when there is no whole
  // frame, or none that may be looked at.
  template <class Dispatch>
  static bool hand_on_one(std::string_view& rest, Dispatch& dispatch) {
    if (rest.size() < kPrefixBytes) return false;
    const std::int64_t length = frame_format::load_length(rest);
    if (length > payload_limit(rest)) return false;
    if (length < 0) return hand_on_negative(rest, length, dispatch);
    const std::string_view frame = rest.substr(0, kPrefixBytes + static_cast<std::size_t>(length));
    rest.remove_prefix(frame.size());
    return dispatch(frame.substr(kPrefixBytes)) && !rest.empty();
  }

  // No peer of this library sends a negative length. It counts as a frame without payload, and the
  // bytes that it "covers" (prefix and length added up) are skipped. On purpose for -1 to -3, which
  // move by 3 to 1 bytes; -4 would never move, and below there is no way to go on: all that waits
  // is dropped.
  template <class Dispatch>
  static bool hand_on_negative(std::string_view& rest, std::int64_t length, Dispatch& dispatch) {
    const std::int64_t covered = length + std::int64_t{kPrefixBytes};
    rest.remove_prefix(covered > 0 ? static_cast<std::size_t>(covered) : rest.size());
    return dispatch(std::string_view()) && covered > 0;
  }

  // Moves what is left to the front, once a read. A buffer that a large frame has blown up is not
  // kept while nothing waits in it.
  void keep(std::size_t left) {
    if (left == 0 && pending_.capacity() > kIdleCapacityBytes) {
      pending_ = std::string();
    } else {
      pending_.erase(0, pending_.size() - left);
    }
  }

  std::string pending_;
};

}  // namespace tolk
