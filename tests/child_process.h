// A child process of a test or a benchmark: a fork that runs a function, or a program.
//
//   ChildProcess child([] { return 7; });
//   EXPECT_EQ(child.wait(), 7);
//
// Thread: one at a time. Owner: the object; a child that still runs is killed with it.
// Failure: std::system_error where no process or no pair of sockets can be made; a program that
// cannot be executed exits with 127.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <concepts>
#include <optional>
#include <string>
#include <vector>

#include "tests/e2e/support/waiting.h"

namespace tolk::test {

// The program that runs, as the first word of a command.
inline constexpr char kThisProgram[] = "/proc/self/exe";

// Two connected sockets: ours, and the one that a child gets. A child inherits neither unless it
// gets it as a standard stream.
class SocketPair {
 public:
  explicit SocketPair(int type = SOCK_STREAM);
  ~SocketPair();
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;

  int ours() const { return ours_; }
  int theirs() const { return theirs_; }
  int take_ours();  // the caller closes it
  void close_ours();
  // Once the child has it: its end is then the end of the stream.
  void close_theirs();

 private:
  int ours_ = -1;
  int theirs_ = -1;
};

// The descriptors that become the standard streams of a program.
struct Streams {
  int input = STDIN_FILENO;
  int output = STDOUT_FILENO;
};

class ChildProcess {
 public:
  static constexpr unsigned kLimitS = 20;
  static constexpr unsigned kNoLimit = 0;

  // A fork. It leaves by _exit with what the function returns, so that it runs nothing of the end
  // of this program; an alarm ends it if the function does not return in time.
  template <std::invocable Function>
  explicit ChildProcess(const Function& function, unsigned limit_s = kLimitS) : id_(fork_here()) {
    if (id_ != 0) return;
    alarm(limit_s);
    _exit(static_cast<int>(function()));
  }
  // A program and its arguments.
  explicit ChildProcess(std::vector<std::string> words, Streams streams = {});
  ~ChildProcess() { kill_and_wait(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t id() const { return id_; }  // -1 once wait has returned its result

  // The exit code (0 to 255), or the signal that ended the child as a negative number.
  int wait();
  // Nothing if the child still runs at the limit.
  std::optional<int> wait_for(Milliseconds limit);
  // -SIGKILL, unless the child ended before. Nothing if it has been waited for.
  std::optional<int> kill_and_wait();

 private:
  static pid_t fork_here();

  pid_t id_;
};

}  // namespace tolk::test
