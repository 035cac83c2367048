#include "capi/record_buffer.h"

#include <algorithm>
#include <new>

#include "platform/large_memory.h"

namespace tolk {

void RecordBuffer::copy(const RecordBuffer& other) {
  clear();
  if (other.is_in_room()) {
    make_room(other.size_);
    if (other.size_ != 0) append(other.bytes_, other.size_);
    return;
  }
  memory_ = other.memory_;
  memory_->owners.fetch_add(1, std::memory_order_relaxed);
  bytes_ = other.bytes_;
  size_ = other.size_;
  capacity_ = other.capacity_;
}

// Large bytes get little room behind them: they are copied if it does not suffice, but unused
// room would cost as much as they do.
std::size_t RecordBuffer::new_capacity(std::size_t count) const {
  constexpr std::size_t most = static_cast<std::size_t>(-1) / 4;
  if (count > most || size_ > most) throw std::bad_alloc();
  return std::max({kFirstBytes, size_ + count + count / 8, 2 * size_});
}

void RecordBuffer::grow(std::size_t count) {
  const std::size_t capacity = new_capacity(count);
  const std::size_t whole = sizeof(Memory) + capacity;
  platform::expect_large_piece(whole);
  void* const piece = ::operator new(whole);
  platform::prefer_large_pages(piece, whole);
  auto* const memory = new (piece) Memory{1};
  char* const bytes = reinterpret_cast<char*>(memory + 1);
  if (size_ != 0) std::memcpy(bytes, bytes_, size_);
  release();
  memory_ = memory;
  bytes_ = bytes;
  capacity_ = capacity;
}

}  // namespace tolk
