#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/tolk/command.h"
#include "tools/tolk/inbox.h"
#include "tools/tolk/printable.h"

namespace tolk::tool {
namespace {

constexpr std::size_t kMostNameBytes = 200;  // below what file systems take

Refused refused(const std::string& name, std::string_view why) {
  return Refused(fmt::format("{}: {}", printable(name.substr(0, kMostNameBytes)), why));
}

void check_name(const std::string& name) {
  if (name.empty()) throw Refused("the name of the file is empty");
  if (name.size() > kMostNameBytes) throw refused(name, "the name is too long");
  if (name.find_first_of("/\\") != std::string::npos) {
    throw refused(name, "a name has no folders in it");
  }
  // Also "." and "..", and files that programs read without being asked to.
  if (name.front() == '.') throw refused(name, "a name does not begin with a point");
  if (!is_printable(name)) throw refused(name, "the name has characters that can not be shown");
}

// 0, or the system's error.
int write_all(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) return errno;
    if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

}  // namespace

Inbox::Inbox(const std::string& directory, bool overwrite)
    : directory_(directory),
      overwrite_(overwrite),
      descriptor_(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  const int error = descriptor_ < 0 || faccessat(descriptor_, ".", W_OK, 0) != 0 ? errno : 0;
  if (error == 0) return;
  if (descriptor_ >= 0) close(descriptor_);
  throw Failure(Exit::failed, fmt::format("{}: {}", directory, std::strerror(error)),
                "name a directory that files can be written to");
}

Inbox::~Inbox() { close(descriptor_); }

std::string Inbox::save(const std::optional<std::string>& name, std::string_view bytes) {
  if (name) check_name(*name);
  const std::string part = begin(bytes);
  try {
    std::string saved = name ? *name : finish_unnamed(part);
    if (name) finish(part, saved);
    return saved;
  } catch (...) {
    unlinkat(descriptor_, part.c_str(), 0);
    throw;
  }
}

std::string Inbox::path_of(const std::string& name) const {
  if (directory_ == ".") return name;
  return directory_ + (directory_.ends_with('/') ? "" : "/") + name;
}

// Writes a file under a name that no peer can choose.
std::string Inbox::begin(std::string_view bytes) {
  std::string part = fmt::format(".tolk-{}-{}.part", getpid(), ++last_part_);
  const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  const int file = openat(descriptor_, part.c_str(), flags, 0666);  // less the umask
  if (file < 0) throw Refused(fmt::format("can not be saved: {}", std::strerror(errno)));
  int error = write_all(file, bytes);
  if (close(file) != 0 && error == 0) error = errno;
  if (error == 0) return part;
  unlinkat(descriptor_, part.c_str(), 0);
  throw Refused(fmt::format("can not be saved: {}", std::strerror(error)));
}

void Inbox::finish(const std::string& part, const std::string& name) {
  if (overwrite_) {
    // Takes the place of a link too, and never follows it.
    if (renameat(descriptor_, part.c_str(), descriptor_, name.c_str()) == 0) return;
    throw refused(name, std::strerror(errno));
  }
  const int error = link(part, name);
  if (error == EEXIST) throw refused(name, "there is such a file already");
  if (error != 0) throw refused(name, std::strerror(error));
}

std::string Inbox::finish_unnamed(const std::string& part) {
  constexpr int kMostTries = 10'000;
  for (int number = 1; number <= kMostTries; ++number) {
    std::string name = fmt::format("received-{}", number);
    const int error = link(part, name);
    if (error == 0) return name;
    if (error != EEXIST) throw refused(name, std::strerror(error));
  }
  throw Refused("there are too many files without a name");
}

// Gives the file its name, if there is none of that name: the two are one step for the system.
int Inbox::link(const std::string& part, const std::string& name) const {
  if (linkat(descriptor_, part.c_str(), descriptor_, name.c_str(), 0) != 0) return errno;
  unlinkat(descriptor_, part.c_str(), 0);
  return 0;
}

}  // namespace tolk::tool
