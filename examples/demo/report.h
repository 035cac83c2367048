// How a process of the demo reports its steps: one marked line on its standard output for each. The
// mark distinguishes them from the library's lines, which go there too.
//
// Thread: any. Owner: values. Failure: none.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace demo {

struct Event {
  enum class Kind { step, transfer, done };

  Kind kind = Kind::step;
  std::int64_t when_ns = 0;  // the same clock in all processes
  // A step: the caller, the method, the peer, and the outcome.
  std::string from;
  std::string to;
  std::string what;
  std::string result;
  std::int64_t duration_us = -1;  // of the call; negative: none
  int checks = 0;
  std::vector<std::string> details;  // shown under the step
  std::vector<std::string> wrong;    // what was expected, and the actual value
  // A transfer that begins: the bytes that will have moved at its end.
  std::uint64_t bytes = 0;
};

// An event as a line without its line end, and back. Other lines are not events.
std::string to_line(const Event& event);
std::optional<Event> parse_event(std::string_view line);

// Writes it to standard output.
void send(Event event);

// One step of this process. The constructor starts the stopwatch; the destructor sends the step.
class Step {
 public:
  Step(std::string from, std::string to, std::string what);
  ~Step();
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;

  // The call has returned: stops the stopwatch.
  std::chrono::milliseconds stop();
  void shows(std::string result) { event_.result = std::move(result); }
  void detail(std::string line) { event_.details.push_back(std::move(line)); }
  // A step that is not a call shows no duration.
  void no_duration() { event_.duration_us = -1; }

  template <class Expected, class Came>
  bool expect(std::string_view name, const Expected& expected, const Came& came) {
    ++event_.checks;
    if (expected == came) return true;
    std::ostringstream text;
    text << std::boolalpha << name << ": expected " << expected << ", came " << came;
    event_.wrong.push_back(text.str());
    return false;
  }

 private:
  Event event_;
  std::chrono::steady_clock::time_point begin_;
};

}  // namespace demo
