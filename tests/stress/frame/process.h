// Another process of a row: this program again, in a role. It and the row exchange lines over the
// role's standard input.
//
// Thread: one at a time. Owner: the object: the process ends with it, and by itself when this
// process has ended. Failure: a line that does not come in time is std::nullopt; figures of a dead
// process are 0. A process that ends abnormally, a sanitizer's report included, is printed and
// counted.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/child_process.h"
#include "tests/e2e/support/transports.h"
#include "tests/e2e/support/waiting.h"

namespace tolk::stress {

// One end of the channel between a row and a role.
class LineChannel {
 public:
  explicit LineChannel(int descriptor) : descriptor_(descriptor) {}

  bool tell(const std::string& line) const;
  std::optional<std::string> read_line(test::Milliseconds limit = test::kLimit);
  int descriptor() const { return descriptor_; }

 private:
  const int descriptor_;
  std::string received_;
};

class Process {
 public:
  // The role and its arguments.
  explicit Process(const std::vector<std::string>& words);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t id() const { return process_.id(); }
  bool tell(const std::string& line) { return channel_.tell(line); }
  std::optional<std::string> read_line(test::Milliseconds limit = test::kLimit) {
    return channel_.read_line(limit);
  }
  std::optional<std::string> ask(const std::string& line, test::Milliseconds limit = test::kLimit);
  void kill_now();        // SIGKILL
  static int bad_ends();  // of all processes so far
  bool is_alive() const;

  // Measured from outside.
  long resident_kib() const;
  int descriptors() const;
  double processor_s() const;

 private:
  void end();  // asks it to
  void note_bad_end(const std::string& how) const;

  const std::string role_;
  test::SocketPair ends_;
  LineChannel channel_;
  test::ChildProcess process_;
};

// What any process holds, given its id or "self".
long resident_kib_of(const std::string& process);
int descriptors_of(const std::string& process);

// In a role: the row at the other end.
LineChannel& the_row();
// Drops the lines of the library, so that only those of the rows are printed.
void drop_library_lines();

std::string text_of(const test::Address& address);
test::Address address_of(const std::string& text);

}  // namespace tolk::stress
