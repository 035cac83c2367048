// A piece of large data as it travels: the arguments of "tolk.piece".
//
// Thread: any. Lifetime: the texts and bytes of a piece that was read point into its message.
// Failure: std::bad_alloc; a block that is not a piece is none.
#pragma once

#include <tolk/c.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "capi/messages.h"

namespace tolk {

inline constexpr char kMethodPiece[] = "tolk.piece";
inline constexpr char kFeaturePieces[] = "pieces";
inline constexpr std::size_t kPieceBytes = std::size_t{256} << 10;
// How much a sender has under way.
inline constexpr std::size_t kPieceWindow = 8;

struct Piece {
  std::int32_t transfer = 0;
  std::string_view method;  // whose data they are, or
  std::string_view token;   // the call whose answer has them
  std::uint64_t offset = 0;
  std::uint64_t total = 0;
  bool cancels = false;
  std::string_view bytes;
  std::optional<std::string_view> arguments;  // in the first one

  bool is_first() const { return offset == 0 && bytes.empty(); }
  bool is_last() const { return offset + bytes.size() == total; }
  static std::optional<Piece> read(std::string_view block);
};

// The block of a piece with room for its bytes.
struct PieceBlock {
  explicit PieceBlock(const Piece& piece, std::size_t size);

  Content content;
  char* bytes = nullptr;
};

// The answer to a piece.
Frame confirm_message(Side side, const CallIds& ids, std::uint64_t done);

// Adds the values of `from` without the first `skip` ones.
void append_values(tolk_block& to, const tolk_block& from, std::size_t skip);

}  // namespace tolk
