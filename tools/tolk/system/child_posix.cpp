#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <tolk/tolk.hpp>

#include "tools/tolk/system/child_failures.h"

namespace tolk::tool {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const std::string& what) {
  throw ChildFailed(what + ": " + std::strerror(errno));
}

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  int get() const { return number_; }
  void reset() {
    if (number_ >= 0) close(number_);
    number_ = -1;
  }

 private:
  int number_ = -1;
};

struct Pipe {
  Descriptor read, write;

  // Other children must not inherit it: they would keep it open.
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fail("cannot create a pipe for the command");
    read = Descriptor(ends[0]);
    write = Descriptor(ends[1]);
  }
};

// The running processes. A process gets no signal after it was waited for: its number may belong to
// another process then.
class RunningChildren {
 public:
  static RunningChildren& get() {
    static auto* const kRunning = new RunningChildren;
    return *kRunning;
  }

  // Begins a process, unless end_all was called.
  template <class Begin>
  pid_t begin(const Begin& begin_one) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_) throw ChildFailed(kServerIsClosing);
    const pid_t process = begin_one();
    processes_.insert(process);
    return process;
  }
  void end(pid_t process, int signal) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (processes_.contains(process)) kill(-process, signal);
  }
  void end_all() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    for (const pid_t process : processes_) kill(-process, SIGTERM);
  }
  // Returns how the process ended. It waits without the lock, then removes the process under it.
  int wait(pid_t process) {
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOWAIT) != 0 &&
           errno == EINTR) {
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    processes_.erase(process);
    return status;
  }

 private:
  std::mutex mutex_;
  std::set<pid_t> processes_;
  bool ended_ = false;
};

// The process has a group of its own, so that its own children end with it, and the signal handling
// that every program expects.
pid_t spawn(const std::vector<std::string>& command, const Pipe& in, const Pipe& out,
            const Pipe& error) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.read.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.write.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, error.write.get(), STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  std::vector<char*> words;
  words.reserve(command.size() + 1);
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  pid_t process = 0;
  const int failed = posix_spawnp(&process, words[0], &actions, &attributes, words.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (failed == 0) return process;
  errno = failed;
  fail(command.front());
}

// Writes and reads at the same time: a command may print before it has read everything.
class ChildExchange {
 public:
  ChildExchange(std::string_view input, Descriptor in, Descriptor out, Descriptor error)
      : input_(input), in_(std::move(in)), out_(std::move(out)), error_(std::move(error)) {
    fcntl(in_.get(), F_SETFL, O_NONBLOCK);
  }

  // False when the time is over before the command has closed its output.
  bool run(std::chrono::milliseconds limit) {
    const bool endless = limit == forever;
    const auto end = endless ? Clock::time_point::max() : Clock::now() + limit;
    while (out_.get() >= 0 || error_.get() >= 0) {
      if (input_.empty()) in_.reset();
      std::array<pollfd, 3> all = {pollfd{in_.get(), POLLOUT, 0}, pollfd{out_.get(), POLLIN, 0},
                                   pollfd{error_.get(), POLLIN, 0}};
      int wait_ms = -1;
      if (!endless) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) return false;
        wait_ms = static_cast<int>(std::min<long long>(left, 60'000));
      }
      if (poll(all.data(), all.size(), wait_ms) < 0 && errno != EINTR) fail("poll");
      if (all[0].revents != 0) give();
      if (all[1].revents != 0) take(out_, printed);
      if (all[2].revents != 0) take(error_, error_output);
    }
    return true;
  }

  std::string printed;
  std::string error_output;

 private:
  // A command that does not read its arguments has not failed.
  void give() {
    const ssize_t size = write(in_.get(), input_.data(), input_.size());
    if (size > 0) input_.remove_prefix(static_cast<std::size_t>(size));
    if (size < 0 && errno != EAGAIN && errno != EINTR) input_ = {};
  }
  static void take(Descriptor& from, std::string& to) {
    char part[65536];
    const ssize_t size = read(from.get(), part, sizeof(part));
    if (size > 0) to.append(part, static_cast<std::size_t>(size));
    if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR)) from.reset();
  }

  std::string_view input_;
  Descriptor in_, out_, error_;
};

std::string end_of(const std::string& name, int status) {
  if (WIFEXITED(status)) return name + " ended with code " + std::to_string(WEXITSTATUS(status));
  return name + " was ended by signal " + std::to_string(WTERMSIG(status));
}

}  // namespace

std::vector<std::string> shell_command(const std::string& line) { return {"/bin/sh", "-c", line}; }

bool is_program(const std::string& name) {
  if (name.find('/') != std::string::npos) return access(name.c_str(), X_OK) == 0;
  const char* const path = std::getenv("PATH");
  std::string_view rest = path == nullptr ? "/bin:/usr/bin" : path;
  while (true) {
    const std::size_t colon = rest.find(':');
    std::string file(rest.substr(0, colon));
    if (!file.empty()) file += '/';
    file += name;
    if (access(file.c_str(), X_OK) == 0) return true;
    if (colon == std::string_view::npos) return false;
    rest.remove_prefix(colon + 1);
  }
}

std::string output_of(const std::vector<std::string>& command, std::string_view input,
                      std::chrono::milliseconds limit) {
  Pipe in;
  Pipe out;
  Pipe error;
  RunningChildren& running = RunningChildren::get();
  const pid_t process = running.begin([&] { return spawn(command, in, out, error); });
  in.read.reset();
  out.write.reset();
  error.write.reset();
  ChildExchange exchange(input, std::move(in.write), std::move(out.read), std::move(error.read));
  const bool in_time = exchange.run(limit);
  if (!in_time) running.end(process, SIGKILL);
  const int status = running.wait(process);
  if (!in_time) throw took_too_long(command.front(), limit);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return exchange.printed;
  throw failed_with(exchange.error_output, end_of(command.front(), status));
}

void end_children() { RunningChildren::get().end_all(); }

}  // namespace tolk::tool
