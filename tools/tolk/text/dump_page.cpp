#include "tools/tolk/text/dump_page.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/tolk/text/printable.h"

namespace tolk::tool {
namespace {

constexpr int kMostDepth = 16;  // of blocks in streams of blocks
constexpr std::size_t kShownBytes = 32;
constexpr std::size_t kShownText = 256;

std::string hexadecimal(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes.substr(0, kShownBytes)) {
    text += fmt::format(" {:02x}", static_cast<unsigned char>(byte));
  }
  return bytes.size() > kShownBytes ? text + " ..." : text;
}

std::string quoted(std::string_view text) {
  const bool whole = text.size() <= kShownText;
  return fmt::format("\"{}\"{}", printable(text.substr(0, kShownText)),
                     whole ? "" : fmt::format(" ... {} bytes", text.size()));
}

}  // namespace

void DumpPage::frame(std::size_t number, const FrameCutter::CutFrame& frame) {
  const Message message = decode_message(frame.payload());
  line(0, frame.offset,
       fmt::format("{}frame {}{}, {} bytes: {}", c_.name, number, c_.off, frame.size,
                   summary(message)));
  block(decode_block(frame.payload()), frame.payload(), 1);
}

void DumpPage::block(const DecodedBlock& block, std::string_view bytes, int depth) {
  const std::size_t begin = offset_of(bytes);
  for (const DecodedRecord& each : block.records) record(each, begin, depth);
  if (block.flaw) show_flaw(depth, begin + block.flaw->offset, block.flaw->reason);
}

void DumpPage::record(const DecodedRecord& record, std::size_t begin, int depth) {
  std::string text;
  if (record.key) {
    text = fmt::format("{}{}{} = ", c_.name, printable(record.key->substr(0, kShownText)), c_.off);
  }
  line(depth, begin + record.offset, text + value(record));
  for (const DecodedRecord& element : record.elements) this->record(element, begin, depth + 1);
  inside(record, depth);
}

void DumpPage::inside(const DecodedRecord& record, int depth) {
  if (record.type != TolkValue::Stream || record.bytes.empty() || depth >= kMostDepth) return;
  const DecodedBlock inner = decode_block(record.bytes);
  const bool is_arguments = record.key == "s_c_sw_data";
  if (is_arguments || !inner.flaw) block(inner, record.bytes, depth + 1);
}

void DumpPage::show_flaw(int depth, std::uint64_t offset, const std::string& reason) {
  if (!first_flaw_) first_flaw_ = Flaw{offset, reason};
  line(depth, offset, fmt::format("{}malformed{}: {}", c_.error, c_.off, reason));
}

void DumpPage::line(int depth, std::uint64_t offset, const std::string& text) {
  text_ += fmt::format("{}{:>8}{}  {:{}}{}\n", c_.dim, offset, c_.off, "", 2 * depth, text);
}

std::string DumpPage::value(const DecodedRecord& record) const {
  const auto number = [this](const auto& shown) {
    return fmt::format("{}{}{}", c_.number, shown, c_.off);
  };
  const char* const type = to_string(record.type);
  switch (record.type) {
    case TolkValue::Bool:
      return fmt::format("{} {}", type, number(record.boolean));
    case TolkValue::Int:
      return fmt::format("{} {}", type, number(record.integer));
    case TolkValue::Double:
      return fmt::format("{} {}", type, number(record.real));
    case TolkValue::String:
      return fmt::format("{} {}{}{}", type, c_.text, quoted(record.bytes), c_.off);
    case TolkValue::Stream:
      return fmt::format("{} of {}:{}{}{}", type, record.bytes.size(), c_.text,
                         hexadecimal(record.bytes), c_.off);
    case TolkValue::List:
    case TolkValue::Map:
      return fmt::format("{} of {}", type, record.elements.size());
    case TolkValue::None:
      break;
  }
  return type;
}

std::string DumpPage::summary(const Message& message) const {
  std::string text = to_string(message.kind);
  if (!message.method.empty()) {
    const std::string method = printable(message.method.substr(0, kShownText));
    text += fmt::format(" {}{}{}", c_.text, method, c_.off);
  }
  if (message.call_id) text += fmt::format(", id {}", *message.call_id);
  if (message.token)
    text += fmt::format(", token {}", printable(message.token->substr(0, kShownText)));
  const std::string failure = failure_in(message);
  if (!failure.empty()) text += fmt::format(", {}failed{}", c_.error, c_.off);
  return text;
}

}  // namespace tolk::tool
