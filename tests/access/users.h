// Test users, and processes that run as them. The tests run as root.
//
//   Actor server(user, [](Talk& talk) { ... talk.tell("listens"); talk.hear(); ... });
//   EXPECT_EQ(server.hear(), "listens");
//
// Thread: one in the test; the library is only ever used in actors, which are forked before it.
// Failure: every wait has a limit and then returns "". An alarm ends an actor that hangs.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "tests/child_process.h"

namespace tolk::test {

// A user id that no other test uses, in this run or a concurrent one.
class TestUser {
 public:
  TestUser();
  ~TestUser();
  TestUser(const TestUser&) = delete;
  TestUser& operator=(const TestUser&) = delete;

  uid_t id() const { return id_; }
  // Where the user's pipes are.
  std::string temporary() const { return "/tmp/tolk-" + std::to_string(id_); }
  std::string runtime() const { return "/run/user/" + std::to_string(id_); }

 private:
  uid_t id_ = 0;
  std::string mark_;
};

// The channel between a test and its actor: words, one at a time.
class Talk {
 public:
  explicit Talk(int descriptor) : descriptor_(descriptor) {}

  void tell(const std::string& word) const;
  std::string hear() const;  // "" if the other side has ended, or sends nothing within the limit

 private:
  const int descriptor_;
};

class Actor {
 public:
  Actor(uid_t user, const std::function<void(Talk&)>& role);
  ~Actor();  // kills it unless it has ended
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;

  void tell(const std::string& word) const { talk_.tell(word); }
  std::string hear() const { return talk_.hear(); }
  // What it has written to standard output so far.
  std::string printed() const;
  bool prints(const std::string& text) const;  // waits for it
  void kill() { process_.kill_and_wait(); }

 private:
  SocketPair ends_{SOCK_SEQPACKET};  // packets: a word arrives as it was said
  const Talk talk_{ends_.ours()};
  const int output_;
  ChildProcess process_;
};

}  // namespace tolk::test
