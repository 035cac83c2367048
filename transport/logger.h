// The diagnostic lines of one client or server.
//
// Thread: any. A line goes to the sink, on the thread that logs, else to standard output, whole but
// not flushed; line ends come from the format.
// Owner: the host owns a sink; the logger's reference only delays its deletion by the library.
// Failure: none. An exception of the sink is dropped.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <string_view>

#include "platform/guarded.h"
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
  void set_sink(MethodRef method);
  // Drops the sink if it is marked for deletion.
  void drop_deleted_sink();
  // The host destroys the object: its sink is not called any more, and lines for it go nowhere.
  // Waits for calls of the sink on other threads, a second at most.
  void end_sink();

  // Calls a method. A handler of the library has no memory to go on when it throws: that is for the
  // caller to see.
  template <class Call>
  void run_handler(std::string_view name, const MethodRef& method, Call&& call) {
    if (method.of_library()) return call();
    run_guarded(name, call);
  }
  // Runs code of the host: an exception ends here, in one line that names the method.
  template <class Call>
  void run_guarded(std::string_view method, Call&& call) {
    guarded(call, [&](const char* what) {
      plain("handler error: %.*s: %s\n", static_cast<int>(method.size()), method.data(), what);
    });
  }

 private:
  struct Sink {
    MethodRef method;
    int calls = 0;  // under way
    bool ended = false;
  };

  void write_line(const char* format, std::va_list arguments);
  // False when standard output is the place for the line.
  bool write_to_sink(const char* line);

  std::atomic<int> level_{1};
  Guarded<Sink> sink_;
  std::condition_variable sink_is_idle_;
};

}  // namespace tolk
