#include "tools/tolk/text/colored_json.h"

#include <algorithm>

#include "tools/tolk/text/output.h"
#include "tools/tolk/text/printable.h"

namespace tolk::tool {
namespace {

// Where the token at `at` ends. A text is a token, and so is a word; every other character is one
// for itself.
std::size_t token_end(std::string_view json, std::size_t at) {
  if (json[at] == '"') {
    for (++at; json[at] != '"'; ++at) at += json[at] == '\\' ? 1 : 0;
    return at + 1;
  }
  constexpr std::string_view kWord = "+-.0123456789abcdefghijklmnopqrstuvwxyzE";
  const std::size_t end = std::min(json.find_first_not_of(kWord, at), json.size());
  return std::max(end, at + 1);
}

std::string_view color_of(std::string_view json, std::size_t at, std::size_t end,
                          const Colors& colors) {
  if (json[at] == '"') return end < json.size() && json[end] == ':' ? colors.name : colors.text;
  constexpr std::string_view kMarks = "[]{}:, \n";
  return kMarks.find(json[at]) == std::string_view::npos ? colors.number : std::string_view();
}

}  // namespace

std::string colored(const Json& json, JsonStyle style, const Colors& colors) {
  std::string text = text_of(json, style);
  if (Output::get().data_is_terminal()) text = harmless(text);
  if (colors.off.empty() || (json.is_string() && style == JsonStyle::off)) return text;
  std::string painted;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = token_end(text, at);
    const std::string_view color = color_of(text, at, end, colors);
    const std::string_view off = color.empty() ? std::string_view() : colors.off;
    painted.append(color).append(text, at, end - at).append(off);
    at = end;
  }
  return painted;
}

void print_json(const Json& json, JsonStyle style) {
  Output& output = Output::get();
  output.data(colored(json, style, output.data_colors()) + "\n");
}

void print_result(const Json& json, JsonStyle style) {
  if (!json.is_null() || style != JsonStyle::off) print_json(json, style);
}

}  // namespace tolk::tool
