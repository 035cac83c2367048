#include "platform/pipe_name.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <uv.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/child_process.h"
#include "tests/platform/temp_directory.h"

namespace tolk::platform {
namespace {

namespace fs = std::filesystem;
using test::ChildProcess;

mode_t mode_of(const std::string& path) {
  struct stat status {};
  lstat(path.c_str(), &status);
  return status.st_mode & 07777;
}

TEST(PipeAddress, IsASocketFileInADirectoryClosedToOthers) {
  const PipeAddress address = pipe_address("5000");
  ASSERT_EQ(address.error, 0);
  const fs::path path = address.path;
  EXPECT_TRUE(path.is_absolute());  // so it is the same in every working directory
  EXPECT_EQ(path.filename(), "echo.sock.5000");
  EXPECT_EQ(mode_of(path.parent_path()) & 077, 0u);
}

TEST(PipeAddress, FollowsNoEnvironmentVariable) {
  const std::string before = pipe_address("5000").path;
  for (const char* variable : {"XDG_RUNTIME_DIR", "TMPDIR", "HOME"}) {
    const char* own = getenv(variable);
    const std::string kept = own != nullptr ? own : "";
    setenv(variable, "/nowhere", 1);
    EXPECT_EQ(pipe_address("5000").path, before) << variable;
    if (own != nullptr) {
      setenv(variable, kept.c_str(), 1);
    } else {
      unsetenv(variable);
    }
  }
}

TEST(PipeAddress, NameThatJustFitsIsTaken) {
  const std::size_t others_bytes = pipe_address("").path.size();
  const std::size_t most_bytes = sizeof(sockaddr_un::sun_path) - 1;
  const PipeAddress longest = pipe_address(std::string(most_bytes - others_bytes, 'n'));
  EXPECT_EQ(longest.error, 0);
  EXPECT_EQ(longest.path.size(), most_bytes);
}

TEST(PipeAddress, OneByteMoreIsRefused) {
  const std::size_t others_bytes = pipe_address("").path.size();
  const std::size_t too_many_bytes = sizeof(sockaddr_un::sun_path);
  const PipeAddress refused = pipe_address(std::string(too_many_bytes - others_bytes, 'n'));
  EXPECT_EQ(refused.error, UV_ENAMETOOLONG);
  EXPECT_EQ(refused.path, "");
}

TEST(PipeAddress, NameThatWouldLeaveTheDirectoryIsRefused) {
  EXPECT_EQ(pipe_address("/../../etc/x").error, UV_EINVAL);
  EXPECT_EQ(pipe_address("a/b").error, UV_EINVAL);
  EXPECT_EQ(pipe_address(std::string_view("a\0b", 3)).error, UV_EINVAL);
  EXPECT_EQ(pipe_address("..").error, 0);  // "echo.sock..." is a name like any other
}

class PipeNameLockTest : public testing::Test {
 protected:
  // A socket file that nobody listens on, as a server that was killed leaves it.
  void leave_socket() const {
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path_.size(), sizeof(address.sun_path));
    path_.copy(address.sun_path, path_.size());
    ASSERT_EQ(bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    close(descriptor);
  }
  int acquire_in_another_process() const {
    return -ChildProcess([this] { return -PipeNameLock().acquire(path_); }).wait();
  }

