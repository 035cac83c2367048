// Reads /proc by bare system calls. The thread sanitizer knows the descriptors that library calls
// open, but not that libuv has closed its own, and takes a number that comes back for a race.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/system.h"

namespace tolk::test {
namespace {

class Opened {
 public:
  explicit Opened(const char* path)
      : descriptor_(syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC)) {}
  ~Opened() { syscall(SYS_close, descriptor_); }
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;

  std::string read_all(long call) const {
    std::string all;
    std::array<char, 4096> some{};
    for (;;) {
      const long count = syscall(call, descriptor_, some.data(), some.size());
      if (count <= 0) return all;
      all.append(some.data(), static_cast<std::size_t>(count));
    }
  }

 private:
  const long descriptor_;
};

// The names in a directory of /proc, without those that begin with a dot.
std::vector<std::string> names_in(const char* directory) {
  const std::string entries = Opened(directory).read_all(SYS_getdents64);
  std::vector<std::string> names;
  for (std::size_t at = 0; at < entries.size();) {
    unsigned short entry_bytes = 0;
    std::memcpy(&entry_bytes, entries.data() + at + offsetof(dirent64, d_reclen),
                sizeof entry_bytes);
    const char* const name = entries.data() + at + offsetof(dirent64, d_name);
    if (*name != '.') names.emplace_back(name);
    at += entry_bytes;
  }
  return names;
}

std::string link_target(const std::string& path) {
  std::array<char, 256> target{};
  const long size = syscall(SYS_readlinkat, AT_FDCWD, path.c_str(), target.data(), target.size());
  return {target.data(), static_cast<std::size_t>(size < 0 ? 0 : size)};
}

}  // namespace

int open_descriptors() {
  return static_cast<int>(names_in("/proc/self/fd").size()) - 1;  // without that of this directory
}

int threads() { return static_cast<int>(names_in("/proc/self/task").size()); }

int open_loops() {
  int count = 0;
  for (const std::string& name : names_in("/proc/self/fd")) {
    if (link_target("/proc/self/fd/" + name) == "anon_inode:[eventpoll]") ++count;
  }
  return count;
}

long resident_kib() {
  const std::string status = Opened("/proc/self/status").read_all(SYS_read);
  const std::size_t at = status.find("VmRSS:");
  return at == std::string::npos ? 0 : std::stol(status.substr(at + std::strlen("VmRSS:")));
}

long held_back_kib() {
#if defined(__SANITIZE_ADDRESS__)
  return 400L * 1024;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
  return 400L * 1024;
#else
  return 0;
#endif
#else
  return 0;
#endif
}

bool is_own_call_id(int id) {
  const auto own = reinterpret_cast<std::uintptr_t>(reinterpret_cast<void*>(pthread_self()));
  return id == static_cast<int>(static_cast<std::uint32_t>(own));
}

bool pipe_names_are_exclusive() { return true; }

int process_number() { return getpid(); }

}  // namespace tolk::test
