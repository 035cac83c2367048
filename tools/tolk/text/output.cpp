#include "tools/tolk/text/output.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "tools/tolk/system/streams.h"
#include "tools/tolk/text/number.h"
#include "tools/tolk/text/printable.h"

namespace tolk::tool {
namespace {

constexpr Colors kColors = {"\033[1;31m", "\033[36m", "\033[1;34m", "\033[33m",
                            "\033[32m",   "\033[2m",  "\033[0m"};

// Recursive, because data() may be called while its thread holds the lock already.
std::recursive_timed_mutex& mutex() {
  static auto* const kMutex =
      new std::recursive_timed_mutex;  // never destroyed: other threads may still print
  return *kMutex;
}

// By custom an empty NO_COLOR does not count.
bool no_color() {
  const char* const value = std::getenv("NO_COLOR");
  return value != nullptr && *value != 0;
}

Colors colors_for(ColorMode when, int descriptor) {
  const bool automatic = is_terminal(descriptor) && !no_color();
  return when == ColorMode::always || (when == ColorMode::automatic && automatic) ? kColors
                                                                                  : Colors{};
}

}  // namespace

Output& Output::get() {
  static auto* const kOutput =
      new Output;  // never destroyed: the library's threads may still print
  return *kOutput;
}

void Output::set_up(const CommonOptions& options) {
  quiet_ = options.quiet;
  verbose_ = options.verbose;
  progress_ = !quiet_ && is_terminal(kStderr);
  data_colors_ = colors_for(options.color, kStdout);
  note_colors_ = colors_for(options.color, kStderr);
}

void Output::data(std::string_view bytes) {
  const std::lock_guard<std::recursive_timed_mutex> lock(mutex());
  end_progress();
  const int error = write_all(kStdout, bytes);
  if (error == 0) return;
  throw Failure(Exit::failed, std::string("cannot write to standard output: ") + strerror(error),
                "check where standard output goes");
}

void Output::note(std::string_view line) {
  if (!quiet_) write_error(harmless(line) + "\n");
}

void Output::detail(std::string_view line) {
  if (verbose_) write_error(harmless(line) + "\n");
}

void Output::failure(std::string_view text, std::string_view hint) {
  const Colors& c = note_colors_;
  std::string lines;
  lines.append(c.error).append("tolk: ").append(c.off).append(harmless(text)).append("\n");
  if (!hint.empty()) {
    lines.append(c.hint).append("try: ").append(c.off).append(harmless(hint)).append("\n");
  }
  write_error(lines);
}

void Output::progress(std::string_view line) {
  if (!progress_) return;
  const std::lock_guard<std::recursive_timed_mutex> lock(mutex());
  line_shown_ = write_all(kStderr, "\r\033[K" + std::string(line)) == 0;
}

void Output::end_progress() {
  const std::lock_guard<std::recursive_timed_mutex> lock(mutex());
  if (line_shown_) write_all(kStderr, "\r\033[K");
  line_shown_ = false;
}

bool Output::data_is_terminal() const { return is_terminal(kStdout); }

int Output::columns() const {
  const int columns = columns_of(kStderr);
  return columns > 0 ? columns : 80;
}

void Output::keep_progress() {
  const std::lock_guard<std::recursive_timed_mutex> lock(mutex());
  if (line_shown_) write_all(kStderr, "\n");
  line_shown_ = false;
}

int Output::data_columns() const {
  if (data_is_terminal()) return columns_of(kStdout);
  const char* const text = std::getenv("COLUMNS");
  return text == nullptr ? 0 : number_in<int>(text).value_or(0);
}

void Output::leave(Exit code) {
  // The wait is short: the thread that writes may wait for a reader that never comes.
  constexpr std::chrono::milliseconds kEnough{100};
  std::unique_lock<std::recursive_timed_mutex> lock(mutex(), kEnough);
  if (lock) end_progress();
  std::_Exit(static_cast<int>(code));
}

bool Output::write_error(std::string_view text) {
  const std::lock_guard<std::recursive_timed_mutex> lock(mutex());
  end_progress();
  return write_all(kStderr, text) == 0;
}

}  // namespace tolk::tool
