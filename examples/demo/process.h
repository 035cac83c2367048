// The system functions of the demo: starting itself again, talking to its children, and facts about
// processes and terminals.
//
// Thread: one thread uses all processes. Owner: the destructor of a Process ends its child.
// Failure: std::system_error when a process cannot be started. Other failures are ignored.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace demo {

// A child process that runs this program.
class Process {
 public:
  // `arguments`: without the program's name.
  static std::unique_ptr<Process> start(const std::vector<std::string>& arguments);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // To its standard input.
  void write_line(const std::string& line);
  // The next complete line of its standard output.
  std::optional<std::string> next_line();
  // Its output has ended.
  bool silent() const { return silent_; }
  // Closes its standard input; the child then exits.
  void dismiss();
  // Dismisses it and waits. The exit status, or 128 plus the signal number.
  int wait();
  long id() const;
  // Bytes that it has read and written so far, where the system counts them.
  std::optional<std::uint64_t> bytes_moved() const;

 private:
  friend bool read_any(const std::vector<Process*>& processes, int limit_ms);
  struct System;

  Process();

  std::unique_ptr<System> system_;
  std::string inbox_;
  bool silent_ = false;
};

// Waits until a process has written something or ended, and reads what is there. False after the
// timeout.
bool read_any(const std::vector<Process*>& processes, int limit_ms);

long own_process_id();
bool output_is_terminal();
// Makes the standard output of this process line-buffered.
void print_by_lines();

}  // namespace demo
