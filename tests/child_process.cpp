#include "tests/child_process.h"

#include <signal.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace tolk::test {
namespace {

constexpr int kNotExecuted = 127;  // as of a shell

void close_once(int& descriptor) {
  if (descriptor >= 0) close(std::exchange(descriptor, -1));
}

int result_of(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

// Between fork and exec: nothing that takes memory or locks.
[[noreturn]] void execute(char* const* words, const Streams& streams) {
  dup2(streams.input, STDIN_FILENO);
  dup2(streams.output, STDOUT_FILENO);
  execv(words[0], words);
  _exit(kNotExecuted);
}

}  // namespace

SocketPair::SocketPair(int type) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  ours_ = ends[0];
  theirs_ = ends[1];
}

SocketPair::~SocketPair() {
  close_ours();
  close_theirs();
}

int SocketPair::take_ours() { return std::exchange(ours_, -1); }
void SocketPair::close_ours() { close_once(ours_); }
void SocketPair::close_theirs() { close_once(theirs_); }

ChildProcess::ChildProcess(std::vector<std::string> words, Streams streams) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  id_ = fork_here();
  if (id_ == 0) execute(pointers.data(), streams);
}

pid_t ChildProcess::fork_here() {
  const pid_t id = fork();
  if (id < 0) throw std::system_error(errno, std::generic_category(), "fork");
  return id;
}

int ChildProcess::wait() {
  int status = 0;
  while (waitpid(id_, &status, 0) < 0 && errno == EINTR) {
  }
  id_ = -1;
  return result_of(status);
}

std::optional<int> ChildProcess::wait_for(Milliseconds limit) {
  int status = 0;
  if (!eventually([&] { return waitpid(id_, &status, WNOHANG) == id_; }, limit)) {
    return std::nullopt;
  }
  id_ = -1;
  return result_of(status);
}

std::optional<int> ChildProcess::kill_and_wait() {
  if (id_ < 0) return std::nullopt;
  kill(id_, SIGKILL);
  return wait();
}

}  // namespace tolk::test
