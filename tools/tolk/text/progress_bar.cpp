#include "tools/tolk/text/progress_bar.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/tolk/text/output.h"
#include "tools/tolk/text/printable.h"

namespace tolk::tool {
namespace {

constexpr std::size_t kMostNameColumns = 30;
constexpr std::size_t kMostBarColumns = 30;
constexpr std::chrono::milliseconds kPause{100};

std::string bar(double fraction, std::size_t columns) {
  const auto full = static_cast<std::size_t>(fraction * static_cast<double>(columns));
  std::string text(full, '=');
  if (full < columns) text += '>';
  text.resize(columns, ' ');
  return "[" + text + "]";
}

std::string time_text(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::min(seconds + 1, 1e9));
  if (whole < 100) return fmt::format("{} s", whole);
  if (whole < 6000) return fmt::format("{}:{:02} min", whole / 60, whole % 60);
  return fmt::format("{}:{:02} h", whole / 3600, whole / 60 % 60);
}

}  // namespace

std::string size_text(std::uint64_t bytes) {
  if (bytes == 1) return "1 byte";
  if (bytes < 1000) return fmt::format("{} bytes", bytes);
  static constexpr const char* kUnits[] = {"kB", "MB", "GB"};
  double amount = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  for (; amount >= 999.95 && unit + 1 < std::size(kUnits); ++unit) amount /= 1000;
  return fmt::format("{:.1f} {}", amount, kUnits[unit]);
}

std::string progress_line(std::string_view name, std::uint64_t done, std::uint64_t total,
                          double bytes_per_second, int columns) {
  const double fraction = total == 0 ? 1 : static_cast<double>(done) / static_cast<double>(total);
  std::string figures = fmt::format("{:3} %  {} of {}", static_cast<int>(fraction * 100),
                                    size_text(done), size_text(total));
  if (bytes_per_second > 0) {
    figures += fmt::format("  {}/s", size_text(static_cast<std::uint64_t>(bytes_per_second)));
    const double left = static_cast<double>(total - done) / bytes_per_second;
    if (done < total) figures += "  " + time_text(left) + " left";
  }
  // One column stays free: some terminals begin a new line after the last column.
  const auto wide = static_cast<std::size_t>(std::max(columns - 1, 0));
  std::string line = figures.substr(0, wide);
  // The bytes of a name are at least as many as its columns. A name that might not fit is left out.
  const std::string shown = printable(name);
  constexpr std::size_t kFrame = 4;  // brackets and two blanks
  constexpr std::size_t kLeastBar = 4;
  const bool has_name = shown.size() <= kMostNameColumns &&
                        shown.size() + 2 + kLeastBar + kFrame + figures.size() <= wide;
  const std::size_t name_columns = has_name ? shown.size() + 2 : 0;
  if (wide >= name_columns + kLeastBar + kFrame + figures.size()) {
    const std::size_t room = wide - name_columns - kFrame - figures.size();
    line = bar(fraction, std::min(kMostBarColumns, room)) + "  " + figures;
  }
  return has_name ? shown + "  " + line : line;
}

void ProgressBar::show(std::uint64_t done, std::uint64_t total) {
  Output& output = Output::get();
  if (!output.shows_progress()) return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_ && done < total) return;
  next_ = now + kPause;
  output.progress(progress_line(name_, done, total, rate(done, now), output.columns()));
}

// That of the last seconds, because a transfer may change its pace.
double ProgressBar::rate(std::uint64_t done, Time now) {
  constexpr std::chrono::seconds kWindow{5};
  if (!seen_.empty() && seen_.back().second > done) seen_.clear();  // another transfer
  while (seen_.size() > 1 && now - seen_.front().first > kWindow) seen_.pop_front();
  seen_.emplace_back(now, done);
  const double seconds = std::chrono::duration<double>(now - seen_.front().first).count();
  const auto moved = static_cast<double>(done - seen_.front().second);
  return seconds > 0 ? moved / seconds : 0;
}

}  // namespace tolk::tool
