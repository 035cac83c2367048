#include "tools/tolk/block.h"

#include <fmt/format.h>

#include <bit>
#include <utility>

namespace tolk::tool {
namespace {

enum Tag : unsigned { kInt, kBool, kDouble, kString, kStream, kKeyed, kList, kMap };

constexpr std::size_t kWordBytes = 4;

std::string_view cut_at_zero(std::string_view key) { return key.substr(0, key.find('\0')); }

// The steps through one block. Each step is false once the block has a flaw.
class Reader {
 public:
  Reader(std::string_view input, Block& block) : input_(input), block_(block) {}

  void run() {
    while (at_ < input_.size()) {
      Record record;
      record.offset = at_;
      const bool whole = top_level(record);
      // A record that the block ends in is not shown; a value whose check word is wrong is, and so
      // are the elements before a flaw.
      if (whole || record.type != TolkValue::None) block_.records.push_back(std::move(record));
      if (!whole) return;
    }
  }

 private:
  bool top_level(Record& record) {
    const unsigned tag = tag_at(at_);
    if (tag <= kStream) return scalar(record);
    if (tag == kKeyed) return keyed(record);
    if (tag == kList) {
      record.type = TolkValue::List;
      return elements(
          record, [](unsigned next) { return next <= kStream; }, &Reader::scalar);
    }
    if (tag == kMap) {
      record.type = TolkValue::Map;
      return elements(
          record, [](unsigned next) { return next == kKeyed; }, &Reader::keyed);
    }
    return fail(at_, fmt::format("0x{:02x} begins no record", tag));
  }

  bool scalar(Record& record) {
    const unsigned tag = tag_at(at_);
    switch (tag) {
      case kInt:
        if (!need(5, "an int")) return false;
        record.type = TolkValue::Int;
        record.integer = static_cast<std::int32_t>(word_at(at_ + 1));
        return check_word(at_ + 5);
      case kBool:
        if (!need(2, "a bool")) return false;
        record.type = TolkValue::Bool;
        record.boolean = input_[at_ + 1] == '1';
        return check_word(at_ + 2);
      case kDouble: {
        if (!need(9, "a double")) return false;
        const std::uint64_t high = word_at(at_ + 5);
        record.type = TolkValue::Double;
        record.real = std::bit_cast<double>(high << 32 | word_at(at_ + 1));
        return check_word(at_ + 9);
      }
      default:
        return text(record, tag == kString ? TolkValue::String : TolkValue::Stream);
    }
  }

  bool text(Record& record, TolkValue::Type type) {
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

  // A key and its value. A key that no scalar follows is forgotten by all readers.
  bool keyed(Record& record) {
    const std::size_t begin = at_++;
    if (at_ >= input_.size()) return fail(begin, "the block ends within a key");
    if (tag_at(at_) != kString) {
      return fail(at_, fmt::format("a key is a string, not 0x{:02x}", tag_at(at_)));
    }
    Record key;
    if (!text(key, TolkValue::String)) return false;
    record.key = key.bytes;
    if (at_ >= input_.size()) return fail(at_, "the block ends behind a key");
    return tag_at(at_) > kStream || scalar(record);
  }

  // A count of 0 or below is empty; what is no element ends the list, and is read as what it is.
  template <class IsElement>
  bool elements(Record& record, IsElement is_element, bool (Reader::*read)(Record&)) {
    if (!need(1 + kWordBytes, to_string(record.type))) return false;
    const auto count = static_cast<std::int32_t>(word_at(at_ + 1));
    at_ += 1 + kWordBytes;
    for (std::int32_t i = 0; i < count; ++i) {
      if (at_ >= input_.size()) {
        return fail(at_, fmt::format("a {} of {}, but the block ends behind {}",
                                     to_string(record.type), count, i));
      }
      if (!is_element(tag_at(at_))) return true;
      Record element;
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
      return fail(at, fmt::format("the check word says {}, and stands at {}", word, at));
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

  unsigned tag_at(std::size_t at) const { return static_cast<unsigned char>(input_[at]); }
  std::uint32_t word_at(std::size_t at) const { return read_word(input_.substr(at)); }

  const std::string_view input_;
  Block& block_;
  std::size_t at_ = 0;
};

}  // namespace

const char* to_string(TolkValue::Type type) {
  static constexpr const char* kNames[] = {"nothing", "bool",   "int",  "double",
                                           "string",  "stream", "list", "map"};
  return kNames[type];
}

// A later key wins. Every key, also one inside a map, drops an earlier value of its text up to the
// first zero byte; a string or a stream is then stored under the whole of it.
const Record* Block::find(std::string_view wanted) const {
  const Record* found = nullptr;
  for (const Record& record : records) {
    for (const Record& entry : record.elements) {
      if (entry.key && cut_at_zero(*entry.key) == wanted) found = nullptr;
    }
    if (!record.key || cut_at_zero(*record.key) != wanted) continue;
    const bool under_longer_key = record.has_bytes() && *record.key != wanted;
    found = record.type == TolkValue::None || under_longer_key ? nullptr : &record;
  }
  return found;
}

Block read_block(std::string_view bytes) {
  Block block;
  Reader(bytes, block).run();
  return block;
}

std::uint32_t read_word(std::string_view bytes) {
  std::uint32_t word = 0;
  for (unsigned i = 0; i < kWordBytes; ++i) {
    word |= std::uint32_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
  }
  return word;
}

}  // namespace tolk::tool
