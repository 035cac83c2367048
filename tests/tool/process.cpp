#include "tests/tool/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <set>

namespace tolk::test {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kProcessLimit{30};

struct Pair {
  int ours = -1;
  int theirs = -1;
};

Pair pipe_from_child() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) ADD_FAILURE() << "no pipe";
  return {ends[0], ends[1]};
}
Pair pipe_to_child() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) ADD_FAILURE() << "no pipe";
  return {ends[1], ends[0]};
}
Pair terminal() {
  Pair pair;
  winsize size{};
  size.ws_col = 100;
  size.ws_row = 30;
  if (openpty(&pair.ours, &pair.theirs, nullptr, nullptr, &size) != 0) {
    ADD_FAILURE() << "no terminal";
  }
  fcntl(pair.ours, F_SETFD, FD_CLOEXEC);
  fcntl(pair.theirs, F_SETFD, FD_CLOEXEC);
  return pair;
}

struct Launch {
  std::vector<std::string> words;
  std::vector<std::string> environment;
  std::string folder;
  int in, out, err, terminal;
};

// Between fork and exec: nothing that takes memory or locks.
[[noreturn]] void become(const Launch& launch, char* const* words, char* const* environment) {
  setsid();
  if (launch.terminal >= 0) ioctl(launch.terminal, TIOCSCTTY, 0);
  dup2(launch.in, STDIN_FILENO);
  dup2(launch.out, STDOUT_FILENO);
  dup2(launch.err, STDERR_FILENO);
  if (!launch.folder.empty() && chdir(launch.folder.c_str()) != 0) _exit(126);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execve(words[0], words, environment);
  _exit(127);
}

std::vector<char*> pointers(const std::vector<std::string>& texts) {
  std::vector<char*> all;
  for (const std::string& text : texts) all.push_back(const_cast<char*>(text.c_str()));
  all.push_back(nullptr);
  return all;
}

pid_t launch_process(const Launch& launch) {
  const std::vector<char*> words = pointers(launch.words);
  const std::vector<char*> environment = pointers(launch.environment);
  const pid_t process = fork();
  if (process == 0) become(launch, words.data(), environment.data());
  return process;
}

// The command under test is the first that PATH has, and the colours are its own choice.
std::vector<std::string> environment_of(const Given& given) {
  const std::string command = TOLK_COMMAND;
  const char* const path = std::getenv("PATH");
  std::vector<std::string> all = {
      "PATH=" + command.substr(0, command.rfind('/')) + ":" + (path ? path : "/usr/bin:/bin"),
      "TERM=xterm", "LC_ALL=C.UTF-8"};
  for (const char* const name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "HOME"}) {
    if (const char* const value = std::getenv(name)) {
      all.push_back(std::string(name) + "=" + value);
    }
  }
  all.insert(all.end(), given.environment.begin(), given.environment.end());
  return all;
}

void write_all(int descriptor, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t size = write(descriptor, text.data() + done, text.size() - done);
    if (size <= 0) return;
    done += static_cast<std::size_t>(size);
  }
}

}  // namespace

Process::Process(const std::vector<std::string>& words, const Given& given) {
  (void)::signal(SIGPIPE, SIG_IGN);  // a command that does not read its input
  const Pair in = pipe_to_child();
  const bool has_terminal = given.out_is_terminal || given.err_is_terminal;
  const Pair screen = has_terminal ? terminal() : Pair{};
  const Pair out = given.out_is_terminal ? screen : pipe_from_child();
  const Pair err = given.err_is_terminal ? screen : pipe_from_child();
  process_ = launch_process({words, environment_of(given), given.folder, in.theirs, out.theirs,
                             err.theirs, screen.theirs});
  for (const int theirs : std::set<int>{in.theirs, out.theirs, err.theirs}) close(theirs);
  terminal_ = screen.ours;
  out_.descriptor = out.ours;
  err_.descriptor = err.ours == out.ours ? -1 : err.ours;
  write_all(in.ours, given.input);
  close(in.ours);
  out_.reader = std::thread([this] { read_all(out_); });
  err_.reader = std::thread([this] { read_all(err_); });
}

Process::~Process() {
  if (process_ > 0) {
    signal(SIGKILL);
    (void)end();
  }
}

// The end of a terminal is an error.
void Process::read_all(Stream& stream) {
  char part[4096];
  while (stream.descriptor >= 0) {
    const ssize_t size = read(stream.descriptor, part, sizeof(part));
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) break;
    const std::lock_guard<std::mutex> lock(mutex_);
    stream.text.append(part, static_cast<std::size_t>(size));
    changed_.notify_all();
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  stream.ended = true;
  changed_.notify_all();
}

void Process::await(const std::string& text) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto has = [&](const Stream& stream) {
    return stream.text.find(text) != std::string::npos;
  };
  const bool told = changed_.wait_for(
      lock, kProcessLimit, [&] { return has(out_) || has(err_) || (out_.ended && err_.ended); });
  if (!told || !(has(out_) || has(err_))) {
    ADD_FAILURE() << "\"" << text << "\" did not come, but:\n" << out_.text << err_.text;
  }
}

void Process::signal(int number) const { kill(-process_, number); }

void Process::type(const std::string& keys) const { write_all(terminal_, keys); }

Ended Process::end() {
  const auto begun = Clock::now();
  int status = 0;
  while (waitpid(process_, &status, WNOHANG) == 0) {
    if (Clock::now() - begun > kProcessLimit) {
      ADD_FAILURE() << "the command does not end";
      signal(SIGKILL);
    }
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(5));
  }
  process_ = -1;
  for (Stream* const stream : {&out_, &err_}) {
    stream->reader.join();
    if (stream->descriptor >= 0) close(stream->descriptor);
  }
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return {code, out_.text, err_.text};
}

std::vector<std::string> tolk_words(std::vector<std::string> words) {
  words.insert(words.begin(), TOLK_COMMAND);
  return words;
}

Ended tolk_command(std::vector<std::string> words, const Given& given) {
  Process process(tolk_words(std::move(words)), given);
  return process.end();
}

}  // namespace tolk::test
