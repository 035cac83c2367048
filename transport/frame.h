// One message as it travels.
//
// A frame is one heap block that holds libuv's write request, its buffer descriptors and the bytes,
// so that writing it allocates and copies nothing more. A large part is not copied: the frame holds
// it where it lies and is written from three buffers, still with one write.
// Thread: any, one at a time. Owner: whoever holds the Frame; libuv while a write is under way
// (release() gives it away, adopt() takes it back in the completion callback).
// Failure: std::bad_alloc.
#pragma once

#include <uv.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "params/encoder.h"
#include "params/shared_bytes.h"
#include "transport/frame_format.h"

namespace tolk {

class Frame {
 public:
  static constexpr std::size_t kPrefixBytes = frame_format::kPrefixBytes;
  // From this size on, bytes are not copied into a frame.
  static constexpr std::size_t kTakeOverBytes = std::size_t{16} << 10;

  // A frame whose payload is what `fill(encoder)` writes. `fill` runs twice: first to measure, then
  // to write in place.
  template <class Fill>
  static Frame build(const Fill& fill) {
    return build_around({}, fill);
  }

  // The same. Where `fill` adds exactly the bytes of `large`, once at most, they are not copied:
  // the frame holds them and is written from where they lie.
  template <class Fill>
  static Frame build_around(SharedBytes large, const Fill& fill) {
    Measure measure(large.view);
    Encoder<Measure> measuring(measure, 0);
    fill(measuring);
    Frame frame(measure, std::move(large));
    Cursor cursor(frame);
    Encoder<Cursor> writing(cursor, 0);
    fill(writing);
    return frame;
  }

  // The same after the records of `head`, which were encoded at the start of a block. A large head
  // is taken over.
  template <class Fill>
  static Frame build_after(std::string head, const Fill& fill) {
    SharedBytes large;
    std::string_view records = head;
    if (head.size() >= kTakeOverBytes) {
      auto owner = std::make_shared<const std::string>(std::move(head));
      records = *owner;
      large = {std::move(owner), records};
    }
    return build_around(std::move(large), [&](auto& encoder) {
      encoder.add_encoded(records);
      fill(encoder);
    });
  }

  static Frame copy_of(std::string_view payload) {
    return build([&](auto& encoder) { encoder.add_encoded(payload); });
  }

  std::size_t payload_bytes() const { return block_->payload_bytes; }
  std::size_t total_bytes() const { return kPrefixBytes + block_->payload_bytes; }
  // The bytes in the order of the stream.
  std::span<const uv_buf_t> buffers() const { return {block_->buffers, block_->buffer_count}; }
  // All bytes of a frame that is written from one buffer.
  std::string_view bytes() const { return {block_->buffers[0].base, block_->buffers[0].len}; }
  uv_write_t* request() { return &block_->request; }

  // To libuv's side of a write, and back. `request` is the block's first member.
  uv_write_t* release() { return &block_.release()->request; }
  static Frame adopt(uv_write_t* request) { return Frame(reinterpret_cast<Block*>(request)); }

 private:
  friend class FrameList;

  struct Block {
    uv_write_t request;
    SharedBytes large;  // not copied; none in most frames
    std::size_t payload_bytes;
    uv_buf_t buffers[3];
    unsigned buffer_count;
    bool counts;  // this and the next one are the FrameList's
    Block* next;
  };
  // A block and the bytes behind it are one piece of memory.
  struct Free {
    void operator()(Block* block) const {
      block->~Block();
      ::operator delete(block);
    }
  };

  // Counts, and finds the place of the large part.
  class Measure {
   public:
    explicit Measure(std::string_view large) : large_(large) {}

    void append(const char* data, std::size_t count) {
      if (is_large(large_, data, count)) large_at_ = size_;
      size_ += count;
    }
    std::size_t size() const { return size_; }
    // None when no part is large.
    std::optional<std::size_t> large_at() const { return large_at_; }

   private:
    const std::string_view large_;
    std::size_t size_ = 0;
    std::optional<std::size_t> large_at_;
  };

  // Writes into memory that was measured before.
  class Cursor {
   public:
    explicit Cursor(const Frame& frame)
        : large_(frame.block_->large.view), at_(frame.own_payload()) {}

    void append(const char* data, std::size_t count) {
      size_ += count;
      if (count == 0 || is_large(large_, data, count)) return;
      std::memcpy(at_, data, count);
      at_ += count;
    }
    std::size_t size() const { return size_; }

   private:
    const std::string_view large_;
    char* at_;
    std::size_t size_ = 0;
  };

  static bool is_large(std::string_view large, const char* data, std::size_t count) {
    return data == large.data() && count == large.size() && count != 0;
  }

  explicit Frame(Block* block) : block_(block) {}

  Frame(const Measure& measure, SharedBytes large) {
    const std::size_t large_bytes = measure.large_at() ? large.view.size() : 0;
    const std::size_t own_bytes = kPrefixBytes + measure.size() - large_bytes;
    block_.reset(new (::operator new(sizeof(Block) + own_bytes)) Block{});
    block_->payload_bytes = measure.size();
    char* const own = own_payload() - kPrefixBytes;
    frame_format::store_length(own, measure.size());
    const std::size_t before = measure.large_at() ? kPrefixBytes + *measure.large_at() : own_bytes;
    add_buffer(own, before);
    if (large_bytes == 0) return;
    block_->large = std::move(large);
    // libuv only reads what it writes to a stream.
    add_buffer(const_cast<char*>(block_->large.view.data()), large_bytes);
    if (before < own_bytes) add_buffer(own + before, own_bytes - before);
  }

  void add_buffer(char* base, std::size_t size) {
    uv_buf_t& buffer = block_->buffers[block_->buffer_count++];
    buffer.base = base;
    buffer.len = static_cast<decltype(buffer.len)>(size);
  }

  char* own_payload() const { return reinterpret_cast<char*>(block_.get() + 1) + kPrefixBytes; }

  std::unique_ptr<Block, Free> block_;
};

}  // namespace tolk
