#include "tests/access/users.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>

#include "tests/e2e/support/waiting.h"

namespace tolk::test {
namespace {

constexpr unsigned kActorSeconds = 45;

// For good: none of the three ids of the process is root's any more.
void become(uid_t user) {
  if (user == 0) return;
  if (setgroups(0, nullptr) != 0 || setresgid(user, user, user) != 0 ||
      setresuid(user, user, user) != 0) {
    std::perror("another user");
    _exit(1);
  }
  prctl(PR_SET_DUMPABLE, 1);  // or it could not read its own /proc, and sanitizers neither
}

}  // namespace

TestUser::TestUser() {
  // Within what containers map, above what systems give to people and services of their own.
  constexpr uid_t kFirst = 20000;
  constexpr uid_t kCount = 40000;
  for (uid_t tried = static_cast<uid_t>(getpid()) * 7;; ++tried) {
    id_ = kFirst + tried % kCount;
    mark_ = "/tmp/.tolk-test-user-" + std::to_string(id_);
    const int made = open(mark_.c_str(), O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR);
    if (made < 0) continue;
    close(made);
    if (access(temporary().c_str(), F_OK) != 0 && access(runtime().c_str(), F_OK) != 0) return;
    unlink(mark_.c_str());
  }
}

TestUser::~TestUser() {
  std::error_code ignored;
  std::filesystem::remove_all(temporary(), ignored);
  std::filesystem::remove_all(runtime(), ignored);
  unlink(mark_.c_str());
}

void Talk::tell(const std::string& word) const {
  send(descriptor_, word.data(), word.size(), MSG_NOSIGNAL);
}

std::string Talk::hear() const {
  pollfd one{descriptor_, POLLIN, 0};
  if (poll(&one, 1, static_cast<int>(kLimit.count())) <= 0) return {};
  std::array<char, 4096> word{};
  const ssize_t size = recv(descriptor_, word.data(), word.size(), 0);
  return {word.data(), static_cast<std::size_t>(size < 0 ? 0 : size)};
}

Actor::Actor(uid_t user, const std::function<void(Talk&)>& role)
    : output_(memfd_create("output", MFD_CLOEXEC)),
      process_(
          [&] {
            ends_.close_ours();
            dup2(output_, STDOUT_FILENO);
            setvbuf(stdout, nullptr, _IONBF, 0);  // the library does not flush its lines
            become(user);
            Talk talk(ends_.theirs());
            role(talk);
            return 0;
          },
          kActorSeconds) {
  ends_.close_theirs();
}

Actor::~Actor() {
  kill();
  close(output_);
}

std::string Actor::printed() const {
  std::array<char, 1 << 16> all{};
  const ssize_t size = pread(output_, all.data(), all.size(), 0);
  return {all.data(), static_cast<std::size_t>(size < 0 ? 0 : size)};
}

bool Actor::prints(const std::string& text) const {
  return eventually([&] { return printed().find(text) != std::string::npos; });
}

}  // namespace tolk::test
