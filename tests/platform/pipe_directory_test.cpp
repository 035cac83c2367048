#include "platform/pipe_directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uv.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "tests/platform/temp_directory.h"

namespace tolk::platform {
namespace {

namespace fs = std::filesystem;

// Every one of them lets somebody else at least look a name up or make one.
constexpr std::array<mode_t, 6> kOpenToOthers = {0777, 0755, 0750, 0701, 0710, 0720};

// The user that runs the test, and two roots that the test makes for itself.
class PipeDirectoryTest : public testing::Test {
 protected:
  PipeDirectoryTest() {
    fs::create_directory(runtime_root_);
    fs::create_directory(temp_root_);
  }

  PipeDirectory find() const { return find_for(user_); }
  PipeDirectory find_for(unsigned user) const {
    return pipe_directory(runtime_root_, temp_root_, user);
  }
  std::string runtime(unsigned user) const { return runtime_root_ + "/" + std::to_string(user); }
  std::string temporary(unsigned user) const {
    return temp_root_ + "/tolk-" + std::to_string(user);
  }

  static void make_directory(const std::string& path, mode_t mode) {
    ASSERT_TRUE(fs::create_directory(path));
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  }
  static mode_t mode_of(const std::string& path) {
    struct stat status {};
    lstat(path.c_str(), &status);
    return status.st_mode & 07777;
  }

  const test::TempDirectory root_;
  const std::string runtime_root_ = root_ / "run";
  const std::string temp_root_ = root_ / "tmp";
  const unsigned user_ = geteuid();
  const unsigned somebody_else_ = geteuid() + 1;
};

TEST_F(PipeDirectoryTest, PrivateRuntimeDirectoryIsTaken) {
  make_directory(runtime(user_), 0700);
  EXPECT_EQ(find().path, runtime(user_));
  EXPECT_FALSE(fs::exists(temporary(user_)));
}

TEST_F(PipeDirectoryTest, MissingRuntimeDirectoryIsPassedOver) {
  EXPECT_EQ(find().path, temporary(user_));
}

TEST_F(PipeDirectoryTest, RuntimeDirectoryThatOthersCanEnterIsPassedOver) {
  for (const mode_t mode : kOpenToOthers) {
    fs::remove(runtime(user_));
    make_directory(runtime(user_), mode);
    EXPECT_EQ(find().path, temporary(user_)) << std::oct << mode;
  }
}

TEST_F(PipeDirectoryTest, RuntimeDirectoryOfAnotherOwnerIsPassedOver) {
  make_directory(runtime(somebody_else_), 0700);
  make_directory(temporary(somebody_else_), 0700);
  EXPECT_EQ(find_for(somebody_else_).error, UV_EACCES);
}

TEST_F(PipeDirectoryTest, RuntimeSymlinkIsPassedOver) {
  make_directory(root_ / "elsewhere", 0700);
  fs::create_directory_symlink(root_ / "elsewhere", runtime(user_));
  EXPECT_EQ(find().path, temporary(user_));
}

TEST_F(PipeDirectoryTest, RuntimePlainFileIsPassedOver) {
  std::ofstream(runtime(user_)) << "in the way";
  EXPECT_EQ(find().path, temporary(user_));
}

TEST_F(PipeDirectoryTest, TemporaryDirectoryIsMadePrivate) {
  const PipeDirectory found = find();
  EXPECT_EQ(found.error, 0);
  EXPECT_TRUE(fs::is_directory(found.path));
  EXPECT_EQ(mode_of(found.path), 0700u);
}

TEST_F(PipeDirectoryTest, TemporaryDirectoryIsFoundAgain) {
  const std::string first = find().path;
  std::ofstream(first + "/kept") << "x";
  EXPECT_EQ(find().path, first);
  EXPECT_TRUE(fs::exists(first + "/kept"));
}

TEST_F(PipeDirectoryTest, TemporaryDirectoryThatOthersCanEnterIsRefused) {
  for (const mode_t mode : kOpenToOthers) {
    fs::remove(temporary(user_));
    make_directory(temporary(user_), mode);
    EXPECT_EQ(find().error, UV_EACCES) << std::oct << mode;
    EXPECT_EQ(mode_of(temporary(user_)), mode);  // refused, not repaired
  }
}

TEST_F(PipeDirectoryTest, TemporaryDirectoryOfAnotherOwnerIsRefused) {
  make_directory(temporary(somebody_else_), 0700);
  const PipeDirectory found = find_for(somebody_else_);
  EXPECT_EQ(found.error, UV_EACCES);
  EXPECT_EQ(found.path, "");
}

TEST_F(PipeDirectoryTest, TemporarySymlinkIsRefused) {
  make_directory(root_ / "elsewhere", 0700);
  fs::create_directory_symlink(root_ / "elsewhere", temporary(user_));
  EXPECT_EQ(find().error, UV_ENOTDIR);
}

TEST_F(PipeDirectoryTest, DanglingTemporarySymlinkIsRefusedAndNotFilled) {
  fs::create_directory_symlink(root_ / "nowhere", temporary(user_));
  EXPECT_EQ(find().error, UV_ENOTDIR);
  EXPECT_FALSE(fs::exists(root_ / "nowhere"));
}

TEST_F(PipeDirectoryTest, TemporaryPlainFileIsRefused) {
  std::ofstream(temporary(user_)) << "in the way";
  EXPECT_EQ(find().error, UV_ENOTDIR);
}

TEST_F(PipeDirectoryTest, NoPlaceAtAllIsAnError) {
  fs::remove(temp_root_);
  EXPECT_EQ(find().error, UV_ENOENT);
}

TEST_F(PipeDirectoryTest, UmaskIsNeitherFollowedNorChanged) {
  const mode_t before = umask(0);
  EXPECT_EQ(mode_of(find().path), 0700u);
  EXPECT_EQ(umask(before), 0u);
}

}  // namespace
}  // namespace tolk::platform
