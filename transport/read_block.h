// Where the reads of one loop thread put their bytes.
//
// Thread: the loop thread. Owner: the session; a message that shares the memory keeps it.
// Failure: no memory gives an empty place.
#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "params/shared_bytes.h"
#include "platform/guarded.h"

namespace tolk {

// The bytes of one read after the other. A large message that fills a good part of it keeps it; the
// next read then gets another.
class ReadBlock {
 public:
  // Empty without memory.
  std::span<char> get(std::size_t size) {
    if (size_ < size) {
      guarded([&] {
        memory_ = std::make_shared_for_overwrite<char[]>(size);
        size_ = size;
      });
    }
    return {memory_.get(), size_};
  }

  // Makes `message` an owner of the block if it lies in it and is large.
  void share_with(SharedBytes& message) {
    if (message.view.size() < size_ / 2 || message.owner || !holds(message.view)) return;
    message.owner = memory_;
    is_shared_ = true;
  }

  void end_of_read() {
    if (std::exchange(is_shared_, false)) *this = ReadBlock();
  }

 private:
  bool holds(std::string_view bytes) const {
    const std::less_equal<const char*> before;
    return before(memory_.get(), bytes.data()) && before(bytes.data(), memory_.get() + size_);
  }

  std::shared_ptr<char[]> memory_;
  std::size_t size_ = 0;
  bool is_shared_ = false;
};

}  // namespace tolk
