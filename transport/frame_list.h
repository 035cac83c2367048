// Frames in a row, chained by their own blocks: a list of them allocates nothing.
//
// Thread: one at a time. Owner: the list owns its frames. Failure: none.
#pragma once

#include <cstddef>
#include <span>
#include <utility>

#include "transport/frame.h"

namespace tolk {

class FrameList {
 public:
  FrameList() = default;
  FrameList(const FrameList&) = delete;
  FrameList& operator=(const FrameList&) = delete;
  ~FrameList() { clear(); }

  bool empty() const { return first_ == nullptr; }
  // `counts` is a mark that the frame carries in the list.
  void add(Frame&& frame, bool counts) noexcept {
    Frame::Block* const block = frame.block_.release();
    block->counts = counts;
    block->next = nullptr;
    (empty() ? first_ : last_->next) = block;
    last_ = block;
  }

  // The frames in order, until `function` returns false.
  struct Shown {
    std::span<const uv_buf_t> buffers;
    std::size_t bytes;
  };
  template <class Function>
  void for_each(Function&& function) const {
    Frame::Block* at = first_;
    while (at != nullptr && function(shown(at))) at = at->next;
  }

  // Of a list that is not empty:
  std::span<const uv_buf_t> first_buffers() const { return shown(first_).buffers; }
  std::size_t first_bytes() const { return shown(first_).bytes; }
  bool first_counts() const { return first_->counts; }
  Frame take_first() noexcept { return Frame(std::exchange(first_, first_->next)); }

  void clear() noexcept {
    while (!empty()) take_first();
  }
  void swap(FrameList& other) noexcept {
    std::swap(first_, other.first_);
    std::swap(last_, other.last_);
  }

 private:
  static Shown shown(Frame::Block* block) {
    return {{block->buffers(), block->buffer_count}, Frame::kPrefixBytes + block->payload_bytes};
  }

  Frame::Block* first_ = nullptr;
  Frame::Block* last_ = nullptr;  // of a list that is not empty
};

}  // namespace tolk
