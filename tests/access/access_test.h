// The fixture of the access tests: two users, one of whom has pipes, and the parts that they play.
// All their files are removed when a test ends.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/access/users.h"

namespace tolk::test {

// The parts. Each reports its result, and then takes commands until the test ends.

// A library server: reports "listens" or "failed"; on "count" it reports its descriptors. Its
// hooks print "hook connect" and "hook closed".
void be_server(Talk& talk, const std::string& name);
// A library client: reports "connected" or "failed"; on "call" it reports "answered" or
// "null".
void be_client(Talk& talk, const std::string& name);
// A plain socket that listens at `path`, open to all: reports "listens", then for its first
// connection the number of bytes that came before it was closed.
void be_raw_server(Talk& talk, const std::string& path);
// A plain socket that sends an empty message, which a server has a line for, and a call of "echo":
// reports "refused" when the connection ends without a byte, "served" when the answer comes, or
// "no way" when the connect fails.
void be_raw_client(Talk& talk, const std::string& path);

class AccessTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(geteuid_of_test(), 0U) << "needs root"; }

  static unsigned geteuid_of_test();
  // A directory that `owner` owns.
  static void make_directory(const std::string& path, uid_t owner, unsigned mode);
  static void make_file(const std::string& path, uid_t owner, unsigned mode = 0600);
  static void make_link(const std::string& target, const std::string& path, uid_t owner);
  // Everything under `path`, itself included, with kind, owner and mode: to see that it stays.
  static std::vector<std::string> everything(const std::string& path);

  std::unique_ptr<Actor> server_of(uid_t who) const;
  std::unique_ptr<Actor> client_of(uid_t who) const;
  // Whether a new server of the user's comes to listen and a new client of theirs is answered.
  void expect_recovered() const;

  const TestUser user;
  const TestUser other;
  const std::string name = std::to_string(user.id());
  const std::string directory = user.temporary();
  const std::string socket = directory + "/echo.sock." + name;
  const std::string lock = socket + ".lock";
};

}  // namespace tolk::test
