// Converts a whole text to a number.
//
// Thread: any. Failure: nothing when the text is not such a number, or when the number does not
// fit.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace tolk::tool {

template <class Number>
std::optional<Number> number_in(std::string_view text) {
  Number number{};
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace tolk::tool
