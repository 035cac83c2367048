// Files at a pipe's name inside a directory with correct permissions. A server replaces what the
// user's own servers left; what another user put there is kept and not used.
#include <filesystem>

#include "tests/access/access_test.h"

namespace tolk::test {
namespace {

namespace fs = std::filesystem;

class NameOfAPipe : public AccessTest {
 protected:
  void SetUp() override {
    AccessTest::SetUp();
    make_directory(directory, user.id(), 0700);
  }
  void expect_server_refused(const std::string& error) const {
    const auto before = everything(directory);
    const auto server = server_of(user.id());
    EXPECT_EQ(server->hear(), "failed");
    EXPECT_TRUE(server->prints("Bind error: " + error + "\n")) << server->printed();
    EXPECT_EQ(everything(directory), before);
  }
  void expect_client_refused() const {
    const auto before = everything(directory);
    const auto client = client_of(user.id());
    EXPECT_EQ(client->hear(), "failed");
    EXPECT_TRUE(client->prints("cant connect: " + name + " \n")) << client->printed();
    EXPECT_EQ(everything(directory), before);
  }
  // A plain server of `who` that others can connect to, at the name.
  std::unique_ptr<Actor> squatter_of(uid_t who) const {
    fs::permissions(directory, fs::perms::all);  // or no other user could create it
    auto squatter = std::make_unique<Actor>(who, [&](Talk& talk) { be_raw_server(talk, socket); });
    EXPECT_EQ(squatter->hear(), "listens");
    fs::permissions(directory, fs::perms::owner_all);
    return squatter;
  }
};

TEST_F(NameOfAPipe, StaleSocketIsReplacedByAServer) {
  server_of(user.id())->hear();  // and is killed
  ASSERT_TRUE(fs::is_socket(socket));
  expect_recovered();
}

TEST_F(NameOfAPipe, StaleSocketIsNotChangedByAClient) {
  server_of(user.id())->hear();
  ASSERT_TRUE(fs::is_socket(socket));
  expect_client_refused();
}

TEST_F(NameOfAPipe, OwnPlainFileIsReplacedByAServer) {
  make_file(socket, user.id());
  expect_recovered();
}

TEST_F(NameOfAPipe, OwnPlainFileIsNotChangedByAClient) {
  make_file(socket, user.id());
  expect_client_refused();
}

TEST_F(NameOfAPipe, OwnLockFileWithoutALockIsIgnored) {
  make_file(lock, user.id());
  expect_recovered();
}

TEST_F(NameOfAPipe, LinkIsReplacedAndItsTargetIsKept) {
  make_file(directory + "/precious", user.id());
  make_link(directory + "/precious", socket, user.id());
  expect_recovered();
  EXPECT_TRUE(fs::is_regular_file(directory + "/precious"));
}

TEST_F(NameOfAPipe, LinkAsLockFileIsRefused) {
  make_file(directory + "/precious", user.id());
  make_link(directory + "/precious", lock, user.id());
  expect_server_refused("ELOOP");
}

TEST_F(NameOfAPipe, LiveServerKeepsItsName) {
  const auto first = server_of(user.id());
  ASSERT_EQ(first->hear(), "listens");
  expect_server_refused("EADDRINUSE");
  const auto client = client_of(user.id());
  ASSERT_EQ(client->hear(), "connected");
  client->tell("call");
  EXPECT_EQ(client->hear(), "answered");
}

TEST_F(NameOfAPipe, LockAloneKeepsTheNameOfALiveServer) {
  make_directory(directory + "/parked", user.id(), 0700);
  const auto first = server_of(user.id());
  ASSERT_EQ(first->hear(), "listens");
  fs::rename(socket, directory + "/parked/socket");
  expect_server_refused("EADDRINUSE");
}

TEST_F(NameOfAPipe, OtherUsersPlainFileIsNotRemoved) {
  make_file(socket, other.id(), 0666);
  expect_server_refused("EACCES");
  expect_client_refused();
}

TEST_F(NameOfAPipe, OtherUsersLinkIsNotRemoved) {
  make_link(directory, socket, other.id());
  expect_server_refused("EACCES");
  expect_client_refused();
}

TEST_F(NameOfAPipe, OtherUsersDirectoryIsNotRemoved) {
  make_directory(socket, other.id(), 0777);
  expect_server_refused("EACCES");
  expect_client_refused();
}

TEST_F(NameOfAPipe, OtherUsersWritableLockFileIsNeitherUsedNorRemoved) {
  make_file(lock, other.id(), 0666);
  expect_server_refused("EACCES");
}

TEST_F(NameOfAPipe, OtherUsersPrivateLockFileIsNotRemoved) {
  make_file(lock, other.id());
  expect_server_refused("EACCES");
}

TEST_F(NameOfAPipe, OtherUsersLiveServerKeepsItsSocket) {
  const auto squatter = squatter_of(other.id());
  expect_server_refused("EACCES");
}

TEST_F(NameOfAPipe, OtherUsersLiveServerGetsNoByteFromAClient) {
  const auto squatter = squatter_of(other.id());
  const auto client = client_of(user.id());
  EXPECT_EQ(client->hear(), "failed");
  EXPECT_EQ(squatter->hear(), "0 bytes");
  EXPECT_EQ(client->printed(), "Pipe: Tolk Version: 1.1.0.12\nServer refused: user " +
                                   std::to_string(other.id()) + "\ncant connect: " + name + " \n");
}

TEST_F(NameOfAPipe, ServerOfRootIsAccepted) {
  const auto squatter = squatter_of(0);
  const auto client = client_of(user.id());
  // Its first bytes are the version check, which this one never answers.
  EXPECT_TRUE(client->prints("connected: " + name + " \n")) << client->printed();
}

}  // namespace
}  // namespace tolk::test
