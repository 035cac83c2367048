// What one row of the matrix is given, and where it leaves what it found.
//
// Thread: any; a Random belongs to one thread.
// Failure: `expect` prints what did not hold and makes the row fail; the row goes on.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <random>
#include <sstream>
#include <string>

#include "tests/e2e/support/waiting.h"

namespace tolk::stress {

using test::eventually;
using test::Milliseconds;
using test::Stopwatch;

// Whether this program was built with a sanitizer: memory and time then mean little.
bool is_sanitized();
// Whether it looks at an object's type at run time: it opens a pipe for that, and takes the object
// for a wrong one when there is no descriptor left.
bool checks_types();

// Numbers that depend on the seed alone.
class Random {
 public:
  Random(std::uint64_t seed, std::uint64_t stream);

  int between(int lowest, int highest) {
    return std::uniform_int_distribution<int>(lowest, highest)(engine_);
  }
  bool one_in(int count) { return between(1, count) == 1; }
  std::mt19937_64& engine() { return engine_; }

 private:
  std::mt19937_64 engine_;
};

struct Options {
  int row = 0;  // 0: all
  bool is_short = false;
  std::uint64_t seed = 0;
  int rounds = 0;   // 0: as many as the row says
  int seconds = 0;  // 0: as long as the row says
  std::string json;
};

// The position of the row, for the watchdog in the parent process. In shared memory.
struct Progress {
  char text[160];
};

class Run {
 public:
  Run(const Options& options, int row, Progress& progress);

  bool is_short() const { return options_.is_short; }
  std::uint64_t seed() const { return options_.seed; }
  // How often: in the short form a third under a sanitizer.
  int rounds(int in_short_form, int in_long_form) const;
  std::chrono::seconds seconds(int in_short_form, int in_long_form) const;
  // What depends on how busy the machine is holds in the long form alone.
  bool holds_times() const { return !options_.is_short && !is_sanitized(); }
  bool holds_memory() const { return !is_sanitized(); }
  Random random(std::uint64_t stream) const { return {options_.seed, stream}; }

  template <class... Parts>
  void at(const Parts&... parts) {
    note(joined(parts...));
  }
  template <class... Parts>
  bool expect(bool holds, const Parts&... parts) {
    if (!holds) fail(joined(parts...));
    return holds;
  }
  void figure(const std::string& name, double value, const std::string& unit);
  bool passed() const { return failures_ == 0; }

 private:
  template <class... Parts>
  static std::string joined(const Parts&... parts) {
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
  }
  void note(const std::string& where);
  void fail(const std::string& what);

  const Options options_;
  const int row_;
  Progress& progress_;
  std::mutex mutex_;
  std::atomic<int> failures_{0};
};

}  // namespace tolk::stress
