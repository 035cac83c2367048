// Appends the records of one block to a buffer.
//
// The buffer is anything that offers `append(const char*, std::size_t)` and `size()`: a
// std::string, or the memory of a frame that was allocated in one piece with the sizes of record.h.
// One that has room for whole records may offer `extend(std::size_t)`, which returns where they go:
// a record that is put together elsewhere must wait for its bytes before it can be copied. One that
// only counts may offer `skip(std::size_t)` instead.
// Thread: the one that uses the buffer. Owner: the caller owns the buffer.
// Failure: what the buffer's `append` throws. The record is then incomplete, so callers make room
// first.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "params/record.h"

namespace tolk {

template <class Buffer>
class Encoder {
 public:
  // `base`: the buffer size at which the block starts; check words count from there.
  Encoder(Buffer& buffer, std::size_t base) : buffer_(buffer), base_(base) {}

  void add_int(std::int32_t value) {
    append_checked<int_record_bytes>(
        Tag::Int, [value](char* to) { store32(to, static_cast<std::uint32_t>(value)); });
  }

  void add_bool(bool value) {
    append_checked<bool_record_bytes>(Tag::Bool, [value](char* to) { *to = value ? '1' : '0'; });
  }

  void add_double(double value) {
    append_checked<double_record_bytes>(
        Tag::Double, [value](char* to) { store64(to, std::bit_cast<std::uint64_t>(value)); });
  }

  // The bytes are written as they are: the caller cuts a text at its first zero byte.
  void add_string(std::string_view text) { add_bytes(Tag::String, text); }
  void add_stream(std::string_view data) { add_bytes(Tag::Stream, data); }

  // A stream record around bytes that come part by part, `size` in all.
  void begin_stream(std::size_t size) {
    append_header(Tag::Stream, static_cast<std::uint32_t>(size));
  }
  void add_part(std::string_view part) { buffer_.append(part.data(), part.size()); }
  void end_stream() { append_check_word(); }

  // The first half of a key-and-value record. The value's record must follow.
  void add_key(std::string_view key) {
    append_written<1>([](char* to) { *to = static_cast<char>(Tag::KeyValue); });
    add_string(key);
  }

  // `count` scalar records must follow.
  void add_list_header(std::uint32_t count) { append_header(Tag::List, count); }

  // Appends whole records that were encoded at the start of a block. Call it only at the start of
  // this block, where their check words are right.
  void add_encoded(std::string_view records) { buffer_.append(records.data(), records.size()); }

 private:
  // Appends what `write` writes.
  template <std::size_t Size, class Write>
  void append_written(const Write& write) {
    if constexpr (requires(Buffer & buffer) { buffer.skip(Size); }) {
      buffer_.skip(Size);
    } else if constexpr (requires(Buffer & buffer) { buffer.extend(Size); }) {
      write(buffer_.extend(Size));
    } else {
      char bytes[Size];
      write(bytes);
      buffer_.append(bytes, Size);
    }
  }

  // A record whose value `write_value` writes. The check word is its last four bytes.
  template <std::size_t Size, class WriteValue>
  void append_checked(Tag tag, const WriteValue& write_value) {
    const std::uint32_t check_word = position() + static_cast<std::uint32_t>(Size - 4);
    append_written<Size>([&](char* record) {
      *record = static_cast<char>(tag);
      write_value(record + 1);
      store32(record + Size - 4, check_word);
    });
  }

  void add_bytes(Tag tag, std::string_view bytes) {
    // The length has 32 bits, so at most that many bytes may follow.
    const auto size = static_cast<std::uint32_t>(bytes.size());
    append_header(tag, size);
    if (size > 0) buffer_.append(bytes.data(), size);
    append_check_word();
  }

  void append_check_word() {
    const std::uint32_t check_word = position();
    append_written<4>([&](char* to) { store32(to, check_word); });
  }

  void append_header(Tag tag, std::uint32_t word) {
    append_written<5>([&](char* header) {
      *header = static_cast<char>(tag);
      store32(header + 1, word);
    });
  }

  std::uint32_t position() const { return static_cast<std::uint32_t>(buffer_.size() - base_); }

  Buffer& buffer_;
  const std::size_t base_;
};

}  // namespace tolk
