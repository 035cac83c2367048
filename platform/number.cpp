#include "platform/number.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace tolk::platform {
namespace {

using Limits = std::numeric_limits<std::int32_t>;

// These replace isspace and isdigit, which depend on the host's locale.
bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

int parse_int(const char* text) {
  if (text == nullptr) return 0;
  while (is_blank(*text)) ++text;
  const bool negative = *text == '-';
  if (negative || *text == '+') ++text;
  std::int64_t value = 0;
  for (; is_digit(*text); ++text) {
    // One past the limit is enough: further digits do not change the result.
    value = std::min<std::int64_t>(value * 10 + (*text - '0'), Limits::max() + std::int64_t{1});
  }
  if (negative) value = -value;
  return static_cast<int>(std::min<std::int64_t>(value, Limits::max()));
}

}  // namespace tolk::platform
