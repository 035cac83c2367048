// What the demo needs of the system: to start itself again, to talk to what it started, and to know
// a few things about processes and terminals.
//
// Thread: one thread uses all processes. Owner: a Process that goes away ends its child.
// Failure: std::system_error where a process can't be started; silence elsewhere.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace demo {

// A child of this process, with this program in it.
class Process {
 public:
  // `arguments`: without the program's name.
  static std::unique_ptr<Process> start(const std::vector<std::string>& arguments);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // To its standard input.
  void write_line(const std::string& line);
  // The next whole line of its standard output that has arrived.
  std::optional<std::string> next_line();
  // Its output has come to an end.
  bool silent() const { return silent_; }
  // Closes its standard input, upon which it ends by itself.
  void dismiss();
  // Dismisses it and waits. The exit status, or 128 and the signal's number.
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

// Waits until one of them has written something or ended, and takes in what there is. False when
// nothing came in time.
bool read_any(const std::vector<Process*>& processes, int limit_ms);

long own_process_id();
bool output_is_terminal();
// So that what this process prints arrives line by line, and whole.
void print_by_lines();

}  // namespace demo
