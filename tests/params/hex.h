// Encoded bytes, spelled out in tests.
#pragma once

#include <string>
#include <string_view>

namespace tolk::test {

inline int hex_digit(char c) { return c <= '9' ? c - '0' : c - 'A' + 10; }

// "03 01 6B" and the like, upper case; blanks are skipped.
inline std::string hex(std::string_view digits) {
  std::string bytes;
  int high = -1;
  for (const char c : digits) {
    if (c == ' ') continue;
    if (high < 0) {
      high = hex_digit(c);
      continue;
    }
    bytes += static_cast<char>(high * 16 + hex_digit(c));
    high = -1;
  }
  return bytes;
}

// The way back, for messages.
inline std::string to_hex(std::string_view bytes) {
  constexpr char digits[] = "0123456789ABCDEF";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += digits[byte / 16];
    text += digits[byte % 16];
    text += ' ';
  }
  if (!text.empty()) text.pop_back();
  return text;
}

// Digits in any grouping, as to_hex would group them.
inline std::string normal(std::string_view digits) { return to_hex(hex(digits)); }

}  // namespace tolk::test
