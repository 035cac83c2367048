#include "tests/e2e/support/raw_block.h"

#include <cstring>

namespace tolk::test {
namespace {

// Reads records from the front; failed() after the first malformed one.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  bool at_end() const { return failed_ || at_ >= bytes_.size(); }
  bool failed() const { return failed_; }
  char next_tag() const { return at_ < bytes_.size() ? bytes_[at_] : '\x7f'; }
  void skip_tag() { ++at_; }

  std::uint32_t word() {
    const std::string_view four = take(4);
    return failed_ ? 0 : word_at(four);
  }

  Scalar scalar() {
    const char tag = next_tag();
    skip_tag();
    Scalar value;
    switch (tag) {
      case kIntTag:
        value = static_cast<int>(word());
        break;
      case kBoolTag:
        value = take(1) == "1";
        break;
      case kDoubleTag:
        value = real();
        break;
      case kStringTag:
        value = std::string(take(word()));
        break;
      case kStreamTag:
        value = Stream{std::string(take(word()))};
        break;
      default:
        failed_ = true;
    }
    const std::size_t position = at_;
    if (word() != position) failed_ = true;
    return value;
  }

 private:
  std::string_view take(std::size_t count) {
    if (failed_ || count > bytes_.size() - at_) {
      failed_ = true;
      return {};
    }
    const std::string_view taken = bytes_.substr(at_, count);
    at_ += count;
    return taken;
  }

  double real() {
    const std::string_view eight = take(8);
    double value = 0;
    if (eight.size() == sizeof value) std::memcpy(&value, eight.data(), sizeof value);
    return value;
  }

  std::string_view bytes_;
  std::size_t at_ = 0;
  bool failed_ = false;
};

void read_keyed(Reader& reader, Block& block) {
  reader.skip_tag();
  const Scalar key = reader.scalar();
  const Scalar value = reader.scalar();
  const auto* const text = std::get_if<std::string>(&key);
  block.keyed.emplace_back(text == nullptr ? "" : *text, value);
}

void read_list(Reader& reader, Block& block) {
  reader.skip_tag();
  List list;
  for (std::uint32_t left = reader.word(); left > 0 && !reader.failed(); --left) {
    list.push_back(reader.scalar());
  }
  block.values.emplace_back(list);
}

}  // namespace

std::string word(std::uint32_t value) {
  std::string bytes;
  for (int i = 0; i < 4; ++i) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}

std::uint32_t word_at(std::string_view bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    value |= std::uint32_t{static_cast<unsigned char>(bytes[at + i])} << (8 * i);
  }
  return value;
}

void BlockWriter::text(char tag, std::string_view data) {
  bytes_ += tag;
  number(data.size());
  bytes_ += data;
  check_word();
}

BlockWriter& BlockWriter::add(const Scalar& value) {
  if (const auto* const text_value = std::get_if<std::string>(&value)) {
    text(kStringTag, *text_value);
  } else if (const auto* const stream = std::get_if<Stream>(&value)) {
    text(kStreamTag, stream->bytes);
  } else if (const auto* const integer = std::get_if<int>(&value)) {
    bytes_ += kIntTag;
    bytes_ += word(static_cast<std::uint32_t>(*integer));
    check_word();
  } else if (const auto* const real = std::get_if<double>(&value)) {
    bytes_ += kDoubleTag;
    char eight[sizeof *real];
    std::memcpy(eight, real, sizeof eight);
    bytes_.append(eight, sizeof eight);
    check_word();
  } else {
    bytes_ += kBoolTag;
    bytes_ += std::get<bool>(value) ? '1' : '0';
    check_word();
  }
  return *this;
}

BlockWriter& BlockWriter::list(const List& elements) {
  bytes_ += kListTag;
  number(elements.size());
  for (const Scalar& element : elements) add(element);
  return *this;
}

BlockWriter& BlockWriter::map(const std::vector<std::pair<std::string, Scalar>>& entries) {
  bytes_ += kMapTag;
  number(entries.size());
  for (const auto& [key, value] : entries) keyed(key, value);
  return *this;
}

BlockWriter& BlockWriter::keyed(std::string_view key, const Scalar& value) {
  return lone_key(key).add(value);
}

BlockWriter& BlockWriter::lone_key(std::string_view key) {
  bytes_ += kKeyTag;
  text(kStringTag, key);
  return *this;
}

const Scalar* Block::find(std::string_view key) const {
  const Scalar* found = nullptr;
  for (const auto& [name, value] : keyed) {
    if (name == key) found = &value;
  }
  return found;
}

const Scalar* Block::at(std::size_t position) const {
  return position < values.size() ? std::get_if<Scalar>(&values[position]) : nullptr;
}

std::string Block::string_at(std::size_t position) const {
  const Scalar* const value = at(position);
  const auto* const text = value == nullptr ? nullptr : std::get_if<std::string>(value);
  return text == nullptr ? "" : *text;
}

std::vector<std::string> Block::keys() const {
  std::vector<std::string> all;
  for (const auto& [key, value] : keyed) all.push_back(key);
  return all;
}

std::optional<Block> read_block(std::string_view bytes) {
  Reader reader(bytes);
  Block block;
  while (!reader.at_end()) {
    if (reader.next_tag() == kKeyTag) {
      read_keyed(reader, block);
    } else if (reader.next_tag() == kListTag) {
      read_list(reader, block);
    } else {
      block.values.emplace_back(reader.scalar());
    }
  }
  return reader.failed() ? std::nullopt : std::optional(block);
}

std::optional<std::string> Message::text(std::string_view key) const {
  const Scalar* const value = find(key);
  if (value == nullptr) return std::nullopt;
  if (const auto* const stream = std::get_if<Stream>(value)) return stream->bytes;
  const auto* const string = std::get_if<std::string>(value);
  return string == nullptr ? std::nullopt : std::optional(*string);
}

std::optional<int> Message::number(std::string_view key) const {
  const Scalar* const value = find(key);
  const auto* const integer = value == nullptr ? nullptr : std::get_if<int>(value);
  return integer == nullptr ? std::nullopt : std::optional(*integer);
}

std::optional<Message> read_message(std::optional<std::string> payload) {
  if (!payload) return std::nullopt;
  const auto block = read_block(*payload);
  if (!block) return std::nullopt;
  Message message;
  static_cast<Block&>(message) = *block;
  message.payload = std::move(*payload);
  return message;
}

std::string call_payload(std::string_view name, int call_id,
                         const std::optional<std::string>& arguments,
                         const std::optional<std::string>& token) {
  BlockWriter block;
  block.keyed("s_c_sw_name", std::string(name)).keyed("s_c_sw_threadid", call_id);
  if (arguments) block.keyed("s_c_sw_data", Stream{*arguments});
  if (token) block.keyed("s_c_sw_semid", *token);
  return block.bytes();
}

std::string reply_payload(const Message& call, BlockWriter values) {
  values.keyed("s_c_sw_name", std::string("retval"));
  if (call.call_id()) values.keyed("s_c_sw_threadid", *call.call_id());
  if (call.token()) values.keyed("s_c_sw_semid", *call.token());
  return values.bytes();
}

std::string version_arguments(std::string_view version) {
  return BlockWriter().keyed("VERSION", std::string(version)).bytes();
}

std::string frame(std::string_view payload) {
  return prefix(static_cast<std::int32_t>(payload.size())) + std::string(payload);
}

std::string prefix(std::int32_t length) { return word(static_cast<std::uint32_t>(length)); }

}  // namespace tolk::test
