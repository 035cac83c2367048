// What a server's session asks of its side, and what it does by default.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <tests/platform/temp_directory.h>
#include <tests/sessions/raw_sockets_posix.h>
#include <tests/sessions/recording_sides.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "sessions/server_session.h"
#include "tests/sanitized.h"

namespace {

using tolk::Endpoint;
using tolk::Phase;
using tolk::ServerSession;
using tolk::test::RawSocket;
using tolk::test::RecordingServer;
using Kind = Endpoint::Kind;

const Endpoint kAnyTcp4{Kind::tcp4, "127.0.0.1", "0"};

std::string pipe_name_of_test() { return "server-session-test-" + std::to_string(getpid()); }

// A server that listens while this lives.
template <class SideOfTest>
class RunningServer {
 public:
  explicit RunningServer(const Endpoint& where)
      : session_(std::make_shared<ServerSession>(*side, where)) {
    EXPECT_TRUE(session_->start_thread());
    session_->wait_until_decided();
  }
  ~RunningServer() { close(); }
  RunningServer(const RunningServer&) = delete;
  RunningServer& operator=(const RunningServer&) = delete;

  bool listens() const { return session_->phase() == Phase::live; }
  // On the loop thread, and waits for it.
  template <class Function>
  void run_there(Function function) {
    tolk::test::Event ran;
    EXPECT_TRUE(session_->post(tolk::make_task([&] {
      tolk::enter_loop();
      function(*session_);
      ran.set();
    })));
    EXPECT_TRUE(ran.wait());
  }
  Endpoint address() {
    Endpoint bound;
    run_there([&](ServerSession& session) {
      tolk::enter_loop();
      bound = session.bound_address();
    });
    return bound;
  }
  void stop_listening() {
    run_there([](ServerSession& session) {
      tolk::enter_loop();
      session.stop_listening();
    });
  }
  void close() {
    session_->enter(Phase::close_asked);
    session_->wake_for_end();
    session_->wait_until_ended();
  }

  const std::shared_ptr<SideOfTest> side = std::make_shared<SideOfTest>();

 private:
  const std::shared_ptr<ServerSession> session_;
};

RawSocket connected_to(const Endpoint& where) {
  RawSocket socket(where);
  EXPECT_EQ(socket.connect(), 0);
  return socket;
}

// In a directory of its own, which has a file that is named like the port.
class PortFile : public testing::Test {
 protected:
  PortFile() {
    std::filesystem::current_path(directory_.path());
    std::ofstream("0") << "x";
  }
  ~PortFile() override { std::filesystem::current_path(before_); }

 private:
  const std::filesystem::path before_ = std::filesystem::current_path();
  const tolk::test::TempDirectory directory_;
};

TEST_F(PortFile, IsRemovedByDefault) {
  const RunningServer<RecordingServer> server(kAnyTcp4);
  EXPECT_TRUE(server.listens());
  EXPECT_FALSE(std::filesystem::exists("0"));
}

TEST_F(PortFile, StaysWhereTheSideSaysSo) {
  struct SideOfTest : RecordingServer {
    bool removes_port_file() const override { return false; }
  };
  const RunningServer<SideOfTest> server(kAnyTcp4);
  EXPECT_TRUE(server.listens());
  EXPECT_TRUE(std::filesystem::exists("0"));
}

struct ForgettingServer : RecordingServer {
  bool keeps_connections() const override { return false; }
  // Only the last is needed, and a list of all would itself take memory.
  void on_connecting(int) TOLK_LOOP override {}
  void on_accepted(int, bool, int) TOLK_LOOP override {}
  void on_client_gone(int, int) TOLK_LOOP override {}
  void on_client_left(int, bool) TOLK_LOOP override { ++left; }