  const test::TempDirectory directory_;
  const std::string path_ = directory_ / "echo.sock.5000";
  const std::string lock_path_ = path_ + ".lock";
  PipeNameLock lock_;
};

TEST_F(PipeNameLockTest, FreeNameIsGranted) {
  EXPECT_EQ(lock_.acquire(path_), 0);
  EXPECT_TRUE(fs::is_regular_file(lock_path_));
  EXPECT_EQ(mode_of(lock_path_), 0600u);
}

TEST_F(PipeNameLockTest, SecondServerOfTheProcessIsToldThatItIsInUse) {
  ASSERT_EQ(lock_.acquire(path_), 0);
  EXPECT_EQ(PipeNameLock().acquire(path_), UV_EADDRINUSE);
}

TEST_F(PipeNameLockTest, ServerOfAnotherProcessIsToldThatItIsInUse) {
  ASSERT_EQ(lock_.acquire(path_), 0);
  EXPECT_EQ(acquire_in_another_process(), UV_EADDRINUSE);
}

TEST_F(PipeNameLockTest, LoserTouchesNothing) {
  ASSERT_EQ(lock_.acquire(path_), 0);
  leave_socket();
  ASSERT_EQ(PipeNameLock().acquire(path_), UV_EADDRINUSE);
  EXPECT_TRUE(fs::is_socket(path_));
  EXPECT_TRUE(fs::exists(lock_path_));
}

TEST_F(PipeNameLockTest, OtherNamesAreFree) {
  ASSERT_EQ(lock_.acquire(path_), 0);
  EXPECT_EQ(PipeNameLock().acquire(directory_ / "echo.sock.5001"), 0);
}

TEST_F(PipeNameLockTest, StaleSocketIsRemoved) {
  leave_socket();
  ASSERT_TRUE(fs::is_socket(path_));
  EXPECT_EQ(lock_.acquire(path_), 0);
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(PipeNameLockTest, OnlyTheFileOfTheNameIsRemoved) {
  std::ofstream(path_) << "stale";
  std::ofstream(path_ + "1") << "another name";
  ASSERT_EQ(lock_.acquire(path_), 0);
  EXPECT_FALSE(fs::exists(path_));
  EXPECT_TRUE(fs::exists(path_ + "1"));
}

TEST_F(PipeNameLockTest, SymlinkOfTheNameIsRemovedAndNotFollowed) {
  std::ofstream(directory_ / "precious") << "x";
  fs::create_symlink(directory_ / "precious", path_);
  ASSERT_EQ(lock_.acquire(path_), 0);
  EXPECT_FALSE(fs::is_symlink(path_));
  EXPECT_TRUE(fs::exists(directory_ / "precious"));
}

TEST_F(PipeNameLockTest, DirectoryOfTheNameIsRefused) {
  fs::create_directory(path_);
  EXPECT_EQ(lock_.acquire(path_), UV_EISDIR);
  EXPECT_TRUE(fs::is_directory(path_));
}

TEST_F(PipeNameLockTest, RefusedClaimLeavesTheNameFree) {
  fs::create_directory(path_);
  ASSERT_NE(lock_.acquire(path_), 0);
  EXPECT_FALSE(fs::exists(lock_path_));
  fs::remove(path_);
  EXPECT_EQ(acquire_in_another_process(), 0);
}

TEST_F(PipeNameLockTest, SymlinkAsLockFileIsRefused) {
  std::ofstream(directory_ / "precious") << "x";
  fs::create_symlink(directory_ / "precious", lock_path_);
  EXPECT_EQ(lock_.acquire(path_), UV_ELOOP);
  EXPECT_TRUE(fs::is_symlink(lock_path_));
}

TEST_F(PipeNameLockTest, MissingDirectoryIsAnError) {
  EXPECT_EQ(lock_.acquire(directory_ / "none/echo.sock.5000"), UV_ENOENT);
}

TEST_F(PipeNameLockTest, ReleaseFreesTheNameAndRemovesTheLockFile) {
  ASSERT_EQ(lock_.acquire(path_), 0);
  lock_.release();
  EXPECT_FALSE(fs::exists(lock_path_));
  EXPECT_EQ(acquire_in_another_process(), 0);
}

TEST_F(PipeNameLockTest, ReleaseTwiceLeavesTheNextServerAlone) {
  ASSERT_EQ(lock_.acquire(path_), 0);
  lock_.release();
  PipeNameLock next;
  ASSERT_EQ(next.acquire(path_), 0);
  lock_.release();
  EXPECT_EQ(acquire_in_another_process(), UV_EADDRINUSE);
}

TEST_F(PipeNameLockTest, EndOfTheObjectFreesTheName) {
  { EXPECT_EQ(PipeNameLock().acquire(path_), 0); }
  EXPECT_EQ(lock_.acquire(path_), 0);
}

TEST_F(PipeNameLockTest, AcquiringAnotherNameFreesTheFirst) {
  ASSERT_EQ(lock_.acquire(path_), 0);
  ASSERT_EQ(lock_.acquire(directory_ / "echo.sock.5001"), 0);
  EXPECT_EQ(acquire_in_another_process(), 0);
}

TEST_F(PipeNameLockTest, LeftLockFileOfADeadServerIsNoClaim) {
  std::ofstream(lock_path_) << "";
  EXPECT_EQ(lock_.acquire(path_), 0);
}

TEST_F(PipeNameLockTest, KilledServerFreesTheNameAndItsSocketIsRemoved) {
  std::array<int, 2> ready{};
  ASSERT_EQ(pipe(ready.data()), 0);
  ChildProcess server([&] {
    PipeNameLock held;
    if (held.acquire(path_) != 0) return 1;
    leave_socket();
    if (write(ready[1], "!", 1) != 1) return 1;
    while (true) pause();
  });
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  EXPECT_EQ(lock_.acquire(path_), UV_EADDRINUSE);
  server.kill_and_wait();
  EXPECT_TRUE(fs::is_socket(path_));
  EXPECT_EQ(lock_.acquire(path_), 0);
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(PipeNameLockTest, ForkedChildCannotEndTheClaimOfItsParent) {
  ASSERT_EQ(lock_.acquire(path_), 0);
  ChildProcess child([this] {
    lock_.release();
    return 0;
  });
  ASSERT_EQ(child.wait(), 0);
  EXPECT_TRUE(fs::exists(lock_path_));
  EXPECT_EQ(acquire_in_another_process(), UV_EADDRINUSE);
}

TEST_F(PipeNameLockTest, ForkedChildThatLivesOnDoesNotKeepAReleasedName) {
  ASSERT_EQ(lock_.acquire(path_), 0);
  const ChildProcess child([] {
    while (true) pause();
    return 0;
  });
  lock_.release();
  EXPECT_EQ(acquire_in_another_process(), 0);
}

TEST_F(PipeNameLockTest, LockFileIsClosedInStartedPrograms) {
  ASSERT_EQ(lock_.acquire(path_), 0);
  int found = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the iterator's own descriptor is listed too
    if (fs::read_symlink(entry, gone) != lock_path_) continue;
    ++found;
    const int flags = fcntl(std::stoi(entry.path().filename()), F_GETFD);
    EXPECT_EQ(flags & FD_CLOEXEC, FD_CLOEXEC);
  }
  EXPECT_EQ(found, 1);
}

TEST_F(PipeNameLockTest, LockFileOfAnotherServerSurvivesTheRelease) {
  ASSERT_EQ(lock_.acquire(path_), 0);
  fs::remove(lock_path_);  // somebody cleans up by hand
  PipeNameLock next;
  ASSERT_EQ(next.acquire(path_), 0);
  lock_.release();
  EXPECT_TRUE(fs::exists(lock_path_));
  EXPECT_EQ(acquire_in_another_process(), UV_EADDRINUSE);
}

TEST_F(PipeNameLockTest, ManyServersOneHolderAtATime) {
  constexpr int kServers = 4;
  constexpr int kClaims = 60;
  std::atomic<int> holders{0};
  std::atomic<int> collisions{0};
  const auto serve = [&] {
    PipeNameLock lock;
    for (int granted = 0; granted < kClaims;) {
      if (lock.acquire(path_) != 0) continue;
      if (holders.fetch_add(1) != 0) ++collisions;
      ++granted;
      std::this_thread::yield();  // so that the others look while the name is in use
      holders.fetch_sub(1);
      lock.release();
    }
  };
  std::array<std::thread, kServers> servers;
  for (std::thread& server : servers) server = std::thread(serve);
  for (std::thread& server : servers) server.join();
  EXPECT_EQ(collisions, 0);
}

TEST_F(PipeNameLockTest, SocketFileIsForItsOwnerOnly) {
  leave_socket();
  EXPECT_EQ(restrict_to_owner(path_), 0);
  EXPECT_EQ(mode_of(path_), 0600u);
}

TEST_F(PipeNameLockTest, MissingSocketFileCannotBeRestricted) {
  EXPECT_EQ(restrict_to_owner(path_), UV_ENOENT);
}

}  // namespace
}  // namespace tolk::platform
