// One message as it travels.
//
// A frame is one heap block that holds libuv's write request, its buffer descriptors and the bytes,
// so that writing it allocates and copies nothing more. A large result is not copied: the frame
// takes its string over and is written from three buffers, still with one write.
// Thread: any, one at a time. Owner: whoever holds the Frame; libuv while a write is under way
// (release() gives it away, adopt() takes it back in the completion callback).
// Failure: std::bad_alloc.
#pragma once

#include <uv.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "params/encoder.h"
#include "transport/frame_format.h"

namespace tolk {

class Frame {
 public:
  static constexpr std::size_t kPrefixBytes = frame_format::kPrefixBytes;
  // From this size on, a head is taken over instead of copied.
  static constexpr std::size_t kTakeOverBytes = std::size_t{16} << 10;

  // A frame whose payload is what `fill(encoder)` writes. `fill` runs twice: first to measure, then
  // to write in place.
  template <class Fill>
  static Frame build(const Fill& fill) {
    return build_tail({}, fill);
  }

  // The same after the records of `head`, which were encoded at the start of a block.
  template <class Fill>
  static Frame build_after(std::string head, const Fill& fill) {
    if (head.size() >= kTakeOverBytes) return build_tail(std::move(head), fill);
    return build([&](auto& encoder) {
      encoder.add_encoded(head);
      fill(encoder);
    });
  }

  static Frame copy_of(std::string_view payload) {
    Frame frame(payload.size(), {});
    if (!payload.empty()) std::memcpy(frame.tail(), payload.data(), payload.size());
    return frame;
  }

  std::size_t payload_bytes() const { return block_->payload_bytes; }
  // The bytes in the order of the stream.
  std::span<const uv_buf_t> buffers() const { return {block_->buffers, block_->buffer_count}; }
  // All bytes of a frame that is written from one buffer.
  std::string_view bytes() const { return {block_->buffers[0].base, block_->buffers[0].len}; }
  uv_write_t* request() { return &block_->request; }

  // To libuv's side of a write, and back. `request` is the block's first member.
  uv_write_t* release() { return &block_.release()->request; }
  static Frame adopt(uv_write_t* request) { return Frame(reinterpret_cast<Block*>(request)); }

 private:
  struct Block {
    uv_write_t request;
    std::string head;  // taken over; empty in most frames
    std::size_t payload_bytes;
    uv_buf_t buffers[3];
    unsigned buffer_count;
  };
  // A block and the bytes behind it are one piece of memory.
  struct Free {
    void operator()(Block* block) const {
      block->~Block();
      ::operator delete(block);
    }
  };

  // Only counts.
  class Measure {
   public:
    explicit Measure(std::size_t start) : size_(start) {}
    void append(const char*, std::size_t count) { size_ += count; }
    std::size_t size() const { return size_; }

   private:
    std::size_t size_;
  };

  // Writes into memory that was measured before.
  class Cursor {
   public:
    Cursor(char* at, std::size_t start) : at_(at), size_(start) {}
    void append(const char* data, std::size_t count) {
      if (count != 0) std::memcpy(at_, data, count);
      at_ += count;
      size_ += count;
    }
    std::size_t size() const { return size_; }

   private:
    char* at_;
    std::size_t size_;
  };

  template <class Fill>
  static Frame build_tail(std::string head, const Fill& fill) {
    const std::size_t start = head.size();
    Measure measure(start);
    Encoder<Measure> measuring(measure, 0);
    fill(measuring);
    Frame frame(measure.size() - start, std::move(head));
    Cursor cursor(frame.tail(), start);
    Encoder<Cursor> writing(cursor, 0);
    fill(writing);
    return frame;
  }

  explicit Frame(Block* block) : block_(block) {}

  Frame(std::size_t tail_bytes, std::string head)
      : block_(new (::operator new(sizeof(Block) + kPrefixBytes + tail_bytes)) Block{}) {
    char* const own = reinterpret_cast<char*>(block_.get() + 1);
    block_->payload_bytes = head.size() + tail_bytes;
    block_->head = std::move(head);
    if (block_->head.empty()) {
      add_buffer(own, kPrefixBytes + tail_bytes);
    } else {
      add_buffer(own, kPrefixBytes);
      add_buffer(block_->head.data(), block_->head.size());
      add_buffer(own + kPrefixBytes, tail_bytes);
    }
    frame_format::store_length(own, block_->payload_bytes);
  }

  void add_buffer(char* base, std::size_t size) {
    uv_buf_t& buffer = block_->buffers[block_->buffer_count++];
    buffer.base = base;
    buffer.len = static_cast<decltype(buffer.len)>(size);
  }

  char* tail() { return reinterpret_cast<char*>(block_.get() + 1) + kPrefixBytes; }

  std::unique_ptr<Block, Free> block_;
};

}  // namespace tolk
