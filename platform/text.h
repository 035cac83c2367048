// Texts as hosts and peers give them.
// Thread: any; no state. Owner: the views borrow. Failure: none.
#pragma once

#include <string_view>

namespace tolk {

// Null counts as "".
inline std::string_view text_of(const char* text) {
  return text == nullptr ? std::string_view() : std::string_view(text);
}

// `text` up to its first zero byte.
inline std::string_view cut_at_zero(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

}  // namespace tolk
