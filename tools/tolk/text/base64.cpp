#include "tools/tolk/text/base64.h"

namespace tolk::tool {
namespace {

constexpr std::string_view kBase64Digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string to_base64(std::string_view bytes) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::string_view group = bytes.substr(at, 3);
    unsigned bits = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      bits = bits << 8 | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
    }
    for (std::size_t i = 0; i < 4; ++i) {
      text += i <= group.size() ? kBase64Digits[bits >> (18 - 6 * i) & 63] : '=';
    }
  }
  return text;
}

std::string from_base64(std::string_view text) {
  if (text.size() % 4 != 0) throw BadBase64("base64 comes in groups of four characters");
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  std::string bytes;
  unsigned bits = 0;
  int held = 0;
  for (const char character : text) {
    const std::size_t digit = kBase64Digits.find(character);
    if (digit == std::string_view::npos) {
      throw BadBase64(std::string("not a base64 character: ") + character);
    }
    bits = (bits << 6 | static_cast<unsigned>(digit)) & 0xffffU;
    held += 6;
    if (held < 8) continue;
    held -= 8;
    bytes += static_cast<char>(bits >> held & 255);
  }
  return bytes;
}

}  // namespace tolk::tool
