#include "transport/piece_sender.h"

#include <tolk/TolkParams.h>

#include <cstdint>
#include <limits>

#include "transport/reserved_names.h"

namespace tolk {
namespace {

void fill(TolkParams& piece, std::string_view bytes, int header_id, std::size_t total) {
  piece.AddKeyValueBool(kKeyLargeData, true);
  piece.AddKeyValueInt(kKeyCallId, header_id);
  piece.AddInt(static_cast<int>(total));
  piece.AddStream(bytes.data(), static_cast<long>(bytes.size()));
}

// Read once for each transfer. A size that cannot be used counts as the default.
std::size_t current_piece_bytes() {
  const int set = piece_bytes();
  return static_cast<std::size_t>(set > 0 ? set : kDefaultPieceBytes);
}

}  // namespace

bool fits_pieces(std::string_view block) {
  return block.size() <= std::numeric_limits<std::int32_t>::max();
}

bool send_in_pieces(std::string_view block, int header_id,
                    const std::function<bool(TolkParams& piece)>& send,
                    const std::function<void()>& all_read) {
  if (!fits_pieces(block)) return false;
  const std::size_t size = current_piece_bytes();
  std::string_view rest = block;
  while (rest.size() > size) {
    TolkParams piece;
    fill(piece, rest.substr(0, size), header_id, block.size());
    if (!send(piece)) return false;
    rest.remove_prefix(size);
  }
  TolkParams last;
  fill(last, rest, header_id, block.size());
  all_read();
  return send(last);
}

}  // namespace tolk
