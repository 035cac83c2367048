// Encoded bytes that grow at the end, and are shared until somebody changes them.
//
// A buffer may begin in room that its owner gives: most blocks need no memory beside their own.
//
// Thread: one at a time; several buffers may share their memory. Owner: counted memory.
// Failure: std::bad_alloc; the buffer is then as before.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "params/shared_bytes.h"

namespace tolk {

class RecordBuffer {
 public:
  static constexpr std::size_t kRoomBytes = 256;

  RecordBuffer() = default;
  // `room` has kRoomBytes, outlives the buffer, and is not shared.
  explicit RecordBuffer(char* room) noexcept : room_(room) { clear(); }
  RecordBuffer(const RecordBuffer& other) { copy(other); }
  RecordBuffer& operator=(const RecordBuffer&) = delete;
  ~RecordBuffer() { release(); }

  std::size_t size() const noexcept { return size_; }
  std::string_view view() const noexcept { return {bytes_, size_}; }
  bool is_in_room() const noexcept { return memory_ == nullptr; }
  // The memory stays until the last holder of the bytes is gone.
  SharedBytes share() const {
    if (is_in_room()) return copy_of(view());
    return {std::make_shared<const RecordBuffer>(*this), view()};
  }

  // Makes room for `count` bytes behind the end that nobody else sees.
  void make_room(std::size_t count) {
    if (capacity_ - size_ < count || !is_alone()) grow(count);
  }
  // Writes behind the end, where there must be room, until `finish` takes it over. What it writes
  // cannot change where it is, so that this stays in registers.
  class Writer {
   public:
    // `position`: of the first byte, for check words.
    Writer(RecordBuffer& buffer, std::size_t position) noexcept
        : buffer_(buffer), at_(buffer.bytes_ + buffer.size_), position_(position) {}
    void append(const char* data, std::size_t count) noexcept {
      std::memcpy(extend(count), data, count);
    }
    char* extend(std::size_t count) noexcept {
      position_ += count;
      return std::exchange(at_, at_ + count);
    }
    std::size_t size() const noexcept { return position_; }
    void finish() const noexcept { buffer_.size_ = static_cast<std::size_t>(at_ - buffer_.bytes_); }

   private:
    RecordBuffer& buffer_;
    char* at_;
    std::size_t position_;
  };

  // There must be room.
  void append(const char* data, std::size_t count) noexcept {
    std::memcpy(bytes_ + size_, data, count);
    size_ += count;
  }
  // A cut of what others see too is none for them.
  void cut(std::size_t size) noexcept { size_ = size; }

  void clear() noexcept {
    release();
    memory_ = nullptr;
    bytes_ = room_;
    size_ = 0;
    capacity_ = room_ == nullptr ? 0 : kRoomBytes;
  }

  // Instead of what is in here; shares memory if there is any.
  void copy(const RecordBuffer& other);

 private:
  struct alignas(std::max_align_t) Memory {
    std::atomic<std::size_t> owners;
  };
  // With the memory's head, a size that allocators keep at hand.
  static constexpr std::size_t kFirstBytes = 256 - sizeof(Memory);

  bool is_alone() const noexcept {
    return memory_ == nullptr || memory_->owners.load(std::memory_order_acquire) == 1;
  }

  std::size_t new_capacity(std::size_t count) const;
  void grow(std::size_t count);

  void release() noexcept {
    if (memory_ == nullptr || memory_->owners.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    ::operator delete(memory_);
  }

  Memory* memory_ = nullptr;  // null: the bytes are in the room, if there is any
  char* bytes_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
  char* const room_ = nullptr;
};

}  // namespace tolk
