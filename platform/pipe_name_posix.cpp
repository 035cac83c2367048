#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <uv.h>

#include <cerrno>
#include <utility>

#include "platform/pipe_directory.h"
#include "platform/pipe_name.h"
#include "platform/process.h"

namespace tolk::platform {
namespace {

constexpr std::size_t kLongestPathBytes = sizeof(sockaddr_un::sun_path) - 1;
constexpr int kMostTries = 100;  // each of them failed because another server started and ended
constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

int last_error() { return uv_translate_sys_error(errno); }

bool is_own(const struct stat& file) { return file.st_uid == geteuid(); }

// Opens the lock file. Refuses the file of another user, who could hold the lock forever.
int open_own(const std::string& path) {
  const int flags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  const int descriptor = open(path.c_str(), flags, kOwnerOnly);
  if (descriptor < 0) return last_error();
  struct stat opened {};
  if (fstat(descriptor, &opened) == 0 && is_own(opened)) return descriptor;
  close(descriptor);
  return UV_EACCES;
}

// Opens the lock file and locks it. Returns a descriptor, or a negative error.
int open_locked(const std::string& path) {
  const int descriptor = open_own(path);
  if (descriptor < 0) return descriptor;
  while (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    const int error = errno == EWOULDBLOCK ? UV_EADDRINUSE : last_error();
    close(descriptor);
    return error;
  }
  return descriptor;
}

// Whether `path` still names the file that is open as `descriptor`.
bool names_file(const std::string& path, int descriptor) {
  struct stat named {};
  struct stat opened {};
  if (lstat(path.c_str(), &named) != 0 || fstat(descriptor, &opened) != 0) return false;
  return named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

// Removes the socket file that a dead server of this user left. The file of another user stays: its
// server may be alive.
int remove_stale(const std::string& path) {
  struct stat left {};
  if (lstat(path.c_str(), &left) == 0 && !is_own(left)) return UV_EACCES;
  return unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : last_error();
}

}  // namespace

PipeAddress pipe_address(std::string_view name) {
  constexpr std::string_view kNotInAFileName("/\0", 2);
  if (name.find_first_of(kNotInAFileName) != std::string_view::npos) return {{}, UV_EINVAL};
  PipeDirectory directory = pipe_directory("/run/user", "/tmp", geteuid());
  if (directory.error != 0) return {{}, directory.error};
  std::string path = std::move(directory.path);
  path.append("/echo.sock.").append(name);
  // libuv would cut the path silently, and two long names could then be the same pipe.
  if (path.size() > kLongestPathBytes) return {{}, UV_ENAMETOOLONG};
  return {std::move(path), 0};
}

int restrict_to_owner(const std::string& path) {
  return chmod(path.c_str(), kOwnerOnly) == 0 ? 0 : last_error();
}

// A server that ends removes its lock file, so the file that was opened may not be the file that
// other servers will find. This is why the name is checked again:
//
//   ending server            this one                 a third
//                            open (old file)
//   remove, close
//                            lock (old file): granted
//                                                     open, lock (new file): granted
//                            the name is another file: try again, refused
int PipeNameLock::acquire(const std::string& path) {
  release();
  std::string lock_path = path + ".lock";
  int descriptor = open_locked(lock_path);
  for (int tries = 1; descriptor >= 0 && !names_file(lock_path, descriptor); ++tries) {
    close(descriptor);
    descriptor = tries < kMostTries ? open_locked(lock_path) : UV_EADDRINUSE;
  }
  if (descriptor < 0) return descriptor;
  lock_path_ = std::move(lock_path);
  descriptor_ = descriptor;
  generation_ = generation();
  const int error = remove_stale(path);
  if (error != 0) release();
  return error;
}

void PipeNameLock::release() {
  if (descriptor_ < 0) return;
  if (generation_ == generation()) {
    // Remove the file while it is locked: later it could be the file of the next server. This frees
    // the name even if a forked child has a copy of the descriptor, and so keeps the lock.
    if (names_file(lock_path_, descriptor_)) unlink(lock_path_.c_str());
  }
  close(descriptor_);
  descriptor_ = -1;
}

}  // namespace tolk::platform
