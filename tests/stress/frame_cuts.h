// Cuts a stream of frames into pieces of random sizes, without a piece that the receiver must take
// for something else.
//
// A receiver hands on a read that is exactly one frame even while older bytes wait; peers rely on
// it. So a read that begins inside a frame must not look like a whole one: a cut there would damage
// the stream although the receiver is correct. Such cuts are left out, and bytes whose cut cannot
// be judged yet are held back; more of their frame is sure to follow. Thread: one. Failure: none;
// other input comes out in larger pieces.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tests/e2e/support/raw_block.h"

namespace tolk::stress {

class FrameCuts {
 public:
  // `next_size` says how long the next piece should be, 1 at least.
  std::vector<std::string> cut(std::string_view bytes, const std::function<int()>& next_size) {
    held_.append(bytes);
    std::vector<std::string> pieces;
    while (const std::size_t size = next_cut(static_cast<std::size_t>(next_size()))) {
      const std::uint64_t frame_end = frame_end_behind(begin_ + size);
      pieces.push_back(held_.substr(0, size));
      held_.erase(0, size);
      begin_ += size;
      known_end_ = frame_end;
      std::erase_if(forbidden_, [this](std::uint64_t at) { return at <= begin_; });
    }
    return pieces;
  }

 private:
  static constexpr std::size_t kPrefixBytes = 4;
  static constexpr std::int64_t kLongestRead = std::int64_t{1} << 20;

  // The size of the next piece; 0 while there is none. Larger than wanted rather than smaller.
  std::size_t next_cut(std::size_t wanted) {
    const std::size_t first = std::min(wanted, held_.size());
    for (std::size_t size = first; size > 0 && size <= held_.size(); ++size) {
      if (may_cut(begin_ + size)) return size;
    }
    for (std::size_t size = first; size-- > 1;) {
      if (may_cut(begin_ + size)) return size;
    }
    return 0;
  }

  bool may_cut(std::uint64_t at) {
    const std::uint64_t end = frame_end_behind(at);
    if (at == end) return true;
    if (end == 0 || at + kPrefixBytes > end || forbidden_.contains(at)) return false;
    if (at - begin_ + kPrefixBytes > held_.size()) return false;
    const std::int64_t length = prefix_at(at);
    if (length < 0 || length >= kLongestRead) return true;
    const std::uint64_t looks_like_end = at + kPrefixBytes + static_cast<std::uint64_t>(length);
    if (looks_like_end >= end) return false;
    forbidden_.insert(looks_like_end);
    return true;
  }

  // The end of the first frame that does not end before `at`; 0 while it is unknown.
  std::uint64_t frame_end_behind(std::uint64_t at) {
    std::uint64_t end = known_end_;  // of the frame that `begin_` is in
    while (end < at || end <= begin_) {
      if (end - begin_ + kPrefixBytes > held_.size()) return 0;
      end += kPrefixBytes + static_cast<std::uint64_t>(std::max<std::int64_t>(prefix_at(end), 0));
    }
    return end;
  }

  std::int64_t prefix_at(std::uint64_t at) const {
    return static_cast<std::int32_t>(test::word_at(held_, static_cast<std::size_t>(at - begin_)));
  }

  std::string held_;
  std::uint64_t begin_ = 0;      // where `held_` lies in the stream
  std::uint64_t known_end_ = 0;  // of the frame that `begin_` is in, or where the next one begins
  std::set<std::uint64_t> forbidden_;  // where a read that began earlier would look like a frame
};

}  // namespace tolk::stress
