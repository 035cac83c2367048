#include "transport/logger.h"

#include <tolk/TolkParams.h>

#include <array>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "platform/standard_output.h"

namespace tolk {
namespace {

constexpr std::size_t kLineBytes = 1024;
// A sink that logs is called again, this deep; deeper lines are printed.
constexpr int kSinkDepth = 8;
// A sink that waits for the thread that destroys the object does not hold it up forever.
constexpr std::chrono::milliseconds kSinkLimit{1000};

// The sinks that the thread is inside, the innermost first.
struct SinkCall {
  const Logger* logger;
  const SinkCall* outer;
};
thread_local const SinkCall* innermost_sink = nullptr;

int sink_depth() {
  int depth = 0;
  for (const SinkCall* call = innermost_sink; call != nullptr; call = call->outer) ++depth;
  return depth;
}

bool is_inside_sink_of(const Logger& logger) {
  for (const SinkCall* call = innermost_sink; call != nullptr; call = call->outer) {
    if (call->logger == &logger) return true;
  }
  return false;
}

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
  if (!write_to_sink(line.data())) platform::print(line.data());
}

bool Logger::write_to_sink(const char* line) {
  MethodRef method;
  {
    auto sink = sink_.lock();
    if (sink->ended) return true;
    if (!sink->method || sink_depth() >= kSinkDepth) return false;
    method = sink->method;
    ++sink->calls;
  }
  const SinkCall inside{this, innermost_sink};
  innermost_sink = &inside;
  guarded([&] {
    TolkParams block;
    block.AddString(line);
    block.ToParams();
    method->callback(0, &block, nullptr);
  });
  innermost_sink = inside.outer;
  if (--sink_.lock()->calls == 0) sink_is_idle_.notify_all();
  return true;
}

void Logger::set_level(int level) {
  platform::desync_standard_output();
  level_ = level;
}

bool Logger::set_text(const char* text) { return text != nullptr && *text != '\0'; }

void Logger::set_sink(MethodRef method) {
  // The earlier sink's reference is released with `method`, after the lock.
  std::swap(sink_.lock()->method, method);
}

void Logger::drop_deleted_sink() {
  MethodRef dropped;
  auto sink = sink_.lock();
  if (sink->method && sink->method.owner->marked_for_deletion()) std::swap(dropped, sink->method);
}

void Logger::end_sink() {
  MethodRef dropped;
  auto sink = sink_.lock();
  if (!sink->method) return;
  std::swap(dropped, sink->method);
  sink->ended = true;
  // A sink that destroys its own object does not wait for itself.
  if (!is_inside_sink_of(*this)) {
    sink.wait_for(sink_is_idle_, kSinkLimit, [](const Sink& now) { return now.calls == 0; });
  }
}

}  // namespace tolk
