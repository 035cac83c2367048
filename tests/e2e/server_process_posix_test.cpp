// A server and what only a POSIX process has: signals, a limit of descriptors, the files of a pipe.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

class PosixServer : public ServerTest {
 protected:
  void SetUp() override {
    register_echo();
    start();
  }
};
TOLK_OVER_TRANSPORTS(PosixServer);

TEST_P(PosixServer, LeavesTheSignalsOfTheProcessUnchanged) {
  RawClient client(address);
  struct sigaction before {};
  ASSERT_EQ(sigaction(SIGPIPE, nullptr, &before), 0);
  EXPECT_EQ(before.sa_handler, SIG_DFL) << "the disposition belongs to the host";
  sigset_t mask;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
  EXPECT_EQ(sigismember(&mask, SIGPIPE), 0) << "so is the mask of its threads";
}

TEST(ServerSignals, WriteToAPeerThatReadsNoMoreIsOneErrorLine) {
  ServerPtr server = make_server();
  const Address address = fresh_address(Transport::pipe);
  ASSERT_TRUE(start_server(server.get(), address));
  RawClient client(address);
  ASSERT_TRUE(client.is_greeted());
  Capture capture;
  client.socket.end_receiving();
  client.post("foo");
  EXPECT_TRUE(capture.wait_for_line("Write error: broken pipe")) << capture.text();
  EXPECT_TRUE(RawClient(address).is_greeted());
}

// What a killed server leaves stays until another server takes the name.
TEST(FreshAddress, IsNoPipeOfWhichAFileIsLeft) {
  const Address address = fresh_address(Transport::pipe);
  ServerPtr server = make_server();
  ASSERT_TRUE(start_server(server.get(), address)) << "it makes the directory";
  const int last = std::stoi(address.port);
  const std::string socket = pipe_path(std::to_string(last + 1));
  const std::string lock = pipe_path(std::to_string(last + 2)) + ".lock";
  std::ofstream(socket).close();
  std::ofstream(lock).close();
  EXPECT_EQ(fresh_address(Transport::pipe).port, std::to_string(last + 3));
  EXPECT_TRUE(std::filesystem::remove(socket));
  EXPECT_TRUE(std::filesystem::remove(lock));
}

// By bare system calls: see process_state_posix.cpp.
long take() { return syscall(SYS_dup, 0); }
void give_back(long descriptor) { syscall(SYS_close, descriptor); }

// No descriptor is left for a new connection: existing connections are served, and new ones are
// accepted once there are descriptors again.
TEST_P(PosixServer, RecoversFromAShortageOfDescriptors) {
  RawClient client(address);
  ASSERT_TRUE(serves(client));
  std::vector<long> taken;
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit low = before;
  low.rlim_cur = 200;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  for (long got = take(); got >= 0; got = take()) taken.push_back(got);
  const auto give_back_one = [&] {
    give_back(taken.back());
    taken.pop_back();
  };
  ASSERT_FALSE(taken.empty());
  give_back_one();  // for the socket of the client that is not accepted
  {
    RawClient turned_away(address, false);
    EXPECT_TRUE(serves(client));
    for (const long descriptor : taken) give_back(descriptor);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(serves(client));
  }
  EXPECT_TRUE(RawClient(address).is_greeted());
}

class PipeFiles : public testing::Test {
 protected:
  const Address address = fresh_address(Transport::pipe);
  const std::string path = pipe_path(address.port);
  ServerPtr server = make_server();
};

TEST_F(PipeFiles, SocketFileIsAccessibleToItsOwnerOnly) {
  ASSERT_TRUE(start_server(server.get(), address));
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(PipeFiles, RemovesItsFilesAtTheEnd) {
  ASSERT_TRUE(start_server(server.get(), address));
  server.reset();
  EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(path); }));
  EXPECT_FALSE(std::filesystem::exists(path + ".lock"));
}

TEST_F(PipeFiles, ReplacesTheFileOfADeadServer) {
  { std::ofstream(path) << "x"; }
  ASSERT_TRUE(start_server(server.get(), address));
  EXPECT_TRUE(RawClient(address).is_greeted());
}

}  // namespace
}  // namespace tolk::test
