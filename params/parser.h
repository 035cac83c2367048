// The parser of encoded blocks: hands every value to a sink, in wire order.
//
// One sink fills a block with values, and another picks the envelope keys of a received frame. Both
// use this parser, so they agree on what is malformed.
//
// A sink offers:
//   positional(const Scalar&)
//   erase_key(std::string_view cut_key)              a keyed value of that key is dropped now
//   keyed(std::string_view key, const Scalar&)       stored, replacing any earlier one
//   begin_list(), list_element(const Scalar&), end_list()
//   begin_map(), map_entry(std::string_view cut_key, const Scalar&), end_map()
//
// Thread: any; there is no state. Owner: the caller owns the input; views point into it.
// Failure: false at the first malformed record. The sink keeps what was delivered before, and
// discards a list or map that has begun and not ended. A sink may throw.
// Cost: linear in the size of the input, for any counts and lengths that the input declares.
// Nothing is allocated.
#pragma once

#include <tolk/TolkValue.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "params/record.h"
#include "platform/text.h"

namespace tolk {

// A value of the input. Only the member that `type` names is meaningful.
struct Scalar {
  TolkValue::Type type = TolkValue::None;
  bool boolean = false;
  std::int32_t integer = 0;
  double real = 0;
  std::string_view bytes;  // String, Stream
  bool checked = false;    // the check word behind it is right, and is not read again

  bool has_bytes() const { return type == TolkValue::String || type == TolkValue::Stream; }
};

// The sink that keeps nothing. A sink that keeps some values derives from it.
struct IgnoringSink {
  void positional(const Scalar&) {}
  void erase_key(std::string_view) {}
  void keyed(std::string_view, const Scalar&) {}
  void begin_list() {}
  void list_element(const Scalar&) {}
  void end_list() {}
  void begin_map() {}
  void map_entry(std::string_view, const Scalar&) {}
  void end_map() {}
};

// Whether the check word at `at` of a block is right.
struct TestCheckWord {
  bool operator()(const char* word, std::uint64_t at) const {
    return load32(word) == static_cast<std::uint32_t>(at);
  }
};

// The steps of parse_records. Offsets have 64 bits, so that no declared length makes them wrap.
template <class Sink, class CheckWord = TestCheckWord>
class RecordParser {
 public:
  RecordParser(std::string_view input, Sink& sink, CheckWord check_word = {})
      : input_(input), sink_(sink), check_word_(check_word) {}

  bool run() {
    while (offset_ < input_.size()) {
      if (!top_level_record()) return false;
    }
    return true;
  }

  // The input before it is well formed; check words before it are not read again.
  std::uint64_t offset() const { return offset_; }

 private:
  bool top_level_record() {
    switch (tag_at(offset_)) {
      case Tag::Int:
      case Tag::Bool:
      case Tag::Double:
      case Tag::String:
      case Tag::Stream:
        return scalar_record([this](const Scalar& value) { sink_.positional(value); });
      case Tag::KeyValue:
        return key_and_value();
      case Tag::List:
        return list();
      case Tag::Map:
        return map();
    }
    return false;
  }

  // On purpose: the value is delivered whether or not its check word is right.
  template <class Deliver>
  bool scalar_record(Deliver&& deliver) {
    Scalar value;
    std::uint64_t end = 0;
    if (!read_scalar(value, end)) return false;
    value.checked = is_check_word(end);
    deliver(value);
    if (value.checked) offset_ = end + 4;
    return value.checked;
  }

  // Reads the scalar record at the offset. `end` is the position of its check word.
  bool read_scalar(Scalar& value, std::uint64_t& end) const {
    const std::uint64_t at = offset_ + 1;
    switch (tag_at(offset_)) {
      case Tag::Int:
        if (!inside(at, 4)) return false;
        value.type = TolkValue::Int;
        value.integer = load_int(bytes_at(at));
        end = at + 4;
        return true;
      case Tag::Bool:
        if (!inside(at, 1)) return false;
        value.type = TolkValue::Bool;
        value.boolean = *bytes_at(at) == '1';
        end = at + 1;
        return true;
      case Tag::Double:
        if (!inside(at, 8)) return false;
        value.type = TolkValue::Double;
        value.real = load_double(bytes_at(at));
        end = at + 8;
        return true;
      case Tag::String:
        value.type = TolkValue::String;
        return read_bytes(at, value.bytes, end);
      case Tag::Stream:
        value.type = TolkValue::Stream;
        return read_bytes(at, value.bytes, end);
      default:
        return false;
    }
  }

