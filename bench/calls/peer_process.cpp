#include "bench/calls/peer_process.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <exception>
#include <stdexcept>

namespace bench {
namespace {

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

// For the library's own lines, which don't belong between the tables.
int nowhere() {
  static const int descriptor = open("/dev/null", O_WRONLY | O_CLOEXEC);
  return descriptor;
}

}  // namespace

Usage usage_of_this_process() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  return {microseconds(used.ru_utime) + microseconds(used.ru_stime),
          static_cast<double>(used.ru_nvcsw) + static_cast<double>(used.ru_nivcsw)};
}

PeerProcess::PeerProcess(Kind kind, Transport transport)
    : process_({tolk::test::kThisProgram, kServeCommand, text_of(kind), name_of(transport)},
               {ends_.theirs(), nowhere()}) {
  ends_.close_theirs();
  // Its first words are its server's name; they come in one piece.
  std::array<char, 64> name;
  const ssize_t count = recv(channel_.get(), name.data(), name.size(), 0);
  if (count > 0) name_.assign(name.data(), static_cast<std::size_t>(count));
  // Without a name, connecting to it fails, and says so.
}

PeerProcess::~PeerProcess() {
  channel_.end();
  process_.wait();
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
  const Socket channel(STDIN_FILENO);  // in both directions
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
