// One message as it travels.
//
// A frame is one heap block that holds libuv's write request, its buffer descriptors and the bytes,
// so that writing it allocates and copies nothing more. Large parts are not copied: the frame holds
// them where they lie and is written from several buffers, still with one write.
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
#include "params/shared_bytes.h"
#include "transport/frame_format.h"

namespace tolk {

class Frame {
 public:
  static constexpr std::size_t kPrefixBytes = frame_format::kPrefixBytes;
  // From this size on, bytes are not copied into a frame.
  static constexpr std::size_t kTakeOverBytes = std::size_t{16} << 10;
  // Parts of that size in one frame; what is more is copied.
  static constexpr std::size_t kMostLarge = 64;
  static constexpr std::size_t kMostBuffers = 2 * kMostLarge + 1;

  // A frame whose payload is what `fill(encoder)` writes. `fill` runs twice: first to measure, then
  // to write in place.
  template <class Fill>
  static Frame build(const Fill& fill) {
    return build_around_all({}, fill);
  }

  // The same. Where `fill` adds exactly the bytes of `large`, once at most, they are not copied:
  // the frame holds them and is written from where they lie.
  template <class Fill>
  static Frame build_around(const SharedBytes& large, const Fill& fill) {
    return build_around_all({&large, 1}, fill);
  }

  // The same for up to kMostLarge parts, which `fill` adds in this order.
  template <class Fill>
  static Frame build_around_all(std::span<const SharedBytes> large, const Fill& fill) {
    Measure measure(large);
    Encoder<Measure> measuring(measure, 0);
    fill(measuring);
    large = large.first(measure.taken());
    Frame frame(measure, large);
    Cursor cursor(frame, large);
    Encoder<Cursor> writing(cursor, 0);
    fill(writing);
    cursor.end();
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
    return build_around(large, [&](auto& encoder) {
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
  std::span<const uv_buf_t> buffers() const { return {block_->buffers(), block_->buffer_count}; }
  // All bytes of a frame that is written from one buffer.
  std::string_view bytes() const { return {block_->buffers()->base, block_->buffers()->len}; }
  uv_write_t* request() { return &block_->request; }

  // To libuv's side of a write, and back. `request` is the block's first member.
  uv_write_t* release() { return &block_.release()->request; }
  static Frame adopt(uv_write_t* request) { return Frame(reinterpret_cast<Block*>(request)); }

 private:
  friend class FrameList;

  // In front of its buffers, the large parts and the bytes.
  struct Block {
    uv_write_t request;
    std::size_t payload_bytes;
    Block* next;  // this and the next one are the FrameList's
    bool counts;
    unsigned large_count;
    unsigned buffer_count;

    static std::size_t most_buffers(std::size_t large_count) { return 2 * large_count + 1; }
    uv_buf_t* buffers() { return reinterpret_cast<uv_buf_t*>(this + 1); }
    SharedBytes* large() {
      return reinterpret_cast<SharedBytes*>(buffers() + most_buffers(large_count));
    }
    char* bytes() { return reinterpret_cast<char*>(large() + large_count); }

    void add_buffer(const char* base, std::size_t size) {
      uv_buf_t& buffer = buffers()[buffer_count++];
      buffer.base = const_cast<char*>(base);  // libuv only reads what it writes to a stream
      buffer.len = static_cast<decltype(buffer.len)>(size);
    }
  };
  static_assert(sizeof(Block) % alignof(SharedBytes) == 0 &&
                sizeof(uv_buf_t) % alignof(SharedBytes) == 0);

  struct Free {
    void operator()(Block* block) const {
      std::destroy_n(block->large(), block->large_count);
      block->~Block();
      ::operator delete(block);
    }
  };

  // Whether the next of `large` is added; then it is taken.
  static bool takes(std::span<const SharedBytes> large, std::size_t& taken, const char* data,
                    std::size_t count) {
    if (taken == large.size() || count == 0) return false;
    const std::string_view next = large[taken].view;
    if (data != next.data() || count != next.size()) return false;
    ++taken;
    return true;
  }

  // Counts, and finds the large parts.
  class Measure {
   public:
    explicit Measure(std::span<const SharedBytes> large) : large_(large) {}

    void append(const char* data, std::size_t count) {
      size_ += count;
      if (takes(large_, taken_, data, count)) large_bytes_ += count;
    }
    // Bytes of the encoder, which are no large part.
    void skip(std::size_t count) { size_ += count; }
    std::size_t size() const { return size_; }
    std::size_t taken() const { return taken_; }
    std::size_t own_bytes() const { return size_ - large_bytes_; }

   private:
    const std::span<const SharedBytes> large_;
    std::size_t taken_ = 0;
    std::size_t size_ = 0;
    std::size_t large_bytes_ = 0;
  };

  // Writes into memory that was measured before.
  class Cursor {
   public:
    // `large`: the parts that the frame holds.
    Cursor(const Frame& frame, std::span<const SharedBytes> large)
        : block_(*frame.block_),
          large_(large),
          begin_(block_.bytes()),
          at_(begin_ + kPrefixBytes) {}

    void append(const char* data, std::size_t count) {
      size_ += count;
      if (takes(large_, taken_, data, count)) {
        end();
        block_.add_buffer(data, count);
      } else if (count != 0) {
        std::memcpy(at_, data, count);
        at_ += count;
      }
    }
    // Where the encoder writes bytes, which are no large part.
    char* extend(std::size_t count) {
      size_ += count;
      return std::exchange(at_, at_ + count);
    }
    std::size_t size() const { return size_; }
    // Own bytes since the last large part become a buffer.
    void end() {
      if (begin_ != at_) block_.add_buffer(begin_, static_cast<std::size_t>(at_ - begin_));
      begin_ = at_;
    }

   private:
    Block& block_;
    const std::span<const SharedBytes> large_;
    std::size_t taken_ = 0;
    char* begin_;
    char* at_;
    std::size_t size_ = 0;
  };

  explicit Frame(Block* block) : block_(block) {}

  Frame(const Measure& measure, std::span<const SharedBytes> large) {
    const std::size_t size = sizeof(Block) + Block::most_buffers(large.size()) * sizeof(uv_buf_t) +
                             large.size_bytes() + kPrefixBytes + measure.own_bytes();
    block_.reset(new (::operator new(size)) Block{});
    block_->payload_bytes = measure.size();
    block_->large_count = static_cast<unsigned>(large.size());
    std::uninitialized_copy(large.begin(), large.end(), block_->large());
    frame_format::store_length(block_->bytes(), measure.size());
  }

  std::unique_ptr<Block, Free> block_;
};

}  // namespace tolk
