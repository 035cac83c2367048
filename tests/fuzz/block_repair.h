// Turns changed bytes back into a block, in place, so that the fuzzer gets past the first check
// word.
//
// A list header, a map header and a key's tag are only prefixes of the scalar records that follow.
// So one flat walk finds every check word, whatever nests in what.
// Thread: any. Owner: borrows the bytes. Failure: none; the walk stops where no record can begin.
#pragma once

#include <cstddef>
#include <cstdint>

#include "params/record.h"

namespace tolk::test {

class BlockRepair {
 public:
  BlockRepair(char* block, std::size_t size) : block_(block), size_(size) {}

  // From now on the first text after a whole record gets a length near 2^32 that, where sums wrap
  // around, leads back to the check word of that record. The walk ends there.
  void bend_a_length() { bend_ = true; }

  // Returns where the last whole record ends.
  std::size_t run() {
    while (offset_ < size_ && record()) {
    }
    return offset_;
  }

 private:
  bool record() {
    switch (static_cast<Tag>(block_[offset_])) {
      case Tag::Int:
        return scalar(1 + 4);
      case Tag::Bool:
        return scalar(1 + 1);
      case Tag::Double:
        return scalar(1 + 8);
      case Tag::String:
      case Tag::Stream:
        return text();
      case Tag::KeyValue:
        return key();
      case Tag::List:
      case Tag::Map:
        return header();
    }
    return false;
  }

  bool scalar(std::size_t bytes) {
    if (!fits(bytes + 4)) return false;
    last_check_ = offset_ + bytes;
    store32(block_ + last_check_, static_cast<std::uint32_t>(last_check_));
    offset_ = last_check_ + 4;
    return true;
  }

  // A length that reaches too far is made one that does not.
  bool text() {
    if (!fits(string_record_bytes(0))) return false;
    if (bend_ && last_check_ > 0) {
      store32(block_ + offset_ + 1, static_cast<std::uint32_t>(last_check_ - (offset_ + 5)));
      return false;
    }
    const std::size_t room = size_ - offset_ - string_record_bytes(0);
    const std::size_t length = load32(block_ + offset_ + 1) % (room + 1);
    store32(block_ + offset_ + 1, static_cast<std::uint32_t>(length));
    return scalar(1 + 4 + length);
  }

  // The key's value is walked over as the next record.
  bool key() {
    if (!fits(1 + string_record_bytes(0))) return false;
    ++offset_;
    block_[offset_] = static_cast<char>(Tag::String);
    return text();
  }

  // A small count, which the records that follow have a chance to fill.
  bool header() {
    if (!fits(list_header_bytes)) return false;
    store32(block_ + offset_ + 1, load32(block_ + offset_ + 1) % 8);
    offset_ += list_header_bytes;
    return true;
  }

  bool fits(std::size_t bytes) const { return bytes <= size_ - offset_; }

  char* const block_;
  const std::size_t size_;
  std::size_t offset_ = 0;
  std::size_t last_check_ = 0;
  bool bend_ = false;
};

}  // namespace tolk::test
