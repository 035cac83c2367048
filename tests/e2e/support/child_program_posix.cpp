#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "tests/e2e/support/child_program.h"

namespace tolk::test {

struct ChildProgram::System {
  pid_t child = -1;
  int to = -1;
  int from = -1;
};

ChildProgram::ChildProgram(const std::string& program, const std::vector<std::string>& arguments)
    : system_(std::make_unique<System>()) {
  std::vector<std::string> texts(arguments);
  texts.insert(texts.begin(), program);
  std::vector<char*> argv;
  for (std::string& text : texts) argv.push_back(text.data());
  argv.push_back(nullptr);

  std::array<int, 2> in{};
  std::array<int, 2> out{};
  EXPECT_EQ(pipe2(in.data(), O_CLOEXEC), 0);
  EXPECT_EQ(pipe2(out.data(), O_CLOEXEC), 0);
  system_->child = fork();
  if (system_->child == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  system_->to = in[1];
  system_->from = out[0];
}

ChildProgram::~ChildProgram() {
  kill(system_->child, SIGKILL);
  waitpid(system_->child, nullptr, 0);
  close(system_->to);
  close(system_->from);
}

bool ChildProgram::write(const std::string& bytes) {
  return ::write(system_->to, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

std::optional<std::string> ChildProgram::read_some(Milliseconds limit) {
  pollfd one{system_->from, POLLIN, 0};
  const auto left = std::max(limit, Milliseconds(0));
  if (poll(&one, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
  std::array<char, 4096> some{};
  const ssize_t got = read(system_->from, some.data(), some.size());
  if (got <= 0) return std::nullopt;
  return std::string(some.data(), static_cast<std::size_t>(got));
}

}  // namespace tolk::test
