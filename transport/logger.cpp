#include "transport/logger.h"

#include <tolk/TolkParams.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "platform/standard_output.h"
#include "transport/invoke_guarded.h"

namespace tolk {
namespace {

constexpr std::size_t kLineBytes = 1024;
// A sink whose work logs again is called again, this deep; further in, the line is printed.
constexpr int kSinkDepth = 8;

thread_local int sink_depth = 0;

}  // namespace

void Logger::formatted(const char* format, ...) {
  if (level_ < 1) return;
  std::va_list arguments;
  va_start(arguments, format);
  write_line(format, arguments);
  va_end(arguments);
}

void Logger::plain(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  write_line(format, arguments);
  va_end(arguments);
}

void Logger::write_line(const char* format, std::va_list arguments) {
  // One byte less than the buffer: at most 1022 characters are kept.
  std::array<char, kLineBytes> line{};
  std::vsnprintf(line.data(), kLineBytes - 1, format, arguments);
  if (!give_to_sink(line.data())) platform::print(line.data());
}

bool Logger::give_to_sink(const char* line) {
  const MethodRef sink = *sink_.lock();
  if (!sink || sink_depth >= kSinkDepth) return false;
  ++sink_depth;
  invoke_guarded([&] {
    TolkParams block;
    block.AddString(line);
    block.ToParams();
    sink->callback(0, &block, nullptr);
  });
  --sink_depth;
  return true;
}

void Logger::set_level(int level) {
  platform::desync_standard_output();
  level_ = level;
}

bool Logger::set_text(const char* text) { return text != nullptr && *text != '\0'; }

void Logger::set_sink(MethodRef sink) {
  // The earlier sink's reference goes out of the lock with `sink`.
  std::swap(*sink_.lock(), sink);
}

void Logger::drop_doomed_sink() {
  MethodRef dropped;
  auto sink = sink_.lock();
  if (*sink && sink->owner->doomed()) dropped = std::exchange(*sink, MethodRef());
}

}  // namespace tolk
