// Encoded bytes that grow at the end, and are shared until somebody changes them.
//
// Thread: values; several may share their memory. Owner: counted memory.
// Failure: std::bad_alloc; the buffer is then as before.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "params/shared_bytes.h"
#include "platform/large_memory.h"

namespace tolk {

class RecordBuffer {
 public:
  RecordBuffer() = default;
  RecordBuffer(const RecordBuffer& other) noexcept : memory_(other.memory_), size_(other.size_) {
    if (memory_ != nullptr) memory_->owners.fetch_add(1, std::memory_order_relaxed);
  }
  RecordBuffer(RecordBuffer&& other) noexcept
      : memory_(std::exchange(other.memory_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  RecordBuffer& operator=(RecordBuffer other) noexcept {
    std::swap(memory_, other.memory_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~RecordBuffer() { release(); }

  std::size_t size() const noexcept { return size_; }
  std::string_view view() const noexcept {
    return memory_ == nullptr ? std::string_view() : std::string_view(bytes(), size_);
  }
  // The memory stays until the last holder of the bytes is gone.
  SharedBytes share() const { return {std::make_shared<const RecordBuffer>(*this), view()}; }

  // Makes room for `count` bytes behind the end that nobody else sees.
  void make_room(std::size_t count) {
    if (memory_ != nullptr && memory_->capacity - size_ >= count && is_alone()) return;
    move_to(new_capacity(count));
  }
  // There must be room.
  void append(const char* data, std::size_t count) noexcept {
    std::memcpy(bytes() + size_, data, count);
    size_ += count;
  }
  // A cut of what others see too is none for them.
  void cut(std::size_t size) noexcept { size_ = size; }

 private:
  struct Memory {
    std::atomic<std::size_t> owners;
    std::size_t capacity;
  };
  // With the memory's head, a size that allocators keep at hand; most blocks fit.
  static constexpr std::size_t kFirstBytes = 256 - sizeof(Memory);

  char* bytes() const noexcept { return reinterpret_cast<char*>(memory_ + 1); }
  bool is_alone() const noexcept { return memory_->owners.load(std::memory_order_acquire) == 1; }

  // Large bytes get little room behind them: they are copied if it does not suffice, but unused
  // room would cost as much as they do.
  std::size_t new_capacity(std::size_t count) const {
    constexpr std::size_t most = static_cast<std::size_t>(-1) / 4;
    if (count > most || size_ > most) throw std::bad_alloc();
    return std::max({kFirstBytes, size_ + count + count / 8, 2 * size_});
  }

  void move_to(std::size_t capacity) {
    const std::size_t whole = sizeof(Memory) + capacity;
    platform::expect_large_piece(whole);
    void* const piece = ::operator new(whole);
    platform::prefer_large_pages(piece, whole);
    auto* const memory = new (piece) Memory{1, capacity};
    if (size_ != 0) std::memcpy(reinterpret_cast<char*>(memory + 1), bytes(), size_);
    release();
    memory_ = memory;
  }

  void release() noexcept {
    if (memory_ == nullptr || memory_->owners.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    ::operator delete(memory_);
  }

  Memory* memory_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace tolk