  std::atomic<int> left{0};
};

void come_and_go(const Endpoint& where, int times) {
  for (int i = 0; i < times; ++i) {
    const RawSocket socket(where);
    ASSERT_EQ(socket.connect(), 0);
    ASSERT_TRUE(i % 2 == 0 || socket.send("xy"));
  }
}

template <class Server>
void wait_until_left(Server& server, int count) {
  while (server.side->left < count) server.run_there([](ServerSession&) {});
  server.run_there([](ServerSession&) {});  // and the handle is closed
}

#if defined(__GLIBC__)
// Of the whole process. A sanitizer's build says 0.
std::size_t bytes_in_use() { return mallinfo2().uordblks; }

TEST(ForgottenConnections, MemoryIsFlatWhileTenThousandComeAndGo) {
  RunningServer<ForgettingServer> server({Kind::pipe, "", pipe_name_of_test()});
  const Endpoint where = server.address();
  // In waves, so that never more than these are open at a time.
  constexpr int kWave = 100;
  std::size_t before = 0;
  for (int gone = kWave; gone <= 10100; gone += kWave) {
    come_and_go(where, kWave);
    wait_until_left(server, gone);
    if (before == 0) before = bytes_in_use();
  }
  EXPECT_LT(bytes_in_use(), before + 200000);
}
#endif

// In any order; each is forgotten once, and the others go on.
TEST(ForgottenConnections, OneThatLeavesDisturbsNoOther) {
  RunningServer<ForgettingServer> server({Kind::pipe, "", pipe_name_of_test()});
  std::vector<RawSocket> sockets;
  for (int i = 0; i < 20; ++i) sockets.push_back(connected_to(server.address()));
  for (const std::size_t leaving : {0U, 19U, 7U, 8U, 3U}) sockets[leaving].close();
  wait_until_left(server, 5);
  EXPECT_TRUE(sockets[10].send(std::string(4, '\0')));
  EXPECT_TRUE(server.side->told.wait_for("message"));
  sockets.clear();
  wait_until_left(server, 20);
}

TEST(KeptConnections, IdNeverComesBackByDefault) {
  struct SideOfTest : RecordingServer {
    void on_connecting(int id) TOLK_LOOP override { told.add(std::to_string(id)); }
    void on_accepted(int, bool, int) TOLK_LOOP override {}
    void on_client_gone(int, int) TOLK_LOOP override {}
  };
  RunningServer<SideOfTest> server({Kind::pipe, "", pipe_name_of_test()});
  for (int gone = 1; gone <= 50; ++gone) {
    come_and_go(server.address(), 1);
    ASSERT_TRUE(server.side->told.wait_for("left", gone));
    server.run_there([](ServerSession&) {});  // its memory would be free now
  }
  std::vector<std::string> ids = server.side->told.all();
  std::erase(ids, "left");
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(std::unique(ids.begin(), ids.end()) - ids.begin(), 50);
}

TEST(MayAccept, OneTooManyIsClosedAtOnceAndUntold) {
  struct SideOfTest : RecordingServer {
    bool may_accept(std::size_t count) TOLK_LOOP override { return count < 2; }
  };
  for (const Endpoint& where : {kAnyTcp4, Endpoint{Kind::pipe, "", pipe_name_of_test()}}) {
    RunningServer<SideOfTest> server(where);
    const std::string kind = where.is_tcp() ? "tcp " : "pipe ";
    RawSocket first = connected_to(server.address());
    const RawSocket second = connected_to(server.address());
    ASSERT_TRUE(server.side->told.wait_for(kind + "2"));
    for (int i = 0; i < 5; ++i) {
      const RawSocket third = connected_to(server.address());
      EXPECT_TRUE(third.reads_end());
    }
    first.close();
    ASSERT_TRUE(server.side->told.wait_for("left"));
    const RawSocket fourth = connected_to(server.address());
    EXPECT_TRUE(server.side->told.wait_for(kind + "2", 2));
    EXPECT_EQ(server.side->told.all(),
              (std::vector<std::string>{"connecting", kind + "1", "connecting", kind + "2",
                                        "gone EOF", "left", "connecting", kind + "2"}));
  }
}

TEST(BoundAddress, HasThePortThatTheSystemChose) {
  RunningServer<RecordingServer> server(kAnyTcp4);
  const Endpoint bound = server.address();
  EXPECT_EQ(bound.kind, Kind::tcp4);
  EXPECT_EQ(bound.host, "127.0.0.1");
  EXPECT_GT(bound.port(), 0);
  connected_to(bound);
  EXPECT_TRUE(server.side->told.wait_for("tcp 1"));
}

TEST(BoundAddress, IsTheNameOfAPipe) {
  RunningServer<RecordingServer> server({Kind::pipe, "", pipe_name_of_test()});
  EXPECT_EQ(server.address().kind, Kind::pipe);
  EXPECT_EQ(server.address().name, pipe_name_of_test());
}

TEST(StopListening, ConnectionsGoOnAndTheAddressIsFree) {
  for (const Endpoint& where : {kAnyTcp4, Endpoint{Kind::pipe, "", pipe_name_of_test()}}) {
    RunningServer<RecordingServer> server(where);
    const Endpoint bound = server.address();
    const RawSocket client = connected_to(bound);
    ASSERT_TRUE(server.side->told.wait_for(where.is_tcp() ? "tcp 1" : "pipe 1"));
    server.stop_listening();
    server.stop_listening();
    EXPECT_NE(RawSocket(bound).connect(), 0);
    EXPECT_TRUE(client.send(std::string(4, '\0')));
    EXPECT_TRUE(server.side->told.wait_for("message"));
    RunningServer<RecordingServer> next(bound);
    EXPECT_TRUE(next.listens()) << "while the first still has its client";
    connected_to(bound);
    EXPECT_TRUE(next.side->told.wait_for(where.is_tcp() ? "tcp 1" : "pipe 1"));
  }
}

bool is_open(int descriptor) { return fcntl(descriptor, F_GETFD) >= 0; }

Endpoint inherits(int descriptor) {
  Endpoint where;
  where.inherited = descriptor;
  return where;
}

TEST(InheritedSocket, OfTcpIsServedAndClosed) {
  RawSocket socket(kAnyTcp4);
  ASSERT_EQ(socket.bind(), 0);
  ASSERT_EQ(socket.listen(), 0);
  const Endpoint where = socket.bound_to(kAnyTcp4);
  const int descriptor = socket.release();
  RunningServer<RecordingServer> server(inherits(descriptor));
  ASSERT_TRUE(server.listens());
  EXPECT_EQ(server.address().kind, Kind::tcp4);
  EXPECT_EQ(server.address().host, where.host);
  EXPECT_EQ(server.address().name, where.name);
  connected_to(where);
  EXPECT_TRUE(server.side->told.wait_for("tcp 1"));
  server.stop_listening();
  EXPECT_FALSE(is_open(descriptor));
  EXPECT_NE(RawSocket(where).connect(), 0);
}

TEST(InheritedSocket, OfAPipeIsServedAndItsFileStays) {
  const tolk::test::TempDirectory directory;
  const Endpoint where{Kind::pipe, "", directory / "socket"};
  RawSocket socket(where);
  ASSERT_EQ(socket.bind(), 0);
  ASSERT_EQ(socket.listen(), 0);
  const int descriptor = socket.release();
  RunningServer<RecordingServer> server(inherits(descriptor));
  ASSERT_TRUE(server.listens());
  EXPECT_EQ(server.address().kind, Kind::pipe);
  EXPECT_EQ(server.address().name, where.name);
  connected_to(where);
  EXPECT_TRUE(server.side->told.wait_for("pipe 1"));
  server.close();
  EXPECT_FALSE(is_open(descriptor));
  EXPECT_TRUE(std::filesystem::exists(where.name)) << "it belongs to whoever made it";
}

#if !TOLK_LOOKS_THROUGH_PIPES
// While it lives, nothing opens another descriptor.
class NoDescriptors {
 public:
  NoDescriptors() {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    set({0, before_.rlim_max});
  }
  ~NoDescriptors() { set(before_); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  static void set(const rlimit& limit) { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0); }

