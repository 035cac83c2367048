#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <system_error>
#include <utility>

#include "process.h"

namespace demo {
namespace {

constexpr char kOwnProgram[] = "/proc/self/exe";

[[noreturn]] void fail(int error, const char* what) {
  throw std::system_error(error, std::generic_category(), what);
}

// A pipe whose two ends no other child inherits.
struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) fail(errno, "pipe");
    read_end = ends[0];
    write_end = ends[1];
  }
  int read_end = -1;
  int write_end = -1;
};

pid_t spawn(const std::vector<std::string>& arguments, int input, int output) {
  std::string name = "tolk_demo";
  std::vector<std::string> texts(arguments);
  std::vector<char*> argv{name.data()};
  for (std::string& text : texts) argv.push_back(text.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  pid_t child = 0;
  const int error = posix_spawn(&child, kOwnProgram, &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) fail(error, "posix_spawn");
  return child;
}

}  // namespace

struct Process::System {
  pid_t child = 0;
  int to_child = -1;
  int from_child = -1;
};

Process::Process() : system_(std::make_unique<System>()) {}

std::unique_ptr<Process> Process::start(const std::vector<std::string>& arguments) {
  signal(SIGPIPE, SIG_IGN);  // a write to a dead child fails instead
  std::unique_ptr<Process> process(new Process);
  const Pipe input;
  const Pipe output;
  process->system_->child = spawn(arguments, input.read_end, output.write_end);
  process->system_->to_child = input.write_end;
  process->system_->from_child = output.read_end;
  close(input.read_end);
  close(output.write_end);
  return process;
}

Process::~Process() {
  if (system_->child != 0) {
    kill(system_->child, SIGKILL);
    wait();
  }
  close(system_->from_child);
}

void Process::write_line(const std::string& line) {
  const std::string bytes = line + "\n";
  if (write(system_->to_child, bytes.data(), bytes.size()) < 0) return;
}

std::optional<std::string> Process::next_line() {
  const auto end = inbox_.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = inbox_.substr(0, end);
  inbox_.erase(0, end + 1);
  return line;
}

void Process::dismiss() {
  if (system_->to_child >= 0) close(std::exchange(system_->to_child, -1));
}

int Process::wait() {
  dismiss();
  int status = 0;
  while (waitpid(system_->child, &status, 0) < 0 && errno == EINTR) {
  }
  system_->child = 0;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

long Process::id() const { return system_->child; }

std::optional<std::uint64_t> Process::bytes_moved() const {
  std::ifstream counters("/proc/" + std::to_string(system_->child) + "/io");
  std::string name;
  std::uint64_t count = 0;
  std::uint64_t sum = 0;
  bool found = false;
  while (counters >> name >> count) {
    if (name != "rchar:" && name != "wchar:") continue;
    sum += count;
    found = true;
  }
  return found ? std::optional(sum) : std::nullopt;
}

bool read_any(const std::vector<Process*>& processes, int limit_ms) {
  std::vector<pollfd> waited;
  waited.reserve(processes.size());
  for (const Process* process : processes) {
    waited.push_back({process->system_->from_child, POLLIN, 0});
  }
  if (poll(waited.data(), waited.size(), limit_ms) <= 0) return false;
  for (std::size_t i = 0; i < waited.size(); ++i) {
    if (waited[i].revents == 0) continue;
    std::array<char, 65536> bytes;
    const ssize_t count = read(waited[i].fd, bytes.data(), bytes.size());
    if (count > 0) processes[i]->inbox_.append(bytes.data(), static_cast<std::size_t>(count));
    if (count == 0) processes[i]->silent_ = true;
  }
  return true;
}

long own_process_id() { return getpid(); }

bool output_is_terminal() { return isatty(STDOUT_FILENO) != 0; }

void print_by_lines() { std::setvbuf(stdout, nullptr, _IOLBF, 1 << 16); }

}  // namespace demo
