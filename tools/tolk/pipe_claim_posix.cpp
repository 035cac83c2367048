#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "tools/tolk/command.h"
#include "tools/tolk/pipe_claim.h"
#include "tools/tolk/pipe_names.h"

namespace tolk::tool {
namespace {

std::string lock_path(const std::string& path) { return path + ".lock"; }

Failure unusable(const std::string& path, const char* why) {
  return {Exit::failed, fmt::format("{}: {}", path, why),
          "look whose it is; what is another's is not touched"};
}

// Whether `path` still names the file that is open: a server that ends removes its lock file.
bool names_file(const std::string& path, int descriptor) {
  struct stat named {};
  struct stat opened {};
  if (lstat(path.c_str(), &named) != 0 || fstat(descriptor, &opened) != 0) return false;
  return named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

// An open, locked lock file; -1 and errno otherwise.
int lock_file(const std::string& path) {
  const int flags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  const int descriptor = open(path.c_str(), flags, S_IRUSR | S_IWUSR);
  if (descriptor < 0) return -1;
  int result = 0;
  do {
    result = flock(descriptor, LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return descriptor;
  const int error = errno;
  close(descriptor);
  errno = error;
  return -1;
}

}  // namespace

std::string pipe_path(int number) {
  std::string directory = pipe_directory();
  if (directory.empty()) {
    // Made first and looked at afterwards: whoever got there before us is found out by that.
    const std::string own = "/tmp/tolk-" + std::to_string(geteuid());
    const int error = mkdir(own.c_str(), S_IRWXU) == 0 ? 0 : errno;
    directory = pipe_directory();
    if (directory.empty()) throw unusable(own, std::strerror(error == EEXIST ? EACCES : error));
  }
  return directory + "/echo.sock." + std::to_string(number);
}

PipeClaim::PipeClaim(int number) : path_(pipe_path(number)) {
  const std::string lock = lock_path(path_);
  constexpr int kMostTries = 100;  // each one was lost to another server that came and went
  for (int tries = 0; tries < kMostTries; ++tries) {
    descriptor_ = lock_file(lock);
    if (descriptor_ < 0 || names_file(lock, descriptor_)) break;
    close(std::exchange(descriptor_, -1));
  }
  if (descriptor_ < 0 && errno != EWOULDBLOCK) throw unusable(lock, std::strerror(errno));
  if (descriptor_ < 0) {
    throw Failure(Exit::failed, "cannot listen: another server has this number",
                  "stop the other server, or choose another number");
  }
  unlink(path_.c_str());
}

void PipeClaim::close_to_others() const { chmod(path_.c_str(), S_IRUSR | S_IWUSR); }

PipeClaim::~PipeClaim() {
  // Removed while it is still locked, or it could be the file of the next server.
  unlink(lock_path(path_).c_str());
  close(descriptor_);
}

}  // namespace tolk::tool
