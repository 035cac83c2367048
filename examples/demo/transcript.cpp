#include "transcript.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>

#include "process.h"

namespace demo {
namespace {

constexpr char kBold[] = "1";
constexpr char kDim[] = "2";
constexpr char kGreen[] = "32";
constexpr char kRed[] = "1;31";
constexpr std::size_t kLineColumns = 104;
constexpr std::size_t kWhoColumns = 6;
constexpr std::size_t kWhatColumns = 38;
constexpr std::size_t kResultColumns = 36;
constexpr int kBarColumns = 40;

// In characters: UTF-8 continuation bytes do not count.
std::size_t columns(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

std::string padded(const std::string& text, std::size_t width) {
  const std::size_t taken = columns(text);
  return taken < width ? text + std::string(width - taken, ' ') : text + ' ';
}

std::string duration_text(std::int64_t microseconds) {
  if (microseconds < 0) return std::string(10, ' ');
  std::array<char, 32> text{};
  const double milliseconds = static_cast<double>(microseconds) / 1000;
  std::snprintf(text.data(), text.size(), milliseconds < 100 ? "%7.2f ms" : "%7.0f ms",
                milliseconds);
  return text.data();
}

const char* color_of(const std::string& actor) {
  static const std::map<std::string, const char*> colors{
      {"server", "1;36"}, {"old", "1;36"}, {"ada", "33"}, {"bo", "35"}, {"cy", "34"}, {"di", "32"}};
  const auto at = colors.find(actor);
  return at == colors.end() ? kDim : at->second;
}

bool has_text(const char* variable) {
  const char* const text = std::getenv(variable);
  return text != nullptr && *text != '\0';
}

std::string repeated(const char* text, std::size_t count) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) all += text;
  return all;
}

}  // namespace

Transcript::Transcript()
    : terminal_(output_is_terminal()), colors_(terminal_ && !has_text("NO_COLOR")) {}

std::string Transcript::painted(const char* color, const std::string& text) const {
  return colors_ ? "\x1b[" + std::string(color) + "m" + text + "\x1b[0m" : text;
}

std::string Transcript::actor(const std::string& name, std::size_t width) const {
  return painted(color_of(name), name) + std::string(width - std::min(width, name.size()), ' ');
}

void Transcript::title(const std::string& text) {
  const std::size_t taken = columns(text) + 4;
  std::cout << '\n'
            << painted(kBold, "━━ " + text + " " + repeated("━", kLineColumns - taken))
            << std::endl;
}

void Transcript::part(const std::string& text) {
  std::cout << "\n  " << painted(kBold, text) << std::endl;
}

void Transcript::step(const Event& event) {
  checks_ += event.checks;
  wrong_ += static_cast<int>(event.wrong.size());
  const std::string arrow = event.to.empty() ? "  " : "→ ";
  std::cout << "    " << actor(event.from, kWhoColumns + 1) << arrow
            << actor(event.to, kWhoColumns + 2) << padded(event.what, kWhatColumns)
            << padded(event.result, kResultColumns)
            << painted(kDim, duration_text(event.duration_us)) << "  "
            << (event.wrong.empty() ? painted(kGreen, "ok") : painted(kRed, "WRONG")) << '\n';
  for (const std::string& line : event.details) {
    std::cout << "                       " << painted(kDim, line) << '\n';
  }
  for (const std::string& line : event.wrong) {
    std::cout << "                       " << painted(kRed, line) << '\n';
  }
  std::cout << std::flush;
}

void Transcript::library_lines(const std::string& who, const std::vector<std::string>& lines) {
  std::string label = who;
  for (const std::string& line : lines) {
    std::cout << "    " << painted(kDim, padded(label, 14) + "┆ " + line) << '\n';
    label.clear();
  }
  std::cout << std::flush;
}

void Transcript::problem(const std::string& text) {
  ++wrong_;
  std::cout << "    " << painted(kRed, "WRONG  " + text) << std::endl;
}

void Transcript::progress(std::uint64_t moved, std::uint64_t total) {
  const double part = std::min(1.0, static_cast<double>(moved) / static_cast<double>(total));
  const auto filled = static_cast<std::size_t>(part * kBarColumns);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), " %3.0f %%  %4llu MiB moved", 100 * part,
                static_cast<unsigned long long>(std::min(moved, total) >> 20));
  std::cout << "\r    " << repeated("█", filled) << repeated("░", kBarColumns - filled)
            << text.data() << std::flush;
}

void Transcript::progress_done() { std::cout << "\r\x1b[K" << std::flush; }

void Transcript::verdict(std::int64_t milliseconds) {
  std::array<char, 32> seconds{};
  std::snprintf(seconds.data(), seconds.size(), "%.1f s", static_cast<double>(milliseconds) / 1000);
  const std::string counted = std::to_string(checks_) + " checks in " + seconds.data() + ": ";
  const std::string right = "every reply was what it should be";
  const std::string wrong = std::to_string(wrong_) + " WRONG";
  std::cout << '\n'
            << counted << (wrong_ == 0 ? painted(kGreen, right) : painted(kRed, wrong))
            << std::endl;
}

}  // namespace demo
