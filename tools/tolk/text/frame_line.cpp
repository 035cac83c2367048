#include "tools/tolk/text/frame_line.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>

#include "tools/tolk/text/printable.h"
#include "tools/tolk/text/progress_bar.h"
#include "tools/tolk/text/shortened.h"

namespace tolk::tool {
namespace {

// The clock of this place, with milliseconds.
std::string time_of(const Json& frame) {
  return fmt::format("{:%T}", fmt::localtime(std::time(nullptr))) +
         frame.at("time").get<std::string>().substr(19, 4);
}

// The values without the keys of the protocol.
Json values_of(const Json& frame) {
  for (const char* const key : {"arguments", "result", "values"}) {
    if (!frame.contains(key)) continue;
    Json values = shortened(frame.at(key));
    if (!values.empty() && values.back().is_object()) {
      Json& keyed = values.back();
      for (auto at = keyed.begin(); at != keyed.end();) {
        at = is_reserved_key(at.key()) ? keyed.erase(at) : std::next(at);
      }
      if (keyed.empty()) values.erase(values.size() - 1);
    }
    return values;
  }
  return nullptr;
}

std::string words_of(const Json& frame) {
  const auto kind = frame.at("kind").get<std::string>();
  if (kind == "no frame") return "";
  if (kind == "piece" || kind == "large") {
    return " " + kind + " of " + size_text(frame.at("bytes").get<std::uint64_t>());
  }
  const Json values = values_of(frame);
  std::string text = values.is_null() ? "" : " " + values.dump();
  if (kind == "post" || kind == "nameless") text += " (" + kind + ")";
  return text;
}

std::string cut(std::string text, std::size_t columns) {
  constexpr std::string_view kDots = "...";
  if (text.size() <= columns) return text;
  std::size_t size = columns > kDots.size() ? columns - kDots.size() : 0;
  while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xc0) == 0x80) --size;
  return text.substr(0, size) + std::string(kDots);
}

}  // namespace

std::string error_in(const Json& frame) {
  for (const char* const key : {"error", "malformed", "malformed_arguments", "reason"}) {
    if (frame.contains(key)) return text_of(frame.at(key), JsonStyle::off);
  }
  return "";
}

std::string frame_line(const Json& frame, const Colors& c, std::size_t columns) {
  const bool to_server = frame.at("direction") == "to server";
  const std::string head = fmt::format("{}  {} {} ", time_of(frame),
                                       frame.at("connection").get<int>(), to_server ? "->" : "<-");
  const std::string method =
      frame.contains("method") ? harmless(text_of(frame.at("method"), JsonStyle::off)) : "";
  const std::string error = harmless(error_in(frame));
  std::string rest = error.empty() ? harmless(words_of(frame)) : ": " + error;
  const std::string took =
      frame.contains("ms") ? fmt::format("  {:.1f} ms", frame.at("ms").get<double>()) : "";
  if (columns > 0) {
    const std::size_t taken = head.size() + method.size() + took.size();
    constexpr std::size_t kLeast = 10;
    rest = cut(rest, std::max(columns > taken ? columns - taken : 0, kLeast));
  }
  return fmt::format("{}{}{}{}{}{}{}{}{}{}{}{}", c.dim, head, c.off, c.name, method, c.off,
                     error.empty() ? "" : c.error, rest, error.empty() ? "" : c.off, c.dim, took,
                     c.off);
}

}  // namespace tolk::tool
