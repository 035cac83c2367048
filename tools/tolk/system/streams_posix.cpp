#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "tools/tolk/system/streams.h"

namespace tolk::tool {

std::vector<std::string> command_line(int argc, const char* const* argv) {
  return {argv + (argc > 0 ? 1 : 0), argv + argc};
}

// Where one of the three is closed, another file would get its number, and what is meant for it.
void set_up_streams() {
  for (const int descriptor : {kStdin, kStdout, kStderr}) {
    if (fcntl(descriptor, F_GETFD) < 0) (void)open("/dev/null", O_RDONLY);
  }
}

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

FileHandle temporary_file() { return FileHandle(std::tmpfile()); }

}  // namespace tolk::tool
