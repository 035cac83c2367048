#include "tools/tolk/text/printable.h"

#include <fmt/format.h>

#include <cstdint>

namespace tolk::tool {
namespace {

std::uint32_t byte_at(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

// The size of the first character if it is well-formed UTF-8 and not a control character; otherwise
// 0.
std::size_t character_size(std::string_view text) {
  const std::uint32_t first = byte_at(text, 0);
  if (first < 0x80) return first >= 0x20 && first != 0x7f ? 1 : 0;
  const std::size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < size) return 0;
  std::uint32_t code = first & (0xffU >> (size + 1));
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte_at(text, i) & 0xc0) != 0x80) return 0;
    code = code << 6 | (byte_at(text, i) & 0x3f);
  }
  constexpr std::uint32_t kSmallest[] = {0, 0, 0xa0, 0x800, 0x10000};  // from 0x80 on: controls
  const bool surrogate = code >= 0xd800 && code <= 0xdfff;
  // Characters that change the direction of writing can make one text look like another.
  const bool turns_direction =
      (code >= 0x202a && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
  return code >= kSmallest[size] && code <= 0x10ffff && !surrogate && !turns_direction ? size : 0;
}

std::string escaped(char character) {
  if (character == '\n') return "\\n";
  if (character == '\t') return "\\t";
  return fmt::format("\\x{:02x}", static_cast<unsigned char>(character));
}

}  // namespace

std::string printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const std::size_t size = character_size(text);
    if (size == 0) {
      shown += escaped(text.front());
    } else {
      if (text.front() == '"' || text.front() == '\\') shown += '\\';
      shown += text.substr(0, size);
    }
    text.remove_prefix(size == 0 ? 1 : size);
  }
  return shown;
}

std::string harmless(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const bool blank = text.front() == '\n' || text.front() == '\t';
    const std::size_t size = blank ? 1 : character_size(text);
    shown += size == 0 ? escaped(text.front()) : std::string(text.substr(0, size));
    text.remove_prefix(size == 0 ? 1 : size);
  }
  return shown;
}

bool is_printable(std::string_view text) {
  while (!text.empty()) {
    const std::size_t size = character_size(text);
    if (size == 0) return false;
    text.remove_prefix(size);
  }
  return true;
}

}  // namespace tolk::tool
