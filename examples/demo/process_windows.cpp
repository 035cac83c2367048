// A child's input and output are anonymous pipes. The outputs are polled every millisecond, because
// several such pipes cannot be waited for at once.
#include <windows.h>
// These need windows.h.
#include <io.h>

#include <array>
#include <cstdio>
#include <system_error>
#include <utility>

#include "process.h"

namespace demo {
namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

void close_handle(HANDLE* handle) {
  if (*handle != nullptr) CloseHandle(std::exchange(*handle, nullptr));
}

// A pipe. The child inherits the end that it uses.
struct Pipe {
  HANDLE read_end = nullptr;
  HANDLE write_end = nullptr;

  Pipe() {
    if (CreatePipe(&read_end, &write_end, nullptr, 0) == 0) fail("CreatePipe");
  }
  static HANDLE inherited(HANDLE end) {
    SetHandleInformation(end, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    return end;
  }
};

std::string own_program() {
  std::array<char, 32768> path{};
  GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size()));
  return path.data();
}

std::string command_line(const std::vector<std::string>& arguments) {
  std::string line = '"' + own_program() + '"';
  for (const std::string& argument : arguments) line += " \"" + argument + '"';
  return line;
}

PROCESS_INFORMATION spawn(const std::vector<std::string>& arguments, HANDLE input, HANDLE output) {
  std::string line = command_line(arguments);
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = input;
  startup.hStdOutput = output;
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION started{};
  if (CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                     &started) == 0) {
    fail("CreateProcess");
  }
  CloseHandle(started.hThread);
  return started;
}

}  // namespace

struct Process::System {
  HANDLE child = nullptr;
  DWORD id = 0;
  HANDLE to_child = nullptr;
  HANDLE from_child = nullptr;
};

Process::Process() : system_(std::make_unique<System>()) {}

std::unique_ptr<Process> Process::start(const std::vector<std::string>& arguments) {
  std::unique_ptr<Process> process(new Process);
  Pipe input;
  Pipe output;
  const PROCESS_INFORMATION started =
      spawn(arguments, Pipe::inherited(input.read_end), Pipe::inherited(output.write_end));
  process->system_->child = started.hProcess;
  process->system_->id = started.dwProcessId;
  process->system_->to_child = input.write_end;
  process->system_->from_child = output.read_end;
  close_handle(&input.read_end);
  close_handle(&output.write_end);
  return process;
}

Process::~Process() {
  if (system_->child != nullptr) {
    TerminateProcess(system_->child, 1);
    wait();
  }
  close_handle(&system_->from_child);
}

void Process::write_line(const std::string& line) {
  const std::string bytes = line + "\n";
  DWORD written = 0;
  WriteFile(system_->to_child, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

std::optional<std::string> Process::next_line() {
  const auto end = inbox_.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = inbox_.substr(0, end);
  inbox_.erase(0, end + 1);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

void Process::dismiss() { close_handle(&system_->to_child); }

int Process::wait() {
  dismiss();
  WaitForSingleObject(system_->child, INFINITE);
  DWORD status = 0;
  GetExitCodeProcess(system_->child, &status);
  close_handle(&system_->child);
  return static_cast<int>(status);
}

long Process::id() const { return static_cast<long>(system_->id); }

std::optional<std::uint64_t> Process::bytes_moved() const {
  IO_COUNTERS counters{};
  if (GetProcessIoCounters(system_->child, &counters) == 0) return std::nullopt;
  const std::uint64_t sum = counters.ReadTransferCount + counters.WriteTransferCount;
  return sum == 0 ? std::nullopt : std::optional(sum);
}

bool read_any(const std::vector<Process*>& processes, int limit_ms) {
  const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(limit_ms);
  for (bool found = false; !found; Sleep(1)) {
    for (Process* process : processes) {
      std::array<char, 65536> bytes;
      DWORD count = 0;
      const HANDLE from = process->system_->from_child;
      process->silent_ = PeekNamedPipe(from, nullptr, 0, nullptr, &count, nullptr) == 0;
      if (count > 0) {
        ReadFile(from, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr);
        process->inbox_.append(bytes.data(), count);
      }
      found = found || count > 0 || process->silent_;
    }
    if (found) return true;
    if (GetTickCount64() >= end) return false;
  }
  return true;
}

long own_process_id() { return static_cast<long>(GetCurrentProcessId()); }

bool output_is_terminal() { return _isatty(_fileno(stdout)) != 0; }

// Windows has no line buffering.
void print_by_lines() { std::setvbuf(stdout, nullptr, _IONBF, 0); }

}  // namespace demo