  bool read_bytes(std::uint64_t at, std::string_view& bytes, std::uint64_t& end) const {
    if (!inside(at, 4)) return false;
    const std::uint64_t size = load32(bytes_at(at));
    if (!inside(at + 4, size)) return false;
    bytes = std::string_view(bytes_at(at + 4), static_cast<std::size_t>(size));
    end = at + 4 + size;
    return true;
  }

  bool key_and_value() {
    std::string_view key;
    if (!read_key(key)) return false;
    const std::string_view cut_key = cut_at_zero(key);
    sink_.erase_key(cut_key);
    if (!inside(offset_, 1)) return false;
    // On purpose: a key without a scalar is ignored, and what follows it is a top-level record.
    if (!is_scalar(tag_at(offset_))) return true;
    // On purpose: only the keys of strings and streams keep the bytes after a zero byte.
    return scalar_record(
        [&](const Scalar& value) { sink_.keyed(value.has_bytes() ? key : cut_key, value); });
  }

  // Reads the key record after a key-and-value tag and moves on to the value.
  bool read_key(std::string_view& key) {
    if (!inside(offset_, 10) || tag_at(offset_ + 1) != Tag::String) return false;
    const std::int32_t size = load_int(bytes_at(offset_ + 2));
    const std::uint64_t at = offset_ + 6;
    if (size < 0 || !inside(at, static_cast<std::uint64_t>(size))) return false;
    key = std::string_view(bytes_at(at), static_cast<std::size_t>(size));
    return pass_check_word(at + key.size());
  }

  bool list() {
    std::int32_t count = 0;
    if (!read_count(count)) return false;
    sink_.begin_list();
    for (; count > 0; --count) {
      if (!inside(offset_, 1)) return false;
      // On purpose: this is not a failure. The list ends here, and this byte is read as the start
      // of a top-level record.
      if (!is_scalar(tag_at(offset_))) break;
      if (!scalar_record([this](const Scalar& value) { sink_.list_element(value); })) return false;
    }
    sink_.end_list();
    return true;
  }

  bool map() {
    std::int32_t count = 0;
    if (!read_count(count)) return false;
    sink_.begin_map();
    for (; count > 0; --count) {
      if (!inside(offset_, 1)) return false;
      if (tag_at(offset_) != Tag::KeyValue) break;  // as in a list
      if (!read_map_entry()) return false;
    }
    sink_.end_map();
    return true;
  }

  bool read_map_entry() {
    std::string_view key;
    if (!read_key(key)) return false;
    const std::string_view cut_key = cut_at_zero(key);
    // On purpose: a key inside a map also drops the block's own keyed value of that name.
    sink_.erase_key(cut_key);
    if (!inside(offset_, 1)) return false;
    if (!is_scalar(tag_at(offset_))) return true;
    return scalar_record([&](const Scalar& value) { sink_.map_entry(cut_key, value); });
  }

  // The count of a list or map, which no check word follows. Not above 0 means empty.
  bool read_count(std::int32_t& count) {
    if (!inside(offset_, list_header_bytes)) return false;
    count = load_int(bytes_at(offset_ + 1));
    offset_ += list_header_bytes;
    return true;
  }

  bool pass_check_word(std::uint64_t at) {
    if (!is_check_word(at)) return false;
    offset_ = at + 4;
    return true;
  }

  bool is_check_word(std::uint64_t at) const {
    return inside(at, 4) && check_word_(bytes_at(at), at);
  }

  static bool is_scalar(Tag tag) { return tag <= Tag::Stream; }

  bool inside(std::uint64_t at, std::uint64_t size) const { return at + size <= input_.size(); }

  const char* bytes_at(std::uint64_t at) const {
    return input_.data() + static_cast<std::size_t>(at);
  }

  Tag tag_at(std::uint64_t at) const {
    return static_cast<Tag>(static_cast<unsigned char>(*bytes_at(at)));
  }

  const std::string_view input_;
  Sink& sink_;
  const CheckWord check_word_;
  std::uint64_t offset_ = 0;
};

// True when the whole input is well formed. An empty input is.
template <class Sink>
bool parse_records(std::string_view input, Sink& sink) {
  return RecordParser<Sink>(input, sink).run();
}

}  // namespace tolk
