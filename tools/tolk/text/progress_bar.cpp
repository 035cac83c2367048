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
                          int columns) {
  const double fraction = total == 0 ? 1 : static_cast<double>(done) / static_cast<double>(total);
  const std::string figures = fmt::format("{:3} %  {} of {}", static_cast<int>(fraction * 100),
                                          size_text(done), size_text(total));
  // One column stays free: some terminals begin a new line after the last column.
  const auto wide = static_cast<std::size_t>(std::max(columns - 1, 0));
  std::string line = figures.substr(0, wide);
  constexpr std::size_t kFrame = 4;  // brackets and two blanks
  if (wide > figures.size() + kFrame + 3) {
    const std::size_t room = wide - figures.size() - kFrame;
    const std::size_t bar_columns = std::min(kMostBarColumns, room);
    line = bar(fraction, bar_columns) + "  " + figures;
  }
  // The bytes of a name are at least as many as its columns. A name that might not fit is left out.
  const std::string shown = printable(name);
  if (shown.size() <= kMostNameColumns && line.size() + 2 + shown.size() <= wide) {
    line = shown + "  " + line;
  }
  return line;
}

void ProgressBar::show(const Progress& progress) {
  Output& output = Output::get();
  if (!output.shows_progress()) return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_ && progress.done() < progress.total()) return;
  next_ = now + kPause;
  output.progress(progress_line(name_, progress.done(), progress.total(), output.columns()));
}

}  // namespace tolk::tool
