// Connections of other users that reach a pipe because its directory was made accessible after the
// server's start.
#include <filesystem>

#include "tests/access/access_test.h"
#include "tests/e2e/support/waiting.h"

namespace tolk::test {
namespace {

namespace fs = std::filesystem;

class OpenedDirectory : public AccessTest {
 protected:
  void SetUp() override {
    AccessTest::SetUp();
    make_directory(directory, user.id(), 0700);
    server = server_of(user.id());
    ASSERT_EQ(server->hear(), "listens");
    fs::permissions(directory, fs::perms::all);
    fs::permissions(socket, fs::perms::all);
  }
  std::string connection_of(uid_t who) const {
    return Actor(who, [&](Talk& talk) { be_raw_client(talk, socket); }).hear();
  }
  std::string start_line() const { return "Pipe Tolk Version: 1.1.0.12 port:" + name + "\n"; }
  std::string refusal() const {
    return "Client refused: user " + std::to_string(other.id()) + "\n";
  }
  int descriptors() const {
    server->tell("count");
    return std::stoi(server->hear());
  }

  std::unique_ptr<Actor> server;
};

// No hook runs and no message is read, not even the empty one, which would print a line.
TEST_F(OpenedDirectory, OtherUserIsRefusedBeforeAnyRead) {
  EXPECT_EQ(connection_of(other.id()), "refused");
  EXPECT_TRUE(server->prints(refusal()));
  EXPECT_EQ(server->printed(), start_line() + refusal());
}

TEST_F(OpenedDirectory, TheUserIsServed) {
  EXPECT_EQ(connection_of(user.id()), "served");
  EXPECT_TRUE(server->prints("hook connect\n"));
}

TEST_F(OpenedDirectory, RootIsServed) { EXPECT_EQ(connection_of(0), "served"); }

TEST_F(OpenedDirectory, RefusalsDisturbNobodyAndLeakNothing) {
  fs::permissions(directory, fs::perms::owner_all);  // or the client would not go there
  const auto client = client_of(user.id());
  ASSERT_EQ(client->hear(), "connected");
  fs::permissions(directory, fs::perms::all);
  const int before = descriptors();
  constexpr int kStrangers = 30;
  for (int i = 0; i < kStrangers; ++i) {
    EXPECT_EQ(connection_of(other.id()), "refused");
    client->tell("call");
    EXPECT_EQ(client->hear(), "answered");
  }
  EXPECT_TRUE(eventually([&] { return descriptors() == before; }));
  EXPECT_EQ(server->printed().find("hook closed"), std::string::npos);
}

TEST_F(OpenedDirectory, LogSinkMayCloseTheServerDuringARefusal) {
  server->tell("close when one is refused");
  ASSERT_EQ(server->hear(), "will do");
  EXPECT_EQ(connection_of(other.id()), "refused");
  // The client sees its end before the sink has heard of the refusal.
  EXPECT_TRUE(eventually([&] {
    server->tell("is it running");
    return server->hear() == "no";
  }));
}

TEST_F(OpenedDirectory, OnceClosedRefusesOtherUsers) {
  fs::permissions(directory, fs::perms::owner_all);
  EXPECT_EQ(connection_of(other.id()), "no way");
  fs::permissions(directory, fs::perms::all);
  fs::permissions(socket, fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(connection_of(other.id()), "no way");
}

}  // namespace
}  // namespace tolk::test
