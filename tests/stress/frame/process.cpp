#include "tests/stress/frame/process.h"

#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <streambuf>

namespace tolk::stress {
namespace {

std::atomic<int> all_bad_ends{0};

std::vector<std::string> in_role(std::vector<std::string> words) {
  words.insert(words.begin(), {test::kThisProgram, "--role"});
  return words;
}

std::string text_of_end(int result) {
  return result < 0 ? "died of signal " + std::to_string(-result)
                    : "exited with " + std::to_string(result);
}

class Dropping final : public std::streambuf {
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
  int_type overflow(int_type character) override { return traits_type::not_eof(character); }
};

}  // namespace

bool LineChannel::tell(const std::string& line) const {
  const std::string bytes = line + "\n";
  ssize_t sent = -1;
  do {
    sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(bytes.size());
}

std::optional<std::string> LineChannel::read_line(test::Milliseconds limit) {
  const test::Stopwatch clock;
  for (;;) {
    const std::size_t end = received_.find('\n');
    if (end != std::string::npos) {
      std::string line = received_.substr(0, end);
      received_.erase(0, end + 1);
      return line;
    }
    const auto left = (limit - clock.elapsed()).count();
    pollfd one{descriptor_, POLLIN, 0};
    const int ready = poll(&one, 1, left < 0 ? 0 : static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return std::nullopt;
    std::array<char, 4096> some{};
    const ssize_t count = recv(descriptor_, some.data(), some.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return std::nullopt;
    received_.append(some.data(), static_cast<std::size_t>(count));
  }
}

Process::Process(const std::vector<std::string>& words)
    : role_(words.front()),
      channel_(ends_.ours()),
      process_(in_role(words), {.input = ends_.theirs()}) {
  ends_.close_theirs();
}

Process::~Process() { end(); }

std::optional<std::string> Process::ask(const std::string& line, test::Milliseconds limit) {
  if (!tell(line)) return std::nullopt;
  return read_line(limit);
}

void Process::kill_now() {
  const auto ended = process_.kill_and_wait();
  if (ended && *ended != -SIGKILL) note_bad_end(text_of_end(*ended));
}

void Process::end() {
  if (id() < 0) return;
  shutdown(channel_.descriptor(), SHUT_RDWR);
  const auto ended = process_.wait_for(test::kLimit);
  if (ended == 0) return;
  note_bad_end(ended ? text_of_end(*ended) : "did not end");
  kill_now();
}

void Process::note_bad_end(const std::string& how) const {
  ++all_bad_ends;
  std::printf("  FAILED: the process in the role of %s %s\n", role_.c_str(), how.c_str());
  std::fflush(stdout);
}

int Process::bad_ends() { return all_bad_ends; }

bool Process::is_alive() const {
  siginfo_t info{};
  return id() > 0 &&
         waitid(P_PID, static_cast<id_t>(id()), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

long resident_kib_of(const std::string& process) {
  std::ifstream status("/proc/" + process + "/status");
  std::string word;
  long kib = 0;
  while (status >> word) {
    if (word == "VmRSS:" && status >> kib) return kib;
  }
  return 0;
}

int descriptors_of(const std::string& process) {
  DIR* const directory = opendir(("/proc/" + process + "/fd").c_str());
  if (directory == nullptr) return 0;
  int count = process == "self" ? -1 : 0;  // without the one that looks
  while (const dirent* const entry = readdir(directory)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(directory);
  return count;
}

long Process::resident_kib() const { return resident_kib_of(std::to_string(id())); }
int Process::descriptors() const { return descriptors_of(std::to_string(id())); }

double Process::processor_s() const {
  std::ifstream file("/proc/" + std::to_string(id()) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t behind_name = text.rfind(')');
  if (behind_name == std::string::npos) return 0;
  std::istringstream fields(text.substr(behind_name + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) fields >> skipped;
  double user = 0;
  double system = 0;
  fields >> user >> system;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

LineChannel& the_row() {
  static LineChannel channel(STDIN_FILENO);
  return channel;
}

void drop_library_lines() {
  static auto* const dropping = new Dropping;  // loop threads may write until the very end
  std::ios_base::sync_with_stdio(false);       // only the first call exchanges the buffers
  std::cout.rdbuf(dropping);
}

std::string text_of(const test::Address& address) {
  switch (address.transport) {
    case test::Transport::tcp4:
      return "4:" + address.port;
    case test::Transport::tcp6:
      return "6:" + address.port;
    default:
      return "p:" + address.port;
  }
}

test::Address address_of(const std::string& text) {
  const std::string port = text.substr(2);
  if (text.front() == '4') return {test::Transport::tcp4, "127.0.0.1", port};
  if (text.front() == '6') return {test::Transport::tcp6, "::1", port};
  return {test::Transport::pipe, {}, port};
}

}  // namespace tolk::stress
