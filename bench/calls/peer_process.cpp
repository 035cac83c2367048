#include "bench/calls/peer_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <system_error>

namespace bench {
namespace {

// The channel is the peer's standard input, in both directions.
constexpr int kChannel = 0;
constexpr char kAskUsage = 'u';

const char* text_of(Kind kind) {
  switch (kind) {
    case Kind::library:
      return "library";
    case Kind::bare_socket:
      return "bare-socket";
    case Kind::bare_threads:
      return "bare-threads";
  }
  return "";
}

std::unique_ptr<PeerServer> start_server(const std::string& kind, Transport transport) {
  if (kind == text_of(Kind::library)) return start_library_server(transport);
  if (kind == text_of(Kind::bare_threads)) return start_threaded_server(transport);
  return start_bare_server(transport);
}

double microseconds(const timeval& time) {
  return 1e6 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec);
}

pid_t start_this_program(int channel, const char* kind, const char* transport) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, channel, kChannel);
  // The library's own lines don't belong between the tables.
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  std::string words[] = {"tolk_bench_calls", kServeCommand, kind, transport};
  char* arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), nullptr};
  pid_t process = -1;
  const int status = posix_spawn(&process, "/proc/self/exe", &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (status != 0) throw std::system_error(status, std::generic_category(), "posix_spawn");
  return process;
}

}  // namespace

Usage usage_of_this_process() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  return {microseconds(used.ru_utime) + microseconds(used.ru_stime),
          static_cast<double>(used.ru_nvcsw) + static_cast<double>(used.ru_nivcsw)};
}

PeerProcess::PeerProcess(Kind kind, Transport transport) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  channel_ = Socket(ends[0]);
  {
    const Socket theirs(ends[1]);  // ours to close, so that the peer's end is an end
    process_ = start_this_program(theirs.get(), text_of(kind), name_of(transport));
  }
  // Its first words are its server's name; they come in one piece.
  std::array<char, 64> name;
  const ssize_t count = recv(channel_.get(), name.data(), name.size(), 0);
  if (count > 0) name_.assign(name.data(), static_cast<std::size_t>(count));
  // Without a name, connecting to it fails, and says so.
}

PeerProcess::~PeerProcess() {
  channel_.end();
  waitpid(process_, nullptr, 0);
}

Usage PeerProcess::usage() const {
  Usage usage;
  if (!write_all(channel_, {&kAskUsage, 1}) ||
      recv(channel_.get(), &usage, sizeof usage, MSG_WAITALL) != sizeof usage) {
    throw std::runtime_error("the peer process has gone");
  }
  return usage;
}

int serve(const std::string& kind, const std::string& transport) {
  const Socket channel(kChannel);
  try {
    // A server on TCP removes a file of the current folder that is named like its port.
    if (chdir("/") != 0) return 1;
    const auto server = start_server(kind, transport_of(transport));
    if (!write_all(channel, server->name())) return 1;
    char asked = 0;
    while (recv(channel.get(), &asked, 1, 0) == 1) {
      const Usage usage = usage_of_this_process();
      write_all(channel, {reinterpret_cast<const char*>(&usage), sizeof usage});
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "peer process: %s\n", error.what());
    return 1;
  }
}

}  // namespace bench
