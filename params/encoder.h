// Appends the records of one block to a buffer.
//
// The buffer is anything that offers `append(const char*, std::size_t)` and `size()`: a
// std::string, or the memory of a frame that was allocated in one piece with the sizes of record.h.
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
    char record[int_record_bytes] = {static_cast<char>(Tag::Int)};
    store32(record + 1, static_cast<std::uint32_t>(value));
    append_checked(record);
  }

  void add_bool(bool value) {
    char record[bool_record_bytes] = {static_cast<char>(Tag::Bool), value ? '1' : '0'};
    append_checked(record);
  }

  void add_double(double value) {
    char record[double_record_bytes] = {static_cast<char>(Tag::Double)};
    store64(record + 1, std::bit_cast<std::uint64_t>(value));
    append_checked(record);
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
    const char tag = static_cast<char>(Tag::KeyValue);
    buffer_.append(&tag, 1);
    add_string(key);
  }

  // `count` scalar records must follow.
  void add_list_header(std::uint32_t count) { append_header(Tag::List, count); }

  // Appends whole records that were encoded at the start of a block. Call it only at the start of
  // this block, where their check words are right.
  void add_encoded(std::string_view records) { buffer_.append(records.data(), records.size()); }

 private:
  // Fills in the check word, which is the last four bytes of `record`, and appends the record.
  template <std::size_t Size>
  void append_checked(char (&record)[Size]) {
    store32(record + Size - 4, position() + static_cast<std::uint32_t>(Size - 4));
    buffer_.append(record, Size);
  }

  void add_bytes(Tag tag, std::string_view bytes) {
    // The length has 32 bits, so at most that many bytes may follow.
    const auto size = static_cast<std::uint32_t>(bytes.size());
    append_header(tag, size);
    if (size > 0) buffer_.append(bytes.data(), size);
    append_check_word();
  }

  void append_check_word() {
    char check_word[4];
    store32(check_word, position());
    buffer_.append(check_word, sizeof check_word);
  }

  void append_header(Tag tag, std::uint32_t word) {
    char header[5] = {static_cast<char>(tag)};
    store32(header + 1, word);
    buffer_.append(header, sizeof header);
  }

  std::uint32_t position() const { return static_cast<std::uint32_t>(buffer_.size() - base_); }

  Buffer& buffer_;
  const std::size_t base_;
};

}  // namespace tolk