  rlimit before_{};
};

// The listener pauses then; the socket does not.
TEST(InheritedSocket, ClientWaitsWhileTheProcessHasNoDescriptor) {
  RawSocket socket(kAnyTcp4);
  ASSERT_EQ(socket.bind(), 0);
  ASSERT_EQ(socket.listen(), 0);
  const RawSocket client(socket.bound_to(kAnyTcp4));
  RunningServer<RecordingServer> server(inherits(socket.release()));
  ASSERT_TRUE(server.listens());
  {
    const NoDescriptors shortage;
    ASSERT_EQ(client.connect(), 0);
    ASSERT_TRUE(server.side->told.wait_for("connection error", 5));
    server.run_there([](ServerSession&) {});  // behind the turn that had the errors
  }
  EXPECT_TRUE(server.side->told.wait_for("tcp 1"));
  EXPECT_TRUE(client.send(std::string(4, '\0')));
  EXPECT_TRUE(server.side->told.wait_for("message"));
}
#endif

TEST(InheritedSocket, ThatDoesNotListenIsRefusedAndStaysTheHosts) {
  const RawSocket socket(kAnyTcp4);
  RunningServer<RecordingServer> server(inherits(socket.descriptor()));
  EXPECT_FALSE(server.listens());
  EXPECT_EQ(server.side->told.all(), std::vector<std::string>{"Bind EINVAL"});
  EXPECT_TRUE(is_open(socket.descriptor()));
}

TEST(InheritedSocket, ThatIsNoSocketIsRefused) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  RunningServer<RecordingServer> server(inherits(ends[0]));
  EXPECT_EQ(server.side->told.all(), std::vector<std::string>{"Bind ENOTSOCK"});
  ::close(ends[0]);
  ::close(ends[1]);
  constexpr int kNotOpen = 1 << 30;
  RunningServer<RecordingServer> closed(inherits(kNotOpen));
  EXPECT_EQ(closed.side->told.all(), std::vector<std::string>{"Bind EBADF"});
}

}  // namespace
