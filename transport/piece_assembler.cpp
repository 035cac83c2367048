#include "transport/piece_assembler.h"

#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

#include "transport/envelope.h"
#include "transport/reserved_names.h"
#include "transport/system_calls.h"

namespace tolk {
namespace {

struct Piece {
  int call_id;
  std::int64_t total;
  std::string_view bytes;
};

// Without a second positional value a piece is empty; any other missing or mistyped field makes it
// malformed.
std::optional<Piece> read_piece(TolkParams& block) {
  const TolkValue* const call_id = block.GetMap(kKeyCallId);
  const TolkValue* const total = block.GetValue(0);
  const TolkValue* const bytes = block.GetValue(1);
  if (call_id == nullptr || !call_id->IsInt()) return std::nullopt;
  if (total == nullptr || !total->IsInt()) return std::nullopt;
  if (bytes != nullptr && !bytes->IsStream()) return std::nullopt;
  return Piece{call_id->GetInt(), total->GetInt(), read::bytes(bytes).value_or("")};
}

}  // namespace

std::optional<PieceAssembler::Joined> PieceAssembler::add(TolkParams& block) {
  const auto piece = read_piece(block);
  if (!piece) return std::nullopt;
  GrowingBlock whole;
  {
    auto entries = entries_.lock();
    const auto [at, is_new] = entries->blocks.try_emplace(piece->call_id);
    Entry& entry = at->second;
    if (is_new) entries->bytes += kEntryBytes;
    const std::uint32_t now_ms = system_calls.tick_ms();
    if (now_ms - entry.touched_ms > kStaleMs) {
      entries->bytes -= entry.bytes.size();
      entry.bytes.clear();
    }
    entry.touched_ms = now_ms;
    const std::int64_t declared = std::max<std::int64_t>(piece->total, 0);
    entry.bytes.append(piece->bytes, static_cast<std::size_t>(declared));
    entries->bytes += piece->bytes.size();
    if (static_cast<std::int64_t>(entry.bytes.size()) < piece->total) return std::nullopt;
    entries->bytes -= entry.bytes.size() + kEntryBytes;
    whole = std::move(entry.bytes);
    entries->blocks.erase(at);
  }
  // Without the lock: the pieces of other calls do not wait while a large block is joined.
  return Joined{piece->call_id, whole.take()};
}

}  // namespace tolk
