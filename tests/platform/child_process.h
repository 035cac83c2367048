// A forked child that runs one function and reports a small number.
//
// The child leaves by _exit, so that it runs nothing of the test program's own end; an alarm ends
// it if the function never returns.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

namespace tolk::test {

class ChildProcess {
 public:
  template <class Function>
  explicit ChildProcess(const Function& function) : id_(fork()) {
    if (id_ != 0) return;
    alarm(kWatchdogSeconds);
    _exit(static_cast<int>(function()));
  }
  ~ChildProcess() {
    if (id_ > 0) kill_and_wait();
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // What the function returned (0 to 255), or -1 when the child died otherwise.
  int wait() {
    int status = 0;
    if (waitpid(std::exchange(id_, -1), &status, 0) < 0) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void kill_and_wait() {
    kill(id_, SIGKILL);
    wait();
  }

 private:
  static constexpr unsigned kWatchdogSeconds = 20;

  pid_t id_;
};

}  // namespace tolk::test
