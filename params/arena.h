// Encoded bytes that a block or its values look into, and memory for the values beside them.
//
// A parse makes one arena: its values, and the texts in them, need no memory of their own. A block
// whose bytes are shared has an arena too.
// Thread: any thread may count and read. `allocate`, `array` and `set_text_ends` belong to the
// parse that has made the arena, before it hands out values. Owner: counted. The block holds it,
// each living value in it holds it, and so does each holder of its bytes; the last one frees all.
// Failure: std::bad_alloc.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "params/counted_ref.h"
#include "params/shared_bytes.h"

namespace tolk {

class Arena {
 public:
  // Each makes an arena that one holder has. `room`: about how much `allocate` will be asked for.
  static Arena* with_copy(std::string_view bytes, std::size_t room);
  static Arena* with_string(std::string&& bytes, std::size_t room);  // moves only if it succeeds
  static Arena* with_shared(const SharedBytes& bytes, std::size_t room);

  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;

  void retain() noexcept { holders_.fetch_add(1, std::memory_order_relaxed); }
  // As retain, while only one thread knows the arena.
  void retain_alone() noexcept {
    holders_.store(holders_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  void release(std::size_t count = 1) noexcept {
    // Nobody else holds the arena, so nobody else can count.
    const bool last = holders_.load(std::memory_order_acquire) == count ||
                      holders_.fetch_sub(count, std::memory_order_acq_rel) == count;
    if (last) destroy();
  }
  bool has_one_holder() const noexcept { return holders_.load(std::memory_order_acquire) == 1; }

  // The bytes as they lie here: with ends of texts, if there are any.
  std::string_view bytes() const noexcept { return bytes_; }
  // Texts in the bytes end with a zero, which has taken the place of a byte of a check word.
  bool has_text_ends() const noexcept { return encoded_until_ != 0; }
  // The bytes as they came.
  std::string encoded() const;
  // The same for the only holder, who is done with the arena.
  std::string take_encoded();

  // Memory for any scalar type or value. Only the arena's end frees it.
  void* allocate(std::size_t size) {
    const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
    if (rounded > static_cast<std::size_t>(end_ - next_)) add_chunk(rounded);
    return std::exchange(next_, next_ + rounded);
  }
  // A copy of `text` with a zero behind it.
  const char* copy_text(std::string_view text) {
    char* const copy = static_cast<char*>(allocate(text.size() + 1));
    if (!text.empty()) std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
  }
  // Puts a zero behind a text inside the bytes. The check word that lies there has been tested.
  static void end_text(std::string_view text) noexcept {
    const_cast<char*>(text.data())[text.size()] = '\0';
  }
  // Texts have been ended. `until`: the offset to which the bytes are well formed.
  void set_text_ends(std::uint64_t until) noexcept { encoded_until_ = until; }

 private:
  static constexpr std::size_t alignment = 8;
  // What malloc keeps at hand for the thread when it is freed; one byte more is much slower.
  static constexpr std::size_t quick_bytes = 1024;
  static constexpr std::size_t least_chunk_bytes = 4096;
  static constexpr std::size_t most_chunk_bytes = std::size_t{1} << 20;
  struct alignas(alignment) Chunk {
    Chunk* before;
    std::size_t usual;  // its size, unless one piece of memory needed more
  };

  Arena(char* begin, char* end) : next_(begin), end_(end) {}
  ~Arena();
  static Arena* make(std::size_t inside_bytes, std::size_t room);
  void destroy() noexcept;
  void add_chunk(std::size_t least);
  void restore(char* bytes) const;

  std::atomic<std::size_t> holders_ = 1;
  std::string_view bytes_;
  std::uint64_t encoded_until_ = 0;
  std::string string_;                 // where the bytes lie in one
  std::shared_ptr<const void> owner_;  // where the bytes are those of others
  char* next_;
  char* end_;
  Chunk* chunks_ = nullptr;
};

// A sequence in the memory of an arena, which must outlive it. What it outgrows is left there.
template <class T>
class ArenaArray {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  T* begin() const noexcept { return items_; }
  T* end() const noexcept { return items_ + size_; }
  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  T& operator[](std::size_t index) const noexcept { return items_[index]; }
  T& back() const noexcept { return items_[size_ - 1]; }

  void push_back(Arena& arena, T item) { add(arena) = item; }
  // A new item at the end, which the caller fills.
  T& add(Arena& arena) {
    if (size_ == capacity_) reserve(arena, size_ == 0 ? 4 : 2 * size_);
    return items_[size_++];
  }
  void pop_back() noexcept { --size_; }
  void cut(std::size_t size) noexcept { size_ = size; }
  void reserve(Arena& arena, std::size_t capacity) {
    // An item may be a pointer.
    const std::size_t bytes = capacity * sizeof(T);  // NOLINT(bugprone-sizeof-expression)
    T* const larger = static_cast<T*>(arena.allocate(bytes));
    std::copy(begin(), end(), larger);
    items_ = larger;
    capacity_ = capacity;
  }

 private:
  T* items_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

using ArenaRef = CountedRef<Arena>;

}  // namespace tolk
