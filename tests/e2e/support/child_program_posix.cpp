#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>

#include "tests/child_process.h"
#include "tests/e2e/support/child_program.h"

namespace tolk::test {
namespace {

std::vector<std::string> command(std::string program, const std::vector<std::string>& arguments) {
  std::vector<std::string> words{std::move(program)};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

}  // namespace

struct ChildProgram::System {
  explicit System(std::vector<std::string> words)
      : process(std::move(words), {ends.theirs(), ends.theirs()}) {
    ends.close_theirs();
  }

  SocketPair ends;
  ChildProcess process;
};

ChildProgram::ChildProgram(const std::string& program, const std::vector<std::string>& arguments)
    : system_(std::make_unique<System>(command(program, arguments))) {}

ChildProgram::~ChildProgram() = default;

bool ChildProgram::write(const std::string& bytes) {
  const ssize_t sent = send(system_->ends.ours(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return sent == static_cast<ssize_t>(bytes.size());
}

std::optional<std::string> ChildProgram::read_some(Milliseconds limit) {
  pollfd one{system_->ends.ours(), POLLIN, 0};
  const auto left = std::max(limit, Milliseconds(0));
  if (poll(&one, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
  std::array<char, 4096> some{};
  const ssize_t got = recv(system_->ends.ours(), some.data(), some.size(), 0);
  if (got <= 0) return std::nullopt;
  return std::string(some.data(), static_cast<std::size_t>(got));
}

}  // namespace tolk::test
