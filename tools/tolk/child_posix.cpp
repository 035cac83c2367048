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

#include "tools/tolk/child.h"

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

  // Not for other children, which would keep it open.
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fail("no pipe for the command");
    read = Descriptor(ends[0]);
    write = Descriptor(ends[1]);
  }
};

// The processes that run. A process is ended only while it is not yet waited for: its number could
// be another's afterwards.
class Running {
 public:
  static Running& get() {
    static auto* const kRunning = new Running;
    return *kRunning;
  }

  // Begins a process unless none may begin any more.
  template <class Begin>
  pid_t begin(const Begin& begin_one) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_) throw ChildFailed("this server is closing");
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
  // How it ended. Waited for without the lock, and taken away under it.
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

// In a group of its own, so that its own children end with it, and with the signals as any program
// expects them.
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

// Both directions at once: a command may print before it has read everything.
class Exchange {
 public:
  Exchange(std::string_view input, Descriptor in, Descriptor out, Descriptor error)
      : input_(input), in_(std::move(in)), out_(std::move(out)), error_(std::move(error)) {
    fcntl(in_.get(), F_SETFL, O_NONBLOCK);
  }

  // False when the time was over before the command was done with its descriptors.
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
      if (all[2].revents != 0) take(error_, complained);
    }
    return true;
  }

  std::string printed;
  std::string complained;

 private:
  // A command that does not read its arguments is no failure.
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

std::string trimmed(std::string text) {
  const std::size_t end = text.find_last_not_of(" \r\n\t");
  text.resize(end == std::string::npos ? 0 : end + 1);
  return text;
}

// Nothing when it went well.
std::string complaint_of(const std::string& name, int status, const std::string& complained) {
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
  std::string text = trimmed(complained);
  if (!text.empty()) return text;
  if (WIFEXITED(status)) return name + " ended with " + std::to_string(WEXITSTATUS(status));
  return name + " was ended by signal " + std::to_string(WTERMSIG(status));
}

}  // namespace

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
  Running& running = Running::get();
  const pid_t process = running.begin([&] { return spawn(command, in, out, error); });
  in.read.reset();
  out.write.reset();
  error.write.reset();
  Exchange exchange(input, std::move(in.write), std::move(out.read), std::move(error.read));
  const bool in_time = exchange.run(limit);
  if (!in_time) running.end(process, SIGKILL);
  const std::string complaint =
      complaint_of(command.front(), running.wait(process), exchange.complained);
  if (!in_time) {
    throw ChildFailed(command.front() + " took longer than " + std::to_string(limit.count()) +
                      " ms and was ended");
  }
  if (!complaint.empty()) throw ChildFailed(complaint);
  return exchange.printed;
}

void end_children() { Running::get().end_all(); }

}  // namespace tolk::tool
