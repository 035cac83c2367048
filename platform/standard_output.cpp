#include "platform/standard_output.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <string>

#include "platform/never_destroyed.h"

namespace tolk::platform {
namespace {

// A host may have told std::cout to throw; nothing of that may reach a loop thread.
template <class Write>
void write_locked(Write write) {
  const std::lock_guard<std::mutex> lock(standard_output_mutex());
  try {
    write();
  } catch (const std::ios_base::failure&) {
    return;
  }
}

void print_long_line(std::string_view text) {
  std::string line(text);
  line += '\n';
  write_locked([&] { std::cout << line << std::flush; });
}

}  // namespace

void print(std::string_view text) {
  write_locked([&] { std::cout << text; });
}

// One insertion a line. The library's own lines are short: they come out without memory too.
void print_line(std::string_view text) {
  std::array<char, 256> line{};
  if (text.size() >= line.size()) return print_long_line(text);
  *std::copy(text.begin(), text.end(), line.begin()) = '\n';
  const std::string_view with_end(line.data(), text.size() + 1);
  write_locked([&] { std::cout << with_end << std::flush; });
}

void print_lines(std::string_view text) {
  // Unformatted: a width that the host set is for the host's own text.
  write_locked(
      [&] { std::cout.write(text.data(), static_cast<std::streamsize>(text.size())).flush(); });
}

void desync_standard_output() {
  write_locked([] { std::ios_base::sync_with_stdio(false); });
}

std::mutex& standard_output_mutex() {
  static NeverDestroyed<std::mutex> mutex;
  return *mutex;
}

}  // namespace tolk::platform
