// A large block that comes piece by piece.
//
// It grows in chunks, so that no piece has to wait until all that came before it has been moved: a
// sender gives up on a piece whose answer takes too long. Joining copies each chunk once and frees
// it; a block within one chunk is not copied at all.
// Thread: one at a time. Owner: the bytes, until `take`.
// Memory: follows the bytes. Ahead of them at most 1 MiB is reserved, then kGrowth times what has
// come, and never more than a chunk.
// Failure: std::bad_alloc; what came before is kept.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tolk {

class GrowingBlock {
 public:
  static constexpr std::size_t kFirstBytes = std::size_t{1} << 20;
  static constexpr std::size_t kGrowth = 8;
  // More than any allocator keeps for itself: a chunk that is freed is the system's again.
  static constexpr std::size_t kChunkBytes = std::size_t{64} << 20;

  explicit GrowingBlock(std::size_t chunk_bytes = kChunkBytes) : chunk_bytes_(chunk_bytes) {}

  std::size_t size() const { return full_.size() * chunk_bytes_ + last_.size(); }
  std::size_t reserved_bytes() const { return full_.size() * chunk_bytes_ + last_.capacity(); }

  // `total`: how many bytes are said to come; it only keeps small blocks small.
  void append(std::string_view bytes, std::size_t total) {
    while (!bytes.empty()) {
      if (last_.size() == chunk_bytes_) full_.emplace_back().swap(last_);
      const std::string_view part = bytes.substr(0, chunk_bytes_ - last_.size());
      make_room(part.size(), total);
      last_.append(part);
      bytes.remove_prefix(part.size());
    }
  }

  // All of it, in one string; the block is empty then.
  std::string take() {
    if (full_.empty()) return std::exchange(last_, {});
    std::string joined;
    joined.reserve(size());
    for (std::string& chunk : full_) {
      joined += chunk;
      std::string().swap(chunk);
    }
    joined += last_;
    clear();
    return joined;
  }

  void clear() {
    full_.clear();
    last_ = {};
  }

 private:
  void make_room(std::size_t more, std::size_t total) {
    const std::size_t needed = last_.size() + more;
    if (needed <= last_.capacity()) return;
    const std::size_t before = size() - last_.size();
    const std::size_t ahead = before > 0 ? chunk_bytes_ : std::max(kFirstBytes, kGrowth * needed);
    const std::size_t to_come = total > before ? total - before : 0;
    last_.reserve(std::max(needed, std::min({ahead, chunk_bytes_, to_come})));
  }

  std::size_t chunk_bytes_;
  std::vector<std::string> full_;
  std::string last_;
};

}  // namespace tolk
