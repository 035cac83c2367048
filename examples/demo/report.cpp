#include "report.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <utility>

namespace demo {
namespace {

constexpr char kMark = '\x1e';
constexpr char kFieldEnd = '\x1f';
constexpr std::size_t kFixedFields = 10;

// A text must contain neither the end of a field nor a line end.
std::string cleaned(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == '\n' || c == kMark || c == kFieldEnd; },
      ' ');
  return text;
}

std::vector<std::string> split(std::string_view line) {
  std::vector<std::string> fields;
  while (true) {
    const auto end = line.find(kFieldEnd);
    fields.emplace_back(line.substr(0, end));
    if (end == std::string_view::npos) return fields;
    line.remove_prefix(end + 1);
  }
}

template <class Number>
Number number(const std::string& text) {
  Number value{};
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

}  // namespace

std::string to_line(const Event& event) {
  std::vector<std::string> fields{std::to_string(static_cast<int>(event.kind)),
                                  std::to_string(event.when_ns),
                                  event.from,
                                  event.to,
                                  event.what,
                                  event.result,
                                  std::to_string(event.duration_us),
                                  std::to_string(event.checks),
                                  std::to_string(event.bytes),
                                  std::to_string(event.details.size())};
  fields.insert(fields.end(), event.details.begin(), event.details.end());
  fields.insert(fields.end(), event.wrong.begin(), event.wrong.end());
  std::string line(1, kMark);
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) line += kFieldEnd;
    line += cleaned(std::move(fields[i]));
  }
  return line;
}

std::optional<Event> parse_event(std::string_view line) {
  if (line.empty() || line.front() != kMark) return std::nullopt;
  const std::vector<std::string> fields = split(line.substr(1));
  if (fields.size() < kFixedFields) return std::nullopt;
  Event event;
  event.kind = static_cast<Event::Kind>(number<int>(fields[0]));
  event.when_ns = number<std::int64_t>(fields[1]);
  event.from = fields[2];
  event.to = fields[3];
  event.what = fields[4];
  event.result = fields[5];
  event.duration_us = number<std::int64_t>(fields[6]);
  event.checks = number<int>(fields[7]);
  event.bytes = number<std::uint64_t>(fields[8]);
  const auto details = std::min(number<std::size_t>(fields[9]), fields.size() - kFixedFields);
  const auto first = fields.begin() + kFixedFields;
  const auto last = first + static_cast<std::ptrdiff_t>(details);
  event.details.assign(first, last);
  event.wrong.assign(last, fields.end());
  return event;
}

void send(Event event) {
  using std::chrono::nanoseconds;
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  event.when_ns = std::chrono::duration_cast<nanoseconds>(now).count();
  const std::string line = to_line(event) + "\n";
  std::fputs(line.c_str(), stdout);
}

Step::Step(std::string from, std::string to, std::string what)
    : begin_(std::chrono::steady_clock::now()) {
  event_.from = std::move(from);
  event_.to = std::move(to);
  event_.what = std::move(what);
}

Step::~Step() { send(std::move(event_)); }

std::chrono::milliseconds Step::stop() {
  const auto taken = std::chrono::steady_clock::now() - begin_;
  event_.duration_us = std::chrono::duration_cast<std::chrono::microseconds>(taken).count();
  return std::chrono::duration_cast<std::chrono::milliseconds>(taken);
}

}  // namespace demo
