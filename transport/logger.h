// The diagnostic lines of one client or server.
//
// Thread: any. A line goes to the sink, on the thread that logs, else to standard output, whole but
// not flushed; line ends come from the format.
// Owner: a sink stays the host's; the logger only shares in its being deleted late.
// Failure: none. An exception of the sink is dropped.
#pragma once

#include <atomic>
#include <cstdarg>

#include "transport/method_registry.h"
#include "transport/thread_safety.h"

// Has the compiler check the arguments of a format. Of mingw-w64's two dialects this is C's own.
#if defined(__MINGW32__)
#define TOLK_FORMATS [[gnu::format(gnu_printf, 2, 3)]]
#elif defined(__GNUC__)
#define TOLK_FORMATS [[gnu::format(printf, 2, 3)]]
#else
#define TOLK_FORMATS
#endif

namespace tolk {

class Logger {
 public:
  // Connection and close events: only while the level is at least 1.
  TOLK_FORMATS void formatted(const char* format, ...);
  // Write failures, read errors, refused calls: always.
  TOLK_FORMATS void plain(const char* format, ...);

  // Also takes C++ streams out of step with C's, for the whole process.
  void set_level(int level);
  // Whether there is a text. It is not kept; no file is opened.
  static bool set_text(const char* text);
  // An empty sink means standard output.
  void set_sink(MethodRef sink);
  // Lets the sink go if the library is about to delete it.
  void drop_doomed_sink();

 private:
  void write_line(const char* format, std::va_list arguments);
  bool give_to_sink(const char* line);

  std::atomic<int> level_{1};
  Guarded<MethodRef> sink_;
};

}  // namespace tolk
