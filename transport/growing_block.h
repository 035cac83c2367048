// A large block that comes part by part: a large frame, or a large call in pieces.
//
// It is one piece of memory, which grows as bytes come. Growing it is cheap, even when it is large:
// the system moves its pages, not its bytes. Where it cannot, few bytes are ever moved, because the
// block grows by a large factor.
// Thread: one at a time. Owner: the bytes, until `take`.
// Memory: follows the bytes. Ahead of them at most kFirstBytes are reserved, then kGrowth times
// what has come; what is reserved is not touched before its bytes come.
// Failure: std::bad_alloc; what came before is kept.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <utility>

#include "params/shared_bytes.h"
#include "platform/large_memory.h"

namespace tolk {

class GrowingBlock {
 public:
  static constexpr std::size_t kFirstBytes = std::size_t{1} << 20;
  static constexpr std::size_t kGrowth = platform::kReserveFactor;
  static constexpr std::size_t kLeastRoom = std::size_t{64} << 10;

  std::size_t size() const { return size_; }
  std::size_t reserved_bytes() const { return capacity_; }

  // `total`: how many bytes are said to come; it only keeps small blocks small. Bytes that were
  // written to the room stay where they are.
  void append(std::string_view bytes, std::size_t total) {
    if (bytes.empty()) return;
    make_room(bytes.size(), total);
    char* const end = memory_.get() + size_;
    if (bytes.data() != end) std::memcpy(end, bytes.data(), bytes.size());
    size_ += bytes.size();
  }

  // Where the next bytes go: at least one, and as many as a read is worth if so many lack.
  std::span<char> room(std::size_t total) {
    make_room(std::clamp<std::size_t>(total - size_, 1, kLeastRoom), total);
    return {memory_.get() + size_, capacity_ - size_};
  }

  // All of it, without a copy; the block is empty then.
  SharedBytes take() {
    const std::string_view bytes(memory_.get(), size_);
    std::shared_ptr<const void> owner(std::move(memory_));
    size_ = capacity_ = 0;
    return {std::move(owner), bytes};
  }

  void clear() { *this = GrowingBlock(); }

 private:
  struct Free {
    void operator()(char* memory) const { std::free(memory); }
  };

  void make_room(std::size_t more, std::size_t total) {
    const std::size_t needed = size_ + more;
    if (needed <= capacity_) return;
    // Where memory is short, less of it is reserved ahead.
    for (std::size_t factor = kGrowth; factor > 1; factor /= 2) {
      if (reserve(std::max(needed, std::min(ahead_of(needed, factor), total)))) return;
    }
    if (!reserve(needed)) throw std::bad_alloc();
  }

  static std::size_t ahead_of(std::size_t needed, std::size_t factor) {
    if (needed <= kFirstBytes) return kFirstBytes;
    constexpr std::size_t most = std::numeric_limits<std::size_t>::max();
    return needed <= most / factor ? factor * needed : most;
  }

  bool reserve(std::size_t bytes) {
    auto* const resized = static_cast<char*>(platform::resize(memory_.get(), bytes));
    if (resized == nullptr) return false;
    static_cast<void>(memory_.release());
    memory_.reset(resized);
    capacity_ = bytes;
    return true;
  }

  std::unique_ptr<char, Free> memory_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace tolk
