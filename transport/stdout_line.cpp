#include "transport/stdout_line.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <string>

#include "params/stdout_lock.h"

namespace tolk {
namespace {

// A host may have told std::cout to throw; nothing of that may reach a loop thread.
template <class Write>
void write_locked(Write write) {
  const std::lock_guard<std::mutex> lock(stdout_mutex());
  try {
    write();
  } catch (const std::ios_base::failure&) {
    return;
  }
}

void stdout_long_line(std::string_view text) {
  std::string line(text);
  line += '\n';
  write_locked([&] { std::cout << line << std::flush; });
}

}  // namespace

void stdout_text(std::string_view text) {
  write_locked([&] { std::cout << text; });
}

// One insertion a line. The library's own lines are short: they come out without memory too.
void stdout_line(std::string_view text) {
  std::array<char, 256> line{};
  if (text.size() >= line.size()) return stdout_long_line(text);
  *std::copy(text.begin(), text.end(), line.begin()) = '\n';
  const std::string_view with_end(line.data(), text.size() + 1);
  write_locked([&] { std::cout << with_end << std::flush; });
}

void stdout_unsync() {
  write_locked([] { std::ios_base::sync_with_stdio(false); });
}

}  // namespace tolk
