// Sends an encoded block in pieces, one synchronous call a piece.
//
// Thread: the caller's, which waits for each piece's answer. Owner: borrows the block, up to
// `all_read`.
// Failure: false at the first piece that got no answer, and for a block that is too large for the
// 32-bit total that every piece carries.
#pragma once

#include <atomic>
#include <functional>
#include <string_view>

class TolkParams;

namespace tolk {

inline constexpr int kDefaultPieceBytes = 32768;

// The piece size in bytes: one number for every client and server of the process. It is not checked
// when it is set; a sender takes the default for 0 or less.
inline std::atomic<int>& piece_bytes() {
  static constinit std::atomic<int> bytes{kDefaultPieceBytes};
  return bytes;
}

// Whether the block's size fits in the total that a piece carries.
bool fits_pieces(std::string_view block);

// `header_id`: the call id that the pieces name. `send(piece)`: whether the piece was answered.
// `all_read()` comes when nothing more is read from the block, before the last piece is sent: that
// piece is answered only after the whole call has run, and the block need not be held meanwhile.
bool send_in_pieces(
    std::string_view block, int header_id, const std::function<bool(TolkParams& piece)>& send,
    const std::function<void()>& all_read = [] {});

}  // namespace tolk
