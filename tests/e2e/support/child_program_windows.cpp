// Uses named pipes, since only those can be read with a limit.
#include <windows.h>

#include <array>

#include "tests/e2e/support/child_program.h"
#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/raw_channel.h"

namespace tolk::test {
namespace {

// One pipe: the end that the test has, and the one that its child inherits.
struct Pipe {
  explicit Pipe(const std::string& name) {
    const auto acceptor = open_pipe_acceptor(name);
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    child_end = CreateFileA(pipe_path(name).c_str(), GENERIC_READ | GENERIC_WRITE, 0, &inherited,
                            OPEN_EXISTING, 0, nullptr);
    own_end = acceptor->accept(kLimit);
  }
  ~Pipe() { CloseHandle(child_end); }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  std::unique_ptr<RawChannel> own_end;
  HANDLE child_end;
};

std::string fresh_name() {
  static int count = 0;
  return "child." + std::to_string(process_number()) + "." + std::to_string(++count);
}

}  // namespace

struct ChildProgram::System {
  HANDLE process = nullptr;
  std::unique_ptr<RawChannel> to;
  std::unique_ptr<RawChannel> from;
};

ChildProgram::ChildProgram(const std::string& program, const std::vector<std::string>& arguments)
    : system_(std::make_unique<System>()) {
  std::string line = '"' + program + '"';
  for (const std::string& argument : arguments) line += " \"" + argument + '"';
  Pipe in(fresh_name());
  Pipe out(fresh_name());
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = in.child_end;
  startup.hStdOutput = out.child_end;
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION started{};
  EXPECT_TRUE(CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                             &startup, &started))
      << line << ": " << GetLastError();
  CloseHandle(started.hThread);
  system_->process = started.hProcess;
  system_->to = std::move(in.own_end);
  system_->from = std::move(out.own_end);
}

ChildProgram::~ChildProgram() {
  TerminateProcess(system_->process, 1);
  WaitForSingleObject(system_->process, INFINITE);
  CloseHandle(system_->process);
}

bool ChildProgram::write(const std::string& bytes) {
  return system_->to->write_some(bytes, kLimit) == bytes.size();
}

// Removes the carriage returns of text output.
std::optional<std::string> ChildProgram::read_some(Milliseconds limit) {
  std::array<char, 4096> some{};
  const auto count = system_->from->read_some(some.data(), some.size(), limit);
  if (!count || *count == 0) return std::nullopt;
  std::string bytes(some.data(), *count);
  std::erase(bytes, '\r');
  return bytes;
}

}  // namespace tolk::test
