#include "tools/tolk/wire/decoded_block.h"

#include <fmt/format.h>

#include <utility>

#include "params/record.h"
#include "platform/text.h"

namespace tolk::tool {
namespace {

constexpr std::size_t kWordBytes = 4;

bool is_scalar(Tag tag) { return tag <= Tag::Stream; }

// The steps through one block. Each step is false once the block has a flaw.
class BlockDecoder {
 public:
  BlockDecoder(std::string_view input, DecodedBlock& block) : input_(input), block_(block) {}

  void run() {
    while (at_ < input_.size()) {
      DecodedRecord record;
      record.offset = at_;
      const bool whole = top_level(record);
      // A record that is cut off by the end of the block is left out. A value with a wrong check
      // word is kept, and so are the elements before a flaw.
      if (whole || record.type != TolkValue::None) block_.records.push_back(std::move(record));
      if (!whole) return;
    }
  }

 private:
  bool top_level(DecodedRecord& record) {
    const Tag tag = tag_at(at_);
    if (is_scalar(tag)) return scalar(record);
    if (tag == Tag::KeyValue) return keyed(record);
    if (tag == Tag::List) {
      record.type = TolkValue::List;
      return elements(record, is_scalar, &BlockDecoder::scalar);
    }
    if (tag == Tag::Map) {
      record.type = TolkValue::Map;
      return elements(
          record, [](Tag next) { return next == Tag::KeyValue; }, &BlockDecoder::keyed);
    }
    return fail(at_, fmt::format("0x{:02x} does not begin a record", number_of(tag)));
  }

  bool scalar(DecodedRecord& record) {
    const Tag tag = tag_at(at_);
    switch (tag) {
      case Tag::Int:
        if (!need(5, "an int")) return false;
        record.type = TolkValue::Int;
        record.integer = static_cast<std::int32_t>(word_at(at_ + 1));
        return check_word(at_ + 5);
      case Tag::Bool:
        if (!need(2, "a bool")) return false;
        record.type = TolkValue::Bool;
        record.boolean = input_[at_ + 1] == '1';
        return check_word(at_ + 2);
      case Tag::Double:
        if (!need(9, "a double")) return false;
        record.type = TolkValue::Double;
        record.real = load_double(input_.data() + at_ + 1);
        return check_word(at_ + 9);
      default:
        return text(record, tag == Tag::String ? TolkValue::String : TolkValue::Stream);
    }
  }

  bool text(DecodedRecord& record, TolkValue::Type type) {
    const char* const what = type == TolkValue::String ? "a string" : "a stream";
    if (!need(1 + kWordBytes, what)) return false;
    const std::size_t size = word_at(at_ + 1);
    const std::size_t left = input_.size() - at_ - 1 - kWordBytes;
    if (size > left) {
      return fail(at_, fmt::format("{} of {} bytes, but {} are left", what,
                                   static_cast<std::int32_t>(size), left));
    }
    record.type = type;
    record.bytes = input_.substr(at_ + 1 + kWordBytes, size);
    return check_word(at_ + 1 + kWordBytes + size);
  }

  // A key and its value. Receivers ignore a key that is not followed by a scalar.
  bool keyed(DecodedRecord& record) {
    const std::size_t begin = at_++;
    if (at_ >= input_.size()) return fail(begin, "the block ends within a key");
    if (tag_at(at_) != Tag::String) {
      return fail(at_, fmt::format("a key is a string, not 0x{:02x}", number_of(tag_at(at_))));
    }
    DecodedRecord key;
    if (!text(key, TolkValue::String)) return false;
    record.key = key.bytes;
    if (at_ >= input_.size()) return fail(at_, "the block ends after a key");
    return !is_scalar(tag_at(at_)) || scalar(record);
  }

  // A count of 0 or less means no elements. A record that cannot be an element ends the list and is
  // read as a record of the block.
  template <class IsElement>
  bool elements(DecodedRecord& record, IsElement is_element,
                bool (BlockDecoder::*read)(DecodedRecord&)) {
    if (!need(1 + kWordBytes, to_string(record.type))) return false;
    const auto count = static_cast<std::int32_t>(word_at(at_ + 1));
    at_ += 1 + kWordBytes;
    for (std::int32_t i = 0; i < count; ++i) {
      if (at_ >= input_.size()) {
        return fail(at_, fmt::format("a {} of {}, but the block ends after {}",
                                     to_string(record.type), count, i));
      }
      if (!is_element(tag_at(at_))) return true;
      DecodedRecord element;
      element.offset = at_;
      if (!(this->*read)(element)) return false;
      record.elements.push_back(std::move(element));
    }
    return true;
  }

  bool check_word(std::size_t at) {
    if (input_.size() - at < kWordBytes) return fail(at, "the block ends within a check word");
    const std::uint32_t word = word_at(at);
    if (word != static_cast<std::uint32_t>(at)) {
      return fail(at, fmt::format("the check word is {}, but its offset is {}", word, at));
    }
    at_ = at + kWordBytes;
    return true;
  }

  bool need(std::size_t size, std::string_view what) {
    if (input_.size() - at_ >= size) return true;
    return fail(at_, fmt::format("the block ends within {}", what));
  }

  bool fail(std::size_t offset, std::string reason) {
    block_.flaw = Flaw{offset, std::move(reason)};
    return false;
  }

  Tag tag_at(std::size_t at) const {
    return static_cast<Tag>(static_cast<unsigned char>(input_[at]));
  }
  static unsigned number_of(Tag tag) { return static_cast<unsigned>(tag); }
  std::uint32_t word_at(std::size_t at) const { return load32(input_.data() + at); }

  const std::string_view input_;
  DecodedBlock& block_;
  std::size_t at_ = 0;
};

}  // namespace

const char* to_string(TolkValue::Type type) {
  static constexpr const char* kNames[] = {"nothing", "bool",   "int",  "double",
                                           "string",  "stream", "list", "map"};
  return kNames[type];
}

// A later key wins. Every key, also inside a map, removes an earlier value whose key is the same up
// to the first zero byte. The value of a string or stream is stored under the whole key.
const DecodedRecord* DecodedBlock::find(std::string_view wanted) const {
  const DecodedRecord* found = nullptr;
  for (const DecodedRecord& record : records) {
    for (const DecodedRecord& entry : record.elements) {
      if (entry.key && cut_at_zero(*entry.key) == wanted) found = nullptr;
    }
    if (!record.key || cut_at_zero(*record.key) != wanted) continue;
    const bool under_longer_key = record.has_bytes() && *record.key != wanted;
    found = record.type == TolkValue::None || under_longer_key ? nullptr : &record;
  }
  return found;
}

DecodedBlock decode_block(std::string_view bytes) {
  DecodedBlock block;
  BlockDecoder(bytes, block).run();
  return block;
}

}  // namespace tolk::tool
