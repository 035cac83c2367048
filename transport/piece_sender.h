// Sends an encoded block in pieces, one synchronous call a piece.
//
// Thread: the caller's, which waits for each piece's answer. Owner: borrows the block, up to
// `all_read`.
// Failure: false at the first piece that got no answer, and for a block that is too large for the
// 32-bit total that every piece carries.
#pragma once

#include <functional>
#include <string_view>

class TolkParams;

namespace tolk {

// Whether the block's size can be told in a piece.
bool fits_pieces(std::string_view block);

// `header_id`: the call id that the pieces name. `send(piece)`: whether the piece was answered.
// `all_read()` comes when nothing more is read from the block, before the last piece is sent: that
// piece is answered only after the whole call has run, and the block need not be held meanwhile.
bool send_in_pieces(
    std::string_view block, int header_id, const std::function<bool(TolkParams& piece)>& send,
    const std::function<void()>& all_read = [] {});

}  // namespace tolk
