// Joins the pieces of large blocks, by call id.
//
// Thread: any worker. Owner: the joined bytes, until the block is complete and handed out.
// Memory: follows the bytes received, whatever total a peer declares; see GrowingBlock. Who bounds
// it asks is_above after each piece. Each byte
// is copied once, and no piece waits while much of what came before it is moved. Failure: a
// malformed piece changes nothing and counts as incomplete.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>

#include "params/shared_bytes.h"
#include "transport/growing_block.h"
#include "transport/thread_safety.h"

class TolkParams;

namespace tolk {

class PieceAssembler {
 public:
  struct Joined {
    int call_id;
    SharedBytes bytes;
  };

  // Takes one piece in. The whole block, once the declared total has come together.
  std::optional<Joined> add(TolkParams& piece);
  // Whether the blocks that are not complete have more bytes than that, together.
  bool is_above(std::size_t most_bytes) const { return entries_.lock()->bytes > most_bytes; }

 private:
  struct Entry {
    GrowingBlock bytes;
    std::uint32_t touched_ms = 0;
  };

  // Pieces of a call that was given up are joined to the next call's with the same id, but not
  // after this long.
  static constexpr std::uint32_t kStaleMs = 60'000;

  // What a block costs besides its bytes.
  static constexpr std::size_t kEntryBytes = 256;

  struct Entries {
    std::map<int, Entry> blocks;
    std::size_t bytes = 0;
  };
  Guarded<Entries> entries_;
};

}  // namespace tolk
