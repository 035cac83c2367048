#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "tools/tolk/system/streams.h"

namespace tolk::tool {

std::vector<std::string> command_line(int argc, const char* const* argv) {
  return {argv + (argc > 0 ? 1 : 0), argv + argc};
}

void set_up_streams() {}

int private_copy(int descriptor) { return fcntl(descriptor, F_DUPFD_CLOEXEC, 3); }

void redirect(int from, int to) { dup2(from, to); }

int open_nothing() { return open("/dev/null", O_WRONLY | O_CLOEXEC); }

void close_descriptor(int descriptor) { close(descriptor); }

bool is_terminal(int descriptor) { return isatty(descriptor) != 0; }

int columns_of(int descriptor) {
  winsize size{};
  return ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

int write_all(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) return errno;
    if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

FileHandle open_file(const std::string& name, char mode) {
  return FileHandle(std::fopen(name.c_str(), mode == 'w' ? "wbe" : "rbe"));
}

}  // namespace tolk::tool
